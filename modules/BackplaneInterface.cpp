// SPDX-License-Identifier: MIT
#include "modules/BackplaneInterface.h"

#include <iterator>
#include <optional>

#include "board/BoardId.h"
#include "modules/ModuleControllerInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "pcie/PCIeDiagnostics.h"
#include "pcie/PCIeDownstreamPorts.h"
#include "platform/SpbFPGA.h"
#include "sysfs/SysfsUtil.h"

namespace {

enum class PresenceTest { always, imbConnected, lineLow };

struct Slot {
  PresenceTest presenceTest;
  int presenceLine;
  std::optional<PCIeDownstreamPorts> port;
};

constexpr int noLine = -1;

constexpr Slot slots[] = {
    {PresenceTest::imbConnected, noLine, DownstreamPort1},
    {PresenceTest::lineLow, 127, DownstreamPort9},
    {PresenceTest::lineLow, 133, DownstreamPort7},
    {PresenceTest::lineLow, 134, DownstreamPort5},
    {PresenceTest::always, noLine, std::nullopt},
    {PresenceTest::imbConnected, noLine, std::nullopt},
};

constexpr int slotCount = static_cast<int>(std::size(slots));

bool isSlot(int number) { return number >= 0 && number < slotCount; }

bool testPresence(const Slot& slot, const BoardId& board, SysfsUtil& sysfs) {
  switch (slot.presenceTest) {
    case PresenceTest::imbConnected:
      return board.isIMBConnected();
    case PresenceTest::lineLow:
      return !sysfs.readGpioValue(slot.presenceLine);
    case PresenceTest::always:
      break;
  }
  return true;
}

using Controllers = std::vector<ModuleControllerInterface*>;

// Makes room first: a controller that cannot be stored would be lost.
void appendController(Controllers& controllers, int slot) {
  controllers.reserve(controllers.size() + 1);
  controllers.push_back(ModuleControllerInterfaceFactory::createModuleInterface(slot));
}

// Null where the slot was not probed.
ModuleControllerInterface* controllerOf(const Controllers& controllers, int slot) {
  const auto index = static_cast<std::size_t>(slot);
  return index < controllers.size() ? controllers[index] : nullptr;
}

}  // namespace

struct BackplaneInterface::OwnedFpga {
  SpbFPGA* fpga;
};

BackplaneInterface::BackplaneInterface(OwnedFpga owned) : fpga(owned.fpga) {}

// The public constructors delegate, so that the destructor releases what they made when they throw.
BackplaneInterface::BackplaneInterface() : BackplaneInterface(OwnedFpga{new SpbFPGA}) {
  for (int slot = 0; slot < slotCount; ++slot) {
    appendController(moduleControllers, slot);
  }
}

BackplaneInterface::BackplaneInterface(int slot) : BackplaneInterface(OwnedFpga{new SpbFPGA}) {
  if (slot > 0) {
    moduleControllers.resize(static_cast<std::size_t>(slot));
  }
  appendController(moduleControllers, slot);
}

BackplaneInterface::~BackplaneInterface() {
  for (ModuleControllerInterface* controller : moduleControllers) {
    delete controller;
  }
  delete fpga;
}

bool BackplaneInterface::isModulePresent(int slot) const {
  const BoardId board;
  SysfsUtil sysfs;
  if (!isSlot(slot)) {
    return false;
  }
  const bool testedPresent = testPresence(slots[slot], board, sysfs);
  ModuleControllerInterface* controller = controllerOf(moduleControllers, slot);
  return (controller != nullptr && controller->isPresent()) || testedPresent;
}

bool BackplaneInterface::isModuleOn(int slot) const {
  if (!isSlot(slot)) {
    return false;
  }
  ModuleControllerInterface* controller = controllerOf(moduleControllers, slot);
  return controller != nullptr && controller->isOn();
}

bool BackplaneInterface::turnModuleOn(int slot) {
  if (!isSlot(slot)) {
    return false;
  }
  if (ModuleControllerInterface* controller = controllerOf(moduleControllers, slot)) {
    controller->turnOn();
  }
  fpga->TurnOnModuleClockSource(static_cast<unsigned int>(slot));
  return true;
}

bool BackplaneInterface::turnModuleOff(int slot) {
  if (!isSlot(slot)) {
    return false;
  }
  fpga->TurnOffModuleClockSource(static_cast<unsigned int>(slot));
  if (ModuleControllerInterface* controller = controllerOf(moduleControllers, slot)) {
    controller->turnOff();
  }
  return true;
}

bool BackplaneInterface::isModuleLinkUp(int slot) const {
  PCIeDiagnostics diagnostics;
  if (!isSlot(slot) || !slots[slot].port) {
    return false;
  }
  return diagnostics.isLinkUp(*slots[slot].port);
}
