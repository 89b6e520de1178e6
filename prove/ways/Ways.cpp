// SPDX-License-Identifier: MIT
// Tries every function of the C library to which a file's name is given, or what another one has
// opened by a name, and tells for each what it has come to on the simulated instrument:
//
//   simulated  it has shown the instrument's own file, or changed what the instrument lets change
//   refused    it has failed as it does where nobody may, with that error
//   changed    it has changed a file of the instrument that nobody can change
//   lost       it has not come back
//   host       this machine's own files have answered, or would have
//
// Each is tried with several spellings of the same name, and with names of files that the
// instrument does not have; the worst answer counts. With functions as arguments it tells of each
// spelling what has come of it.
//
// It harms no machine, whatever is wrong with the simulator: what it changes has names that only
// its instrument has, other doors are opened at most, and where this machine's own hardware is not
// hidden it leaves out what is known to leave the instrument.
//
// Not tried are functions that open files of the environment's choice (TZ and the like), of fixed
// names or in a directory of their own (shm_open), those that only make names up, those that read
// and write streams, which follow what has opened them, and those that no header has ever declared.

#include <aio.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fts.h>
#include <ftw.h>
#include <glob.h>
#include <mntent.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wordexp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// What has come of a function; the greater is the worse. Those in between are the errors with
/// which it was refused. All of them are exit statuses.
using Answer = int;
constexpr Answer simulated = 0;
constexpr Answer changed = 200;
constexpr Answer lost = 201;
constexpr Answer host = 202;

std::string nameOf(Answer answer) {
  return answer == simulated ? "simulated"
         : answer == changed ? "changed"
         : answer == lost    ? "lost"
         : answer == host    ? "host"
                             : std::string("refused: ") + strerrorname_np(answer);
}

using Function = void*;

/// Calls a function with a directory or a name; tells whether that has succeeded, and leaves its
/// error in errno.
using Attempt = std::function<bool(Function, int, const char*)>;

/// Calls a function of the given type.
template <typename Type, typename... Arguments>
auto call(Function function, Arguments... arguments) {
  return reinterpret_cast<Type*>(function)(arguments...);
}

// Files of the instrument, below /sys
constexpr char label[] = "/class/gpio/gpiochip0/label";
constexpr char attribute[] = "/class/gpio/gpio65000/active_low";
constexpr char config[] = "/bus/pci/devices/0000:00:00.0/config";
constexpr char mark[] = "/class/gpio/.talvero-sim";
constexpr char gpioClass[] = "/class/gpio";
constexpr char chipLink[] = "/class/gpio/gpiochip65000";
constexpr char chipFile[] = "/class/gpio/gpiochip65000/ngpio";
constexpr char lineDirectory[] = "/class/gpio/gpio65000";
constexpr char missing[] = "/class/gpio/talvero-sim-new";

/// What the instrument's file holds of which the name is tried, or the machine's own does not.
std::string expected;

/// Whether it is the name of another door: such a file would be opened only, and never read.
bool isDoor = false;

std::string scratch;  // a directory outside /sys; its files "own" and "new"
char ownFile[4096];
char newFile[4096];
std::string cat;  // the program

// What came of a call

bool isDescriptor(int fd) { return fd >= 0; }

std::string contentOf(int fd) {
  char content[8192];
  const ssize_t size = fd < 0 ? -1 : read(fd, content, sizeof content);
  return size < 0 ? "" : std::string(content, static_cast<std::size_t>(size));
}

/// Whether the text is what the file holds, or its beginning. Another one comes from elsewhere, and
/// is no error.
bool isExpected(const std::string& text) {
  errno = 0;
  return !text.empty() && expected.compare(0, text.size(), text) == 0;
}

bool isRead(const char* text, ssize_t size) {
  return size > 0 && isExpected(std::string(text, static_cast<std::size_t>(size)));
}

bool shows(int fd) {
  const bool isShown = isDescriptor(fd) && (isDoor || isExpected(contentOf(fd)));
  return isDescriptor(fd) && close(fd) == 0 && isShown;
}

bool shows(std::FILE* stream) {
  char content[8192];
  if (stream == nullptr) {
    return false;
  }
  const std::size_t size = isDoor ? 0 : std::fread(content, 1, sizeof content, stream);
  std::fclose(stream);
  return isDoor || isExpected(std::string(content, size));
}

bool closes(int fd) { return isDescriptor(fd) && close(fd) == 0; }

bool isDone(int result) { return result == 0; }

bool orError(int error) {  // of functions that return it
  errno = error;
  return error == 0;
}

// Calls of functions that return a negative number when they fail, whatever else they do

constexpr size_t page = 4096;
char room[8192];      // for what nobody looks at
char nothing[] = "";  // a name, or a value

/// With the name and more.
template <typename... More>
Attempt named(More... more) {
  return [=](Function f, int, const char* name) {
    return call<int(const char*, More...)>(f, name, more...) >= 0;
  };
}

/// With a directory, the name and more.
template <typename... More>
Attempt namedAt(More... more) {
  return [=](Function f, int at, const char* name) {
    return call<int(int, const char*, More...)>(f, at, name, more...) >= 0;
  };
}

/// With something else, the name and more.
template <typename First, typename... More>
Attempt withNamed(First first, More... more) {
  return [=](Function f, int, const char* name) {
    return call<int(First, const char*, More...)>(f, first, name, more...) >= 0;
  };
}

/// With something else, a directory, the name and more.
template <typename First, typename... More>
Attempt withNamedAt(First first, More... more) {
  return [=](Function f, int at, const char* name) {
    return call<int(First, int, const char*, More...)>(f, first, at, name, more...) >= 0;
  };
}

/// With the file opened, and more.
template <typename... More>
Attempt openedWith(More... more) {
  return [=](Function f, int, const char* name) {
    return call<int(int, More...)>(f, open(name, O_RDONLY), more...) >= 0;
  };
}

/// Without the name.
template <typename... All>
Attempt given(All... all) {
  return [=](Function f, int, const char*) { return call<int(All...)>(f, all...) >= 0; };
}

/// An attribute that a file does not have is one that was asked for.
Attempt orNoAttribute(const Attempt& attempt) {
  return [=](Function f, int at, const char* name) {
    return attempt(f, at, name) || errno == ENODATA || errno == ENOTSUP;
  };
}

// Calls that show what the file holds

bool nameFlags(Function f, int, const char* name) {
  return shows(call<int(const char*, int, ...)>(f, name, O_RDONLY, 0));
}

bool atNameFlags(Function f, int at, const char* name) {
  return shows(call<int(int, const char*, int, ...)>(f, at, name, O_RDONLY, 0));
}

bool nameLink(Function f, int, const char* name) {
  char target[4096];
  return call<ssize_t(const char*, char*, size_t, size_t)>(f, name, target, sizeof target,
                                                           sizeof target) > 0;
}

bool atLink(Function f, int at, const char* name) {
  char target[4096];
  return call<ssize_t(int, const char*, char*, size_t, size_t)>(f, at, name, target, sizeof target,
                                                                sizeof target) > 0;
}

