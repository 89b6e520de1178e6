// SPDX-License-Identifier: MIT
#include "prove/life/Operations.h"

#include <memory>

#include "board/BoardId.h"
#include "modules/BackplaneInterface.h"
#include "modules/EmptyModuleInterface.h"
#include "modules/I2CModuleInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "pcie/PCIeDiagnostics.h"
#include "prove/life/Holdings.h"
#include "sysfs/SysfsUtil.h"

namespace {

using std::chrono::milliseconds;

// How many calls there are of those that reach nothing outside, files or registers, and udev's list
// of devices or switch something.
constexpr long none = 1000000;
constexpr long file = 1000;
constexpr long list = 100;

constexpr char label[] = "/sys/class/gpio/gpiochip0/label";  // "talvero-sim\n"
constexpr char directory[] = "/sys/class/gpio";

// Objects that are made once, when they are first asked for.
template <typename Object, auto... arguments>
Object& the() {
  static Object object(arguments...);
  return object;
}

SysfsUtil& sysfs() { return the<SysfsUtil>(); }
const BoardId& board() { return the<BoardId>(); }
PCIeDiagnostics& pcie() { return the<PCIeDiagnostics>(); }
Udev_PCA9536& power() { return the<Udev_PCA9536, 1U>(); }
BackplaneInterface& backplane() { return the<BackplaneInterface>(); }
EmptyModuleInterface& empty() { return the<EmptyModuleInterface>(); }

I2CModuleInterface& controller() {
  static I2CModuleInterface object(new Udev_PCA9536(1));
  return object;
}

/// That of an expander, which has its GPIO chip in `gpio`.
const std::string& expander() {
  static const std::string path = power().GetDevices().front();
  return path;
}

bool forgetAndResolve() {
  {
    const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
    ModuleI2CInfo::cache.clear();
  }
  return ModuleI2CInfo(1).systemBus == "i2c-30";
}

/// For operations that answer nothing.
template <typename Function>
bool done(Function function) {
  function();
  return true;
}

const Operation ofSysfs[] = {
    {"exportGpio", file, [] { return done([] { sysfs().exportGpio("82"); }); }},
    {"readSysfs(path, buffer, 4)", file,
     [] {
       char buffer[4];
       return sysfs().readSysfs(label, buffer, sizeof buffer);
     }},
    {"readSysfs(path, buffer, 0)", file,
     [] {
       char buffer[4096];
       return sysfs().readSysfs(label, buffer, 0);
     }},
    {"readSysfs(path, success, strip)", file,
     [] { return sysfs().readSysfs(label, nullptr, true) == "talvero-sim"; }},
    {"readSysfs of no file", file,
     [] {
       bool success = true;
       return sysfs().readSysfs("/sys/none", &success, true).empty() && !success;
     }},
    {"writeSysfs", file,
     [] { return sysfs().writeSysfs("/sys/class/gpio/gpio82/direction", "out", 3); }},
    {"writeSysfs, refused", file, [] { return !sysfs().writeSysfs(label, "x", 1); }},
    {"ReadDirectory", file, [] { return sysfs().ReadDirectory(directory).size() > 4; }},
    {"FindFile(exact)", file,
     [] { return sysfs().FindFile(expander(), "gpio", true) == expander() + "/gpio"; }},
    {"FindFile(part)", file,
     [] { return !sysfs().FindFile(expander() + "/gpio", "chip", false).empty(); }},
    {"FindGpioBase", file, [] { return sysfs().FindGpioBase(expander()) >= 512; }},
    {"setGpioDirectionOutput", file, [] { return sysfs().setGpioDirectionOutput("82"); }},
    {"setGpioDirectionInput", file, [] { return sysfs().setGpioDirectionInput("82"); }},
    {"readGpioValue(text)", file, [] { return sysfs().readGpioValue("82", nullptr) == "0"; }},
    {"readGpioValue(number)", file, [] { return !sysfs().readGpioValue(82); }},
    {"readGpioValue of no line", file, [] { return !sysfs().readGpioValue(9999); }},
    {"setGpioValue(text)", file, [] { return sysfs().setGpioValue("83", "1"); }},
    {"setGpioValue(number)", file, [] { return sysfs().setGpioValue(83, false); }},
};

const Operation ofBoards[] = {
    {"BoardId()", file, [] { return BoardId().id == 34; }},
    {"getIdDescription", none, [] { return !board().getIdDescription().empty(); }},
    {"isMMB", none, [] { return !board().isMMB(); }},
    {"isQuindara", none, [] { return !board().isQuindara(); }},
    {"isTuvak", none, [] { return !board().isTuvak(); }},
    {"isCXB", none, [] { return !board().isCXB(); }},
    {"isSPB", none, [] { return board().isSPB(); }},
    {"isBoardIdKnown", none, [] { return board().isBoardIdKnown(); }},
    {"isProtoZero", none, [] { return !board().isProtoZero(); }},
    {"isProtoOne", none, [] { return !board().isProtoOne(); }},
    {"isProtoTwo", none, [] { return board().isProtoTwo(); }},
    {"isPMBConnected", list, [] { return !board().isPMBConnected(); }},
    {"isIMBConnected", file, [] { return board().isIMBConnected(); }},
};

constexpr PCIeDownstreamPorts port = DownstreamPort5;

const Operation ofPcie[] = {
    {"PCIeDiagnostics()", list, [] { return PCIeDiagnostics().switchUpstreamFound; }, initialise},
    {"setupAdvancedErrorReporting...", list,
     [] { return done([] { pcie().setupAdvancedErrorReportingOnRootSwitch(); }); }, initialise},
    {"DecodeUncorrectableStatus", none,
     [] { return pcie().DecodeUncorrectableStatus(~0U).size() > 100; }},
    {"DecodeCorrectableStatus", none,
     [] { return pcie().DecodeCorrectableStatus(~0U).size() > 50; }},
    {"getDevicePortBits", file, [] { return pcie().getDevicePortBits(port, 0xB98, 1, 0) < 2; }},
    {"setDevicePortBits", file, [] { return pcie().setDevicePortBits(port, 0xB98, 1, ~0U) != 0; }},
    {"clearDevicePortBits", file, [] { return pcie().clearDevicePortBits(port, 0xB98, 1) != ~0U; }},
    {"testDevicePortBits", file, [] { return !pcie().testDevicePortBits(port, 0xB98, 1); }},
    {"retrainLink", file, [] { return done([] { pcie().retrainLink(port); }); }},
    {"getDiagnosticsResults", file,
     [] { return pcie().getDiagnosticsResults(port, false).portIds.vendorId != 0; }},
    {"getDiagnosticsResults(prbs)", file,
     [] { return pcie().getDiagnosticsResults(port, true).portIds.vendorId != 0; }},
    {"clearDownstreamResults", file,
     [] { return done([] { pcie().clearDownstreamResults(port); }); }},
    {"wait_ms", file, [] { return done([] { pcie().wait_ms(1); }); }},
    {"checkLiveDownstreamPort", list,
     [] { return pcie().checkLiveDownstreamPort(port, 1, true).upstreamFound; }},
    {"isLinkUp", file, [] { return done([] { pcie().isLinkUp(port); }); }},
    {"testDownstreamPort", list, [] { return pcie().testDownstreamPort(port, 1).prbsSync; }},
    {"setupShimSwitch", file, [] { return done([] { pcie().setupShimSwitch(1); }); }},
    {"setPostCursorEmphasis", file, [] { return pcie().setPostCursorEmphasis(port, 0, 1); }},
    {"setDriveLevel", file, [] { return pcie().setDriveLevel(port, 0, 1); }},
    {"setTo5GQuietTransmit...", file,
     [] { return done([] { pcie().setTo5GQuietTransmitWithoutLoopback(port, false); }); }},
    {"setPCIeExternalAnalogLoopback", file,
     [] { return done([] { pcie().setPCIeExternalAnalogLoopback(port, false); }); }},
    {"setLoopbackMasterControl", file,
     [] { return done([] { pcie().setLoopbackMasterControl(port, false); }); }},
    {"setPRBSMode", file, [] { return done([] { pcie().setPRBSMode(port, false); }); }},
    {"configurePRBSDiagnosicRegister", file,
     [] { return done([] { pcie().configurePRBSDiagnosicRegister(port); }); }},
    {"setupPRBSLoopbackTest", list,
     [] { return done([] { pcie().setupPRBSLoopbackTest(port); }); }},
    {"tearDownPRBSLoopbackTest", list,
     [] { return done([] { pcie().tearDownPRBSLoopbackTest(port); }); }},
    {"checkForPRBSSync", file, [] { return done([] { pcie().checkForPRBSSync(port); }); }},
    {"readPRBSErrorCounter", file, [] { return pcie().readPRBSErrorCounter(port) < 256; }},
};

const Operation ofModules[] = {
    {"ModuleI2CInfo, cached", none, [] { return ModuleI2CInfo(1).systemBus == "i2c-30"; }},
    {"ModuleI2CInfo, resolved", list, forgetAndResolve},
    {"local1", file, [] { return ModuleI2CInfo(1).local1() == "i2c-20"; }},
    {"local2", file, [] { return ModuleI2CInfo(1).local2() == "i2c-21"; }},
    {"local3", file, [] { return ModuleI2CInfo(1).local3() == "i2c-22"; }},
    {"local4", file, [] { return ModuleI2CInfo(1).local4() == "i2c-23"; }},
    {"Udev_PCA9536()", list, [] { return !Udev_PCA9536(1).GetPath().empty(); }},
    {"GetPath", none, [] { return !power().GetPath().empty(); }},
    {"isPowerOn", file, [] { return done([] { power().isPowerOn(); }); }},
    {"PowerOff", list, [] { return done([] { power().PowerOff(); }); }},
    {"PowerOn", list, [] { return done([] { power().PowerOn(); }); }},
    {"GetDevices", list, [] { return power().GetDevices().size() == 4; }},
    {"Udev_PCA9536::ReadDirectory", file,
     [] { return power().ReadDirectory(directory).size() > 4; }},
    {"FindSubdir", file,
     [] { return power().FindSubdir(expander(), "gpio", true) == expander() + "/gpio"; }},
    {"SetupGpio", file, [] { return done([] { power().SetupGpio(); }); }},
    {"GpioExported", file, [] { return power().GpioExported(); }},
    {"PowerSequenceDone", file, [] { return done([] { power().PowerSequenceDone(); }); }},
    {"WaitForPowerSequence", list,
     [] { return done([] { power().WaitForPowerSequence(true, milliseconds(100)); }); }},
    {"EmptyModuleInterface", none, [] { return !empty().isPresent() && !empty().isOn(); }},
    {"EmptyModuleInterface, switched", none,
     [] {
       empty().turnOn();
       empty().turnOff();
       return true;
     }},
    {"I2CModuleInterface::isPresent", none, [] { return controller().isPresent(); }},
    {"I2CModuleInterface::isOn", file, [] { return done([] { controller().isOn(); }); }},
    {"I2CModuleInterface::turnOff", list, [] { return done([] { controller().turnOff(); }); }},
    {"I2CModuleInterface::turnOn", list, [] { return done([] { controller().turnOn(); }); }},
    {"createModuleInterface", list,
     [] {
       return std::unique_ptr<ModuleControllerInterface>(
                  ModuleControllerInterfaceFactory::createModuleInterface(1))
           ->isPresent();
     }},
    {"BackplaneInterface()", list, [] { return BackplaneInterface().isModulePresent(1); }},
    {"BackplaneInterface(slot)", list, [] { return BackplaneInterface(1).isModulePresent(1); }},
    {"isModulePresent", file, [] { return backplane().isModulePresent(1); }},
    {"isModuleOn", file, [] { return done([] { backplane().isModuleOn(1); }); }},
    {"turnModuleOff", list, [] { return backplane().turnModuleOff(1); }},
    {"turnModuleOn", list, [] { return backplane().turnModuleOn(1); }},
    {"isModuleLinkUp", list, [] { return done([] { backplane().isModuleLinkUp(0); }); },
     initialiseAndAsk},
};

}  // namespace

std::vector<Operation> operations() {
  std::vector<Operation> all;
  all.insert(all.end(), std::begin(ofSysfs), std::end(ofSysfs));
  all.insert(all.end(), std::begin(ofBoards), std::end(ofBoards));
  all.insert(all.end(), std::begin(ofPcie), std::end(ofPcie));
  all.insert(all.end(), std::begin(ofModules), std::end(ofModules));
  return all;
}
