// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <atomic>
#include <iomanip>
#include <iostream>
#include <thread>
#include <vector>

#include "pcie/DiagnosticMaskRegs.h"
#include "pcie/PCIeDiagnostics.h"
#include "tests/Support.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Lines = std::vector<std::string>;

constexpr unsigned int keepAll = 0xFFFFFFFF;

constexpr PCIeDownstreamPorts allPorts[] = {DownstreamPort1, DownstreamPort5, DownstreamPort7,
                                            DownstreamPort9, ShimPort1,       ShimPort5};

// The shim switch is on module 1, behind DownstreamPort9.
const char* const portAddresses[] = {"0000:02:01.0", "0000:02:05.0", "0000:02:07.0",
                                     "0000:02:09.0", "0000:07:01.0", "0000:07:05.0"};

const std::string rootAddress = "0000:00:00.0";

std::string upstreamAddress(PCIeDownstreamPorts port) {
  return port < ShimPort1 ? "0000:01:00.0" : "0000:06:00.0";
}

/// The start of the description of the port's switch.
std::string switchGroup(PCIeDownstreamPorts port) {
  return port < ShimPort1 ? "[pci switch]\n" : "[pci shim]\n";
}

/// Diagnostics on a described fabric whose set-up is over and out of the trace.
class Fabric : public Instrument {
 public:
  explicit Fabric(const std::string& description) : Instrument("[pci]\nshim=1\n" + description) {
    diagnostics.setupShimSwitch(1);
    takeTrace();
    setUp = console.output();
  }

  Console console;
  PCIeDiagnostics diagnostics;

  /// The console lines since the set-up.
  std::string output() const { return console.output().substr(setUp.size()); }

 private:
  std::string setUp;
};

Lines with(const Lines& trace, const std::string& word) {
  Lines found;
  for (const std::string& line : trace) {
    if (line.find(word) != std::string::npos) {
      found.push_back(line);
    }
  }
  return found;
}

