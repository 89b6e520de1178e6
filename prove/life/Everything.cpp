// SPDX-License-Identifier: MIT
#include "prove/life/Everything.h"

#include <memory>
#include <vector>

#include "board/BoardId.h"
#include "modules/BackplaneInterface.h"
#include "modules/ModuleControllerInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "pcie/PCIeDiagnostics.h"
#include "sysfs/SysfsUtil.h"

namespace {

struct Answer {
  const char* name;
  bool right;
};

std::string wrongOf(const std::vector<Answer>& answers) {
  std::string wrong;
  for (const Answer& answer : answers) {
    wrong += answer.right ? "" : std::string(" ") + answer.name;
  }
  return wrong.empty() ? "" : "wrong:" + wrong;
}

std::string label() {
  return SysfsUtil().readSysfs("/sys/class/gpio/gpiochip0/label", nullptr, true);
}

bool readsRegisters() {
  PCIeDiagnostics pcie;
  return pcie.getDiagnosticsResults(DownstreamPort9, false).portDataLinkActive;
}

}  // namespace

std::string wrongOfEverything() {
  const std::unique_ptr<ModuleControllerInterface> controller(
      ModuleControllerInterfaceFactory::createModuleInterface(2));
  return wrongOf({
      {"SysfsUtil", label() == "talvero-sim"},
      {"BoardId", BoardId().id == 34},
      {"ModuleI2CInfo", ModuleI2CInfo(1).solutionBus == "i2c-31"},
      {"Udev_PCA9536", Udev_PCA9536(1).isPowerOn()},
      {"createModuleInterface", controller->isPresent() && controller->isOn()},
      {"BackplaneInterface", BackplaneInterface().isModuleOn(2)},
      {"PCIeDiagnostics", readsRegisters()},
  });
}

std::string wrongOfEachDoor() {
  return wrongOf({
      {"SysfsUtil", label() == "talvero-sim"},
      {"ModuleI2CInfo", ModuleI2CInfo(1).solutionBus == "i2c-31"},
      {"PCIeDiagnostics", readsRegisters()},
  });
}