bool isBelowSys(const char* path) {
  errno = path == nullptr ? errno : 0;
  return path != nullptr && std::strncmp(path, "/sys/", 5) == 0;
}

bool nameReal(Function f, int, const char* name) {
  char path[4096];
  return isBelowSys(call<char*(const char*, char*, size_t)>(f, name, path, sizeof path));
}

bool stream(Function f, int, const char* name) {
  return shows(call<std::FILE*(const char*, const char*)>(f, name, "r"));
}

bool writingStream(Function f, int, const char* name) {
  std::FILE* const opened = call<std::FILE*(const char*, const char*)>(f, name, "w");
  return opened != nullptr && std::fclose(opened) == 0;
}

bool streamAgain(Function f, int, const char* name) {
  std::FILE* const before = std::fopen("/dev/null", "r");
  return shows(call<std::FILE*(const char*, const char*, std::FILE*)>(f, name, "r", before));
}

bool writingStreamAgain(Function f, int, const char* name) {
  std::FILE* const before = std::fopen("/dev/null", "w");
  std::FILE* const opened =
      call<std::FILE*(const char*, const char*, std::FILE*)>(f, name, "w", before);
  return opened != nullptr && std::fclose(opened) == 0;
}

bool nameCreate(Function f, int, const char* name) {
  return closes(call<int(const char*, int, ...)>(f, name, O_WRONLY | O_CREAT, 0644));
}

bool atNameCreate(Function f, int at, const char* name) {
  return closes(call<int(int, const char*, int, ...)>(f, at, name, O_WRONLY | O_CREAT, 0644));
}

bool nameCreat(Function f, int, const char* name) {
  return closes(call<int(const char*, mode_t)>(f, name, mode_t{0644}));
}

bool makeTemporary(Function f, int, const char* name) {
  std::string pattern = std::string(name) + "XXXXXX";
  return closes(call<int(char*, int, int)>(f, pattern.data(), 0, 0));
}

bool makeTemporaryWithEnd(Function f, int, const char* name) {
  std::string pattern = std::string(name) + "XXXXXX.x";
  return closes(call<int(char*, int, int)>(f, pattern.data(), 2, 0));
}

bool makeTemporaryDirectory(Function f, int, const char* name) {
  std::string pattern = std::string(name) + "XXXXXX";
  return call<char*(char*)>(f, pattern.data()) != nullptr;
}

// Directories: their entries are the instrument's if the mark is among them.

bool hasMark(DIR* listed) {
  bool found = false;
  while (const dirent* entry = listed == nullptr ? nullptr : readdir(listed)) {
    found = found || std::strcmp(entry->d_name, std::strrchr(mark, '/') + 1) == 0;
  }
  if (listed != nullptr) {
    closedir(listed);
    errno = 0;
  }
  return found;
}

bool nameList(Function f, int, const char* name) {
  return hasMark(call<DIR*(const char*)>(f, name));
}

int isMark(const dirent* entry) {
  return std::strcmp(entry->d_name, std::strrchr(mark, '/') + 1) == 0 ? 1 : 0;
}

bool nameScan(Function f, int, const char* name) {
  dirent** entries = nullptr;
  return call<int(const char*, dirent***, int (*)(const dirent*),
                  int (*)(const dirent**, const dirent**))>(f, name, &entries, isMark, nullptr) ==
         1;
}

bool atScan(Function f, int at, const char* name) {
  dirent** entries = nullptr;
  return call<int(int, const char*, dirent***, int (*)(const dirent*),
                  int (*)(const dirent**, const dirent**))>(f, at, name, &entries, isMark,
                                                            nullptr) == 1;
}

bool nameGlob(Function f, int, const char* name) {
  glob_t found{};
  const int error = call<int(const char*, int, void*, glob_t*)>(
      f, (std::string(name) + "/.talvero-si?").c_str(), 0, nullptr, &found);
  errno = error == 0 ? 0 : ENOENT;
  return error == 0 && found.gl_pathc == 1;
}

bool walked = false;

bool nameWalk(Function f, int, const char* name) {
  walked = false;
  const auto take = [](const char* file, const struct stat*, int) {
    walked = walked || std::strstr(file, ".talvero-sim") != nullptr;
    return 0;
  };
  const int error = call<int(const char*, int (*)(const char*, const struct stat*, int), int, int)>(
      f, name, take, 8, FTW_PHYS);
  errno = error == 0 ? 0 : errno;
  return error == 0 && walked;
}

