// SPDX-License-Identifier: MIT
#include "prove/faults/OutsideCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <libudev.h>
#include <pciaccess.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::size_t mostCalls = 65536;

struct Watch {
  bool on = false;
  bool inCall = false;  // what is called now is called by another library
  std::size_t failing = 0;
  bool forever = false;
  std::size_t count = 0;
  const char* names[mostCalls] = {};
  outside::Kept kept;
};

Watch watched;

/// Counts a call; returns whether it is to fail.
bool fails(const char* name) {
  if (!watched.on || watched.inCall) {
    return false;
  }
  const std::size_t number = watched.count++;
  if (number < mostCalls) {
    watched.names[number] = name;
  }
  const bool isLater = watched.forever && number > watched.failing;
  return number == watched.failing ||
         (isLater && std::strcmp(name, watched.names[watched.failing]) == 0);
}

/// While one exists, calls are another library's.
class InCall {
 public:
  InCall() { watched.inCall = true; }
  ~InCall() { watched.inCall = before; }
  InCall(const InCall&) = delete;
  InCall& operator=(const InCall&) = delete;

 private:
  bool before = watched.inCall;
};

bool counts() { return watched.on && !watched.inCall; }

/// Whether code is in a library of that name.
bool isOf(const char* library, const void* code) {
  Dl_info file{};
  return counts() && dladdr(code, &file) != 0 && std::strstr(file.dli_fname, library) != nullptr;
}

bool isOfLibrary(const void* code) { return isOf("libbist-talvero-hw-lib", code); }

bool isOfStream(const void* code) { return isOf("libstdc++", code); }

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class Value>
Value failed(int error, Value value) {
  errno = error;
  return value;
}

}  // namespace

