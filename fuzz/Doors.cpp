// SPDX-License-Identifier: MIT
// Defines what the library calls of the C library, libudev, libpciaccess and the platform. Programs
// come before libraries, so that these are found first. What the program itself does with files
// outside of an input goes on to the C library.
#include "fuzz/Doors.h"

#include <dirent.h>
#include <dlfcn.h>
#include <libudev.h>
#include <pciaccess.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <utility>

#include "platform/I2CDev.h"

namespace {

Input* input = nullptr;

/// The devices that the library has been given, by bus and number.
using Fabric = std::map<std::pair<std::uint32_t, std::uint32_t>, pci_device>;
Fabric& fabric() {
  static auto& devices = *new Fabric;
  return devices;
}

constexpr std::uint32_t switchBus = 1;

/// Whether the next thing fails, as all do after the input's end.
bool fails(int error) {
  const bool result = !input->take('+') && (input->empty() || input->take('!'));
  errno = result ? error : errno;
  return result;
}

std::list<std::string> names() {
  std::list<std::string> all;
  std::istringstream text(input->text('|'));
  for (std::string name; std::getline(text, name, ',');) {
    all.push_back(name);
  }
  return all;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::FILE* open(const char* mode) {
  if (fails(ENOENT)) {
    return nullptr;
  }
  const int file = memfd_create("attribute", MFD_CLOEXEC);
  require(file >= 0);
  if (*mode == 'r') {
    const std::string content = input->text('|');
    require(::write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    require(::lseek(file, 0, SEEK_SET) == 0);
  }
  return fdopen(file, mode);
}

struct Directory {
  std::list<std::string> names;
  dirent entry;
};

/// A device that the library has been given, and none but such.
void requireGiven(const pci_device* device) {
  require(device != nullptr);
  const auto known = fabric().find({device->bus, device->dev});
  require(known != fabric().end() && &known->second == device);
}

pci_device* give(std::uint32_t bus, std::uint32_t number) {
  pci_device& device = fabric()[{bus, number}];
  device.bus = static_cast<std::uint8_t>(bus);
  device.dev = static_cast<std::uint8_t>(number);
  device.vendor_id = 0x7A1E;
  device.device_id = static_cast<std::uint16_t>(bus << 8 | number);
  return &device;
}

template <typename Number>
int readRegister(const pci_device* device, Number* value) {
  requireGiven(device);
  if (fails(EIO)) {
    return EIO;
  }
  *value = static_cast<Number>(input->word(sizeof *value));
  return 0;
}

}  // namespace

Doors::Doors(Input& bytes) { input = &bytes; }

Doors::~Doors() {
  input = nullptr;
  fabric().clear();
}

std::string I2CDev::FindI2CBusNameOfMuxChannel(std::string /*busName*/, int /*channel*/) {
  return input->text('|');
}

struct udev {};
struct udev_list_entry {
  std::string name;
  udev_list_entry* next;
};
struct udev_enumerate {
  std::list<udev_list_entry> devices;
};
struct udev_device {
  std::list<std::string> values;
};

extern "C" {

FILE* fopen(const char* path, const char* mode) {
  return input != nullptr ? open(mode) : next<decltype(fopen)>("fopen")(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  return input != nullptr ? open(mode) : next<decltype(fopen)>("fopen64")(path, mode);
}

DIR* opendir(const char* path) {
  if (input == nullptr) {
    return next<decltype(opendir)>("opendir")(path);
  }
  return fails(ENOENT) ? nullptr : reinterpret_cast<DIR*>(new Directory{names(), {}});
}

dirent* readdir(DIR* stream) {
  if (input == nullptr) {
    return next<decltype(readdir)>("readdir")(stream);
  }
  auto& directory = *reinterpret_cast<Directory*>(stream);
  if (directory.names.empty()) {
    return nullptr;
  }
  std::snprintf(directory.entry.d_name, sizeof directory.entry.d_name, "%s",
                directory.names.front().c_str());
  directory.names.pop_front();
  return &directory.entry;
}

int closedir(DIR* stream) {
  if (input == nullptr) {
    return next<decltype(closedir)>("closedir")(stream);
  }
  delete reinterpret_cast<Directory*>(stream);
  return 0;
}

int nanosleep(const timespec* /*time*/, timespec* /*left*/) { return 0; }

int usleep(useconds_t /*time*/) { return 0; }

udev* udev_new() { return fails(ENOMEM) ? nullptr : new udev; }

udev* udev_unref(udev* object) {
  delete object;
  return nullptr;
}

udev_enumerate* udev_enumerate_new(udev* /*context*/) {
  return fails(ENOMEM) ? nullptr : new udev_enumerate;
}

int udev_enumerate_add_match_subsystem(udev_enumerate* /*list*/, const char* /*subsystem*/) {
  return 0;
}

int udev_enumerate_add_match_sysattr(udev_enumerate* /*list*/, const char* /*name*/,
                                     const char* /*value*/) {
  return 0;
}

int udev_enumerate_scan_devices(udev_enumerate* list) {
  for (const std::string& name : names()) {
    list->devices.push_back({name, nullptr});
    if (list->devices.size() > 1) {
      std::prev(list->devices.end(), 2)->next = &list->devices.back();
    }
  }
  return 0;
}

udev_list_entry* udev_enumerate_get_list_entry(udev_enumerate* list) {
  return list->devices.empty() ? nullptr : &list->devices.front();
}

udev_enumerate* udev_enumerate_unref(udev_enumerate* list) {
  delete list;
  return nullptr;
}

udev_list_entry* udev_list_entry_get_next(udev_list_entry* entry) { return entry->next; }

const char* udev_list_entry_get_name(udev_list_entry* entry) { return entry->name.c_str(); }

udev_device* udev_device_new_from_syspath(udev* /*context*/, const char* /*path*/) {
  return fails(ENODEV) ? nullptr : new udev_device;
}

const char* udev_device_get_sysattr_value(udev_device* device, const char* /*name*/) {
  return fails(ENOENT) ? nullptr : device->values.emplace_back(input->text('|')).c_str();
}

udev_device* udev_device_unref(udev_device* device) {
  delete device;
  return nullptr;
}

int pci_system_init() { return fails(ENOENT) ? ENOENT : 0; }

pci_device* pci_device_find_by_slot(std::uint32_t domain, std::uint32_t bus, std::uint32_t number,
                                    std::uint32_t function) {
  require(domain == 0 && function == 0);
  return fails(ENODEV) ? nullptr : give(bus & 0xFF, number);
}

pci_device* pci_device_get_parent_bridge(pci_device* device) {
  requireGiven(device);
  return fails(ENODEV) ? nullptr : give(switchBus, 0);
}

int pci_device_get_bridge_buses(pci_device* device, int* primary, int* secondary,
                                int* subordinate) {
  requireGiven(device);
  if (fails(ENODEV)) {
    return ENODEV;
  }
  if (!input->take('?')) {  // of some kinds of bridge the library tells nothing
    *primary = static_cast<int>(input->word(1)) - 1;
    *secondary = static_cast<int>(input->word(1)) - 1;
    *subordinate = static_cast<int>(input->word(1)) - 1;
  }
  return 0;
}

int pci_device_cfg_read_u16(pci_device* device, std::uint16_t* value, pciaddr_t /*offset*/) {
  return readRegister(device, value);
}

int pci_device_cfg_read_u32(pci_device* device, std::uint32_t* value, pciaddr_t /*offset*/) {
  return readRegister(device, value);
}

int pci_device_cfg_write_u16(pci_device* device, std::uint16_t /*value*/, pciaddr_t /*offset*/) {
  requireGiven(device);
  return 0;
}

int pci_device_cfg_write_u32(pci_device* device, std::uint32_t /*value*/, pciaddr_t /*offset*/) {
  requireGiven(device);
  return 0;
}

}  // extern "C"