bool nameHierarchy(Function f, int, const char* name) {
  char* names[] = {const_cast<char*>(name), nullptr};
  FTS* const tree =
      call<FTS*(char* const*, int, void*)>(f, names, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
  bool found = false;
  while (const FTSENT* file = tree == nullptr ? nullptr : fts_read(tree)) {
    found = found || std::strcmp(file->fts_name, ".talvero-sim") == 0;
  }
  errno = tree == nullptr ? errno : 0;
  return found;
}

bool nameWords(Function f, int, const char* name) {
  wordexp_t words{};
  const int error = call<int(const char*, wordexp_t*, int)>(
      f, (std::string(name) + "/.talvero-si?").c_str(), &words, 0);
  errno = error == WRDE_NOSPACE ? ENOMEM : ENOENT;
  return error == 0 && std::strchr(words.we_wordv[0], '?') == nullptr;
}

// Going somewhere: what a relative name shows from there

bool showsFromHere() { return shows(open("gpiochip0/label", O_RDONLY)); }

bool nameGo(Function f, int, const char* name) {
  return call<int(const char*)>(f, name) == 0 && showsFromHere();
}

bool nameGoByDescriptor(Function f, int at, const char* name) {
  return call<int(int)>(f, openat(at, name, O_RDONLY | O_DIRECTORY)) == 0 && showsFromHere();
}

bool workingDirectory(Function f, int, const char* name) {
  char path[4096];
  if (chdir(name) != 0) {
    return false;
  }
  errno = 0;
  const char* const shown = call<char*(char*, size_t, size_t)>(f, path, sizeof path, sizeof path);
  return shown != nullptr && std::strcmp(shown, "/sys/class/gpio") == 0;
}

// What takes names for other purposes

/// One more sysfs, or a device that is the machine's memory: neither is opened.
bool mountSys(Function f, int, const char*) {
  const bool isMounted =
      isDone(call<int(const char*, const char*, const char*, unsigned long, const void*)>(
          f, "none", scratch.c_str(), "sysfs", static_cast<unsigned long>(MS_RDONLY), nullptr));
  return isMounted && syscall(SYS_umount2, scratch.c_str(), MNT_DETACH) == 0;
}

bool nameBind(Function f, int, const char* name) {
  sockaddr_un address{AF_UNIX, ""};
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", name);
  return isDone(call<int(int, const sockaddr*, socklen_t)>(
      f, socket(AF_UNIX, SOCK_STREAM, 0), reinterpret_cast<const sockaddr*>(&address),
      socklen_t{sizeof address}));
}

bool nameCatalogue(Function f, int, const char* name) {
  return call<intptr_t(const char*, int)>(f, name, 0) != -1;
}

bool nameRecord(Function f, int, const char* name) {
  errno = 0;
  call<void(const char*, const void*)>(f, name, nullptr);
  return errno == 0;
}

/// What has been loaded; a file that is no library was found at least.
bool isLoaded(const void* library) {
  const std::string error = library == nullptr ? dlerror() : "";
  errno = error.find("Permission denied") != std::string::npos ? EACCES : ENOENT;
  return library != nullptr || error.find("ELF") != std::string::npos;
}

bool nameLibrary(Function f, int, const char* name) {
  return isLoaded(call<void*(const char*, int)>(f, name, RTLD_NOW));
}

bool nameLibraryElsewhere(Function f, int, const char* name) {
  return isLoaded(call<void*(long, const char*, int)>(f, LM_ID_BASE, name, RTLD_NOW));
}

// Descriptors

int opened(const char* name) { return open(name, O_RDONLY); }

bool descriptorDirectory(Function f, int, const char* name) {
  return hasMark(call<DIR*(int)>(f, opened(name)));
}

bool descriptorEntries(Function f, int, const char* name) {
  char entries[8192];
  off_t place = 0;
  const ssize_t size =
      call<ssize_t(int, void*, size_t, off_t*)>(f, opened(name), entries, sizeof entries, &place);
  errno = size < 0 ? errno : 0;
  const char end[] = ".talvero-sim";
  return size > 0 && std::search(entries, entries + size, end, end + sizeof end) != entries + size;
}

bool descriptorStream(Function f, int, const char* name) {
  return shows(call<std::FILE*(int, const char*)>(f, opened(name), "r"));
}

bool descriptorText(Function f, int, const char* name) {
  char text[4096];
  const ssize_t size = call<ssize_t(int, void*, size_t, off_t, size_t)>(
      f, opened(name), text, sizeof text, 0, sizeof text);
  return isRead(text, size);
}

bool descriptorParts(Function f, int, const char* name) {
  char text[4096];
  const iovec part{text, sizeof text};
  const ssize_t size =
      call<ssize_t(int, const iovec*, int, off_t, int)>(f, opened(name), &part, 1, 0, 0);
  return isRead(text, size);
}

bool descriptorLater(Function f, int, const char* name) {
  char text[4096];
  aiocb request{};
  request.aio_fildes = opened(name);
  request.aio_buf = text;
  request.aio_nbytes = sizeof text;
  const aiocb* const list[] = {&request};
  if (call<int(aiocb*)>(f, &request) != 0 || aio_suspend(list, 1, nullptr) != 0) {
    return false;
  }
  const ssize_t size = aio_return(&request);
  return isRead(text, size);
}

bool requestList(Function f, int, const char* name) {
  char text[4096];
  aiocb request{};
  request.aio_fildes = opened(name);
  request.aio_buf = text;
  request.aio_nbytes = sizeof text;
  request.aio_lio_opcode = LIO_READ;
  aiocb* const list[] = {&request};
  if (call<int(int, aiocb* const*, int, sigevent*)>(f, LIO_WAIT, list, 1, nullptr) != 0) {
    return false;
  }
  const ssize_t size = aio_return(&request);
  return isRead(text, size);
}

bool toFile(Function f, int, const char* name) {
  const int copy = memfd_create("copy", 0);
  const ssize_t size =
      call<ssize_t(int, int, off_t*, size_t)>(f, copy, opened(name), nullptr, page);
  lseek(copy, 0, SEEK_SET);
  return size > 0 && shows(copy);
}

bool toRange(Function f, int, const char* name) {
  const int copy = memfd_create("copy", 0);
  const ssize_t size = call<ssize_t(int, off_t*, int, off_t*, size_t, unsigned int)>(
      f, opened(name), nullptr, copy, nullptr, page, 0U);
  lseek(copy, 0, SEEK_SET);
  return size > 0 && shows(copy);
}

bool toPipe(Function f, int, const char* name) {
  int ends[2];
  return pipe(ends) == 0 &&
         call<ssize_t(int, off_t*, int, off_t*, size_t, unsigned int)>(
             f, opened(name), nullptr, ends[1], nullptr, page, 0U) > 0 &&
         shows(ends[0]);
}

bool map(Function f, int, const char* name) {
  void* const memory = call<void*(void*, size_t, int, int, int, off_t)>(
      f, nullptr, page, PROT_READ, MAP_PRIVATE, opened(name), 0);
  return memory != MAP_FAILED && isExpected(static_cast<const char*>(memory));
}

bool duplicate(Function f, int, const char* name) {
  return shows(call<int(int, int, int)>(f, opened(name), 100, 0));
}

bool duplicateByCommand(Function f, int, const char* name) {
  return shows(call<int(int, int, ...)>(f, opened(name), F_DUPFD, 100));
}

bool descriptorRoom(Function f, int, const char* name) {
  return isDone(call<int(int, int, off_t, off_t)>(f, open(name, O_WRONLY), 0, 0, 8192));
}

bool descriptorPromisedRoom(Function f, int, const char* name) {
  return orError(call<int(int, off_t, off_t)>(f, open(name, O_WRONLY), 0, 8192));
}

bool descriptorLength(Function f, int, const char* name) {
  const int fd = open(name, O_WRONLY);
  return isDone(call<int(int, off_t)>(f, fd, 0)) && closes(fd) && shows(opened(name));
}

// Writing "1" to an attribute that has held "0", which the instrument then shows

template <typename Write>
bool stores(const char* name, Write write) {
  const int fd = open(name, O_WRONLY);
  if (!isDescriptor(fd) || !write(fd)) {
    return false;
  }
  close(fd);
  return shows(opened(name));
}

bool writeText(Function f, int, const char* name) {
  return stores(name, [&](int fd) {
    return call<ssize_t(int, const void*, size_t, off_t)>(f, fd, "1", size_t{1}, 0) == 1;
  });
}

bool writeParts(Function f, int, const char* name) {
  const iovec part{const_cast<char*>("1"), 1};
  return stores(name, [&](int fd) {
    return call<ssize_t(int, const iovec*, int, off_t, int)>(f, fd, &part, 1, 0, 0) == 1;
  });
}

bool writeFormatted(Function f, int, const char* name) {
  return stores(name, [&](int fd) { return call<int(int, const char*, ...)>(f, fd, "1") == 1; });
}

bool writeFormattedChecked(Function f, int, const char* name) {
  return stores(name,
                [&](int fd) { return call<int(int, int, const char*, ...)>(f, fd, 1, "1") == 1; });
}

bool writeLater(Function f, int, const char* name) {
  return stores(name, [&](int fd) {
    aiocb request{};
    request.aio_fildes = fd;
    request.aio_buf = const_cast<char*>("1");
    request.aio_nbytes = 1;
    const aiocb* const list[] = {&request};
    return call<int(aiocb*)>(f, &request) == 0 && aio_suspend(list, 1, nullptr) == 0 &&
           aio_return(&request) == 1;
  });
}

/// A memory file that holds "1".
int one() {
  const int fd = memfd_create("one", 0);
  return write(fd, "1", 1) == 1 && lseek(fd, 0, SEEK_SET) == 0 ? fd : -1;
}

bool writeFromFile(Function f, int, const char* name) {
  return stores(name, [&](int fd) {
    return call<ssize_t(int, int, off_t*, size_t)>(f, fd, one(), nullptr, size_t{1}) == 1;
  });
}

bool writeFromRange(Function f, int, const char* name) {
  return stores(name, [&](int fd) {
    return call<ssize_t(int, off_t*, int, off_t*, size_t, unsigned int)>(
               f, one(), nullptr, fd, nullptr, size_t{1}, 0U) == 1;
  });
}

bool writeFromPipe(Function f, int, const char* name) {
  int ends[2];
  return pipe(ends) == 0 && write(ends[1], "1", 1) == 1 && stores(name, [&](int fd) {
           return call<ssize_t(int, off_t*, int, off_t*, size_t, unsigned int)>(
                      f, ends[0], nullptr, fd, nullptr, size_t{1}, 0U) == 1;
         });
}

// Programs, which show a file

char* environmentOf[] = {nullptr};

/// Whether what a started process prints is what the file holds.
template <typename Start>
bool prints(Start start) {
  int ends[2];
  if (pipe(ends) != 0) {
    return false;
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    start();
    _exit(errno);
  }
  close(ends[1]);
  const std::string text = contentOf(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  errno = WEXITSTATUS(status);
  return errno == 0 && isExpected(text);
}

struct Arguments {
  explicit Arguments(const char* file) : list{cat.data(), const_cast<char*>(file), nullptr} {}
  char* list[3];
};

bool become(Function f, int, const char* name) {
  Arguments arguments(name);
  return prints([&] {
    clearenv();
    call<int(const char*, char* const*, char* const*)>(f, cat.c_str(), arguments.list,
                                                       environmentOf);
  });
}

bool becomeListed(Function f, int, const char* name) {
  return prints([&] {
    call<int(const char*, const char*, ...)>(f, cat.c_str(), "cat", name,
                                             static_cast<char*>(nullptr), environmentOf);
  });
}

bool becomeOpen(Function f, int, const char* name) {
  Arguments arguments(name);
  return prints([&] {
    call<int(int, char* const*, char* const*)>(f, open(cat.c_str(), O_RDONLY), arguments.list,
                                               environmentOf);
  });
}

bool becomeAt(Function f, int, const char* name) {
  Arguments arguments(name);
  return prints([&] {
    call<int(int, const char*, char* const*, char* const*, int)>(f, AT_FDCWD, cat.c_str(),
                                                                 arguments.list, environmentOf, 0);
  });
}

void waitFor(pid_t child, int error) {
  int status = 0;
  waitpid(child, &status, 0);
  errno = error != 0 ? error : WEXITSTATUS(status);
  _exit(errno);
}

bool spawn(Function f, int, const char* name) {
  Arguments arguments(name);
  return prints([&] {
    pid_t child = 0;
    const int error = call<int(pid_t*, const char*, void*, void*, char* const*, char* const*)>(
        f, &child, cat.c_str(), nullptr, nullptr, arguments.list, environmentOf);
    waitFor(child, error);
  });
}

/// Whether the program prints what the file holds once what is added to it has been done.
template <typename Add>
bool spawnedPrints(const char* file, Add add) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  return orError(add(&actions)) &&
         (isDoor || prints([&] {
            Arguments arguments(file);
            pid_t child = 0;
            const int error =
                posix_spawn(&child, cat.c_str(), &actions, nullptr, arguments.list, environ);
            waitFor(child, error);
          }));
}

bool spawnWithFile(Function f, int, const char* name) {
  return spawnedPrints(nullptr, [&](posix_spawn_file_actions_t* actions) {
    return call<int(posix_spawn_file_actions_t*, int, const char*, int, mode_t)>(
        f, actions, STDIN_FILENO, name, O_RDONLY, mode_t{0});
  });
}

bool spawnWithDescriptor(Function f, int, const char* name) {
  return spawnedPrints(nullptr, [&](posix_spawn_file_actions_t* actions) {
    return call<int(posix_spawn_file_actions_t*, int, int)>(f, actions, opened(name), STDIN_FILENO);
  });
}

bool spawnInDirectory(Function f, int, const char* name) {
  return spawnedPrints("gpiochip0/label", [&](posix_spawn_file_actions_t* actions) {
    return call<int(posix_spawn_file_actions_t*, const char*)>(f, actions, name);
  });
}

bool spawnInDescriptor(Function f, int, const char* name) {
  return spawnedPrints("gpiochip0/label", [&](posix_spawn_file_actions_t* actions) {
    return call<int(posix_spawn_file_actions_t*, int)>(f, actions, opened(name));
  });
}

bool runCommand(Function f, int, const char* name) {
  const std::string command = cat + " " + name;
  return prints([&] { _exit(call<int(const char*)>(f, command.c_str()) == 0 ? 0 : 1); });
}

bool openCommand(Function f, int, const char* name) {
  return shows(call<std::FILE*(const char*, const char*)>(f, (cat + " " + name).c_str(), "r"));
}

bool substituteCommand(Function f, int, const char* name) {
  wordexp_t words{};
  const std::string command = "$(" + cat + " " + name + ")";
  return call<int(const char*, wordexp_t*, int)>(f, command.c_str(), &words, 0) == 0 &&
         words.we_wordc == 1 && isExpected(words.we_wordv[0]);
}

// Around the preloaded functions

bool systemCall(Function f, int, const char* name) {
  const long fd = call<long(long, ...)>(f, long{SYS_openat}, AT_FDCWD, name, O_RDONLY, 0);
  return fd >= 0 && hasMark(fdopendir(static_cast<int>(fd)));
}

bool libraryItself(Function f, int, const char* name) {
  void* const library = dlopen("libc.so.6", RTLD_NOW);
  void* const real = call<void*(void*, const char*)>(f, library, "opendir");
  return hasMark(call<DIR*(const char*)>(real, name));
}

bool libraryItselfByVersion(Function f, int, const char* name) {
  void* const library = dlopen("libc.so.6", RTLD_NOW);
  for (const char* const version : {"GLIBC_2.2.5", "GLIBC_2.17"}) {
    if (void* const real =
            call<void*(void*, const char*, const char*)>(f, library, "opendir", version)) {
      return hasMark(call<DIR*(const char*)>(real, name));
    }
  }
  return false;
}

enum Flags {
  once = 1,      ///< one spelling is enough: what it takes is no name
  at = 2,        ///< takes a directory, too
  links = 4,     ///< follows a symbolic link that the name is
  doors = 8,     ///< is tried with files that the instrument does not have
  changes = 16,  ///< nobody may do that
  writes = 32,   ///< the attribute holds something else then
  leaves = 64,   ///< goes around the instrument: tried where the machine's own hardware is hidden
};

struct Way {
  const char* family;
  const char* functions;
  std::vector<const char*> files;
  int flags;
  Attempt attempt;
};

#ifdef __x86_64__
constexpr int statVersion = 1;
#else
constexpr int statVersion = 0;
#endif
constexpr mode_t regular = S_IFREG | 0644;
constexpr mode_t memory = S_IFCHR | 0600;
const dev_t memoryDevice = makedev(1, 1);
constexpr unsigned long bound = MS_BIND;
constexpr const char* noName = nullptr;
constexpr timespec* times = nullptr;
dev_t noDevice = 0;
int mountId = 0;

const std::vector<const char*> contents = {label, attribute, config};
const std::vector<const char*> files = {label, attribute, config, mark, gpioClass};
const std::vector<const char*> ownFiles = {attribute, mark, chipFile, lineDirectory};

const Way ways[] = {
    {"open", "open open64 __open __open64 __open_2 __open64_2", contents, links | doors, nameFlags},
    {"open", "openat openat64 __openat_2 __openat64_2", contents, at | links | doors, atNameFlags},
    {"open", "fopen fopen64 _IO_fopen", contents, links | doors, stream},
    {"open", "freopen freopen64", contents, links | doors, streamAgain},
    {"open", "setmntent __setmntent", contents, links | doors, stream},
    {"open", "catopen", contents, links | doors, nameCatalogue},
    {"open", "open_tree", contents, at | links | doors, namedAt(0U)},
    {"open", "dlopen", {mark}, leaves, nameLibrary},
    {"open", "dlmopen", {mark}, leaves, nameLibraryElsewhere},

    {"open to write", "creat creat64", {attribute}, links, nameCreat},
    {"open to write", "open open64 __open __open64", {attribute}, links, nameCreate},
    {"open to write", "openat openat64", {attribute}, at | links, atNameCreate},
    {"open to write", "fopen fopen64 _IO_fopen", {attribute}, links, writingStream},
    {"open to write", "freopen freopen64", {attribute}, links, writingStreamAgain},

    {"ask", "stat stat64", files, links | doors, named(room)},
    {"ask", "lstat lstat64", files, doors, named(room)},
    {"ask", "fstatat fstatat64", files, at | links | doors, namedAt(room, 0)},
    {"ask", "statx", files, at | links | doors, namedAt(0, unsigned{STATX_BASIC_STATS}, room)},
    {"ask", "__xstat __xstat64", files, links | doors, withNamed(statVersion, room)},
    {"ask", "__lxstat __lxstat64", files, doors, withNamed(statVersion, room)},
    {"ask", "__fxstatat __fxstatat64", files, at | links | doors,
     withNamedAt(statVersion, room, 0)},
    {"ask", "access eaccess euidaccess", files, links | doors, named(F_OK)},
    {"ask", "faccessat", files, at | links | doors, namedAt(0, 0)},
    {"ask", "statfs statfs64 __statfs statvfs statvfs64", files, links | doors, named(room)},
    {"ask", "pathconf", files, links | doors, named(_PC_NAME_MAX)},
    {"ask", "ftok", files, links | doors, named(1)},
    {"ask", "getxattr", files, links | doors, orNoAttribute(named("user.x", room, sizeof room))},
    {"ask", "lgetxattr", files, doors, orNoAttribute(named("user.x", room, sizeof room))},
    {"ask", "listxattr", files, links | doors, named(nothing, size_t{0})},
    {"ask", "llistxattr", files, doors, named(nothing, size_t{0})},
    {"ask", "readlink __readlink_chk", {chipLink}, doors, nameLink},
    {"ask", "readlinkat __readlinkat_chk", {chipLink}, at | doors, atLink},
    {"ask", "realpath __realpath_chk canonicalize_file_name", files, links | doors, nameReal},
    {"ask", "name_to_handle_at", files, at | doors, namedAt(room, &mountId, 0)},
    {"ask", "inotify_add_watch", files, links | doors,
     withNamed(inotify_init1(IN_CLOEXEC), IN_OPEN)},
    {"ask", "fanotify_mark", files, at | links | doors,
     [](Function f, int at, const char* name) {
       return call<int(int, unsigned int, uint64_t, int, const char*)>(f, -1, 1U, uint64_t{IN_OPEN},
                                                                       at, name) >= 0;
     }},

    {"list", "opendir", {gpioClass}, links | doors, nameList},
    {"list", "scandir scandir64", {gpioClass}, links | doors, nameScan},
    {"list", "scandirat scandirat64", {gpioClass}, at | links | doors, atScan},
    {"list", "glob glob64", {gpioClass}, links, nameGlob},
    {"list", "ftw ftw64 nftw nftw64", {gpioClass}, doors, nameWalk},
    {"list", "fts_open fts64_open", {gpioClass}, doors, nameHierarchy},
    {"list", "wordexp", {gpioClass}, links, nameWords},

    {"go", "chdir", {gpioClass}, links | doors, nameGo},
    {"go", "fchdir", {gpioClass}, at | links, nameGoByDescriptor},
    {"go", "chroot", {lineDirectory}, links | changes | doors, named()},
    {"go",
     "getcwd __getcwd_chk getwd __getwd_chk get_current_dir_name",
     {gpioClass},
     links,
     workingDirectory},

    {"create", "open open64 __open __open64", {missing}, links | changes | doors, nameCreate},
    {"create", "openat openat64", {missing}, at | links | changes | doors, atNameCreate},
    {"create", "creat creat64", {missing}, links | changes | doors, nameCreat},
    {"create", "fopen fopen64 _IO_fopen", {missing}, links | changes | doors, writingStream},
    {"create", "freopen freopen64", {missing}, links | changes | doors, writingStreamAgain},
    {"create", "mkdir", {missing}, changes | doors, named(mode_t{0644})},
    {"create", "mkdirat", {missing}, at | changes | doors, namedAt(0, 0)},
    {"create", "mkfifo", {missing}, changes | doors, named(mode_t{0644})},
    {"create", "mkfifoat", {missing}, at | changes | doors, namedAt(0, 0)},
    {"create", "mknod", {missing}, changes | doors, named(regular, dev_t{0})},
    {"create", "mknodat", {missing}, at | changes | doors, namedAt(regular, dev_t{0})},
    {"create", "__xmknod", {missing}, changes | doors, withNamed(0, regular, &noDevice)},
    {"create", "__xmknodat", {missing}, at | changes | doors, withNamedAt(0, regular, &noDevice)},
    {"create", "link symlink", {missing}, changes | doors, withNamed(ownFile)},
    {"create",
     "linkat",
     {missing},
     at | changes | doors,
     [](Function f, int at, const char* name) {
       return call<int(int, const char*, int, const char*, int)>(f, AT_FDCWD, ownFile, at, name,
                                                                 0) >= 0;
     }},
    {"create",
     "symlinkat",
     {missing},
     at | changes | doors,
     withNamedAt(static_cast<const char*>(ownFile))},
    {"create", "bind", {missing}, changes, nameBind},
    {"create", "mkstemp mkstemp64 mkostemp mkostemp64", {missing}, changes | doors, makeTemporary},
    {"create",
     "mkstemps mkstemps64 mkostemps mkostemps64",
     {missing},
     changes | doors,
     makeTemporaryWithEnd},
    {"create", "mkdtemp", {missing}, changes | doors, makeTemporaryDirectory},

    {"rename, remove", "rename link", ownFiles, changes | doors, named(newFile)},
    {"rename, remove", "renameat", ownFiles, at | changes | doors, namedAt(AT_FDCWD, newFile)},
    {"rename, remove", "renameat2 linkat", ownFiles, at | changes | doors,
     namedAt(AT_FDCWD, newFile, 0)},
    {"rename, remove", "unlink remove", {mark, attribute}, changes | doors, named()},
    {"rename, remove", "rmdir", {lineDirectory}, changes | doors, named()},
    {"rename, remove", "unlinkat", {mark, attribute}, at | changes | doors, namedAt(0, 0)},

    {"change", "chmod", ownFiles, links | changes | doors, named(mode_t{0644})},
    {"change", "lchmod", ownFiles, changes | doors, named(mode_t{0644})},
    {"change", "fchmodat", ownFiles, at | links | changes | doors, namedAt(mode_t{0644}, 0)},
    {"change", "chown", ownFiles, links | changes | doors, named(geteuid(), getegid())},
    {"change", "lchown", ownFiles, changes | doors, named(geteuid(), getegid())},
    {"change", "fchownat", ownFiles, at | links | changes | doors,
     namedAt(geteuid(), getegid(), 0)},
    {"change",
     "truncate truncate64",
     {attribute, mark, chipFile},
     links | changes | doors,
     named(off_t{0})},
    {"change", "utime utimes", ownFiles, links | changes | doors, named(times)},
    {"change", "lutimes", ownFiles, changes | doors, named(times)},
    {"change", "futimesat", ownFiles, at | links | changes | doors, namedAt(times)},
    {"change", "utimensat", ownFiles, at | links | changes | doors, namedAt(times, 0)},
    {"change", "setxattr", ownFiles, links | changes | doors,
     named("user.x", nothing, size_t{0}, 0)},
    {"change", "lsetxattr", ownFiles, changes | doors, named("user.x", nothing, size_t{0}, 0)},
    {"change", "removexattr", ownFiles, links | changes | doors, named("user.x")},
    {"change", "lremovexattr", ownFiles, changes | doors, named("user.x")},
    {"change", "fchmod", ownFiles, once | changes, openedWith(mode_t{0644})},
    {"change", "fchown", ownFiles, once | changes, openedWith(geteuid(), getegid())},
    {"change", "fchownat", ownFiles, once | changes,
     openedWith(nothing, geteuid(), getegid(), AT_EMPTY_PATH)},
    {"change", "futimens futimes", ownFiles, once | changes, openedWith(times)},
    {"change", "utimensat", ownFiles, once | changes, openedWith(noName, times, 0)},
    {"change", "fsetxattr", ownFiles, once | changes, openedWith("user.x", nothing, size_t{0}, 0)},
    {"change", "fremovexattr", ownFiles, once | changes, openedWith("user.x")},
    {"change", "linkat", ownFiles, once | changes,
     openedWith(nothing, AT_FDCWD, newFile, AT_EMPTY_PATH)},
    {"change", "fallocate fallocate64", {attribute}, once | changes, descriptorRoom},
    {"change",
     "posix_fallocate posix_fallocate64",
     {attribute},
     once | changes,
     descriptorPromisedRoom},
    {"change", "ftruncate ftruncate64", {attribute}, once, descriptorLength},

    {"administer",
     "mount",
     {mark, lineDirectory},
     links | changes | doors,
     withNamed(newFile, nothing, bound, nothing)},
    {"administer",
     "mount",
     {mark, lineDirectory},
     links | changes | doors,
     named(newFile, nothing, bound, nothing)},
    {"administer", "mount", {mark}, once | changes, mountSys},
    {"administer", "fsopen", {mark}, once | changes, given("sysfs", 0U)},
    {"administer", "mknod", {mark}, once | changes, given(newFile, memory, memoryDevice)},
    {"administer",
     "mknodat",
     {mark},
     once | changes,
     given(AT_FDCWD, newFile, memory, memoryDevice)},
    {"administer", "umount", {mark, lineDirectory}, links | changes | doors, named()},
    {"administer", "umount2 swapon acct swapoff", {mark}, links | changes | doors, named(0)},
    {"administer", "pivot_root", {lineDirectory}, changes | doors, named(newFile)},
    {"administer", "move_mount", {mark}, at | changes | doors, namedAt(AT_FDCWD, newFile, 0U)},
    {"administer", "mount_setattr", {mark}, at | changes | doors, namedAt(0U, room, size_t{32})},
    {"administer", "fspick", {mark}, at | changes | doors, namedAt(0U)},
    {"administer", "utmpname utmpxname", {mark}, links | changes | doors, named()},
    {"administer", "updwtmp updwtmpx", {mark}, links | changes | doors, nameRecord},

    {"descriptors, ask", "fstat fstat64 fstatfs fstatfs64 fstatvfs fstatvfs64", files, once,
     openedWith(room)},
    {"descriptors, ask", "__fxstat __fxstat64", files, once,
     [](Function f, int,
        const char*
            name) { return call<int(int, int, void*)>(f, statVersion, opened(name), room) >= 0; }},
    {"descriptors, ask", "fpathconf flistxattr", files, once, openedWith(0, 0)},
    {"descriptors, ask", "fgetxattr", files, once,
     orNoAttribute(openedWith("user.x", room, sizeof room))},

    {"descriptors, list", "fdopendir", {gpioClass}, once, descriptorDirectory},
    {"descriptors, list",
     "getdents64 getdirentries getdirentries64",
     {gpioClass},
     once,
     descriptorEntries},

    {"descriptors, read", "fdopen _IO_fdopen", contents, once, descriptorStream},
    {"descriptors, read",
     "read __read __read_chk pread pread64 __pread64 __pread_chk __pread64_chk", contents, once,
     descriptorText},
    {"descriptors, read", "readv preadv preadv64 preadv2 preadv64v2", contents, once,
     descriptorParts},
    {"descriptors, read", "aio_read aio_read64", contents, once, descriptorLater},
    {"descriptors, read", "lio_listio lio_listio64", contents, once, requestList},
    {"descriptors, read", "sendfile sendfile64", contents, once, toFile},
    {"descriptors, read", "copy_file_range", contents, once, toRange},
    {"descriptors, read", "splice", contents, once, toPipe},
    {"descriptors, read", "mmap mmap64", {label, attribute}, once, map},
    {"descriptors, read", "dup dup2 dup3", contents, once, duplicate},
    {"descriptors, read", "fcntl fcntl64", contents, once, duplicateByCommand},

    {"descriptors, write",
     "write __write pwrite pwrite64 __pwrite64",
     {attribute},
     once | writes,
     writeText},
    {"descriptors, write",
     "writev pwritev pwritev64 pwritev2 pwritev64v2",
     {attribute},
     once | writes,
     writeParts},
    {"descriptors, write", "dprintf", {attribute}, once | writes, writeFormatted},
    {"descriptors, write", "__dprintf_chk", {attribute}, once | writes, writeFormattedChecked},
    {"descriptors, write", "aio_write aio_write64", {attribute}, once | writes, writeLater},
    {"descriptors, write", "sendfile sendfile64", {attribute}, once | writes, writeFromFile},
    {"descriptors, write", "copy_file_range", {attribute}, once | writes, writeFromRange},
    {"descriptors, write", "splice", {attribute}, once | writes, writeFromPipe},

    {"start a program", "execve execvpe execv execvp", contents, once, become},
    {"start a program", "execl execlp execle", contents, once, becomeListed},
    {"start a program", "execveat", contents, once, becomeAt},
    {"start a program", "fexecve", contents, once, becomeOpen},
    {"start a program", "posix_spawn posix_spawnp", contents, once, spawn},
    {"start a program", "posix_spawn_file_actions_addopen", contents, links | doors, spawnWithFile},
    {"start a program", "posix_spawn_file_actions_adddup2", contents, once, spawnWithDescriptor},
    {"start a program",
     "posix_spawn_file_actions_addchdir_np",
     {gpioClass},
     links,
     spawnInDirectory},
    {"start a program",
     "posix_spawn_file_actions_addfchdir_np",
     {gpioClass},
     once,
     spawnInDescriptor},
    {"start a program", "system", contents, once, runCommand},
    {"start a program", "popen _IO_popen", contents, once, openCommand},
    {"start a program", "wordexp", {label, attribute}, once, substituteCommand},

    {"go around", "syscall", {gpioClass}, once | leaves, systemCall},
    {"go around", "dlsym", {gpioClass}, once | leaves, libraryItself},
    {"go around", "dlvsym", {gpioClass}, once | leaves, libraryItselfByVersion},
};

// How a name is spelled

struct Spelling {
  int directory;
  std::string base;
  bool isLink = false;  ///< the last part of the name is a symbolic link
};

std::vector<Spelling> belowSys;
std::vector<Spelling> belowRoot;

/// Files that the instrument does not have. The last one's name is longer than any kernel takes.
const std::string doorFiles[] = {"/proc/mtrr",
                                 "/proc/bus/pci/devices",
                                 "/dev/mem",
                                 "/dev/port",
                                 "/dev/gpiochip0",
                                 "/dev/i2c-1",
                                 "/dev/i2c-" + std::string(300, '1')};

std::string lastPart(const std::string& path) { return path.substr(path.rfind('/')); }

std::string descriptorName(const char* directory, int fd) {
  return std::string(directory) + "/" + std::to_string(fd);
}

void makeLink(const std::string& target, const std::string& name) {
  if (symlink(target.c_str(), name.c_str()) != 0) {
    std::perror(name.c_str());
    std::exit(2);
  }
}

/// Makes the directory outside /sys with the links that lead there, and goes below /sys.
void prepare() {
  scratch = std::filesystem::temp_directory_path() / "ways.XXXXXX";
  mkdtemp(scratch.data());
  std::snprintf(ownFile, sizeof ownFile, "%s/own", scratch.c_str());
  std::snprintf(newFile, sizeof newFile, "%s/new", scratch.c_str());
  for (const char* const name : {"/below", "/links", "/descriptors"}) {
    mkdir((scratch + name).c_str(), 0700);
  }
  close(creat(ownFile, 0600));
  makeLink("/sys", scratch + "/sys");
  makeLink("sys", scratch + "/link");
  makeLink("/", scratch + "/root");
  for (const char* const file :
       {label, attribute, config, mark, gpioClass, chipFile, lineDirectory, missing}) {
    makeLink(std::string("/sys") + file, scratch + "/links" + lastPart(file));
    const int fd = open((std::string("/sys") + file).c_str(), O_PATH);
    makeLink(fd < 0 ? std::string("/sys") + file : descriptorName("/proc/self/fd", fd),
             scratch + "/descriptors" + lastPart(file));
  }
  int number = 0;
  for (const std::string& door : doorFiles) {
    makeLink(door, scratch + "/links/" + std::to_string(number++));
  }
  const int sys = open("/sys", O_PATH | O_DIRECTORY);
  const int root = open("/", O_PATH | O_DIRECTORY);
  const int own = open((scratch + "/below").c_str(), O_PATH | O_DIRECTORY);
  const std::string process = "/proc/" + std::to_string(getpid());
  belowSys = {{AT_FDCWD, "/sys"},
              {AT_FDCWD, "//sys/./class/.."},
              {AT_FDCWD, ".."},
              {AT_FDCWD, "/proc/self/cwd/.."},
              {AT_FDCWD, "/proc/self/root/sys"},
              {AT_FDCWD, process + "/root/sys"},
              {AT_FDCWD, descriptorName("/proc/self/fd", sys)},
              {AT_FDCWD, descriptorName("/dev/fd", sys)},
              {AT_FDCWD, descriptorName("/proc/self/fd", root) + "/sys"},
              {AT_FDCWD, scratch + "/sys"},
              {AT_FDCWD, scratch + "/below/../link"},
              {AT_FDCWD, scratch + "/links", true},
              {AT_FDCWD, scratch + "/descriptors", true},
              {sys, "."},
              {own, "../link"},
              {own, "../links", true}};
  belowRoot = {{AT_FDCWD, ""},
               {AT_FDCWD, "//."},
               {AT_FDCWD, "/proc/self/root"},
               {AT_FDCWD, descriptorName("/proc/self/fd", root)},
               {AT_FDCWD, scratch + "/root"},
               {AT_FDCWD, scratch + "/links", true},
               {root, "."},
               {own, "../root"},
               {own, "../links", true}};
  if (chdir("/sys/class") != 0) {
    std::perror("/sys/class");
    std::exit(2);
  }
}

std::string programOf(const std::string& name) {
  const char* const known = std::getenv("PATH");
  std::istringstream path(known == nullptr ? "" : known);
  for (std::string directory; std::getline(path, directory, ':');) {
    if (access((directory + "/" + name).c_str(), X_OK) == 0) {
      return directory + "/" + name;
    }
  }
  return name;
}

std::string nameOf(const Spelling& spelling, const std::string& file) {
  return spelling.base + (spelling.isLink ? lastPart(file) : file);
}

// The answers

bool isRefusal(int error) {
  const int refusals[] = {EACCES, EPERM, EROFS, EXDEV, ENODEV, ENOMEM, ENOSYS, EOPNOTSUPP};
  return std::find(std::begin(refusals), std::end(refusals), error) != std::end(refusals);
}

Answer judge(const Way& way, bool succeeded, int error) {
  if (succeeded) {
    return (way.flags & changes) != 0 ? changed : simulated;
  }
  return isRefusal(error) ? error : host;
}

Answer judgeDoor(bool succeeded, int error) {
  return !succeeded && (isRefusal(error) || error == ENOENT) ? error : host;
}

bool isAsked = false;  // for the answers one by one

void tell(const std::string& name, Answer answer, int error) {
  if (isAsked) {
    const char* const reason = answer == host && error != 0 ? strerrorname_np(error) : "";
    std::printf("  %-20s%s %s\n", nameOf(answer).c_str(), name.substr(0, 90).c_str(), reason);
  }
}

/// What the instrument's files hold; below the directory it is the label that is read.
const std::map<std::string, std::string>& firstContents() {
  static const std::map<std::string, std::string> known = {
      {label, "talvero-sim\n"},
      {gpioClass, "talvero-sim\n"},
      {attribute, "0\n"},
      {config, contentOf(open((std::string("/sys") + config).c_str(), O_RDONLY))}};
  return known;
}

template <typename Judge>
Answer attempt(const Way& way, Function function, const Spelling& spelling, const std::string& name,
               Judge judged) {
  // Names that begin at another directory must not count from this one.
  const char* const from = spelling.directory == AT_FDCWD ? "/sys/class" : scratch.c_str();
  const bool isThere = chdir(from) == 0;
  errno = 0;
  const bool succeeded = isThere && way.attempt(function, spelling.directory, name.c_str());
  const int error = succeeded ? 0 : errno;
  const Answer answer = judged(succeeded, error);
  tell(spelling.directory == AT_FDCWD ? name : "at " + name, answer, error);
  return answer;
}

bool takes(const Way& way, const Spelling& spelling) {
  return (spelling.directory == AT_FDCWD || (way.flags & at) != 0) &&
         (!spelling.isLink || (way.flags & links) != 0);
}

Answer tryBelowSys(const Way& way, Function function) {
  Answer worst = simulated;
  for (const Spelling& spelling : belowSys) {
    for (const char* const file : way.files) {
      if (takes(way, spelling)) {
        const auto content = firstContents().find(file);
        expected = (way.flags & writes) != 0          ? "1\n"
                   : content == firstContents().end() ? ""
                                                      : content->second;
        worst = std::max(worst, attempt(way, function, spelling, nameOf(spelling, file),
                                        [&](bool succeeded, int error) {
                                          return judge(way, succeeded, error);
                                        }));
      }
    }
    if ((way.flags & once) != 0) {
      break;
    }
  }
  return worst;
}

/// Nobody's file is changed for an answer: for that there is the name that no kernel takes.
Answer tryDoors(const Way& way, Function function) {
  isDoor = true;
  Answer worst = simulated;
  for (const Spelling& spelling : belowRoot) {
    for (std::size_t door = 0; door < std::size(doorFiles); ++door) {
      const bool isSafe = door + 1 == std::size(doorFiles) || (way.flags & changes) == 0;
      if (isSafe && takes(way, spelling)) {
        const std::string name =
            spelling.base + (spelling.isLink ? "/" + std::to_string(door) : doorFiles[door]);
        const Answer answer = attempt(way, function, spelling, name, judgeDoor);
        worst = answer == host ? host : worst;
      }
    }
  }
  return worst;
}

/// Whether the machine's own hardware is hidden from whoever leaves the instrument.
bool isHidden() {
  struct statfs system {};
  return syscall(SYS_statfs, "/sys", &system) == 0 && system.f_type != 0x62656572;
}

Answer answerOf(const Way& way, Function function) {
  if ((way.flags & leaves) != 0 && !isHidden()) {
    return host;
  }
  const Answer answer = tryBelowSys(way, function);
  return (way.flags & doors) != 0 ? std::max(answer, tryDoors(way, function)) : answer;
}

/// The same in a process of its own, which may lose itself.
Answer answerApart(const Way& way, const std::string& name) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    const Answer answer = answerOf(way, dlsym(RTLD_DEFAULT, name.c_str()));
    std::fflush(stdout);
    _exit(answer);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : lost;
}

