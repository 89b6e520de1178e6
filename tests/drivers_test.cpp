// SPDX-License-Identifier: MIT
// What holds on the simulated instrument and on the drivers of a real kernel alike: these tests run
// on both. In a guest the switch's own registers are memory, and its standard ones lie elsewhere:
// where the two cannot hold the same, the accesses are compared and not what they leave behind.

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "board/BoardId.h"
#include "modules/BackplaneInterface.h"
#include "modules/ModuleControllerInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "pcie/PCIeDiagnostics.h"
#include "sysfs/SysfsUtil.h"
#include "tests/Outside.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Lines = std::vector<std::string>;

constexpr unsigned int keepAll = 0xFFFFFFFF;

/// Collects what the library prints while it exists.
class Printed {
 public:
  Printed() : before{std::cout.rdbuf(out.rdbuf()), std::cerr.rdbuf(err.rdbuf())} {}
  ~Printed() {
    std::cout.rdbuf(before[0]);
    std::cerr.rdbuf(before[1]);
  }
  Printed(const Printed&) = delete;
  Printed& operator=(const Printed&) = delete;

  std::ostringstream out;
  std::ostringstream err;

 private:
  std::streambuf* before[2];
};

std::string lineOf(const std::string& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

std::string lineFile(int line, const char* attribute) {
  return "/sys/class/gpio/gpio" + std::to_string(line) + "/" + attribute;
}

void driveStraps(Outside& outside, unsigned int id) {
  constexpr int lines[] = {167, 168, 169, 170, 171, 135};  // from bit 0 on
  for (unsigned int bit = 0; bit < 6; ++bit) {
    outside.drive(lines[bit], (id >> bit & 1U) != 0);
  }
}

TEST(Drivers, ShowEveryBoard) {
  Outside outside;
  for (unsigned int id = 0; id < 64; ++id) {
    driveStraps(outside, id);
    const BoardId board;
    std::string bits;
    for (unsigned int bit = 32; bit != 0; bit /= 2) {
      bits += (id & bit) != 0 ? '1' : '0';
    }
    EXPECT_EQ(board.id, id);
    EXPECT_EQ(board.idBitString, bits);
    EXPECT_EQ(board.isSPB(), id >= 32 && id < 48) << id;
    EXPECT_EQ(board.isPMBConnected(), id == 32) << id;
  }
}

TEST(Drivers, ShowWhatIsConnected) {
  Outside outside;
  constexpr int imb = 80;
  constexpr int lines[] = {imb, 127, 133, 134};  // by slot; low where something is
  driveStraps(outside, 34);
  for (int connected = 0; connected < 4; ++connected) {
    for (int slot = 0; slot < 4; ++slot) {
      outside.drive(lines[slot], slot != connected);
    }
    const BackplaneInterface backplane;
    for (int slot = 0; slot < 6; ++slot) {
      const bool hasExpander = slot == 1 || slot == 2 || slot == 5;
      EXPECT_EQ(backplane.isModulePresent(slot), slot == connected || slot == 4 || hasExpander);
    }
    for (const int line : lines) {
      EXPECT_EQ(SysfsUtil().readGpioValue(line), line != lines[connected]);
    }
    EXPECT_EQ(BoardId().isIMBConnected(), connected == 0);
  }
  driveStraps(outside, 32);
  outside.drive(imb, false);
  EXPECT_FALSE(BoardId().isIMBConnected()) << "that board has none";
  driveStraps(outside, 34);
  for (const int line : lines) {
    outside.drive(line, false);
  }
}

TEST(Drivers, SwitchLinesBothWays) {
  Outside outside;
  SysfsUtil sysfs;
  constexpr int line = 140;
  for (const bool level : {true, false, true}) {
    EXPECT_TRUE(sysfs.setGpioValue(line, level));
    EXPECT_EQ(lineOf(lineFile(line, "direction")), "out");
    EXPECT_EQ(lineOf(lineFile(line, "value")), level ? "1" : "0");
    outside.drive(line, !level);
    EXPECT_EQ(lineOf(lineFile(line, "value")), level ? "1" : "0") << "the output counts";
    EXPECT_EQ(sysfs.readGpioValue(line), !level) << "the input counts";
    EXPECT_EQ(lineOf(lineFile(line, "direction")), "in");
  }
  EXPECT_TRUE(sysfs.exportGpio("44")) << "a driver has it: not told";
  EXPECT_FALSE(sysfs.setGpioDirectionOutput("44"));
  for (const int missing : {44, 31, 192, -1}) {
    bool success = true;
    EXPECT_EQ(sysfs.readGpioValue(std::to_string(missing).c_str(), &success), "");
    EXPECT_FALSE(success) << missing;
    EXPECT_FALSE(sysfs.setGpioValue(missing, true)) << missing;
  }
  const std::string chip = "/sys/bus/i2c/devices/10-0041/gpio/gpiochip512";
  EXPECT_EQ(sysfs.FindGpioBase("/sys/bus/i2c/devices/10-0041"), 512);
  EXPECT_EQ(lineOf(chip + "/ngpio"), "4");
}

TEST(Drivers, DescribeEveryModule) {
  const Outside outside;
  const struct {
    unsigned int module;
    const char* top;
    const char* system;
    const char* solution;
    bool is2k4k;
  } cases[] = {
      {1, "i2c-11", "i2c-30", "i2c-31", false},
      {2, "i2c-12", "i2c-32", "i2c-33", false},
      {3, "", "", "", false},
      {4, "i2c-10", "i2c-10", "i2c-10", true},
      {5, "i2c-13", "i2c-13", "i2c-13", true},
      {6, "i2c-7", "i2c-8", "i2c-9", false},
      {7, "i2c-7", "", "", true},
      {8, "i2c-12", "i2c-32", "i2c-33", false},
      {9, "i2c-30", "i2c-30", "i2c-30", true},
      {10, "", "", "", false},
      {11, "", "", "", false},
      {12, "i2c-11", "i2c-30", "i2c-39", false},
      {14, "", "", "", false},
  };
  ModuleI2CInfo::cache.clear();
  for (const auto& test : cases) {
    const ModuleI2CInfo info(test.module);
    EXPECT_EQ(info.topBus, test.top) << test.module;
    EXPECT_EQ(info.systemBus, test.system) << test.module;
    EXPECT_EQ(info.solutionBus, test.solution) << test.module;
    EXPECT_EQ(info.is2k4k, test.is2k4k) << test.module;
  }
  EXPECT_THROW(ModuleI2CInfo(13), std::invalid_argument);
  const ModuleI2CInfo info(1);
  EXPECT_EQ(info.local1() + info.local2() + info.local3() + info.local4(),
            "i2c-20i2c-21i2c-22i2c-23");
}

TEST(Drivers, HaveTheExpanders) {
  const Outside outside;
  const std::string board = "/sys/devices/platform/soc@0/30800000.bus/30a40000.i2c/i2c-2/";
  const std::string paths[] = {"",
                               board + "i2c-11/i2c-30/30-0041/gpio/gpiochip516",
                               board + "i2c-12/i2c-32/32-0041/gpio/gpiochip520",
                               "",
                               board + "i2c-10/10-0041/gpio/gpiochip512",
                               board + "i2c-13/13-0041/gpio/gpiochip524",
                               ""};
  ModuleI2CInfo::cache.clear();
  unsigned int module = 0;
  for (const std::string& path : paths) {
    EXPECT_EQ(Udev_PCA9536(module++).GetPath(), path) << module;
  }
}

TEST(Drivers, PowerModules) {
  const Outside outside;
  ModuleI2CInfo::cache.clear();
  for (const int slot : {1, 2}) {
    const std::string links = "/sys/platform/gpio_module" + std::to_string(slot);
    BackplaneInterface backplane;
    const Printed printed;
    for (const bool on : {false, true, false, true}) {
      EXPECT_TRUE(on ? backplane.turnModuleOn(slot) : backplane.turnModuleOff(slot));
      EXPECT_EQ(backplane.isModuleOn(slot), on);
      EXPECT_EQ(lineOf(links + "_power_en/value"), on ? "1" : "0");
      EXPECT_EQ(lineOf(links + "_seq_done/value"), on ? "0" : "1") << "the library has waited";
    }
    EXPECT_EQ(printed.err.str(), "");
  }
}

TEST(Drivers, KnowNothingOfTheSoftPowerOfA2k4k) {
  const Outside outside;
  ModuleI2CInfo::cache.clear();
  BackplaneInterface backplane;
  for (const bool on : {true, false}) {
    EXPECT_TRUE(on ? backplane.turnModuleOn(4) : backplane.turnModuleOff(4));
    EXPECT_EQ(backplane.isModuleOn(4), on);
    EXPECT_EQ(lineOf("/sys/platform/gpio_2k_4k_a_power_en/value"), "0");
    EXPECT_EQ(lineOf("/sys/platform/gpio_2k_4k_a_power_en/direction"), "out");
  }
}

void append(Lines& lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

/// The accesses, without the values that depend on what a register has held.
Lines withoutValues(const Lines& accesses) {
  Lines result;
  for (const std::string& access : accesses) {
    const bool constant =
        access.find(" fb8 ") != std::string::npos || access.find(" fc4 ") != std::string::npos;
    std::istringstream words(access);
    std::string kind, device, offset;
    words >> kind >> device >> offset;
    result.push_back(constant ? access : kind + " " + device + " " + offset);
  }
  return result;
}

/// The accesses that change a register of so many bits.
Lines change(const std::string& bits, const std::string& device, const std::string& offset) {
  const std::string place = bits + " " + device + " " + offset;
  return {"read" + place, "write" + place};
}

Lines bridgeSetUp(const std::string& device) {
  Lines all;
  append(all, change("32", device, "4"));
  append(all, change("32", device, "3c"));
  append(all, change("16", device, "70"));
  append(all, change("32", device, "fcc"));
  append(all, {"write32 " + device + " fb8 3ff030", "write32 " + device + " fc4 31c1"});
  return all;
}

TEST(Drivers, HaveTheirErrorReportingSetUp) {
  Outside outside;
  for (const char* const device : {"01:00.0", "02:01.0", "02:05.0", "02:07.0", "02:09.0"}) {
    outside.setRegister(device, 0xFCC, 0xA0);
  }
  outside.setRegister("00:00.0", 0x12C, 0x80000080);
  outside.accesses();
  const PCIeDiagnostics diagnostics;
  EXPECT_TRUE(diagnostics.pciSystemReady);
  EXPECT_TRUE(diagnostics.rootPortFound);
  EXPECT_TRUE(diagnostics.switchUpstreamFound);
  const Lines accesses = outside.accesses();
  Lines expected;
  for (const char* const place : {"78", "12c", "7a"}) {
    append(expected, change("16", "00:00.0", place));
  }
  for (const char* const place : {"8c", "130", "110", "104"}) {
    append(expected, change("32", "00:00.0", place));
  }
  for (const char* const device : {"01:00.0", "02:01.0", "02:05.0", "02:07.0", "02:09.0"}) {
    append(expected, bridgeSetUp(device));
  }
  EXPECT_THAT(withoutValues(accesses), ElementsAreArray(expected));
  EXPECT_THAT(accesses, testing::IsSupersetOf({"write16 00:00.0 12c 87", "write32 02:05.0 fcc 1a0",
                                               "write32 01:00.0 fcc 1a0"}));

  // The bits that all of them keep, read behind the library's back.
  for (const char* const device : {"01:00.0", "02:01.0", "02:05.0", "02:07.0", "02:09.0"}) {
    std::ifstream config("/sys/bus/pci/devices/0000:" + std::string(device) + "/config");
    std::string content(64, '\0');
    config.read(content.data(), 64);
    EXPECT_EQ(content[0x05] & 0x01, 0x01) << "SERR";
    EXPECT_EQ(content[0x3E] & 0x03, 0x03) << "parity errors and SERR";
  }
}

TEST(Drivers, TellWhichDevicesThereAre) {
  Outside outside;
  const Printed printed;
  PCIeDiagnostics diagnostics;
  EXPECT_EQ(diagnostics.rootPortIds.vendorId, 0x16C3);
  EXPECT_EQ(diagnostics.rootPortIds.deviceId, 0xABCD);
  EXPECT_EQ(diagnostics.switchUpstreamIds.vendorId, 0x104C);
  EXPECT_EQ(diagnostics.switchUpstreamIds.deviceId, 0x8232);
  EXPECT_EQ(diagnostics.downstreamIds[DownstreamPort9].deviceId, 0x8233);
  EXPECT_EQ(diagnostics.downstreamIds[ShimPort1].deviceId, 0);
  outside.accesses();
  diagnostics.setupShimSwitch(1);
  EXPECT_EQ(printed.out.str(),
            "Module Downstream: 9\n"
            "primary: 2 secondary: 6 subordinate: 9\n"
            "shim_primary: 6 shim_secondary: 7 shim_subordinate: 9\n"
            "shim_primary: 7 shim_secondary: 8 shim_subordinate: 8\n"
            "shim_primary: 7 shim_secondary: 9 shim_subordinate: 9\n");
  EXPECT_EQ(printed.err.str(), "");
  EXPECT_TRUE(diagnostics.shimUpstreamFound);
  EXPECT_EQ(diagnostics.shimUpstreamIds.deviceId, 0x8232);
  EXPECT_EQ(diagnostics.downstreamIds[ShimPort5].deviceId, 0x8233);
  Lines expected;
  for (const char* const device : {"06:00.0", "07:01.0", "07:05.0"}) {
    append(expected, bridgeSetUp(device));
  }
  EXPECT_THAT(withoutValues(outside.accesses()), ElementsAreArray(expected));
  diagnostics.setupShimSwitch(2);
  EXPECT_EQ(printed.err.str(), "Could not find device: 5\n");
  EXPECT_FALSE(diagnostics.shimUpstreamFound);
}

TEST(Drivers, ShowTheRegistersOfASnapshot) {
  Outside outside;
  const Printed printed;
  PCIeDiagnostics diagnostics;
  outside.setRegister("00:00.0", 0x104, 0x00100010);
  outside.setRegister("00:00.0", 0x110, 0x00000041);
  outside.setRegister("02:05.0", 0xFB8, 0x00004000);
  outside.setRegister("02:05.0", 0xFC4, 0x00001100);
  outside.setRegister("02:05.0", 0x1E8, 0x12345678);
  outside.setRegister("02:05.0", 0x1EC, 0x9ABCDEF0);
  outside.setRegister("01:00.0", 0xFB8, 0x00000020);
  outside.setRegister("01:00.0", 0xFC4, 0x00000001);
  outside.accesses();
  const DiagnosticsResults results = diagnostics.getDiagnosticsResults(DownstreamPort5, false);
  EXPECT_THAT(outside.accesses(),
              ElementsAre("read16 00:00.0 82", "read16 00:00.0 7a", "read32 00:00.0 104",
                          "read32 00:00.0 110", "read32 01:00.0 fb8", "read32 01:00.0 fc4",
                          "read32 01:00.0 1e8", "read32 01:00.0 1ec", "read32 01:00.0 1f4",
                          "read32 02:05.0 78", "read32 02:05.0 fb8", "read32 02:05.0 fc4",
                          "read32 02:05.0 1e8", "read32 02:05.0 1ec"));
  EXPECT_EQ(results.rootLinkStatus, 0x0011);
  EXPECT_FALSE(results.rootLinkOk);
  EXPECT_EQ(results.rootLinkFault, 1);
  EXPECT_EQ(results.rootDeviceStatus, 0);
  EXPECT_EQ(results.rootUncorrectableStatus, 0x00100010U);
  EXPECT_EQ(results.rootCorrectableStatus, 0x00000040U);
  EXPECT_EQ(results.upstreamUncorrectableStatus, 0x00000020U);
  EXPECT_EQ(results.upstreamCorrectableStatus, 0x00000001U);
  EXPECT_EQ(results.portUncorrectableStatus, 0x00004000U);
  EXPECT_EQ(results.portCorrectableStatus, 0x00001100U);
  EXPECT_EQ(results.portRegister1E8, 0x12345678U);
  EXPECT_EQ(results.portRegister1EC, 0x9ABCDEF0U);
  EXPECT_EQ(results.portIds.deviceId, 0x8233);
  EXPECT_EQ(diagnostics.DecodeUncorrectableStatus(results.portUncorrectableStatus),
            "Completion Timeout");

  // What is latched in the root port goes when it is written back; it is not cleared otherwise.
  outside.accesses();
  diagnostics.clearDownstreamResults(DownstreamPort5);
  EXPECT_THAT(outside.accesses(),
              ElementsAre("read16 00:00.0 7a", "write16 00:00.0 7a 0", "read32 00:00.0 130",
                          "write32 00:00.0 130 0", "read32 00:00.0 110", "write32 00:00.0 110 41",
                          "read32 00:00.0 104", "write32 00:00.0 104 100010",
                          "write32 01:00.0 fb8 3ff030", "write32 01:00.0 fc4 31c1",
                          "write32 02:05.0 fb8 3ff030", "write32 02:05.0 fc4 31c1"));
  for (const std::uint32_t offset : {0x104U, 0x110U}) {
    outside.setRegister("00:00.0", offset, 0);
  }
  for (const std::uint32_t offset : {0x1E8U, 0x1ECU}) {
    outside.setRegister("02:05.0", offset, 0);
  }
}

TEST(Drivers, KeepTheBitsThatAreSet) {
  Outside outside;
  const Printed printed;
  PCIeDiagnostics diagnostics;
  for (const std::uint32_t offset : {0xB94U, 0xB98U, 0xB9CU}) {
    outside.setRegister("01:00.0", offset, 0xFFFF0000);
  }
  outside.accesses();
  EXPECT_EQ(diagnostics.setDevicePortBits(DownstreamPort7, 0xB98, 0x1F, keepAll), 0xFFFF001FU);
  EXPECT_EQ(diagnostics.clearDevicePortBits(DownstreamPort7, 0xB98, 0x8000000F), 0x7FFF0010U);
  EXPECT_EQ(diagnostics.getDevicePortBits(DownstreamPort7, 0xB98, 0xFF0000F0, 4), 0x07F00001U);
  EXPECT_TRUE(diagnostics.testDevicePortBits(DownstreamPort7, 0xB98, 0x10));
  EXPECT_FALSE(diagnostics.testDevicePortBits(DownstreamPort7, 0xB98, 0x0F));
  EXPECT_THAT(outside.accesses(),
              ElementsAre("read32 01:00.0 b98", "write32 01:00.0 b98 ffff001f",
                          "read32 01:00.0 b98", "write32 01:00.0 b98 7fff0010",
                          "read32 01:00.0 b98", "read32 01:00.0 b98", "read32 01:00.0 b98"));
  EXPECT_EQ(diagnostics.getDevicePortBits(DownstreamPort7, 0xB94, keepAll, 0), 0xFFFF0000U);
  EXPECT_EQ(diagnostics.getDevicePortBits(DownstreamPort7, 0xB9C, keepAll, 0), 0xFFFF0000U);
  // The switch drives its status bits itself: with all of its registers at zero, both agree.
  outside.setRegister("01:00.0", 0x224, 0);
  outside.setRegister("01:00.0", 0x25C, 0);
  outside.setRegister("02:01.0", 0x78, 0);
  outside.accesses();
  diagnostics.setPRBSMode(DownstreamPort5, true);
  diagnostics.setPRBSMode(DownstreamPort5, false);
  diagnostics.retrainLink(DownstreamPort1);
  EXPECT_THAT(withoutValues(outside.accesses()),
              ElementsAre("read32 01:00.0 25c", "write32 01:00.0 25c", "read32 01:00.0 25c",
                          "write32 01:00.0 25c", "read32 02:01.0 78", "write32 02:01.0 78"));
}

}  // namespace
