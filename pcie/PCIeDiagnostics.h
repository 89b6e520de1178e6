// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "pcie/DeviceIds.h"
#include "pcie/DiagnosticsResults.h"
#include "pcie/PCIeDownstreamPorts.h"

struct pci_device;

/// Diagnostics of the instrument's PCI Express fabric: the host's root port, the main switch whose
/// downstream ports lead to the module slots, and the shim switch that some modules carry.
///
/// The devices are resolved once: ports 0 to 3 by the constructor, ports 4 and 5 by
/// setupShimSwitch. Everything else is read from the hardware at each call. Programming the
/// hardware needs the rights to write PCI configuration space, which usually means root.
///
/// Every operation accepts every port value. A port is unresolved when its device was not found,
/// and so is a value outside 0 to 5: its registers are then neither read nor written, in particular
/// not those of another port, and nothing is printed about it. A port without an upstream port
/// counts as unresolved for the registers of its switch. Likewise, without a root port the root
/// port's registers are left alone.
///
/// Results of configuration accesses are not examined: a failed read counts as 0, a failed write is
/// lost.
///
/// Register traces go to std::cout and failures to std::cerr, each line flushed. Hexadecimal
/// numbers are lower-case, without prefix or leading zeros; std::cout is set to decimal after each
/// of them. The stream's other settings are neither used nor changed.
///
/// An object is used by one thread at a time, several objects by as many threads: they reach the
/// same registers, whose bits they set and clear by reading and writing them.
class PCIeDiagnostics {
 public:
  /// Calls setupAdvancedErrorReportingOnRootSwitch. Never fails: what was found is in the fields.
  PCIeDiagnostics();

  /// Releases nothing, and leaves the hardware as it is.
  ~PCIeDiagnostics();

  PCIeDiagnostics(const PCIeDiagnostics&) = delete;
  PCIeDiagnostics& operator=(const PCIeDiagnostics&) = delete;

  // The devices belong to libpciaccess.

  /// Root port, 0000:00:00.0; null when not found.
  pci_device* rootPort = nullptr;

  /// Upstream port of the main switch, 0000:01:00.0; null when not found.
  pci_device* switchUpstreamPort = nullptr;

  /// Upstream port of the shim switch; null until setupShimSwitch finds it.
  pci_device* shimUpstreamPort = nullptr;

  /// The downstream ports by PCIeDownstreamPorts value; null when not found.
  pci_device* downstreamPorts[6] = {};

  /// IDs of the downstream ports by PCIeDownstreamPorts value; zero when not found. Those of ports
  /// 4 and 5 are set when setupShimSwitch succeeds.
  DeviceIds downstreamIds[6] = {};

  /// The PCI system could be initialised.
  bool pciSystemReady = false;

  /// The root port was found.
  bool rootPortFound = false;

  /// IDs of the root port; zero when it was not found.
  DeviceIds rootPortIds;

  /// The upstream port of the main switch was found.
  bool switchUpstreamFound = false;

  /// IDs of the upstream port of the main switch; zero when it was not found.
  DeviceIds switchUpstreamIds;

  /// The last setupShimSwitch succeeded.
  bool shimUpstreamFound = false;

  /// IDs of the upstream port of the shim switch; zero unless shimUpstreamFound.
  DeviceIds shimUpstreamIds;

  /// @name Error reporting
  /// @{

  /// Initialises PCI access, finds the root port, the main switch's upstream port and ports 0 to 3,
  /// enables their error reporting and clears the error status they have latched.
  ///
  /// Prints "could not enumerate module: " and the port value in decimal to std::cerr for each of
  /// ports 0 to 3 that is missing; the others are still set up. Stops without a message and without
  /// writing any register when the PCI system, the root port or the upstream port is missing.
  ///
  /// Called again, it repeats all of this. The IDs of a root or upstream port that is no
  /// longer found, and the fields of devices it then does not get to, keep their values; the IDs of
  /// ports 4 and 5 are zero until the next setupShimSwitch.
  ///
  /// @return always 0; the outcome is in the fields
  int setupAdvancedErrorReportingOnRootSwitch();

  /// Names the errors of an Uncorrectable Error Status word. Prints nothing, touches no hardware.
  ///
  /// @param status  register value, such as DiagnosticsResults::portUncorrectableStatus
  /// @return the names of the bits set, lowest bit first, separated by ", "; "None" when there are
  ///         none. Bits without a name are ignored.
  std::string DecodeUncorrectableStatus(unsigned int status) const;

  /// Names the errors of a Correctable Error Status word, as DecodeUncorrectableStatus does.
  std::string DecodeCorrectableStatus(unsigned int status) const;

  /// @}
  /// @name Register bits of a port's switch
  /// The four bit operations act on the configuration space of the upstream port of the switch that
  /// owns the port, 32 bits at a time; the bits given select the port within the register.
  /// @{