/// The attribute as it was.
void restore() {
  const int fd = open((std::string("/sys") + attribute).c_str(), O_WRONLY);
  if (write(fd, "0", 1) != 1 || close(fd) != 0) {
    std::perror(attribute);
  }
}

struct Found {
  std::string family;
  std::vector<std::pair<std::string, Answer>> functions;
};

void add(Found& family, const std::string& function, Answer answer) {
  for (auto& [name, worst] : family.functions) {
    if (name == function) {
      worst = std::max(worst, answer);
      return;
    }
  }
  family.functions.emplace_back(function, answer);
}

/// Tries the functions of a row, those that this machine's C library has.
void tryWay(const Way& way, const std::set<std::string>& wanted, Found& family) {
  std::istringstream functions(way.functions);
  for (std::string name; functions >> name;) {
    if (dlsym(RTLD_DEFAULT, name.c_str()) != nullptr &&
        (wanted.empty() || wanted.count(name) != 0)) {
      if (isAsked) {
        std::printf("%s, %s\n", way.family, name.c_str());
      }
      add(family, name, answerApart(way, name));
      if ((way.flags & writes) != 0) {
        restore();
      }
    }
  }
}

/// Prints words behind a title, in as many lines as they need.
void printWords(const std::string& title, const std::vector<std::string>& words) {
  constexpr std::size_t width = 100;
  std::string line = title;
  for (const std::string& word : words) {
    if (line.size() + 1 + word.size() > width) {
      std::printf("%s\n", line.c_str());
      line.assign(title.size(), ' ');
    }
    line += " " + word;
  }
  std::printf("%s\n", line.c_str());
}

