// SPDX-License-Identifier: MIT
// The texts of attributes, directories and the device tree, as sysfs/, board/ and modules/ read
// them.
#include <libudev.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "board/BoardId.h"
#include "fuzz/Doors.h"
#include "modules/BackplaneInterface.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "sysfs/SysfsUtil.h"

namespace {

void readWord(Input& /*input*/) {
  const std::vector<char> untouched(4096, '~');
  std::vector<char> buffer = untouched;  // on the heap, where its ends are watched
  if (SysfsUtil().readSysfs("/word", buffer.data(), 0)) {
    require(std::memchr(buffer.data(), '\0', buffer.size()) != nullptr);
  } else {
    require(buffer == untouched);
  }
}

void readBytes(Input& input) {
  const int length = static_cast<int>(input.number(200)) - 1;
  std::vector<char> buffer(static_cast<std::size_t>(length < 1 ? 4096 : length));
  SysfsUtil().readSysfs("/bytes", buffer.data(), length);
}

void readText(Input& input) {
  bool success = false;
  const bool strip = input.take('-');
  const std::string text = SysfsUtil().readSysfs("/text", &success, strip);
  require(success || text.empty());
}

void readLine(Input& input) {
  bool success = false;
  SysfsUtil sysfs;
  sysfs.readGpioValue("80", &success);
  sysfs.readGpioValue("80", nullptr);
  sysfs.setGpioValue(static_cast<int>(input.number(255)), true);
}

void findBase(Input& input) {
  SysfsUtil sysfs;
  sysfs.FindGpioBase("/device");
  sysfs.ReadDirectory("/device");
  sysfs.FindFile("/device", "gpio", input.take('1'));
}

void readBoard(Input& /*input*/) {
  BoardId board;
  require(board.id < 64 && board.idBitString.size() == 6);
  require(board.isMMB() + board.isCXB() + board.isSPB() == 1);
  require(board.isProtoZero() + board.isProtoOne() + board.isProtoTwo() <= 1);
  require(!board.isTuvak() || board.isMMB());
  require(!board.isQuindara() || board.isBoardIdKnown());
  board.isPMBConnected();
  board.isIMBConnected();
  require(!board.idDescription.empty() && board.idDescription == board.getIdDescription());
}

void findBuses(Input& input) {
  const ModuleI2CInfo info(input.number(7));
  info.local1();
  info.local2();
  info.local3();
  info.local4();
}

void switchPower(Input& input) {
  Udev_PCA9536 control(input.number(7));
  control.GetPath();
  control.isPowerOn();
  control.PowerOn();
  control.GpioExported();
  control.PowerOff();
  control.GetDevices();
}

void useBackplane(Input& input) {
  const int slot = static_cast<int>(input.number(9)) - 2;
  const auto backplane = input.take('1') ? std::make_unique<BackplaneInterface>(slot)
                                         : std::make_unique<BackplaneInterface>();
  backplane->isModulePresent(slot);
  backplane->isModuleOn(slot);
  backplane->isModuleLinkUp(slot);
  require(backplane->turnModuleOn(slot) == (slot >= 0 && slot < 6));
  backplane->turnModuleOff(slot);
}

constexpr void (*operations[])(Input&) = {readWord,  readBytes, readText,    readLine,    findBase,
                                          readBoard, findBuses, switchPower, useBackplane};
constexpr int mostCalls = 16;

/// The exceptions that the headers promise.
void callOne(Input& input) {
  using namespace std::literals;
  try {
    operations[input.number(std::size(operations) - 1)](input);
  } catch (const std::invalid_argument& error) {
    require(error.what() == "stoi"sv);
  } catch (const std::out_of_range& error) {
    require(error.what() == "stoi"sv);
  } catch (const std::runtime_error& error) {
    require(error.what() == "Can't create udev"sv);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  beSilent();
  ModuleI2CInfo::cache.clear();
  Input input(data, size);
  const Doors doors(input);
  for (int call = 0; call < mostCalls && !input.empty(); ++call) {
    callOne(input);
    require(ModuleI2CInfo::cacheLock.try_lock());
    ModuleI2CInfo::cacheLock.unlock();
  }
  return 0;
}
