// SPDX-License-Identifier: MIT
#include "simulator/preload/Attributes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

// In front of the attribute's path in the name of its memory file; the mode stands between them.
constexpr char memoryFileStart[] = "/memfd:talvero-sim:";
constexpr char modes[] = {'r', 'w', 'u'};  // O_RDONLY, O_WRONLY, O_RDWR

// Whether this process has had an attribute open: one that has not pays nothing.
std::atomic<bool> attributesInUse{false};

/// The descriptor's attribute and access mode, if it is a memory file of ours.
struct OpenAttribute {
  std::optional<SysfsPath> path;
  char mode = 0;
};

OpenAttribute attributeOf(int fd) {
  const int before = errno;
  OpenAttribute result;
  // Only memory files know of seals: this answers for nearly all others, at the lowest price.
  if (attributesInUse && attached() && !nested() && fcntl(fd, F_GET_SEALS) >= 0) {
    const std::string target = targetOf(fd);
    const std::size_t start = std::strlen(memoryFileStart);
    if (startsWith(target, memoryFileStart)) {
      result.mode = target[start];
      // The kernel adds " (deleted)".
      result.path = sysfsPath(target.substr(start + 2, target.rfind(' ') - start - 2));
    }
  }
  errno = before;
  return result;
}

/// Fills a memory file. One that nobody has written to since is older than all others.
void setContent(int fd, const std::string& content) {
  const Nested nested;
  const timespec never[2] = {};
  (void)!ftruncate(fd, 0);
  (void)!pwrite(fd, content.data(), content.size(), 0);
  futimens(fd, never);
}

int createMemoryFile(const SysfsPath& path, const std::string& content, int flags) {
  const Nested nested;
  const char mode = modes[flags & O_ACCMODE];
  const std::string name =
      std::string(memoryFileStart).substr(std::strlen("/memfd:")) + mode + ":" + path.full;
  const int file = memfd_create(name.c_str(), MFD_CLOEXEC);
  if (file < 0) {
    return -1;
  }
  setContent(file, content);
  const int fd = ::open(linkOf(file).c_str(), flags & (O_ACCMODE | O_CLOEXEC | O_APPEND));
  ::close(file);
  return fd;
}

/// What has been written to a memory file that was empty before, or up to where writing has come to
/// in one that was not; no more than an attribute takes, a page.
std::string writtenText(int fd, char mode) {
  const Nested nested;
  struct stat status {};
  fstat(fd, &status);
  const off_t length = mode == 'w' ? status.st_size : lseek(fd, 0, SEEK_CUR);
  std::string text(static_cast<std::size_t>(std::clamp<off_t>(length, 0, 4096)), '\0');
  const int reader = ::open(linkOf(fd).c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t size = pread(reader, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  ::close(reader);
  lseek(fd, 0, SEEK_SET);
  return text;
}

bool isWritten(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && (status.st_mtim.tv_sec != 0 || status.st_mtim.tv_nsec != 0);
}

std::string contentOf(const SysfsPath& path, char mode) {
  std::string content;
  if (mode != 'w') {
    path.attributes->open(path.relative, false, content);
  }
  return content;
}

int store(const SysfsPath& path, const std::string& text) {
  const int error = path.attributes->store(path.relative, text);
  traceResult("write " + path.full + " " + inQuotes(text), error);
  return error;
}

std::vector<int> openDescriptors() {
  std::vector<int> descriptors;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    descriptors.push_back(std::stoi(entry.path().filename()));
  }
  return descriptors;
}

}  // namespace

int openAttribute(const SysfsPath& path, int flags) {
  const char mode = modes[flags & O_ACCMODE];
  std::string content;
  int error = (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0 ? EEXIST : 0;
  for (const bool writing : {false, true}) {
    if (error == 0 && mode != (writing ? 'r' : 'w')) {
      error = path.attributes->open(path.relative, writing, content);
    }
  }
  if (error != 0) {
    traceResult((mode == 'r' ? "read " : "write ") + path.full, error);
    errno = error;
    return -1;
  }
  if (mode != 'w') {
    trace("read " + path.full + " " + inQuotes(content));
  }
  attributesInUse = true;
  return createMemoryFile(path, mode == 'w' ? "" : content, flags);
}

bool isWritableAttribute(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  return attribute.path && attribute.mode != 'r';
}

std::optional<ssize_t> writeAttribute(int fd, const iovec* texts, int count) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'r') {
    return std::nullopt;
  }
  std::string text;
  for (int index = 0; index < count; ++index) {
    text.append(static_cast<const char*>(texts[index].iov_base), texts[index].iov_len);
  }
  const int error = text.empty() ? 0 : store(*attribute.path, text);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<ssize_t>(text.size());
}

int takeWritten(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'r' || !isWritten(fd)) {
    return 0;
  }
  const std::string text = writtenText(fd, attribute.mode);
  const int error = text.empty() ? 0 : store(*attribute.path, text);
  setContent(fd, contentOf(*attribute.path, attribute.mode));
  return error;
}

int takeAllWritten(void (*flush)()) {
  if (!attributesInUse) {
    return 0;
  }
  std::vector<int> descriptors = openDescriptors();
  const auto end = std::remove_if(descriptors.begin(), descriptors.end(),
                                  [](int fd) { return !isWritableAttribute(fd); });
  descriptors.erase(end, descriptors.end());
  if (!descriptors.empty()) {
    flush();
  }
  int error = 0;
  for (const int fd : descriptors) {
    const int result = takeWritten(fd);
    error = error == 0 ? result : error;
  }
  return error;
}

void readAnew(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'w') {
    return;
  }
  takeWritten(fd);
  const std::string content = contentOf(*attribute.path, attribute.mode);
  trace("read " + attribute.path->full + " " + inQuotes(content));
  const Nested nested;
  const int file = ::open(linkOf(fd).c_str(), O_RDWR | O_CLOEXEC);
  setContent(file, content);
  ::close(file);
}

void findInheritedAttributes() {
  for (const int fd : openDescriptors()) {
    if (startsWith(targetOf(fd), memoryFileStart)) {
      attributesInUse = true;
    }
  }
}

}  // namespace simulator