/// Prints a family's functions by what has come of them.
void print(const Found& family) {
  std::map<Answer, std::vector<std::string>> functions;
  for (const auto& [name, answer] : family.functions) {
    functions[answer].push_back(name);
  }
  std::string title = family.family;
  for (const auto& [answer, names] : functions) {
    title.resize(20, ' ');
    title += nameOf(answer);
    title.resize(39, ' ');
    printWords(title, names);
    title = "";
  }
}

/// Whether the functions that open files are the instrument's, and it is the one for this program.
bool isOnItsInstrument() {
  Dl_info library{};
  return std::getenv("TALVERO_SIM_STATE") != nullptr &&
         dladdr(dlsym(RTLD_DEFAULT, "open"), &library) != 0 &&
         std::strstr(library.dli_fname, "talvero-sim-preload") != nullptr &&
         firstContents().at(config).size() >= 64 &&
         contentOf(open((std::string("/sys") + attribute).c_str(), O_RDONLY)) == "0\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (!isOnItsInstrument()) {
    std::fputs(
        "ways: not on its instrument: talvero-sim --instrument prove/ways/ways.conf -- ways\n",
        stderr);
    return 2;
  }
  cat = programOf("cat");
  prepare();
  const std::set<std::string> wanted(argv + 1, argv + argc);
  isAsked = !wanted.empty();
  Found family;
  for (const Way& way : ways) {
    if (family.family != way.family) {
      print(family);
      family = {way.family, {}};
    }
    tryWay(way, wanted, family);
  }
  print(family);
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
}
