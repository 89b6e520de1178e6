// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

class ModuleControllerInterface;
class SpbFPGA;

/// The module slots of the instrument's backplane, numbered 0 to 5.
///
/// Which controller a slot has is decided once, at construction: a module whose power expander
/// becomes reachable later keeps its slot's empty controller. Everything else is asked of the
/// hardware at each call.
///
/// The class prints nothing of its own, but what it uses does, on the standard error stream: module
/// power as Udev_PCA9536 says, and isModuleLinkUp() what the constructor of PCIeDiagnostics prints.
/// Calls take no lock.
class BackplaneInterface {
 public:
  /// Gives all six slots a controller.
  ///
  /// Whatever the FPGA's constructor or ModuleControllerInterfaceFactory throws passes through,
  /// after everything made so far has been released.
  BackplaneInterface();

  /// Gives one slot a controller, and leaves the others unprobed. They have no controller: there a
  /// module is present as the slot's presence test says, is never on, and turning it on or off
  /// switches its clock source only.
  ///
  /// @param slot  slot number; the controller of a negative one takes the place of slot 0's
  ///
  /// Fails as the default constructor does.
  explicit BackplaneInterface(int slot);

  /// Destroys the controllers, then the FPGA object; switches nothing.
  ~BackplaneInterface();

  BackplaneInterface(const BackplaneInterface&) = delete;
  BackplaneInterface& operator=(const BackplaneInterface&) = delete;

  /// Whether a module is in a slot: its power expander was found at construction, or the slot's
  /// presence test says so, which is an IMB being connected (slots 0 and 5), a presence line
  /// reading low or not being readable (slots 1 to 3), or nothing at all (slot 4: always present).
  ///
  /// Every call reads the board's straps, which leaves the GPIO lines that it reads exported as
  /// inputs.
  ///
  /// @param slot  slot number
  /// @return false also outside 0 to 5, where nothing else is read
  bool isModulePresent(int slot) const;

  /// Whether a module is powered.
  ///
  /// @param slot  slot number
  /// @return false also outside 0 to 5
  bool isModuleOn(int slot) const;

  /// Powers a module, then starts the slot's clock source. Waits for the power sequence of the
  /// module: up to 5 s.
  ///
  /// @param slot  slot number
  /// @return false outside 0 to 5, where nothing is done; otherwise true, whatever was achieved
  bool turnModuleOn(int slot);

  /// Stops a slot's clock source, then removes the module's power. Waits for the power sequence of
  /// the module: up to 2 s.
  ///
  /// @param slot  slot number
  /// @return false outside 0 to 5, where nothing is done; otherwise true, whatever was achieved
  bool turnModuleOff(int slot);

  /// Whether the PCIe link of a slot is up: see PCIeDiagnostics::isLinkUp.
  ///
  /// Every call, whatever the slot, constructs a PCIeDiagnostics, which initialises PCI access and
  /// programs error reporting along the path to the slots.
  ///
  /// @param slot  slot number
  /// @return false also outside 0 to 3, as no other slot has a downstream port
  bool isModuleLinkUp(int slot) const;

 private:
  // A type of its own: a literal 0 that is no int converts to a pointer as well as to a slot.
  struct OwnedFpga;
  explicit BackplaneInterface(OwnedFpga owned);

  SpbFPGA* fpga;
  std::vector<ModuleControllerInterface*> moduleControllers;
};