Lines join(const std::vector<Lines>& parts) {
  Lines all;
  for (const Lines& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

std::string hex(unsigned long number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

/// The accesses of a read, a change and a write.
Lines update(const std::string& device, int width, unsigned int offset, unsigned int before,
             unsigned int after) {
  const std::string bits = std::to_string(width) + " " + device + " " + hex(offset) + " ";
  return {"pci read" + bits + hex(before), "pci write" + bits + hex(after)};
}

/// The value that an access in the trace has read or written.
unsigned int valueIn(const std::string& access) {
  return static_cast<unsigned int>(std::stoul(access.substr(access.rfind(' ')), nullptr, 16));
}

/// All that a record says of errors; what was not read is zero.
unsigned int errorsIn(const DiagnosticsResults& results) {
  return results.rootUncorrectableStatus | results.rootCorrectableStatus |
         results.upstreamUncorrectableStatus | results.upstreamCorrectableStatus |
         results.portUncorrectableStatus | results.portCorrectableStatus | results.portRegister1E8 |
         results.portRegister1EC | results.prbsErrors;
}

Lines bridgeSetUp(const std::string& device, unsigned int status = 0) {
  return join({update(device, 32, 0x04, status | 0x7, status | 0x107),
               update(device, 32, 0x3C, 0xFF, 0x300FF),
               update(device, 16, 0x70, 0x2810, 0x281F),
               update(device, 32, 0xFCC, 0xA0, 0x1A0),
               {"pci write32 " + device + " fb8 3ff030", "pci write32 " + device + " fc4 31c1"}});
}

std::string bridgeBefore(const std::string& name, const std::string& status = "0") {
  return "[pci " + name + "]\nregister-4=" + status + "\nregister-3c=0xff\nregister-70=0x2810\n" +
         "register-fcc=0xa0\n";
}

TEST(Discovery, EnablesErrorReportingAlongThePathAndClearsWhatIsLatched) {
  Instrument instrument(
      "[pci]\n[pci root]\nregister-78=0x000f2811\nregister-12c=0x80\nregister-8c=0x18\n"
      "register-130=0x7f\nregister-110=0x31c1\nregister-104=0x100010\n" +
      bridgeBefore("switch", "0xf9000007") + bridgeBefore("port1", "7") +
      bridgeBefore("port5", "7") + bridgeBefore("port9", "7") + bridgeBefore("port7") +
      "present=no\n");
  const Console console;
  const PCIeDiagnostics diagnostics;
  EXPECT_THAT(
      instrument.takeTrace(),
      ElementsAreArray(join({{"pci_system_init", "pci find 0000:00:00.0", "pci find 0000:01:00.0",
                              "pci find 0000:02:01.0", "pci find 0000:02:05.0",
                              "pci find 0000:02:07.0: ENODEV", "pci find 0000:02:09.0"},
                             update(rootAddress, 16, 0x78, 0x2811, 0x281F),
                             update(rootAddress, 16, 0x12C, 0x80, 0x87),
                             update(rootAddress, 16, 0x7A, 0xF, 0xF),
                             update(rootAddress, 32, 0x8C, 0x18, 0x1F),
                             update(rootAddress, 32, 0x130, 0x7F, 0x7F),
                             update(rootAddress, 32, 0x110, 0x31C1, 0x31C1),
                             update(rootAddress, 32, 0x104, 0x100010, 0x100010),
                             bridgeSetUp("0000:01:00.0", 0xF9000000),
                             bridgeSetUp("0000:02:01.0"),
                             bridgeSetUp("0000:02:05.0"),
                             bridgeSetUp("0000:02:09.0")})));
  EXPECT_EQ(console.errors(), "could not enumerate module: 2\n");
  EXPECT_EQ(console.output(), "");

  EXPECT_TRUE(diagnostics.pciSystemReady && diagnostics.rootPortFound &&
              diagnostics.switchUpstreamFound);
  EXPECT_FALSE(diagnostics.shimUpstreamFound);
  EXPECT_EQ(diagnostics.rootPortIds.vendorId, 0x7A1E);
  EXPECT_EQ(diagnostics.rootPortIds.deviceId, 0x1000);
  EXPECT_EQ(diagnostics.switchUpstreamIds.deviceId, 0x1001);
  const unsigned int ids[] = {0x1002, 0x1003, 0, 0x1005, 0, 0};
  for (const PCIeDownstreamPorts port : allPorts) {
    EXPECT_EQ(diagnostics.downstreamIds[port].deviceId, ids[port]);
    EXPECT_EQ(diagnostics.downstreamPorts[port] != nullptr, ids[port] != 0);
  }
}

TEST(Discovery, StopsSilentlyWhereThePathEnds) {
  const struct {
    const char* description;
    Lines trace;
    bool flags[3];
  } cases[] = {{"", {"pci_system_init: ENOENT"}, {false, false, false}},
               {"[pci]\n[pci root]\npresent=no",
                {"pci_system_init", "pci find 0000:00:00.0: ENODEV"},
                {true, false, false}},
               {"[pci]\n[pci switch]\npresent=no",
                {"pci_system_init", "pci find 0000:00:00.0", "pci find 0000:01:00.0: ENODEV"},
                {true, true, false}}};
  for (const auto& test : cases) {
    Instrument instrument(test.description);
    const Console console;
    PCIeDiagnostics diagnostics;
    EXPECT_THAT(instrument.takeTrace(), ElementsAreArray(test.trace));
    EXPECT_EQ(diagnostics.pciSystemReady, test.flags[0]);
    EXPECT_EQ(diagnostics.rootPortFound, test.flags[1]);
    EXPECT_EQ(diagnostics.switchUpstreamFound, test.flags[2]);
    EXPECT_EQ(diagnostics.setupAdvancedErrorReportingOnRootSwitch(), 0);
    instrument.takeTrace();
    EXPECT_FALSE(diagnostics.isLinkUp(DownstreamPort1));
    const DiagnosticsResults results = diagnostics.testDownstreamPort(DownstreamPort1, 1);
    EXPECT_EQ(results.pciSystemReady, test.flags[0]);
    EXPECT_EQ(results.rootPortFound, test.flags[1]);
    EXPECT_FALSE(results.upstreamFound);
    EXPECT_EQ(errorsIn(results), 0U);
    diagnostics.clearDownstreamResults(DownstreamPort1);
    const Lines writes = with(instrument.takeTrace(), "pci write");
    EXPECT_EQ(writes.size(), test.flags[1] ? 4U : 0U) << "the root port's, when there is one";
    EXPECT_EQ(console.output() + console.errors(), "");
  }
}

TEST(Discovery, RepeatedForgetsWhatIsGone) {
  const Console console;
  auto instrument = std::make_unique<Instrument>("[pci]\nshim=1\n");
  PCIeDiagnostics diagnostics;
  diagnostics.setupShimSwitch(1);
  const auto repeatWithout = [&](const std::string& device) {
    instrument.reset();
    instrument = std::make_unique<Instrument>("[pci]\n[pci " + device + "]\npresent=no");
    diagnostics.setupAdvancedErrorReportingOnRootSwitch();
  };
  const auto deviceIds = [&] {
    std::vector<unsigned int> ids;
    for (const DeviceIds& device : diagnostics.downstreamIds) {
      ids.push_back(device.deviceId);
    }
    return ids;
  };
  repeatWithout("port7");
  EXPECT_THAT(deviceIds(), ElementsAre(0x1002, 0x1003, 0, 0x1005, 0, 0));
  EXPECT_EQ(diagnostics.downstreamPorts[DownstreamPort7], nullptr);
  EXPECT_NE(diagnostics.downstreamPorts[DownstreamPort9], nullptr);
  EXPECT_TRUE(diagnostics.shimUpstreamFound) << "the next walk to a shim switch decides";
  repeatWithout("switch");
  EXPECT_THAT(deviceIds(), ElementsAre(0, 0, 0, 0, 0, 0));
  EXPECT_EQ(diagnostics.switchUpstreamPort, nullptr);
  EXPECT_FALSE(diagnostics.switchUpstreamFound);
  EXPECT_EQ(diagnostics.switchUpstreamIds.deviceId, 0x1001) << "kept";
  repeatWithout("root");
  EXPECT_EQ(diagnostics.rootPort, nullptr);
  EXPECT_FALSE(diagnostics.rootPortFound);
  EXPECT_EQ(diagnostics.rootPortIds.deviceId, 0x1000) << "kept";
}

TEST(Discovery, IsPossibleOnManyThreads) {
  const Instrument instrument("[pci]\n");
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&right] {
      for (int time = 0; time < 60 / fewer; ++time) {
        PCIeDiagnostics diagnostics;
        const DeviceIds ids = diagnostics.getDiagnosticsResults(DownstreamPort9, false).portIds;
        right += diagnostics.switchUpstreamFound && ids.vendorId != 0 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(right, 4 * (60 / fewer));
}

TEST(PortBits, ActOnTheSwitchOfThePort) {
  for (const PCIeDownstreamPorts port : allPorts) {
    Fabric fabric(switchGroup(port) + "register-b98=0x12345678");
    const std::string upstream = upstreamAddress(port);
    const std::string first = "port: " + std::to_string(port) + "\n";
    PCIeDiagnostics& diagnostics = fabric.diagnostics;
    std::cout << std::showbase << std::uppercase << std::hex << std::setw(9);

    EXPECT_EQ(diagnostics.getDevicePortBits(port, 0xB98, 0xFF0000, 16), 0x34U);
    EXPECT_EQ(diagnostics.getDevicePortBits(port, 0xB98, 0xFFFFFFFF, 40), 0U);
    EXPECT_EQ(fabric.output(), "");
    EXPECT_THAT(fabric.takeTrace(), Contains("pci read32 " + upstream + " b98 12345678").Times(2));

    EXPECT_EQ(diagnostics.setDevicePortBits(port, 0xB98, 0x01000000, 0xF0F0FFFF), 0x11305678U);
    EXPECT_THAT(fabric.takeTrace(),
                ElementsAreArray(update(upstream, 32, 0xB98, 0x12345678, 0x11305678)));
    std::string printed = first + "address: b98\nwrite: 1000000\n";
    EXPECT_EQ(fabric.output(), printed);

    EXPECT_EQ(diagnostics.clearDevicePortBits(port, 0xB98, 0x8F), 0x11305670U);
    EXPECT_EQ(diagnostics.clearDevicePortBits(port, 0xB98, 0x8F), 0x11305670U);
    EXPECT_EQ(with(fabric.takeTrace(), "pci write32").size(), 2U) << "also when already clear";
    printed += first + first;
    EXPECT_EQ(fabric.output(), printed);

    EXPECT_TRUE(diagnostics.testDevicePortBits(port, 0xB98, 0x1F));
    EXPECT_FALSE(diagnostics.testDevicePortBits(port, 0xB98, 0xF));
    printed += first + "portAddress: b98\nbits: 1f\nreg: 11305670\n" + first +
               "portAddress: b98\nbits: f\nreg: 11305670\n";
    EXPECT_EQ(fabric.output(), printed);
    EXPECT_EQ(std::cout.flags() & std::ios::basefield, std::ios::dec);
    std::cout.copyfmt(std::ios(nullptr));

    fabric.takeTrace();
    diagnostics.retrainLink(port);
    EXPECT_THAT(fabric.takeTrace(),
                ElementsAreArray(update(portAddresses[port], 32, 0x78, 0x20120000, 0x20120020)));
    EXPECT_EQ(fabric.output(), printed);
  }
}

TEST(PortBits, PrintEachLineAroundItsAccessAndFlushIt) {
  Fabric fabric("[pci shim]\npresent=no");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  Timeline timeline(fabric);
  const std::string read = "pci read32 0000:01:00.0 b98 ";
  const std::string write = "pci write32 0000:01:00.0 b98 ";
  diagnostics.setDevicePortBits(DownstreamPort7, 0xB98, 0x1F, keepAll);
  EXPECT_THAT(timeline.take(),
              ElementsAre("port: 2\n", read + "0", write + "1f", "address: b98\n", "write: 1f\n"));
  diagnostics.clearDevicePortBits(DownstreamPort7, 0xB98, 0xF);
  EXPECT_THAT(timeline.take(), ElementsAre("port: 2\n", read + "1f", write + "10"));
  diagnostics.testDevicePortBits(DownstreamPort7, 0xB98, 0x11);
  EXPECT_THAT(timeline.take(), ElementsAre("port: 2\n", read + "10", "portAddress: b98\n",
                                           "bits: 11\n", "reg: 10\n"));
  diagnostics.setupShimSwitch(1);
  EXPECT_THAT(timeline.take(),
              ElementsAre("Module Downstream: 9\n", "pci find 0000:02:09.0",
                          "pci buses 0000:02:09.0", "primary: 2 secondary: 6 subordinate: 9\n",
                          "pci find 0000:06:00.0: ENODEV", "Could not find device: 6\n"));
}

/// Calls every operation that takes a port.
void callEverything(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  EXPECT_EQ(diagnostics.getDevicePortBits(port, 0xB98, ~0U, 0), 0U);
  EXPECT_EQ(diagnostics.setDevicePortBits(port, 0xB98, 1, 0), 0U);
  EXPECT_EQ(diagnostics.clearDevicePortBits(port, 0xB98, 1), 0U);
  EXPECT_FALSE(diagnostics.testDevicePortBits(port, 0xB98, ~0U));
  diagnostics.setPostCursorEmphasis(port, 0, 1);
  diagnostics.setDriveLevel(port, 0, 1);
  diagnostics.setTo5GQuietTransmitWithoutLoopback(port, true);
  diagnostics.setTo5GQuietTransmitWithoutLoopback(port, false);
  EXPECT_FALSE(diagnostics.setPCIeExternalAnalogLoopback(port, true));
  diagnostics.setLoopbackMasterControl(port, true);
  diagnostics.setLoopbackMasterControl(port, false);
  diagnostics.setPRBSMode(port, true);
  diagnostics.configurePRBSDiagnosicRegister(port);
  diagnostics.setupPRBSLoopbackTest(port);
  diagnostics.tearDownPRBSLoopbackTest(port);
  EXPECT_FALSE(diagnostics.checkForPRBSSync(port));
  EXPECT_EQ(diagnostics.readPRBSErrorCounter(port), 0U);
}

TEST(PortBits, LeaveEverythingAloneForAnUnresolvedPort) {
  Fabric fabric("[pci port5]\npresent=no");
  for (const unsigned int value : {1U, 6U, 7U, 255U, 4294967295U}) {
    const auto port = static_cast<PCIeDownstreamPorts>(value);
    callEverything(fabric.diagnostics, port);
    fabric.diagnostics.retrainLink(port);
    EXPECT_THAT(with(fabric.takeTrace(), "pci"), IsEmpty()) << value;
    EXPECT_EQ(fabric.output(), "");

    const DiagnosticsResults results = fabric.diagnostics.getDiagnosticsResults(port, true);
    EXPECT_TRUE(results.rootLinkOk);
    EXPECT_EQ(results.portIds.vendorId, 0);
    EXPECT_FALSE(results.downstreamLinkUp || results.portDataLinkActive || results.prbsSync);
    EXPECT_EQ(errorsIn(results), 0U);
    fabric.diagnostics.clearDownstreamResults(port);
    EXPECT_FALSE(fabric.diagnostics.isLinkUp(port));
    fabric.diagnostics.testDownstreamPort(port, 1);
    const Lines trace = fabric.takeTrace();
    EXPECT_EQ(with(trace, "pci").size(), with(trace, "0000:00:00.0").size())
        << "the root port's registers only";
  }
  EXPECT_EQ(fabric.console.errors(), "could not enumerate module: 1\n");
}

TEST(PortBits, LeaveThePortOfNoSwitchAlone) {
  // Without buses of its own, the upstream port is nobody's parent.
  Instrument instrument("[pci]\n[pci switch]\nclass=0x060000\n");
  const Console console;
  PCIeDiagnostics diagnostics;
  instrument.takeTrace();
  callEverything(diagnostics, DownstreamPort7);
  EXPECT_THAT(with(with(instrument.takeTrace(), "pci"), "01:00.0"), IsEmpty());
  const DiagnosticsResults results = diagnostics.getDiagnosticsResults(DownstreamPort7, false);
  EXPECT_FALSE(results.downstreamLinkUp);
  EXPECT_TRUE(results.portDataLinkActive) << "the port itself is there";
  EXPECT_EQ(results.portIds.deviceId, 0x1004);
}

TEST(PortBits, AFailedReadCountsAsZero) {
  constexpr unsigned int outside = 0x1000;
  Fabric fabric("[pci root]\nreadable=no");
  EXPECT_EQ(fabric.diagnostics.getDevicePortBits(DownstreamPort1, outside, ~0U, 0), 0U);
  EXPECT_EQ(fabric.diagnostics.setDevicePortBits(DownstreamPort1, outside, 2, ~0U), 2U);
  EXPECT_THAT(fabric.takeTrace(), Contains("pci write32 0000:01:00.0 1000 2: EFBIG"));
  EXPECT_EQ(fabric.diagnostics.getDiagnosticsResults(DownstreamPort1, false).rootLinkStatus, 0);
}

TEST(ErrorTexts, NameTheBitsInOrder) {
  const Instrument instrument("");
  const PCIeDiagnostics diagnostics;
  const struct {
    std::string (PCIeDiagnostics::*decode)(std::uint32_t) const;
    std::uint32_t errors;
    const char* names;
  } cases[] = {{&PCIeDiagnostics::DecodeUncorrectableStatus, 0x003FF030,
                "Data Link, Surprise Down, Poisoned DLP, Flow Control, Completion Timeout, "
                "Completion Abort, Unexpected Completion, Receiver Overflow, Malformed TLP, "
                "ECRC Error, Unsupported Request, ACS Violation"},
               {&PCIeDiagnostics::DecodeCorrectableStatus, 0x31C1,
                "Rx Errors, Bad TLP, Bad DLLP, Replay Num, Replay Timeout, Advisory"}};
  for (const auto& test : cases) {
    std::string names;
    for (int bit = 0; bit < 32; ++bit) {
      const std::uint32_t error = test.errors & 1U << bit;
      const std::string name = (diagnostics.*test.decode)(1U << bit);
      EXPECT_EQ(name == "None", error == 0) << bit;
      names += error == 0 ? "" : (names.empty() ? "" : ", ") + name;
    }
    EXPECT_EQ(names, test.names);
    EXPECT_EQ((diagnostics.*test.decode)(0xFFFFFFFF), test.names);
    EXPECT_EQ((diagnostics.*test.decode)(~test.errors), "None");
  }
}

Lines snapshot(PCIeDownstreamPorts port) {
  Lines lines;
  const auto read = [&](int width, const std::string& device, std::initializer_list<unsigned> all) {
    for (const unsigned int offset : all) {
      lines.push_back("pci read" + std::to_string(width) + " " + device + " " + hex(offset) + " ");
    }
  };
  read(16, "0000:00:00.0", {0x82, 0x7A});
  read(32, "0000:00:00.0", {0x104, 0x110});
  read(32, upstreamAddress(port), {0xFB8, 0xFC4, 0x1E8, 0x1EC, 0x1F4});
  read(32, portAddresses[port], {0x78, 0xFB8, 0xFC4, 0x1E8, 0x1EC});
  return lines;
}

/// Accesses without the values.
Lines withoutValues(Lines trace) {
  for (std::string& line : trace) {
    line = line.compare(0, 3, "pci") == 0 ? line.substr(0, line.rfind(' ') + 1) : line;
  }
  return trace;
}

TEST(Snapshot, ReadsThePathInOrder) {
  for (const PCIeDownstreamPorts port : allPorts) {
    Fabric fabric("");
    const DiagnosticsResults results = fabric.diagnostics.getDiagnosticsResults(port, false);
    EXPECT_THAT(withoutValues(fabric.takeTrace()), ElementsAreArray(snapshot(port)));
    EXPECT_TRUE(results.downstreamLinkUp && results.portDataLinkActive && results.rootLinkOk);
    EXPECT_EQ(results.portIds.deviceId, port < ShimPort1 ? 0x1002 + port : 0x1003 + port);
    EXPECT_FALSE(results.pciSystemReady || results.rootPortFound || results.upstreamFound);
    EXPECT_EQ(results.rootPortIds.vendorId + results.upstreamIds.vendorId, 0);
    EXPECT_EQ(fabric.output() + fabric.console.errors(), "");
  }
}

TEST(Snapshot, FillsEachFieldFromItsRegister) {
  // Bits 4 and 5 of the root port's device status are no errors; the set-up cannot clear what is
  // stuck here.
  Fabric fabric(
      "[pci root]\nuncorrectable=0x80000001\ncorrectable=0xffffffff\n"
      "register-78=0x003f0000\nstuck-78=0x003f0000\n"
      "[pci switch]\nuncorrectable=0xffffffff\ncorrectable=0xffffffff\n"
      "[pci port7]\nuncorrectable=0xfff0\ncorrectable=0xf0c0\nregister-1e8=0xe8\n"
      "register-1ec=0xec000000\n");
  const DiagnosticsResults results =
      fabric.diagnostics.getDiagnosticsResults(DownstreamPort7, false);
  EXPECT_EQ(results.rootLinkStatus, 0x2012);
  EXPECT_EQ(results.rootLinkFault, 0U);
  EXPECT_EQ(results.rootDeviceStatus, 0xFU);
  EXPECT_EQ(results.rootUncorrectableStatus, 0x80000001U);
  EXPECT_EQ(results.rootCorrectableStatus, 0xC0U);
  EXPECT_EQ(results.upstreamUncorrectableStatus, 0x3FF030U);
  EXPECT_EQ(results.upstreamCorrectableStatus, 0x31C1U);
  EXPECT_EQ(results.portUncorrectableStatus, 0xF030U);
  EXPECT_EQ(results.portCorrectableStatus, 0x30C0U);
  EXPECT_EQ(results.portRegister1E8, 0xE8U);
  EXPECT_EQ(results.portRegister1EC, 0xEC000000U);
  EXPECT_EQ(results.reserved1 + results.reserved2 + results.prbsErrors, 0U);
  EXPECT_FALSE(results.prbsSync);
}

TEST(Snapshot, KnowsAGoodRootLink) {
  const std::map<std::string, bool> statuses = {
      {"0x2012", true},  {"0xf7ff", true},  {"0x2812", false}, {"0x0012", false},
      {"0x2002", false}, {"0x2010", false}, {"0", false},      {"0x2013", true}};
  for (const auto& [status, good] : statuses) {
    Fabric fabric("[pci root]\nlink-status=" + status);
    const DiagnosticsResults results =
        fabric.diagnostics.getDiagnosticsResults(DownstreamPort1, false);
    EXPECT_EQ(results.rootLinkOk, good) << status;
    EXPECT_EQ(results.rootLinkFault, good ? 0U : 1U) << status;
    EXPECT_EQ(results.rootLinkStatus, std::stoul(status, nullptr, 0)) << status;
  }
}

TEST(Snapshot, TellsThePortsLinksApart) {
  const char* const names[] = {"port1", "port5", "port7", "port9", "shim-port1", "shim-port5"};
  for (const PCIeDownstreamPorts down : allPorts) {
    Fabric fabric(std::string("[pci ") + names[down] + "]\nlink=down");
    for (const PCIeDownstreamPorts port : allPorts) {
      const auto results = fabric.diagnostics.getDiagnosticsResults(port, false);
      const bool isBehind = down == DownstreamPort9 && port >= ShimPort1;
      const bool up = port != down && !isBehind;
      EXPECT_EQ(results.downstreamLinkUp, up) << port << down;
      EXPECT_EQ(results.portDataLinkActive, up) << port << down;
    }
  }
}

TEST(LinkChecks, ClearTheLatchedErrorsOfThePath) {
  for (const PCIeDownstreamPorts port : {DownstreamPort9, ShimPort5}) {
    Fabric fabric("[pci root]\ncorrectable=0x40\nuncorrectable=0x10\n");
    fabric.diagnostics.clearDownstreamResults(port);
    Lines expected = join(
        {update(rootAddress, 16, 0x7A, 5, 5), update(rootAddress, 32, 0x130, 0x55, 0x55),
         update(rootAddress, 32, 0x110, 0x40, 0x40), update(rootAddress, 32, 0x104, 0x10, 0x10)});
    for (const std::string& device : {upstreamAddress(port), std::string(portAddresses[port])}) {
      expected.push_back("pci write32 " + device + " fb8 3ff030");
      expected.push_back("pci write32 " + device + " fc4 31c1");
    }
    EXPECT_THAT(fabric.takeTrace(), ElementsAreArray(expected));
  }
}

TEST(LinkChecks, WatchTheLinkForTheTimeGiven) {
  const struct {
    unsigned int seconds;
    std::size_t waits;
    const char* root;
  } cases[] = {{0, 1, "0x2012"}, {3, 30, "0x2012"}, {0x1999999A, 4, "0x2012"}, {3, 0, "0x12"}};
  for (const auto& test : cases) {
    Fabric fabric(std::string("[pci port5]\nlink-lost-after=0.35\n[pci root]\nlink-status=") +
                  test.root);
    const DiagnosticsResults results =
        fabric.diagnostics.checkLiveDownstreamPort(DownstreamPort5, test.seconds, false);
    const Lines trace = fabric.takeTrace();
    EXPECT_EQ(with(trace, "sleep 100000 us").size(), test.waits);
    EXPECT_EQ(with(trace, "0000:02:05.0 78 ").size(), test.waits + 1);
    EXPECT_THAT(with(trace, "pci write"), IsEmpty());
    EXPECT_EQ(results.downstreamLinkUp, test.waits < 4) << "the last snapshot is the result";
    EXPECT_TRUE(results.pciSystemReady && results.rootPortFound && results.upstreamFound);
    EXPECT_EQ(results.rootPortIds.deviceId, 0x1000);
    EXPECT_EQ(results.upstreamIds.deviceId, 0x1001);
    EXPECT_EQ(fabric.output() + fabric.console.errors(), "");
  }
  Fabric fabric("");
  fabric.diagnostics.checkLiveDownstreamPort(DownstreamPort5, 0, true);
  EXPECT_THAT(fabric.takeTrace().front(), HasSubstr("pci read16 0000:00:00.0 7a"))
      << "cleared before the first snapshot";
}

TEST(LinkChecks, ReportTheUpstreamPortThatTheyAreAbout) {
  Fabric fabric("");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  EXPECT_EQ(diagnostics.checkLiveDownstreamPort(ShimPort1, 0, false).upstreamIds.deviceId, 0x1006);
  EXPECT_EQ(diagnostics.testDownstreamPort(ShimPort1, 0).upstreamIds.deviceId, 0x1001);
  EXPECT_TRUE(diagnostics.isLinkUp(ShimPort5));
  diagnostics.shimUpstreamFound = false;
  fabric.takeTrace();
  EXPECT_FALSE(diagnostics.checkLiveDownstreamPort(ShimPort1, 0, false).upstreamFound);
  EXPECT_THAT(with(fabric.takeTrace(), "sleep"), IsEmpty());
  EXPECT_TRUE(diagnostics.testDownstreamPort(ShimPort1, 0).upstreamFound);
  EXPECT_TRUE(diagnostics.isLinkUp(ShimPort1)) << "the main switch's flag counts";
  diagnostics.switchUpstreamFound = false;
  EXPECT_FALSE(diagnostics.isLinkUp(ShimPort1));
  EXPECT_FALSE(diagnostics.isLinkUp(DownstreamPort1));
}

TEST(LinkChecks, AnswerWithTheSecondSnapshotOfAGoodRootLink) {
  {
    Fabric fabric("[pci port1]\nlink-lost-after=0.05");
    EXPECT_FALSE(fabric.diagnostics.isLinkUp(DownstreamPort1));
    EXPECT_EQ(fabric.milliseconds(), 100);
  }
  Fabric fabric("[pci root]\nlink-status=0x12");
  EXPECT_TRUE(fabric.diagnostics.isLinkUp(DownstreamPort1));
  EXPECT_EQ(fabric.milliseconds(), 0);
  EXPECT_EQ(fabric.output() + fabric.console.errors(), "");
}

TEST(LinkChecks, SleepWhateverInterrupts) {
  const struct {
    unsigned long time;
    const char* faults;
    Lines sleeps;
  } cases[] = {
      {0, "", {"sleep 0 us"}},
      {2345, "", {"sleep 2345000 us"}},
      {4294967296000UL + 1, "", {"sleep 1000 us"}},  // the seconds are cut to 32 bits
      {2147483648000UL, "", {}},
      {40,
       "[faults]\ninterrupted-sleep=on",
       {"sleep 20000 us", "sleep 10000 us", "sleep 10000 us"}},
  };
  for (const auto& test : cases) {
    Instrument instrument(test.faults);
    PCIeDiagnostics diagnostics;
    instrument.takeTrace();
    EXPECT_EQ(diagnostics.wait_ms(test.time), 0);
    EXPECT_THAT(instrument.takeTrace(), ElementsAreArray(test.sleeps)) << test.time;
  }
}

// Each port's bits, by register.
const struct {
  unsigned int loopbackEnable;
  unsigned int loopbackStatus;
  unsigned int select;
  unsigned int prbsEnable;
  unsigned int prbsSync;
  unsigned int analog;
  unsigned int quiet;
} bitsOf[] = {{0x1, 0x8, 0x0, 0x1000000, 0x10000, 0x100, 0x010101},
              {0x10000, 0x80000, 0x3000000, 0x8000000, 0x80000, 0x1000, 0x040404},
              {0x1000, 0x8000, 0x2000000, 0x4000000, 0x40000, 0x800, 0x080808},
              {0x100, 0x800, 0x1000000, 0x2000000, 0x20000, 0x400, 0x101010},
              {0x1, 0x8, 0x0, 0x1000000, 0x10000, 0x100, 0x010101},
              {0x100, 0x800, 0x1000000, 0x2000000, 0x20000, 0x400, 0x040404}};

TEST(Prbs, MasksAreThoseOfThePorts) {
  for (const PCIeDownstreamPorts port : allPorts) {
    EXPECT_THAT(DiagnosticMaskRegs[port],
                ElementsAre(bitsOf[port].analog, bitsOf[port].prbsSync, bitsOf[port].prbsEnable,
                            bitsOf[port].select));
  }
}

TEST(Prbs, IsSetUpAndTornDownInOrder) {
  for (const PCIeDownstreamPorts port : allPorts) {
    const auto& bits = bitsOf[port];
    const std::string upstream = upstreamAddress(port);
    Fabric fabric(switchGroup(port) + "register-244=0xbf00ffff\nregister-25c=0xffffffff\n");
    fabric.diagnostics.setupPRBSLoopbackTest(port);
    const Lines trace = fabric.takeTrace();
    ASSERT_EQ(trace.size(), 13U);
    const unsigned int kept = valueIn(trace[0]);
    const unsigned int idle = valueIn(trace[3]);
    const std::string read224 = "pci read32 " + upstream + " 224 ";
    const Lines sleep = {"sleep 1000 us"};
    EXPECT_EQ(trace, join({update(upstream, 32, 0x244, kept, (kept & 0xFCFFFFFF) | bits.select),
                           sleep,
                           update(upstream, 32, 0x224, idle, idle | bits.loopbackEnable),
                           sleep,
                           {read224 + hex((idle | bits.loopbackEnable) & ~bits.loopbackStatus)},
                           sleep,
                           update(upstream, 32, 0x25C, 0xFFFFFFFF, 0xF0F0FFFF),
                           sleep,
                           update(upstream, 32, 0x25C, 0xF0F0FFFF, 0xF0F0FFFF | bits.prbsEnable)}));
    EXPECT_EQ(fabric.console.errors(), "");

    EXPECT_TRUE(fabric.diagnostics.checkForPRBSSync(port));
    fabric.takeTrace();
    fabric.diagnostics.tearDownPRBSLoopbackTest(port);
    const Lines down = fabric.takeTrace();
    ASSERT_EQ(down.size(), 6U);
    EXPECT_EQ(down[1], "pci write32 " + upstream + " 224 " + hex(idle & ~bits.loopbackStatus));
    EXPECT_EQ(Lines(down.begin() + 2, down.begin() + 4), join({sleep, {read224 + hex(idle)}}));
    EXPECT_EQ(down[5], "pci write32 " + upstream + " 25c f0f0ffff");
  }
}

TEST(Prbs, LoopbackMasterStatusIsActiveLow) {
  Fabric fabric("[pci port9]\nloopback=refused");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  EXPECT_TRUE(diagnostics.setLoopbackMasterControl(DownstreamPort1, true));
  EXPECT_TRUE(diagnostics.setLoopbackMasterControl(DownstreamPort1, false));
  EXPECT_FALSE(diagnostics.setLoopbackMasterControl(DownstreamPort9, true));
  fabric.takeTrace();
  diagnostics.setupPRBSLoopbackTest(DownstreamPort9);
  EXPECT_EQ(fabric.console.errors(), "couldn't set up looback master control\n");
  EXPECT_EQ(with(fabric.takeTrace(), "pci write32 0000:01:00.0 25c").size(), 2U)
      << "carried on all the same";
}

TEST(Prbs, CounterCountsOnlyWhileItIsValid) {
  Fabric fabric("[pci port9]\nprbs-errors-after=0\nprbs-errors-per-second=200\n");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  EXPECT_EQ(diagnostics.readPRBSErrorCounter(DownstreamPort9), 0U);
  EXPECT_EQ(with(fabric.takeTrace(), "244").size(), 1U) << "the counter itself is not read";
  diagnostics.setupPRBSLoopbackTest(DownstreamPort9);
  diagnostics.wait_ms(1000);
  fabric.takeTrace();
  EXPECT_EQ(diagnostics.readPRBSErrorCounter(DownstreamPort9), 200U);
  EXPECT_EQ(with(fabric.takeTrace(), "pci read32 0000:01:00.0 244 41c80000").size(), 2U);
  EXPECT_THAT(fabric.output(), HasSubstr("portAddress: 244\nbits: 40000000\nreg: 41c80000\n"));
}

TEST(Prbs, SnapshotReadsSyncBeforeTheCounterAndSaysBoth) {
  Fabric fabric("[pci port9]\nprbs=no-sync\nprbs-errors-after=0\nprbs-errors-per-second=200\n");
  fabric.diagnostics.setupPRBSLoopbackTest(DownstreamPort9);
  fabric.diagnostics.wait_ms(1000);
  Timeline timeline(fabric);
  fabric.diagnostics.getDiagnosticsResults(DownstreamPort9, true);
  const Lines events = timeline.take();
  ASSERT_GT(events.size(), 13U);
  const std::string counter = "pci read32 0000:01:00.0 244 41c80000";
  EXPECT_THAT(Lines(events.end() - 13, events.end()),
              ElementsAre("port: 3\n", "pci read32 0000:01:00.0 b84 0", "portAddress: b84\n",
                          "bits: 20000\n", "reg: 0\n", "port: 3\n", counter, "portAddress: 244\n",
                          "bits: 40000000\n", "reg: 41c80000\n", counter, "prbsSync failed\n",
                          "prbsErrors: 200\n"));
}

TEST(PrbsTest, PollsUntilSomethingFails) {
  const struct {
    const char* description;
    unsigned int seconds;
    std::size_t polls;
    bool sync;
    unsigned int errors;
    const char* messages;
  } cases[] = {
      {"", 5, 10, true, 0, ""},
      {"", 0, 1, true, 0, ""},
      {"", 0x80000002, 4, true, 0, ""},
      {"[pci port7]\nprbs=no-sync", 5, 0, false, 0, "prbsSync failed\n"},
      {"[pci port7]\nprbs-errors-after=0.4\nprbs-errors-per-second=30", 5, 1, true, 3,
       "prbsErrors: 3\n"},
      {"[pci port7]\nlink-lost-after=1.2", 5, 3, false, 0, "prbsSync failed\n"},
      {"[at 0.9]\npci root link-status=0", 5, 2, true, 0, ""},
      {"[pci root]\nlink-status=0", 5, 0, true, 0, ""},
  };
  for (const auto& test : cases) {
    Fabric fabric(test.description);
    const DiagnosticsResults results =
        fabric.diagnostics.testDownstreamPort(DownstreamPort7, test.seconds);
    const Lines trace = fabric.takeTrace();
    EXPECT_EQ(with(trace, "sleep 500000 us").size(), test.polls) << test.description;
    EXPECT_EQ(with(trace, "0000:02:07.0 78 ").size(), test.polls + 1) << test.description;
    EXPECT_EQ(results.prbsSync, test.sync) << test.description;
    EXPECT_EQ(results.prbsErrors, test.errors) << test.description;
    EXPECT_EQ(fabric.console.errors(), test.messages) << test.description;
    EXPECT_EQ(trace.back(), "pci write32 0000:01:00.0 25c 0") << "torn down";
    EXPECT_TRUE(results.pciSystemReady && results.rootPortFound && results.upstreamFound);
    EXPECT_EQ(results.portIds.deviceId, 0x1004);
  }
}

TEST(PrbsTest, DoesNotPollWithoutAWholePath) {
  const struct {
    const char* missing;
    void (*lose)(PCIeDiagnostics&);
    bool flags[3];
  } cases[] = {{"root port",
                [](PCIeDiagnostics& diagnostics) {
                  diagnostics.rootPort = nullptr;
                  diagnostics.rootPortFound = false;
                },
                {false, false, true}},
               {"root port's flag",
                [](PCIeDiagnostics& diagnostics) { diagnostics.rootPortFound = false; },
                {true, false, true}},
               {"upstream port's flag",
                [](PCIeDiagnostics& diagnostics) { diagnostics.switchUpstreamFound = false; },
                {true, true, false}}};
  for (const auto& test : cases) {
    Fabric fabric("");
    test.lose(fabric.diagnostics);
    const DiagnosticsResults results = fabric.diagnostics.testDownstreamPort(DownstreamPort7, 1);
    const Lines trace = fabric.takeTrace();
    EXPECT_EQ(results.rootLinkOk, test.flags[0]) << test.missing;
    EXPECT_EQ(results.rootPortFound, test.flags[1]) << test.missing;
    EXPECT_EQ(results.upstreamFound, test.flags[2]) << test.missing;
    EXPECT_TRUE(results.prbsSync) << "the port itself was set up";
    EXPECT_EQ(with(trace, rootAddress).empty(), !test.flags[0]) << test.missing;
    EXPECT_THAT(with(trace, "sleep 500000 us"), IsEmpty()) << test.missing;
    EXPECT_EQ(trace.back(), "pci write32 0000:01:00.0 25c 0") << "torn down";
    fabric.diagnostics.checkLiveDownstreamPort(DownstreamPort7, 1, false);
    EXPECT_THAT(with(fabric.takeTrace(), "sleep"), IsEmpty()) << test.missing;
    EXPECT_FALSE(fabric.diagnostics.isLinkUp(DownstreamPort7)) << test.missing;
  }
}

TEST(ShimSwitch, IsFoundBehindTheModulesPort) {
  Instrument instrument("[pci]\nshim=1\n" + bridgeBefore("shim", "7") +
                        bridgeBefore("shim-port1", "7") + bridgeBefore("shim-port5", "7"));
  const Console console;
  PCIeDiagnostics diagnostics;
  instrument.takeTrace();
  diagnostics.setupShimSwitch(1);
  EXPECT_EQ(console.output(),
            "Module Downstream: 9\n"
            "primary: 2 secondary: 6 subordinate: 9\n"
            "shim_primary: 6 shim_secondary: 7 shim_subordinate: 9\n"
            "shim_primary: 7 shim_secondary: 8 shim_subordinate: 8\n"
            "shim_primary: 7 shim_secondary: 9 shim_subordinate: 9\n");
  EXPECT_THAT(instrument.takeTrace(),
              ElementsAreArray(
                  join({{"pci find 0000:02:09.0", "pci buses 0000:02:09.0", "pci find 0000:06:00.0",
                         "pci buses 0000:06:00.0", "pci find 0000:07:01.0", "pci find 0000:07:05.0",
                         "pci buses 0000:07:01.0", "pci buses 0000:07:05.0"},
                        bridgeSetUp("0000:06:00.0"),
                        bridgeSetUp("0000:07:01.0"),
                        bridgeSetUp("0000:07:05.0")})));
  EXPECT_EQ(console.errors(), "");
  EXPECT_TRUE(diagnostics.shimUpstreamFound);
  EXPECT_NE(diagnostics.shimUpstreamPort, nullptr);
  EXPECT_EQ(diagnostics.shimUpstreamIds.deviceId, 0x1006);
  EXPECT_EQ(diagnostics.downstreamIds[ShimPort1].deviceId, 0x1007);
  EXPECT_EQ(diagnostics.downstreamIds[ShimPort5].deviceId, 0x1008);

  for (const unsigned int module : {4U, 4294967295U}) {
    diagnostics.setupShimSwitch(module);
    EXPECT_TRUE(diagnostics.shimUpstreamFound) << "no such module: nothing is done";
    EXPECT_THAT(instrument.takeTrace(), IsEmpty());
  }
}

TEST(ShimSwitch, IsForgottenByAWalkThatFails) {
  Fabric fabric("[pci port5]\npresent=no");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  ASSERT_TRUE(diagnostics.shimUpstreamFound);
  diagnostics.setupShimSwitch(3);
  EXPECT_FALSE(diagnostics.shimUpstreamFound);
  EXPECT_EQ(diagnostics.shimUpstreamPort, nullptr);
  EXPECT_EQ(diagnostics.shimUpstreamIds.vendorId + diagnostics.shimUpstreamIds.deviceId, 0);
  for (const PCIeDownstreamPorts port : {ShimPort1, ShimPort5}) {
    EXPECT_EQ(diagnostics.downstreamPorts[port], nullptr);
    EXPECT_EQ(diagnostics.downstreamIds[port].vendorId, 0);
    EXPECT_EQ(diagnostics.downstreamIds[port].deviceId, 0);
  }
}

TEST(ShimSwitch, SaysWhereTheWalkEnds) {
  const struct {
    unsigned int module;
    const char* description;
    std::size_t lines;  // printed before
    const char* error;
    bool pointers[3];  // upstream port, ports 4 and 5
  } cases[] = {
      {1, "[pci port9]\npresent=no", 1, "Could not find device: 9\n", {}},
      {1, "[pci port9]\nclass=0x028000", 1, "Device was not a bridge\n", {}},
      {1, "[pci port9]\nclass=0x060000", 2, "Could not find device: -1\n", {}},
      {1, "[pci port9]\nclass=0x068000", 2, "Could not find device: -1\n", {}},
      {1, "[pci shim]\npresent=no", 2, "Could not find device: 6\n", {}},
      {0, "", 2, "Could not find device: 3\n", {}},
      {2, "", 2, "Could not find device: 5\n", {}},
      {3, "", 2, "Could not find device: 4\n", {}},
      {1, "[pci shim]\nclass=0x028000", 2, "Device was not a bridge\n", {true}},
      {1, "[pci shim-port1]\npresent=no", 3, "Could not find device: 7.1\n", {true, false, true}},
      {1, "[pci shim-port5]\npresent=no", 3, "Could not find device: 7.5\n", {true, true, false}},
      {1, "[pci shim-port1]\nclass=0x028000", 3, "Device was not a bridge\n", {true, true, true}},
      {1, "[pci shim-port5]\nclass=0x028000", 4, "Device was not a bridge\n", {true, true, true}},
  };
  for (const auto& test : cases) {
    Instrument instrument(std::string("[pci]\nshim=1\n") + test.description);
    const Console discovery;
    PCIeDiagnostics diagnostics;
    instrument.takeTrace();
    const Console console;
    diagnostics.setupShimSwitch(test.module);
    const std::string output = console.output();
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), test.lines) << test.description;
    EXPECT_EQ(console.errors(), test.error) << test.description;
    EXPECT_THAT(with(instrument.takeTrace(), "pci write"), IsEmpty()) << test.description;
    EXPECT_FALSE(diagnostics.shimUpstreamFound);
    EXPECT_EQ(diagnostics.shimUpstreamPort != nullptr, test.pointers[0]) << test.description;
    EXPECT_EQ(diagnostics.downstreamPorts[ShimPort1] != nullptr, test.pointers[1]);
    EXPECT_EQ(diagnostics.downstreamPorts[ShimPort5] != nullptr, test.pointers[2]);
    EXPECT_EQ(diagnostics.shimUpstreamIds.vendorId + diagnostics.downstreamIds[4].vendorId, 0);
  }
  const char* const devices[] = {"1", "9", "7", "5"};
  for (unsigned int module = 0; module < 4; ++module) {
    const Instrument instrument("[pci]\n");
    const Console console;
    PCIeDiagnostics().setupShimSwitch(module);
    EXPECT_THAT(console.output(),
                HasSubstr(std::string("Module Downstream: ") + devices[module] + "\n"));
  }
  Instrument instrument("");
  const Console console;
  PCIeDiagnostics().setupShimSwitch(1);
  EXPECT_EQ(console.output() + console.errors(), "");
}

TEST(Transmitter, FieldsAreReplaced) {
  Fabric fabric("[pci switch]\nregister-ba8=0xabcdff\nregister-b98=0xabcdff");
  PCIeDiagnostics& diagnostics = fabric.diagnostics;
  EXPECT_TRUE(diagnostics.setPostCursorEmphasis(DownstreamPort5, 0, 0x12));
  EXPECT_THAT(fabric.takeTrace(),
              ElementsAreArray(update("0000:01:00.0", 32, 0xBA8, 0xABCDFF, 0xABCDF2)));
  EXPECT_TRUE(diagnostics.setDriveLevel(DownstreamPort5, 0, 3));
  EXPECT_THAT(fabric.takeTrace(),
              ElementsAreArray(update("0000:01:00.0", 32, 0xB98, 0xABCDFF, 0xABCDF3)));
  diagnostics.setPostCursorEmphasis(DownstreamPort5, 0, 0xFF000005);
  diagnostics.setDriveLevel(DownstreamPort5, 0, 0xFF000005);
  EXPECT_THAT(
      with(fabric.takeTrace(), "write"),
      ElementsAre("pci write32 0000:01:00.0 ba8 ffabcdf5", "pci write32 0000:01:00.0 b98 ffabcdf5"))
      << "bits above the field are set, none is cleared";
  const std::string printed = fabric.output();
  for (const int index : {1, -1}) {
    EXPECT_FALSE(diagnostics.setPostCursorEmphasis(DownstreamPort5, index, 1));
    EXPECT_FALSE(diagnostics.setDriveLevel(DownstreamPort5, index, 1));
  }
  EXPECT_THAT(fabric.takeTrace(), IsEmpty());
  EXPECT_EQ(fabric.output(), printed);
}

TEST(Transmitter, QuietTransmitLeavesTheUpperBits) {
  for (const PCIeDownstreamPorts port : allPorts) {
    const unsigned int bits = bitsOf[port].quiet;
    const std::string upstream = upstreamAddress(port);
    constexpr unsigned int others = 0x80000000;
    Fabric fabric(switchGroup(port) + "register-234=0x80000000");
    EXPECT_TRUE(fabric.diagnostics.setTo5GQuietTransmitWithoutLoopback(port, true));
    EXPECT_THAT(fabric.takeTrace(),
                ElementsAreArray(join(
                    {update(upstream, 32, 0x234, others, others | bits),
                     {"sleep 10000 us", "pci read32 " + upstream + " 234 " + hex(others | bits)},
                     update(upstream, 32, 0x234, others | bits, others | (bits & 0xFFFF00))})));
    EXPECT_TRUE(fabric.diagnostics.setTo5GQuietTransmitWithoutLoopback(port, false));
    EXPECT_THAT(fabric.takeTrace(),
                ElementsAreArray(update(upstream, 32, 0x234, others | (bits & 0xFFFF00), others)));

    Fabric stuck(switchGroup(port) + "stuck-234=0xff");
    EXPECT_TRUE(stuck.diagnostics.setTo5GQuietTransmitWithoutLoopback(port, true));
    EXPECT_EQ(stuck.takeTrace().size(), 4U) << "nothing to clear";
  }
}

TEST(Transmitter, AnalogLoopbackReadsBackAndRetrains) {
  for (const PCIeDownstreamPorts port : allPorts) {
    const unsigned int bit = bitsOf[port].analog;
    const std::string upstream = upstreamAddress(port);
    for (const bool stuck : {false, true}) {
      Fabric fabric(switchGroup(port) + (stuck ? "stuck-b84=0x1f00" : "register-b84=0x4000"));
      const unsigned int idle = stuck ? 0 : 0x4000;
      EXPECT_EQ(fabric.diagnostics.setPCIeExternalAnalogLoopback(port, true), !stuck);
      EXPECT_THAT(
          fabric.takeTrace(),
          ElementsAreArray(join({update(upstream, 32, 0xB84, idle, idle | bit),
                                 {"sleep 100000 us",
                                  "pci read32 " + upstream + " b84 " + hex(stuck ? 0 : idle | bit)},
                                 update(portAddresses[port], 32, 0x78, 0x20120000, 0x20120020),
                                 {"sleep 10000 us"}})));
      EXPECT_TRUE(fabric.diagnostics.setPCIeExternalAnalogLoopback(port, false));
      const Lines off = fabric.takeTrace();
      EXPECT_EQ(off[1], "pci write32 " + upstream + " b84 " + hex(idle));
      EXPECT_EQ(with(off, " 78 ").size(), 2U) << "retrained either way";
    }
  }
}

TEST(Objects, LeaveNothingOpen) {
  const Instrument instrument("[pci]\n");
  PCIeDiagnostics().isLinkUp(DownstreamPort1);
  const std::size_t before = openFiles();
  for (int object = 0; object < 100; ++object) {
    PCIeDiagnostics().isLinkUp(DownstreamPort1);
  }
  EXPECT_EQ(openFiles(), before);
}

}  // namespace
