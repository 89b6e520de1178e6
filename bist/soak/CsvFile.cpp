// SPDX-License-Identifier: MIT
#include "bist/soak/CsvFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

/// A new file outlives a loss of power when its directory is on the disk, too.
bool syncDirectoryOf(const std::string& fileName) {
  const std::filesystem::path directory = std::filesystem::absolute(fileName).parent_path();
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool done = fd >= 0 && ::fsync(fd) == 0;
  ::close(fd);
  return done;
}

}  // namespace

CsvFile::CsvFile(const std::string& fileName, bool resume) : name(fileName) {
  file =
      ::open(name.c_str(), O_RDWR | O_APPEND | O_CLOEXEC | (resume ? 0 : O_CREAT | O_EXCL), 0666);
  if (file < 0 && errno == EEXIST) {
    throw std::runtime_error(name + " exists: go on with it by --resume, or name another by --csv");
  }
  if (file < 0) {
    fail("cannot be opened");
  }
  try {
    read();
  } catch (...) {
    ::close(file);
    throw;
  }
}

CsvFile::~CsvFile() { ::close(file); }

void CsvFile::read() {
  struct stat status {};
  if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error(name + ": is no file that lines can be read from");
  }
  if (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error(name + ": another run writes to it");
  }
  std::string text;
  char buffer[65536];
  ssize_t size = 0;
  while ((size = ::read(file, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  if (size < 0) {
    fail("cannot be read");
  }
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', whole)) {
    before.push_back(text.substr(whole, end - whole));
    whole = end + 1;
  }
  cut = text.substr(whole);
}

void CsvFile::dropCutLine() {
  if (::ftruncate(file, static_cast<off_t>(whole)) != 0) {
    fail("cannot be written");
  }
}

void CsvFile::append(const std::string& line) {
  const std::string text = line + "\n";
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = ::write(file, text.data() + done, text.size() - done);
    if (size < 0 && errno != EINTR) {
      fail("cannot be written");
    }
    done += static_cast<std::size_t>(size < 0 ? 0 : size);
  }
  const bool first = whole == 0;
  whole += text.size();
  if (::fsync(file) != 0 || (first && !syncDirectoryOf(name))) {
    fail("cannot be written");
  }
}

void CsvFile::fail(const char* what) const {
  throw std::runtime_error(name + ": " + what + ": " + std::strerror(errno));
}
