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
#include <iomanip>
#include <sstream>
#include <vector>

#include "simulator/parts/Changes.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

// In front of the attribute's path in the name of its memory file; the mode stands between them.
constexpr char memoryFileStart[] = "/memfd:talvero-sim:";
constexpr char modes[] = {'r', 'w', 'u'};  // O_RDONLY, O_WRONLY, O_RDWR

// Whether this process has had an attribute open: one that has not pays nothing.
std::atomic<bool> attributesInUse{false};

// Errors of the next reads, by descriptor, and whether there has been one.
constexpr int mostReadErrors = 1024;
std::atomic<int> readErrors[mostReadErrors];
std::atomic<bool> readsFail{false};

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

/// What an open attribute holds; 0 or an errno value, ENODEV where it is gone.
int readContent(const SysfsPath& path, std::string& content) {
  const int error = path.attributes->open(path.relative, false, content);
  content = error == 0 ? content : "";
  return error == ENOENT ? ENODEV : error;
}

std::string inHex(const std::string& bytes, std::size_t offset) {
  std::ostringstream text;
  text << std::hex << offset << std::setfill('0');
  for (const char byte : bytes) {
    text << ' ' << std::setw(2) << int{static_cast<unsigned char>(byte)};
  }
  return text.str();
}

int store(const SysfsPath& path, const std::string& text, std::size_t offset) {
  const std::string line = "write " + path.full + " " +
                           (path.attributes->size != 0 ? inHex(text, offset) : inQuotes(text));
  int error = admit(line);
  if (error == 0) {
    error = path.attributes->store(path.relative, text, offset);
  }
  traceResult(line, error);
  return error;
}

/// Stores those of the first bytes that differ from what the attribute holds: stdio does not tell
/// which ones it has written.
int storeBytes(const SysfsPath& path, const std::string& bytes) {
  std::string before;
  readContent(path, before);
  before.resize(bytes.size());
  int error = 0;
  for (std::size_t begin = 0, end = 0; begin < bytes.size() && error == 0; begin = end + 1) {
    begin = static_cast<std::size_t>(
        std::mismatch(bytes.begin() + static_cast<std::ptrdiff_t>(begin), bytes.end(),
                      before.begin() + static_cast<std::ptrdiff_t>(begin))
            .first -
        bytes.begin());
    end = begin;
    while (end < bytes.size() && bytes[end] != before[end]) {
      ++end;
    }
    error = begin == end ? 0 : store(path, bytes.substr(begin, end - begin), begin);
  }
  return error;
}

/// Moves the position of a descriptor, and says where it is then.
off_t position(int fd, off_t distance) {
  const Nested nested;
  return lseek(fd, distance, SEEK_CUR);
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

void traceReading(const SysfsPath& path, const std::string& content, int error) {
  const bool isText = path.attributes == nullptr || path.attributes->size == 0;
  const std::string line = "read " + path.full;
  traceResult(error == 0 && isText ? line + " " + inQuotes(content) : line, error);
}

int openAttribute(const SysfsPath& path, int flags) {
  const char mode = modes[flags & O_ACCMODE];
  std::string content;
  int error = (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0 ? EEXIST : admit("open " + path.full);
  const int readError = mode == 'w' ? 0 : admit("read " + path.full);
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
    traceReading(path, content, readError);
  }
  if (readError != 0) {
    return openUnreadable(flags);
  }
  attributesInUse = true;
  return createMemoryFile(path, mode == 'w' ? "" : content, flags);
}

bool isBelowSys(int fd) {
  if (fd < 0 || !attached() || nested()) {
    return false;
  }
  const std::string target = targetOf(fd);
  return startsWith(target, memoryFileStart) ||
         startsWith(target + "/", state()->root + std::string("/sys/"));
}

bool isWritableAttribute(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  return attribute.path && attribute.mode != 'r';
}

std::optional<ssize_t> writeAttribute(int fd, const iovec* texts, int count, off_t offset) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'r') {
    return std::nullopt;
  }
  std::string text;
  for (int index = 0; index < count; ++index) {
    text.append(static_cast<const char*>(texts[index].iov_base), texts[index].iov_len);
  }
  const std::size_t size = attribute.path->attributes->size;
  const bool atPosition = offset < 0 && size != 0;
  const off_t place = atPosition ? position(fd, 0) : offset;
  if (size != 0 && place >= static_cast<off_t>(size) && !text.empty()) {
    errno = EFBIG;
    return -1;
  }
  if (size != 0) {  // no more than there is
    text.resize(std::min(text.size(), size - std::min(size, static_cast<std::size_t>(place))));
  }
  const int error =
      text.empty() ? 0 : store(*attribute.path, text, static_cast<std::size_t>(place));
  if (error != 0) {
    errno = error;
    return -1;
  }
  if (atPosition) {
    position(fd, static_cast<off_t>(text.size()));
  }
  return static_cast<ssize_t>(text.size());
}

int takeWritten(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'r' || !isWritten(fd)) {
    return 0;
  }
  const std::string text = writtenText(fd, attribute.mode);
  const int error = attribute.path->attributes->size != 0 ? storeBytes(*attribute.path, text)
                    : text.empty()                        ? 0
                                                          : store(*attribute.path, text, 0);
  std::string content;
  if (attribute.mode != 'w') {
    readContent(*attribute.path, content);
  }
  setContent(fd, content);
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

int readAnew(int fd, bool fromStart) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'w' ||
      (!fromStart && attribute.path->attributes->size == 0)) {
    return 0;
  }
  takeWritten(fd);
  int error = admit("read " + attribute.path->full);
  std::string content;
  if (error == 0) {
    error = readContent(*attribute.path, content);
  }
  traceReading(*attribute.path, content, error);
  const Nested nested;
  const int file = ::open(linkOf(fd).c_str(), O_RDWR | O_CLOEXEC);
  setContent(file, content);
  ::close(file);
  return error;
}

void failNextRead(int fd, int error) {
  if (fd >= 0 && fd < mostReadErrors && (error != 0 || readErrors[fd] != 0)) {
    readErrors[fd] = error;
    readsFail = true;
  }
}

int takeReadError(int fd) {
  return readsFail && fd >= 0 && fd < mostReadErrors ? readErrors[fd].exchange(0) : 0;
}

int openUnreadable(int flags) {
  const Nested nested;
  return ::open("/proc/self/mem", flags & (O_ACCMODE | O_CLOEXEC));
}

void findInheritedAttributes() {
  for (const int fd : openDescriptors()) {
    if (startsWith(targetOf(fd), memoryFileStart)) {
      attributesInUse = true;
    }
  }
}

}  // namespace simulator