  /// Reads a field. Prints nothing.
  ///
  /// @param port   selects the switch
  /// @param reg    configuration-space offset
  /// @param mask   bits to keep of the value read
  /// @param shift  places to shift the kept bits right; 32 and more leave nothing
  /// @return the field; 0 for an unresolved port
  unsigned int getDevicePortBits(PCIeDownstreamPorts port, unsigned int reg, unsigned int mask,
                                 unsigned char shift);

  /// Sets bits, or replaces a field, by a read and a write. Prints to std::cout "port: " and the
  /// port value in decimal before, "address: " and `reg` and "write: " and `bits` in hexadecimal
  /// after.
  ///
  /// @param port      selects the switch
  /// @param reg       configuration-space offset
  /// @param bits      bits to set
  /// @param keepMask  bits that keep their value unless they are in `bits`: 0xFFFFFFFF only adds
  ///                  `bits`, a mask with a field cleared replaces that field
  /// @return the value written; 0 for an unresolved port, for which nothing is printed
  unsigned int setDevicePortBits(PCIeDownstreamPorts port, unsigned int reg, unsigned int bits,
                                 unsigned int keepMask);

  /// Clears bits by a read and a write, which takes place even if they are clear already. Prints
  /// "port: " and the port value in decimal to std::cout before.
  ///
  /// @param port  selects the switch
  /// @param reg   configuration-space offset
  /// @param bits  bits to clear
  /// @return the value written; 0 for an unresolved port, for which nothing is printed
  unsigned int clearDevicePortBits(PCIeDownstreamPorts port, unsigned int reg, unsigned int bits);

  /// Tests bits. Prints to std::cout "port: " and the port value in decimal before, "portAddress: "
  /// and `reg`, "bits: " and `bits`, and "reg: " and the value read, in hexadecimal, after.
  ///
  /// @param port  selects the switch
  /// @param reg   configuration-space offset
  /// @param bits  bits to test
  /// @return any of the bits is set; false for an unresolved port, for which nothing is printed
  bool testDevicePortBits(PCIeDownstreamPorts port, unsigned int reg, unsigned int bits);

  /// Retrains a port's link, by the Link Control register of the port itself. Does not wait for the
  /// link to come up. Prints nothing; does nothing for an unresolved port.
  void retrainLink(PCIeDownstreamPorts port);

  /// @}
  /// @name Link checks
  /// @{

  /// Takes one snapshot of a port's path. Changes no register.
  ///
  /// With `prbs`, prints the register lines of checkForPRBSSync and readPRBSErrorCounter to
  /// std::cout and, to std::cerr, "prbsSync failed" when the checker is out of sync or the port has
  /// no upstream port, and "prbsErrors: " and the count in decimal when it is not 0. Otherwise
  /// prints nothing.
  ///
  /// @param port  port to look at
  /// @param prbs  also read the PRBS sync and error counter
  /// @return the root port's fields, zero without a root port; for a resolved port also those of
  ///         its switch, of the port and of PRBS. The fields that checkLiveDownstreamPort copies
  ///         from this object (pciSystemReady, rootPortFound, upstreamFound, rootPortIds,
  ///         upstreamIds) stay zero.
  DiagnosticsResults getDiagnosticsResults(PCIeDownstreamPorts port, bool prbs);

  /// Clears the latched error status of the root port and, for a resolved port, of its switch's
  /// upstream port and of the port. Prints nothing.
  void clearDownstreamResults(PCIeDownstreamPorts port);

  /// Sleeps; a signal does not shorten it. Prints nothing.
  ///
  /// @param ms  milliseconds; the whole seconds of it are cut to 32 bits with a sign, and do not
  ///            sleep at all when that makes them negative
  /// @return always 0
  int wait_ms(unsigned long ms);

  /// Watches a port's path: takes a snapshot and, when the root link is good and the root port and
  /// the upstream port were found, replaces it every 100 ms until the time is over, link or no
  /// link. Prints nothing.
  ///
  /// @param port        port to watch
  /// @param seconds     time to watch; 0 still waits 100 ms and takes a second snapshot. The number
  ///                    of snapshots, 10 a second, is computed in 32 bits and wraps around.
  /// @param clearFirst  clearDownstreamResults before the first snapshot
  /// @return the last snapshot and this object's flags and IDs, as upstream port those of the shim
  ///         switch for ports 4 and 5; only the flags and IDs, at once, without a PCI system
  DiagnosticsResults checkLiveDownstreamPort(PCIeDownstreamPorts port, unsigned int seconds,
                                             bool clearFirst);

  /// Whether a port's link is up: what its switch reports about 100 ms from now when the root link
  /// is good, or now when it is not, as checkLiveDownstreamPort with 0 seconds. Prints nothing,
  /// changes no register.
  ///
  /// @return false also for an unresolved port and, for every port, when the PCI system, the root
  ///         port or the main switch's upstream port is missing
  bool isLinkUp(PCIeDownstreamPorts port);

