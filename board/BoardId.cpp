// SPDX-License-Identifier: MIT
#include "board/BoardId.h"

#include <iterator>

#include "internal/UdevI2cDevices.h"
#include "sysfs/SysfsUtil.h"

namespace {

struct StrapLine {
  int gpio;
  unsigned int weight;
};

constexpr StrapLine strapLines[] = {{167, 1}, {168, 2}, {169, 4}, {170, 8}, {171, 16}, {135, 32}};

constexpr unsigned int idCount = 64;

// Fixed-size rows rather than pointers: the table needs no relocation when the library is loaded.
constexpr char descriptions[][48] = {
    // 0 to 15
    "DORVELLE MMB SINGLE GIG-E",
    "DORVELLE MMB DUAL GIG-E",
    "DORVELLE MMB SINGLE GIG-E PDH FULL",
    "DORVELLE MMB DUAL GIG-E W/MFI",
    "DORVELLE MMB SINGLE GIG-E PDH FULL W/MFI",
    "HALCYRA MMB DUAL GIG-E",
    "HALCYRA MMB SINGLE GIG-E PDH FULL",
    "HALCYRA MMB DUAL GIG-E W/MFI",
    "HALCYRA MMB SINGLE GIG-E PDH FULL W/MFI",
    "QUINDARA MMB SGL GIG-E NO PDH EXCEPT E1/T1 PRI",
    "QUINDARA MMB SGL GIG-E ONLY NO PDH",
    "UNKNOWN MMB",
    "UNKNOWN MMB",
    "UNKNOWN MMB",
    "UNKNOWN MMB",
    "UNKNOWN MMB",
    // 16 to 31
    "CORVANE CXB DUAL 100G",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    "UNKNOWN CXB",
    // 32 to 47
    "TALVERO PROTO-0 SPB",
    "TALVERO PROTO-1 SPB",
    "TALVERO PROTO-2 SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    "UNKNOWN SPB",
    // 48 to 63
    "TUVAK MMB DUAL 10GE FULL PDH W/POE,1PPS",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
    "UNKNOWN TUVAK MMB",
};
static_assert(std::size(descriptions) == idCount);

constexpr int imbLine = 80;

// The device at address 0x74 on I2C bus 0, as it appears in sysfs device paths.
constexpr char pmbDevice[] = "i2c-0/0-0074";

bool contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

}  // namespace

BoardId::BoardId() : id(0) {
  SysfsUtil sysfs;
  for (const StrapLine& line : strapLines) {
    if (sysfs.readGpioValue(line.gpio)) {
      id = static_cast<std::uint16_t>(id | line.weight);
    }
  }
  for (unsigned int mask = idCount / 2; mask != 0; mask /= 2) {
    idBitString += (id & mask) != 0 ? '1' : '0';
  }
  idDescription = getIdDescription();
}

BoardId::~BoardId() = default;

std::string BoardId::getIdDescription() const { return descriptions[id % idCount]; }

bool BoardId::isMMB() const { return contains(idDescription, "MMB"); }

bool BoardId::isQuindara() const { return contains(idDescription, "QUINDARA"); }

bool BoardId::isTuvak() const { return contains(idDescription, "TUVAK"); }

bool BoardId::isCXB() const { return contains(idDescription, "CXB"); }

bool BoardId::isSPB() const { return contains(idDescription, "SPB"); }

bool BoardId::isBoardIdKnown() const { return !contains(idDescription, "UNKNOWN"); }

bool BoardId::isProtoZero() const { return id == 32; }

bool BoardId::isProtoOne() const { return id == 33; }

bool BoardId::isProtoTwo() const { return id == 34; }

bool BoardId::isPMBConnected() const {
  if (!isSPB() || !isProtoZero()) {
    return false;
  }
  return UdevI2cDevices().any([](const char* path) { return contains(path, pmbDevice); });
}

bool BoardId::isIMBConnected() const {
  return isSPB() && !isProtoZero() && !SysfsUtil().readGpioValue(imbLine);
}
