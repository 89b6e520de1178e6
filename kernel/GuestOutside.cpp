// SPDX-License-Identifier: MIT
// In a guest: a serial port leads to QEMU's test interface, configuration spaces beyond the
// standard registers are memory, and the kernel's own probes tell of the accesses to them.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "tests/Outside.h"

namespace {

const std::string tracing = "/sys/kernel/tracing/";

constexpr int linesOfBank = 32;

struct Width {
  const char* name;  ///< the kernel's
  const char* bits;
};

constexpr Width widths[] = {{"byte", "8"}, {"word", "16"}, {"dword", "32"}};

void writeTo(const std::string& file, const std::string& text, int flags = O_WRONLY) {
  const int descriptor = open(file.c_str(), flags);
  if (descriptor < 0 || write(descriptor, text.data(), text.size()) < 0) {
    throw std::runtime_error("cannot write " + file);
  }
  close(descriptor);
}

void probeAccesses() {
  writeTo(tracing + "events/enable", "0");
  writeTo(tracing + "kprobe_events", "", O_WRONLY | O_TRUNC);
  for (const Width& width : widths) {
    const std::string place = " bus=dev->bus->number:x8 slot=dev->devfn:x8 offset=pos:x16";
    const std::string name = width.name;
    writeTo(tracing + "kprobe_events",
            "p:outside/read" + std::string(width.bits) + " pci_user_read_config_" + name + place,
            O_WRONLY | O_APPEND);
    writeTo(tracing + "kprobe_events",
            "p:outside/write" + std::string(width.bits) + " pci_user_write_config_" + name + place +
                " value=val:x32",
            O_WRONLY | O_APPEND);
  }
  writeTo(tracing + "events/outside/enable", "1");
}

/// Takes out what libpciaccess reads by itself: the first 256 bytes of each device, and single
/// ones.
void dropDiscovery(std::vector<std::string>& accesses) {
  constexpr unsigned int length = 0x100;
  std::vector<std::string> kept;
  unsigned int next = length;  // where the current discovery goes on
  for (const std::string& access : accesses) {
    const bool reads32 = access.compare(0, 7, "read32 ") == 0;
    const unsigned long offset = std::stoul(access.substr(access.find(' ', 7) + 1), nullptr, 16);
    next = reads32 && (offset == 0 || offset == 0x18 || offset == next) && offset < length
               ? static_cast<unsigned int>(offset) + 4
               : length;
    if (next == length && offset != length - 4 && access.compare(0, 6, "read8 ") != 0) {
      kept.push_back(access);
    }
  }
  accesses = kept;
}

}  // namespace

struct Outside::Way {
  std::FILE* machine = std::fopen("/dev/ttymxc0", "r+");
};

Outside::Outside() : way(std::make_unique<Way>()) {
  static const bool probed = (probeAccesses(), true);
  if (probed) {
    accesses();
  }
}

Outside::~Outside() { std::fclose(way->machine); }

void Outside::drive(int line, bool level) {
  const int banks = 5;  // gpio1 to gpio4 of the machine hold 160 to 191 and 32 to 127, and so on
  const int bank = line / linesOfBank % banks + 1;
  char answer[64] = "";
  std::fprintf(way->machine, "set_irq_in /machine/soc/gpio%d unnamed-gpio-in %d %d\n", bank,
               line % linesOfBank, level ? 1 : 0);
  std::fflush(way->machine);
  if (std::fgets(answer, sizeof answer, way->machine) == nullptr || answer != std::string("OK\n")) {
    throw std::runtime_error("line " + std::to_string(line) + " cannot be driven: " + answer);
  }
}

void Outside::setRegister(const std::string& device, std::uint32_t offset, std::uint32_t value) {
  const std::string config = "/sys/bus/pci/devices/0000:" + device + "/config";
  const int file = open(config.c_str(), O_WRONLY);
  if (pwrite(file, &value, sizeof value, offset) != sizeof value) {
    throw std::runtime_error("cannot write " + config);
  }
  close(file);
  accesses();
}

std::vector<std::string> Outside::accesses() {
  std::vector<std::string> found;
  std::ifstream trace(tracing + "trace");
  for (std::string line; std::getline(trace, line);) {
    char kind[16];
    unsigned int bus = 0;
    unsigned int slot = 0;
    unsigned int offset = 0;
    unsigned int value = 0;
    const std::size_t place = line.find(": (pci_user_");  // after the time and the probe's name
    if (place == std::string::npos) {
      continue;
    }
    const std::size_t name = line.rfind(' ', place) + 1;
    std::sscanf(line.c_str() + name, "%15[a-z0-9]", kind);
    const int fields =
        std::sscanf(line.c_str() + line.find(" bus="), " bus=%x slot=%x offset=%x value=%x", &bus,
                    &slot, &offset, &value);
    char access[64];
    std::snprintf(access, sizeof access, "%s %02x:%02x.%x %x", kind, bus, slot / 8, slot % 8,
                  offset);
    found.push_back(access);
    if (fields == 4) {
      std::snprintf(access, sizeof access, " %x", value);
      found.back() += access;
    }
  }
  dropDiscovery(found);
  writeTo(tracing + "trace", "", O_WRONLY | O_TRUNC);
  return found;
}