  /// PRBS loopback test: sets the test up, polls every 500 ms until an error is counted, the sync
  /// or the root link is lost or the time is over, and tears it down. Needs a good root link, the
  /// root port, the main switch's upstream port and PRBS sync to start polling. Latched error
  /// status is left as the test left it.
  ///
  /// Prints the lines of setupPRBSLoopbackTest, getDiagnosticsResults with PRBS, and
  /// tearDownPRBSLoopbackTest.
  ///
  /// @param port     port to test
  /// @param seconds  time to poll; 0 still polls once. The number of polls, 2 a second, is computed
  ///                 in 32 bits and wraps around.
  /// @return the last snapshot and this object's flags and IDs, as upstream port those of the main
  ///         switch for every port. The test passed when rootLinkOk and prbsSync are true and
  ///         prbsErrors is 0. Only the flags and IDs, at once, without a PCI system.
  DiagnosticsResults testDownstreamPort(PCIeDownstreamPorts port, unsigned int seconds);

  /// @}
  /// @name Shim switch
  /// @{

  /// Finds the shim switch of a module, whose downstream ports become ports 4 and 5, enables error
  /// reporting on its three devices and clears the error status they have latched. Assigns no bus
  /// numbers: the operating system has done so.
  ///
  /// Prints to std::cout "Module Downstream: " and the number of the module port's device on bus 2,
  /// then one line for each bridge on the way with its primary, secondary and subordinate bus, all
  /// in decimal. Stops with one line on std::cerr at the first device that is missing, "Could not
  /// find device: " and the module port's device number, or the bus of the shim switch's upstream
  /// port, or bus, "." and device number of its downstream port; or that is no bridge, "Device was
  /// not a bridge". Then no register is written, shimUpstreamFound is false and the IDs are zero,
  /// but the devices found so far stay in shimUpstreamPort and downstreamPorts.
  ///
  /// @param module  0 to 3, numbered as the backplane slots. Does nothing for other numbers or
  ///                without a PCI system: prints nothing, and an earlier shim switch stays set up.
  void setupShimSwitch(unsigned int module);

  /// @}
  /// @name Transmitter and loopback settings
  /// All but the refusals print the lines of the bit operations they use.
  /// @{

  /// Sets the post-cursor emphasis, bits 3:0 of register 0xBA8 of the port's switch.
  ///
  /// @param port   port to set
  /// @param index  must be 0
  /// @param value  new value, 0 to 15; larger values also set the register's bits above the field
  /// @return false for any other `index`, which changes and prints nothing; else true, also for an
  ///         unresolved port, for which nothing is done
  bool setPostCursorEmphasis(PCIeDownstreamPorts port, int index, unsigned int value);

  /// Sets the drive level, bits 3:0 of register 0xB98 of the port's switch, as
  /// setPostCursorEmphasis sets the emphasis.
  bool setDriveLevel(PCIeDownstreamPorts port, int index, unsigned int value);

  /// Switches the quiet 5 GT/s transmit mode, without loopback, on (which takes 10 ms) or off.
  ///
  /// @return always true, also for an unresolved port, for which nothing is done
  bool setTo5GQuietTransmitWithoutLoopback(PCIeDownstreamPorts port, bool enable);

  /// Switches external analog loopback on or off, then retrains the port's link. Takes 110 ms.
  ///
  /// @return the loopback bit reads back as requested. For an unresolved port nothing is done and
  ///         loopback counts as off.
  bool setPCIeExternalAnalogLoopback(PCIeDownstreamPorts port, bool enable);

  /// @}
  /// @name PRBS loopback controls
  /// All print the lines of the bit operations they use.
  /// @{

  /// Makes the switch loopback master on a port, or ends that. Takes 1 ms.
  ///
  /// @return the status bit reads 0 after enabling, or 1 after disabling. For an unresolved port
  ///         nothing is done and the bit counts as 0.
  bool setLoopbackMasterControl(PCIeDownstreamPorts port, bool enable);

  /// Switches PRBS off for every port of the port's switch and, with `enable`, on for the port.
  void setPRBSMode(PCIeDownstreamPorts port, bool enable);

  /// Makes the diagnostic register of the port's switch report on the port.
  void configurePRBSDiagnosicRegister(PCIeDownstreamPorts port);

  /// Starts the PRBS loopback test on a port: selects the port for the error counter, makes it
  /// loopback master, and switches PRBS off and on again. Takes 4 ms. When loopback master does not
  /// answer, prints "couldn't set up looback master control" to std::cerr and carries on.
  void setupPRBSLoopbackTest(PCIeDownstreamPorts port);

  /// Ends the PRBS loopback test: switches loopback master off for the port and PRBS off for every
  /// port of its switch. Takes 1 ms.
  void tearDownPRBSLoopbackTest(PCIeDownstreamPorts port);

  /// Whether the port's PRBS checker is in sync; false for an unresolved port.
  bool checkForPRBSSync(PCIeDownstreamPorts port);

  /// Reads the PRBS error counter of the port that configurePRBSDiagnosicRegister last selected on
  /// the port's switch.
  ///
  /// @return 0 to 255; 0 also while the counter is not valid, and for an unresolved port
  unsigned int readPRBSErrorCounter(PCIeDownstreamPorts port);

  /// @}
};
