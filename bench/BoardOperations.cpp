// SPDX-License-Identifier: MIT
#include <libudev.h>

#include <cstring>

#include "bench/Operation.h"
#include "bench/RawCalls.h"
#include "board/BoardId.h"

namespace {

const raw::GpioLine strapLines[] = {raw::GpioLine(167), raw::GpioLine(168), raw::GpioLine(169),
                                    raw::GpioLine(170), raw::GpioLine(171), raw::GpioLine(135)};
const raw::GpioLine imbLine(80);

/// The first SPB prototype, without a PMB.
const BoardId& board() {
  static const BoardId identity;
  return identity;
}

/// The same board, taken for one that an IMB can be connected to.
const BoardId& protoOne() {
  static const BoardId identity = [] {
    BoardId changed;
    changed.id = 33;
    return changed;
  }();
  return identity;
}

bool floorReadsStraps() {
  int high = 0;
  for (const raw::GpioLine& line : strapLines) {
    high += raw::readLine(line) ? 1 : 0;
  }
  return high == 1;
}

bool floorListsI2cDevices() {
  udev* context = udev_new();
  udev_enumerate* enumeration = udev_enumerate_new(context);
  udev_enumerate_add_match_subsystem(enumeration, "i2c");
  udev_enumerate_scan_devices(enumeration);
  int devices = 0;
  bool found = false;
  for (udev_list_entry* entry = udev_enumerate_get_list_entry(enumeration); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    ++devices;
    found = found || std::strstr(udev_list_entry_get_name(entry), "i2c-0/0-0074") != nullptr;
  }
  udev_enumerate_unref(enumeration);
  udev_unref(context);
  return devices > 0 && !found;
}

template <bool (BoardId::*question)() const, bool answer>
bool answers() {
  return (board().*question)() == answer;
}

}  // namespace

std::vector<Operation> boardOperations() {
  return {
      {"BoardId()", [] { return BoardId().id == 32; }, floorReadsStraps, 1.15},
      {"getIdDescription", [] { return !board().getIdDescription().empty(); }},
      {"isMMB", answers<&BoardId::isMMB, false>},
      {"isQuindara", answers<&BoardId::isQuindara, false>},
      {"isTuvak", answers<&BoardId::isTuvak, false>},
      {"isCXB", answers<&BoardId::isCXB, false>},
      {"isSPB", answers<&BoardId::isSPB, true>},
      {"isBoardIdKnown", answers<&BoardId::isBoardIdKnown, true>},
      {"isProtoZero", answers<&BoardId::isProtoZero, true>},
      {"isProtoOne", answers<&BoardId::isProtoOne, false>},
      {"isProtoTwo", answers<&BoardId::isProtoTwo, false>},
      {"isPMBConnected", answers<&BoardId::isPMBConnected, false>, floorListsI2cDevices, 1.02},
      {"isIMBConnected", [] { return protoOne().isIMBConnected(); },
       [] { return !raw::readLine(imbLine); }},
  };
}
