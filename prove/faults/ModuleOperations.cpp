// SPDX-License-Identifier: MIT
#include <memory>

#include "modules/BackplaneInterface.h"
#include "modules/ModuleControllerInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "prove/faults/FaultSweep.h"

namespace {

const std::string noUdev = "throws Can't create udev";
const std::string unresolved =
    "|throws Can't create udev|throws platform: .*|throws Invalid argument|throws stoi";
const Failure withoutUdev = {"udev_new|udev_enumerate_new", noUdev};

std::string text(bool result) { return result ? "true" : "false"; }

/// A call of the object that controls the power of module 1, or of 2.
std::function<Call()> onPower(std::string (*call)(Udev_PCA9536& power), unsigned int module = 1) {
  return [call, module] {
    const auto power = std::make_shared<Udev_PCA9536>(module);
    return [power, call] { return call(*power); };
  };
}

std::function<Call()> onBackplane(std::string (*call)(BackplaneInterface& backplane)) {
  return [call] {
    const auto backplane = std::make_shared<BackplaneInterface>();
    return [backplane, call] { return call(*backplane); };
  };
}

std::function<Call()> onBuses(std::string (*call)(const ModuleI2CInfo& buses)) {
  return [call] {
    const auto buses = std::make_shared<ModuleI2CInfo>(1);
    return [buses, call] { return call(*buses); };
  };
}

}  // namespace

std::vector<Operation> moduleOperations() {
  return {
      {"ModuleI2CInfo", "i2c-12 i2c-32 i2c-33 false",
       "(i2c-[0-9]+)? (i2c-[0-9]+)? (i2c-[0-9]+)? (true|false)" + unresolved, 0,
       [] {
         return [] {
           const ModuleI2CInfo buses(2);
           return buses.topBus + " " + buses.systemBus + " " + buses.solutionBus + " " +
                  text(buses.is2k4k);
         };
       },
       withoutUdev, true},
      {"ModuleI2CInfo::local1", "i2c-20", "(i2c-[0-9]+)?|throws platform: .*", 0,
       onBuses([](const ModuleI2CInfo& buses) { return buses.local1(); })},
      {"ModuleI2CInfo::local4", "i2c-23", "(i2c-[0-9]+)?|throws platform: .*", 0,
       onBuses([](const ModuleI2CInfo& buses) { return buses.local4(); })},
      {"Udev_PCA9536", "/sys/devices/i2c-2/i2c-12/i2c-32/32-0041/gpio/gpiochip520",
       "(/sys/.*/gpiochip[0-9]+)?" + unresolved, 0,
       [] { return [] { return Udev_PCA9536(2).GetPath(); }; }, withoutUdev, true},
      {"Udev_PCA9536::GetDevices",
       "/sys/devices/i2c-2/i2c-10/10-0041 /sys/devices/i2c-2/i2c-11/i2c-30/30-0041 "
       "/sys/devices/i2c-2/i2c-12/i2c-32/32-0041 /sys/devices/i2c-2/i2c-13/13-0041 ",
       "(/sys/\\S+ )*|" + noUdev, 0, onPower([](Udev_PCA9536& power) {
         std::string all;
         for (const std::string& device : power.GetDevices()) {
           all += device + " ";
         }
         return all;
       }),
       withoutUdev},
      {"Udev_PCA9536::ReadDirectory", ". .. uevent subsystem name gpiochip0 gpio driver ",
       "([a-z0-9:._-]+ )*", 0, onPower([](Udev_PCA9536& power) {
         std::string all;
         for (const std::string& name : power.ReadDirectory("/sys/bus/i2c/devices/30-0041")) {
           all += name + " ";
         }
         return all;
       })},
      {"Udev_PCA9536::FindSubdir", "/sys/bus/i2c/devices/30-0041/gpio",
       "(/sys/bus/i2c/devices/30-0041/gpio)?", 0, onPower([](Udev_PCA9536& power) {
         return power.FindSubdir("/sys/bus/i2c/devices/30-0041", "gpio", true);
       })},
      {"Udev_PCA9536::SetupGpio", "", "", 0, onPower([](Udev_PCA9536& power) {
         power.SetupGpio();
         return std::string();
       })},
      {"Udev_PCA9536::GpioExported", "true", "true|false", 0,
       onPower([](Udev_PCA9536& power) { return text(power.GpioExported()); })},
      {"Udev_PCA9536::isPowerOn", "true", "true|false", 0,
       onPower([](Udev_PCA9536& power) { return text(power.isPowerOn()); })},
      {"Udev_PCA9536::PowerSequenceDone", "true", "true|false", 0,
       onPower([](Udev_PCA9536& power) { return text(power.PowerSequenceDone()); })},
      {"Udev_PCA9536::WaitForPowerSequence", "", "", 1020, onPower([](Udev_PCA9536& power) {
         power.WaitForPowerSequence(false, std::chrono::milliseconds(1000));
         return std::string();
       })},
      {"Udev_PCA9536::PowerOff", "", "|throws platform: .*", 2020, onPower([](Udev_PCA9536& power) {
         power.PowerOff();
         return std::string();
       })},
      {"Udev_PCA9536::PowerOn", "", "|throws platform: .*", 5020, onPower([](Udev_PCA9536& power) {
         power.PowerOn();
         return std::string();
       })},
      {"ModuleControllerInterfaceFactory", "present on",
       "present (on|off)|absent (on|off)" + unresolved, 0,
       [] {
         return [] {
           const std::unique_ptr<ModuleControllerInterface> module(
               ModuleControllerInterfaceFactory::createModuleInterface(1));
           return std::string(module->isPresent() ? "present" : "absent") +
                  (module->isOn() ? " on" : " off");
         };
       },
       withoutUdev, true},
      {"BackplaneInterface", "", unresolved, 0,
       [] {
         return [] {
           const BackplaneInterface backplane;
           return std::string();
         };
       },
       withoutUdev, true},
      {"BackplaneInterface of a slot", "", unresolved, 0,
       [] {
         return [] {
           const BackplaneInterface backplane(1);
           return std::string();
         };
       },
       withoutUdev, true},
      {"BackplaneInterface::isModulePresent", "true true true",
       "(true|false) (true|false) (true|false)", 0, onBackplane([](BackplaneInterface& backplane) {
         return text(backplane.isModulePresent(0)) + " " + text(backplane.isModulePresent(1)) +
                " " + text(backplane.isModulePresent(3));
       })},
      {"BackplaneInterface::isModuleOn", "true", "true|false", 0,
       onBackplane([](BackplaneInterface& backplane) { return text(backplane.isModuleOn(1)); })},
      {"BackplaneInterface::turnModuleOff", "true", "true|throws platform: .*", 2020,
       onBackplane([](BackplaneInterface& backplane) { return text(backplane.turnModuleOff(1)); })},
      {"BackplaneInterface::turnModuleOn", "true", "true|throws platform: .*", 5020,
       onBackplane([](BackplaneInterface& backplane) { return text(backplane.turnModuleOn(1)); })},
      {"BackplaneInterface::isModuleLinkUp", "true", "true|false", 200,
       onBackplane(
           [](BackplaneInterface& backplane) { return text(backplane.isModuleLinkUp(1)); })},
  };
}