// Passes a call on unless it is to fail.
#define OUTSIDE(type, name, parameters, arguments, error, failure) \
  extern "C" type name parameters {                                \
    if (fails(#name)) {                                            \
      return failed<type>(error, failure);                         \
    }                                                              \
    static auto* const passedTo = next<type parameters>(#name);    \
    const InCall inCall;                                           \
    return passedTo arguments;                                     \
  }

// The same for one that returns a handle.
#define OUTSIDE_TAKING(type, name, parameters, arguments, error)    \
  extern "C" type name parameters {                                 \
    if (fails(#name)) {                                             \
      return failed<type>(error, nullptr);                          \
    }                                                               \
    static auto* const passedTo = next<type parameters>(#name);     \
    const bool isCounted = counts();                                \
    const InCall inCall;                                            \
    type const handle = passedTo arguments;                         \
    watched.kept.handles += isCounted && handle != nullptr ? 1 : 0; \
    return handle;                                                  \
  }

// The same for one that gives a handle back, which it does also when it fails.
#define OUTSIDE_GIVING(type, name, parameters, arguments, error, failure) \
  extern "C" type name parameters {                                       \
    const bool isCounted = counts();                                      \
    const bool isFailing = fails(#name);                                  \
    static auto* const passedTo = next<type parameters>(#name);           \
    const InCall inCall;                                                  \
    type const result = passedTo arguments;                               \
    watched.kept.handles -= isCounted ? 1 : 0;                            \
    if (isFailing) {                                                      \
      errno = error;                                                      \
      return failure;                                                     \
    }                                                                     \
    return result;                                                        \
  }

// clang-format off
OUTSIDE_TAKING(FILE*, fopen, (const char* file, const char* mode), (file, mode), EMFILE)
OUTSIDE_TAKING(FILE*, fopen64, (const char* file, const char* mode), (file, mode), EMFILE)
OUTSIDE_GIVING(int, fclose, (FILE* stream), (stream), EIO, EOF)
OUTSIDE(int, setvbuf, (FILE* stream, char* buffer, int mode, std::size_t size) noexcept,
        (stream, buffer, mode, size), ENOMEM, EOF)
OUTSIDE_TAKING(DIR*, opendir, (const char* name), (name), EMFILE)
OUTSIDE(dirent*, readdir, (DIR* directory), (directory), EIO, nullptr)
OUTSIDE_GIVING(int, closedir, (DIR* directory), (directory), EIO, -1)
OUTSIDE(int, usleep, (useconds_t time), (time), EINTR, -1)
OUTSIDE_TAKING(udev*, udev_new, (), (), ENOMEM)
OUTSIDE_GIVING(udev*, udev_unref, (udev* context), (context), 0, nullptr)
OUTSIDE_TAKING(udev_enumerate*, udev_enumerate_new, (udev* context), (context), ENOMEM)
OUTSIDE_GIVING(udev_enumerate*, udev_enumerate_unref, (udev_enumerate* list), (list), 0, nullptr)
OUTSIDE(int, udev_enumerate_add_match_subsystem, (udev_enumerate* list, const char* subsystem),
        (list, subsystem), 0, -ENOMEM)
OUTSIDE(int, udev_enumerate_add_match_sysattr,
        (udev_enumerate* list, const char* name, const char* value), (list, name, value), 0,
        -ENOMEM)
OUTSIDE(int, udev_enumerate_scan_devices, (udev_enumerate* list), (list), 0, -EIO)
OUTSIDE(udev_list_entry*, udev_enumerate_get_list_entry, (udev_enumerate* list), (list), ENODATA,
        nullptr)
OUTSIDE(udev_list_entry*, udev_list_entry_get_next, (udev_list_entry* entry), (entry), ENODATA,
        nullptr)
OUTSIDE(const char*, udev_list_entry_get_name, (udev_list_entry* entry), (entry), EINVAL, nullptr)
OUTSIDE_TAKING(udev_device*, udev_device_new_from_syspath, (udev* context, const char* path),
               (context, path), ENODEV)
OUTSIDE_GIVING(udev_device*, udev_device_unref, (udev_device* device), (device), 0, nullptr)
OUTSIDE(const char*, udev_device_get_sysattr_value, (udev_device* device, const char* name),
        (device, name), ENOENT, nullptr)
OUTSIDE(int, pci_system_init, (), (), 0, EACCES)
OUTSIDE(pci_device*, pci_device_find_by_slot,
        (std::uint32_t domain, std::uint32_t bus, std::uint32_t device, std::uint32_t function),
        (domain, bus, device, function), 0, nullptr)
OUTSIDE(pci_device*, pci_device_get_parent_bridge, (pci_device* device), (device), 0, nullptr)
OUTSIDE(int, pci_device_get_bridge_buses,
        (pci_device* device, int* primary, int* secondary, int* subordinate),
        (device, primary, secondary, subordinate), 0, ENODEV)
OUTSIDE(int, pci_device_cfg_read_u16, (pci_device* device, std::uint16_t* data, pciaddr_t offset),
        (device, data, offset), 0, EIO)
OUTSIDE(int, pci_device_cfg_read_u32, (pci_device* device, std::uint32_t* data, pciaddr_t offset),
        (device, data, offset), 0, EIO)
OUTSIDE(int, pci_device_cfg_write_u16, (pci_device* device, std::uint16_t data, pciaddr_t offset),
        (device, data, offset), 0, EIO)
OUTSIDE(int, pci_device_cfg_write_u32, (pci_device* device, std::uint32_t data, pciaddr_t offset),
        (device, data, offset), 0, EIO)
// clang-format on

// The C++ library has locks of its own.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  if (isOfLibrary(__builtin_return_address(0)) && fails("pthread_mutex_lock")) {
    return EINVAL;
  }
  static auto* const passedTo = next<int(pthread_mutex_t*)>("pthread_mutex_lock");
  return passedTo(mutex);
}

// What is read of a stream whose reading fails, the stream itself says.
extern "C" std::size_t fread(void* data, std::size_t size, std::size_t number, FILE* stream) {
  if (fails("fread")) {
    stream->_flags |= 0x20;  // as ferror() has it
    return failed<std::size_t>(EIO, 0);
  }
  static auto* const passedTo = next<std::size_t(void*, std::size_t, std::size_t, FILE*)>("fread");
  const InCall inCall;
  return passedTo(data, size, number, stream);
}

extern "C" std::size_t fwrite(const void* data, std::size_t size, std::size_t number,
                              FILE* stream) {
  if (fails("fwrite")) {
    return failed<std::size_t>(EIO, 0);
  }
  static auto* const passedTo =
      next<std::size_t(const void*, std::size_t, std::size_t, FILE*)>("fwrite");
  const InCall inCall;
  return passedTo(data, size, number, stream);
}

// Of C++ streams, the C++ library reads and writes the files.
extern "C" ssize_t read(int file, void* data, std::size_t size) {
  if (isOfStream(__builtin_return_address(0)) && fails("read")) {
    return failed<ssize_t>(EIO, -1);
  }
  static auto* const passedTo = next<ssize_t(int, void*, std::size_t)>("read");
  const InCall inCall;
  return passedTo(file, data, size);
}

extern "C" ssize_t write(int file, const void* data, std::size_t size) {
  if (isOfStream(__builtin_return_address(0)) && fails("write")) {
    return failed<ssize_t>(EIO, -1);
  }
  static auto* const passedTo = next<ssize_t(int, const void*, std::size_t)>("write");
  const InCall inCall;
  return passedTo(file, data, size);
}

extern "C" ssize_t writev(int file, const iovec* parts, int count) {
  if (isOfStream(__builtin_return_address(0)) && fails("writev")) {
    return failed<ssize_t>(EIO, -1);
  }
  static auto* const passedTo = next<ssize_t(int, const iovec*, int)>("writev");
  const InCall inCall;
  return passedTo(file, parts, count);
}

extern "C" int __isoc99_fscanf(FILE* stream, const char* format, ...) {
  if (fails("__isoc99_fscanf")) {
    stream->_flags |= 0x20;
    return failed<int>(EIO, EOF);
  }
  const InCall inCall;
  va_list values;
  va_start(values, format);
  const int result = vfscanf(stream, format, values);
  va_end(values);
  return result;
}

extern "C" int fprintf(FILE* stream, const char* format, ...) {
  if (fails("fprintf")) {
    return failed<int>(EIO, -1);
  }
  const InCall inCall;
  va_list values;
  va_start(values, format);
  const int result = vfprintf(stream, format, values);
  va_end(values);
  return result;
}

// An interrupted sleep has half of its time left, as long as that is any.
extern "C" int nanosleep(const timespec* time, timespec* left) {
  const std::int64_t duration = std::int64_t{time->tv_sec} * 1000000000 + time->tv_nsec;
  const std::int64_t half = fails("nanosleep") ? duration / 2 : 0;
  static auto* const passedTo = next<int(const timespec*, timespec*)>("nanosleep");
  const InCall inCall;
  if (half == 0) {
    return passedTo(time, left);
  }
  const timespec slept{half / 1000000000, half % 1000000000};
  passedTo(&slept, nullptr);
  if (left != nullptr) {
    *left = {(duration - half) / 1000000000, (duration - half) % 1000000000};
  }
  return failed<int>(EINTR, -1);
}

// The platform classes fail by exceptions. Their functions go by the names that the linker knows.

#define OUTSIDE_PLATFORM(type, name, parameters, arguments, change) \
  type name parameters {                                            \
    if (fails(#name)) {                                             \
      throw std::runtime_error("platform: " #name);                 \
    }                                                               \
    static auto* const passedTo = next<type parameters>(#name);     \
    const bool isCounted = counts();                                \
    const InCall inCall;                                            \
    watched.kept.handles += isCounted ? (change) : 0;               \
    return passedTo arguments;                                      \
  }

extern "C" {
// clang-format off
OUTSIDE_PLATFORM(void, _ZN7SpbFPGAC1Ev, (void* object), (object), 1)
OUTSIDE_PLATFORM(void, _ZN7SpbFPGA23TurnOnModuleClockSourceEj, (void* object, unsigned int slot),
                 (object, slot), 0)
OUTSIDE_PLATFORM(void, _ZN7SpbFPGA24TurnOffModuleClockSourceEj, (void* object, unsigned int slot),
                 (object, slot), 0)
// clang-format on
}

extern "C" void _ZN7SpbFPGAD1Ev(void* object) {
  static auto* const passedTo = next<void(void*)>("_ZN7SpbFPGAD1Ev");
  watched.kept.handles -= counts() ? 1 : 0;
  const InCall inCall;
  passedTo(object);
}

constexpr char findBusName[] =
    "_ZN6I2CDev26FindI2CBusNameOfMuxChannelENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi";
std::string findBus(std::string bus, int channel) asm(
    "_ZN6I2CDev26FindI2CBusNameOfMuxChannelENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi");
std::string findBus(std::string bus, int channel) {
  if (fails(findBusName)) {
    throw std::runtime_error("platform: I2CDev");
  }
  static auto* const passedTo = next<std::string(std::string, int)>(findBusName);
  const InCall inCall;
  return passedTo(std::move(bus), channel);
}

// Memory is refused to the library and to what it is given by the C++ library.

void* operator new(std::size_t size) {
  const bool isCounted = counts();
  if (fails("operator new")) {
    throw std::bad_alloc();
  }
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  watched.kept.blocks += isCounted ? 1 : 0;
  return block;
}

void operator delete(void* block) noexcept {
  watched.kept.blocks -= counts() && block != nullptr ? 1 : 0;
  std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept { operator delete(block); }

namespace outside {

void watch(std::size_t failing, bool forever) {
  watched.failing = failing;
  watched.forever = forever;
  watched.count = 0;
  watched.kept = {};
  watched.on = true;
}

void stop() { watched.on = false; }

std::vector<std::string> calls() {
  return {watched.names, watched.names + std::min(watched.count, mostCalls)};
}

Kept kept() { return watched.kept; }

}  // namespace outside
