// SPDX-License-Identifier: MIT
#include "bist/Draft.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "bist/Undo.h"

std::runtime_error Draft::cannotBeWritten(int error) const {
  return std::runtime_error(file + ": cannot be written (" + std::strerror(error) + ")");
}

Draft::Draft(Report& toReport, const std::string& fileName) : report(toReport), file(fileName) {
  struct stat before {};
  const bool exists = lstat(file.c_str(), &before) == 0;
  if (!exists || S_ISREG(before.st_mode)) {
    name = file + ".XXXXXX";
    fd = ::mkostemp(name.data(), O_CLOEXEC);
  }
  if (fd >= 0) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, exists ? before.st_mode & 07777 : 0666 & ~mask);
  } else if (exists) {
    name.clear();
    fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  }
  if (fd < 0) {
    throw cannotBeWritten(errno);
  }
  if (!name.empty()) {
    report.willSwitch(undoOfFile(name));
  }
}

Draft::~Draft() {
  ::close(fd);
  if (!name.empty()) {
    ::unlink(name.c_str());
    report.switchedBack();
  }
}

void Draft::write(const std::string& text) {
  if (name.empty()) {
    (void)!::ftruncate(fd, 0);  // of a file; others have no length
  }
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = TEMP_FAILURE_RETRY(::write(fd, text.data() + done, text.size() - done));
    if (size < 0) {
      throw cannotBeWritten(errno);
    }
    done += static_cast<std::size_t>(size);
  }
  if (name.empty()) {
    return;
  }
  if (::rename(name.c_str(), file.c_str()) != 0) {
    throw cannotBeWritten(errno);
  }
  name.clear();
  report.switchedBack();
}
