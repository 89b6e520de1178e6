// SPDX-License-Identifier: MIT
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <libudev.h>
#include <pciaccess.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "modules/BackplaneInterface.h"
#include "pcie/PCIeDiagnostics.h"
#include "platform/SpbFPGA.h"
#include "simulator/instrument/LeftBehind.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/shared/State.h"
#include "tests/Support.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

constexpr char lines[] = "/sys/class/gpio/";

/// What a read of a file gives, or the name of its error.
std::string readFrom(const std::string& file) {
  char text[64];
  const int fd = open(file.c_str(), O_RDONLY);
  const ssize_t length = fd < 0 ? -1 : read(fd, text, sizeof text);
  const int error = errno;
  close(fd);
  return length < 0 ? strerrorname_np(error) : std::string(text, static_cast<std::size_t>(length));
}

/// A register of a device such as "02:01.0", or the name of the error, in hexadecimal.
std::string readRegister(const std::string& device, std::uint32_t offset) {
  unsigned int bus = 0;
  unsigned int number = 0;
  std::sscanf(device.c_str(), "%x:%x", &bus, &number);
  pci_device* const found = pci_device_find_by_slot(0, bus, number, 0);
  std::uint32_t value = 0;
  const int error = found == nullptr ? ENODEV : pci_device_cfg_read_u32(found, &value, offset);
  char text[16];
  std::snprintf(text, sizeof text, "%x", value);
  return error != 0 ? strerrorname_np(error) : text;
}

void writeRegister(unsigned int bus, unsigned int number, std::uint32_t offset,
                   std::uint32_t value) {
  EXPECT_EQ(pci_device_cfg_write_u32(pci_device_find_by_slot(0, bus, number, 0), value, offset), 0);
}

constexpr char gone[] = "ffffffff";
constexpr char upAndTrained[] = "20120000";

// ------------------------------------------------------------------------------------ changes

TEST(Changes, ComeAtTheirTimeAndGoAgain) {
  Instrument instrument(
      "[gpio]\n5=low exported\n[at 1.5]\ngpio 5=high\n[at 3 for 0.5]\ngpio 5=low\n");
  const auto level = [] { return readFrom(std::string(lines) + "gpio5/value"); };
  const struct {
    useconds_t sleep;
    const char* level;
  } steps[] = {{1499999, "0\n"}, {1, "1\n"},      {1499999, "1\n"},
               {1, "0\n"},       {499999, "0\n"}, {1, "1\n"}};
  for (const auto& step : steps) {
    usleep(step.sleep);
    EXPECT_EQ(level(), step.level) << instrument.milliseconds();
  }
}

TEST(Changes, HappenWhenTheyAreDueHoweverLateTheyAreSeen) {
  const Instrument instrument(
      "[power 1]\ninitially=on\non-delay=2\n[at 1]\npower 1 supply=failed\n"
      "[at 5]\npower 1 supply=ok\n[at 6]\npower 1 initially=off\n[at 7]\npower 1 initially=on\n");
  const auto done = [] { return readFrom("/sys/platform/gpio_module1_seq_done/value"); };
  usleep(900000);
  EXPECT_EQ(done(), "0\n");
  usleep(100000);
  EXPECT_EQ(done(), "1\n") << "power is lost after it was done";
  EXPECT_EQ(readFrom("/sys/platform/gpio_module1_power_en/value"), "1\n");
  usleep(7900000);
  EXPECT_EQ(done(), "1\n") << "1.9 s after it was switched on again";
  usleep(100000);
  EXPECT_EQ(done(), "0\n");
}

TEST(Changes, ComeAfterAccesses) {
  Instrument instrument(
      "[gpio]\n5=low exported\n6=low exported\n"
      "[after 2 read /sys/class/gpio/gpio5/value]\ngpio 5=high\n"
      "[after 1 for 2 read */gpio6/value]\ngpio 6=high\n");
  std::string levels;
  for (int access = 0; access < 5; ++access) {
    levels += readFrom(std::string(lines) + "gpio5/value")[0];
    levels += readFrom(std::string(lines) + "gpio6/value")[0];
  }
  EXPECT_EQ(levels,
            "00"
            "01"
            "11"
            "10"
            "10");
}

TEST(Changes, AreMadeFromOutsideWithAllThatFollows) {
  Instrument instrument(contentOf(INSTRUMENTS "/full.conf"));
  BackplaneInterface backplane;
  const std::string expander = "/sys/bus/i2c/devices/30-0041";
  EXPECT_EQ(fs::read_symlink(expander + "/driver").filename(), "pca953x");
  EXPECT_EQ(access("/sys/class/gpio/gpiochip516/base", F_OK), 0);
  // Pulled, and inserted again.
  EXPECT_TRUE(backplane.isModulePresent(3));
  instrument.set({"gpio 134=high", "expander 30-0041 present=no"});
  EXPECT_FALSE(backplane.isModulePresent(3));
  EXPECT_FALSE(backplane.isModuleLinkUp(1));
  for (const char* const file :
       {"/sys/bus/i2c/devices/30-0041", "/sys/class/gpio/gpiochip516", "/sys/class/gpio/gpio516",
        "/sys/bus/i2c/drivers/pca953x/30-0041", "/sys/platform/gpio_module1_power_en/value"}) {
    EXPECT_EQ(access(file, F_OK), -1) << file;
  }
  EXPECT_EQ(writeAttribute(std::string(lines) + "export", "516"), EINVAL);
  instrument.set({"gpio 134=low", "expander 30-0041 present=yes"});
  EXPECT_TRUE(backplane.isModulePresent(3));
  EXPECT_FALSE(backplane.isModuleLinkUp(1)) << "a module that is inserted is off";
  EXPECT_EQ(readFrom("/sys/platform/gpio_module1_power_en/value"), "0\n");
  EXPECT_TRUE(backplane.turnModuleOn(1));
  EXPECT_TRUE(backplane.isModuleLinkUp(1));
  // A multiplexer takes all with it that is behind it.
  instrument.set({"mux 2-0070 present=no"});
  EXPECT_EQ(access("/sys/bus/i2c/devices/i2c-30", F_OK), -1);
  EXPECT_EQ(access("/sys/class/gpio/gpiochip516", F_OK), -1);
  instrument.set({"mux 2-0070 present=yes", "i2c 0-0074=pmb"});
  EXPECT_EQ(readFrom("/sys/bus/i2c/devices/0-0074/name"), "pmb\n");
  instrument.set({"i2c 0-0074="});
  EXPECT_EQ(access("/sys/bus/i2c/devices/0-0074", F_OK), -1);
}

TEST(Changes, InsertAModuleThatWasNotThere) {
  Instrument instrument(contentOf(INSTRUMENTS "/full.conf") +
                        "[expander 30-0041]\npresent=no\n2=low\n");
  const std::string link = "/sys/platform/gpio_module1_power_en";
  EXPECT_FALSE(fs::exists(link + "/value"));
  instrument.set({"expander 30-0041 present=yes"});
  EXPECT_EQ(fs::read_symlink(link).filename(), "gpio524") << "numbered as it comes";
  writeAttribute(std::string(lines) + "export", "526");
  writeAttribute(std::string(lines) + "gpio526/direction", "high");
  instrument.set({"expander 30-0041 present=no"});
  instrument.set({"expander 30-0041 present=yes"});
  writeAttribute(std::string(lines) + "export", "526");
  EXPECT_EQ(readFrom(std::string(lines) + "gpio526/direction"), "in\n")
      << "a chip that is plugged in";
}

TEST(Changes, CreateWhatWasNotDescribed) {
  Instrument instrument("[expander 2-0041]\n");
  instrument.set({"power 4 initially=on", "i2c 9-0030=sensor"});
  EXPECT_EQ(fs::read_symlink("/sys/platform/gpio_2k_4k_a_power_en").filename(), "gpio504");
  EXPECT_EQ(readFrom("/sys/bus/i2c/devices/9-0030/name"), "sensor\n");
}

TEST(Changes, AreRefusedAsAWhole) {
  Instrument instrument("[pci]\n");
  const struct {
    std::vector<std::string> settings;
    const char* reason;
  } cases[] = {
      {{"gpio 5=high", "gpio 6=hi"}, "[gpio] 6: must be low, high, missing"},
      {{"pci port1=down"}, "[pci] port1: unknown key"},
      {{"gpio"}, "not a setting such as"},
      {{"expander 2-0041 present=no"}, "[expander 2-0041] present: no such device; describe it"},
      {{"lines 5=high"}, "[lines] 5: unknown group"},
      {{"pci shim=1"}, "[pci] shim: stays as it is while the instrument runs"},
      {{"at 5 pci=1"}, "[at 5] pci: not a setting such as"},
  };
  for (const auto& test : cases) {
    try {
      instrument.set(test.settings);
      ADD_FAILURE() << test.reason;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(test.reason));
    }
  }
  writeAttribute(std::string(lines) + "export", "5");
  EXPECT_EQ(readFrom(std::string(lines) + "gpio5/value"), "0\n");
}

// ----------------------------------------------------------------------------------- failures

TEST(Failures, StrikeTheAccessesThatTheyName) {
  Instrument instrument(R"([gpio]
5=low exported
6=low busy
[pci]
[expander 2-0041]
base=none of yours
[expander 2-0042]
base=missing
[fail read */gpio5/value]
[fail write */gpio5/direction "out"]
error=EPERM
[fail open */gpio5/edge]
error=EACCES
[fail udev_new]
after=1
times=1
error=ENOMEM
[fail pci read32 0000:02:01.0 78]
times=1
[fail pci read32 0000:02:07.0 7]
[fail list /sys/class/gpio]
[fail read /sys/bus/i2c/devices/2-0042/name]
[fail pci find 0000:02:05.0]
error=ENODEV
[fail clock on 2]
)");
  const std::string line = std::string(lines) + "gpio5/";
  EXPECT_EQ(readFrom(line + "value"), "EIO") << "it opens, and cannot be read";
  std::ifstream stream(line + "value");
  EXPECT_TRUE(stream.is_open());
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  EXPECT_EQ(writeAttribute(line + "direction", "out"), EPERM);
  EXPECT_EQ(writeAttribute(line + "direction", "high"), 0);
  EXPECT_EQ(readFrom(line + "edge"), "EACCES");
  EXPECT_EQ(writeAttribute(std::string(lines) + "export", "6"), EBUSY) << "another driver has it";
  EXPECT_EQ(readFrom("/sys/class/gpio/gpiochip512/base"), "none of yours\n");
  EXPECT_EQ(readFrom("/sys/class/gpio/gpiochip516/base"), "ENOENT");
  EXPECT_EQ(readFrom("/sys/bus/i2c/devices/2-0042/name"), "EIO");
  EXPECT_EQ(opendir("/sys/class/gpio"), nullptr);
  EXPECT_EQ(errno, EIO);
  udev* const contexts[] = {udev_new(), udev_new(), udev_new()};
  EXPECT_NE(contexts[0], nullptr);
  EXPECT_EQ(contexts[1], nullptr);
  EXPECT_NE(contexts[2], nullptr);
  udev_unref(contexts[0]);
  udev_unref(contexts[2]);
  EXPECT_EQ(pci_system_init(), 0);
  EXPECT_EQ(readRegister("02:01.0", 0x78), "EIO");
  EXPECT_EQ(readRegister("02:01.0", 0x78), upAndTrained);
  EXPECT_EQ(readRegister("02:05.0", 0x78), "ENODEV");
  EXPECT_EQ(readRegister("02:07.0", 0x78), upAndTrained) << "the pattern's words are whole";
  instrument.set({"fail pci read32 0000:02:07.0 * error=ENXIO", "fail read */gpio5/value times=0"});
  EXPECT_EQ(readRegister("02:07.0", 0x78), "ENXIO") << "new ones, from outside";
  EXPECT_EQ(readFrom(line + "value"), "1\n");
  instrument.set({"fail read */gpio5/value times=1", "gpio 6=low", "fail sleep times=1"});
  EXPECT_EQ(readFrom(line + "value"), "EIO") << "counted anew";
  EXPECT_EQ(readFrom(line + "value"), "1\n");
  EXPECT_EQ(writeAttribute(std::string(lines) + "export", "6"), 0);
  EXPECT_EQ(usleep(3000), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(usleep(500), 0);
  EXPECT_EQ(instrument.milliseconds(), 2) << "half of the sleep that was interrupted";
}

TEST(Failures, StrikeDescriptorsThatStayOpen) {
  Instrument instrument(
      "[expander 2-0041]\n0=high exported\n[fail read */gpio512/value]\nafter=1\ntimes=1\n");
  const int line = open("/sys/class/gpio/gpio512/value", O_RDONLY);
  char level = 0;
  EXPECT_EQ(read(line, &level, 1), 1);
  EXPECT_EQ(lseek(line, 0, SEEK_SET), 0);
  EXPECT_EQ(read(line, &level, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(lseek(line, 0, SEEK_SET), 0);
  EXPECT_EQ(read(line, &level, 1), 1) << "as before";
  instrument.set({"expander 2-0041 present=no"});
  EXPECT_EQ(pread(line, &level, 1, 0), -1);
  EXPECT_EQ(errno, ENODEV);
  close(line);
}

TEST(Failures, ByChanceAreTheSameWithTheSameSeed) {
  const auto run = [](std::uint64_t seed) {
    simulator::SimulatedInstrument::Options options;
    options.seed = seed;
    simulator::SimulatedInstrument instrument(
        simulator::parseDescription("[gpio]\n5=low exported\n[fail read *]\nrate=0.2\n"), options);
    std::string results;
    for (int access = 0; access < 200; ++access) {
      results += readFrom(std::string(lines) + "gpio5/value") == "EIO" ? 'x' : '.';
    }
    return results;
  };
  const std::string first = run(1);
  EXPECT_EQ(run(1), first);
  EXPECT_NE(run(2), first);
  const auto failed = std::count(first.begin(), first.end(), 'x');
  EXPECT_GT(failed, 20);
  EXPECT_LT(failed, 70);
}

// ------------------------------------------------------------------------------------- fabric

TEST(Fabric, IsReachedThroughThePortsAbove) {
  const char* const below = "[pci]\nshim=1\n[power 1]\ninitially=on\n";
  const struct {
    std::vector<std::string> settings;
    std::vector<std::string> gone;
  } cases[] = {
      {{}, {}},
      {{"pci port9 link=down"}, {"06:00.0", "07:01.0", "07:05.0"}},
      {{"pci port9 present=no"}, {"02:09.0", "06:00.0", "07:01.0", "07:05.0"}},
      {{"pci shim present=no"}, {"06:00.0", "07:01.0", "07:05.0"}},
      {{"power 1 initially=off"}, {"06:00.0", "07:01.0", "07:05.0"}},
      {{"power 1 supply=failed"}, {"06:00.0", "07:01.0", "07:05.0"}},
      {{"clock 1=off"}, {"06:00.0", "07:01.0", "07:05.0"}},
      {{"pci shim-port1 link=down"}, {}},
      {{"pci root link=down"},
       {"01:00.0", "02:01.0", "02:05.0", "02:07.0", "02:09.0", "06:00.0", "07:01.0", "07:05.0"}},
  };
  for (const auto& test : cases) {
    Instrument instrument(below);
    instrument.set(test.settings);
    EXPECT_EQ(pci_system_init(), 0);
    for (const char* const device : {"00:00.0", "01:00.0", "02:01.0", "02:05.0", "02:07.0",
                                     "02:09.0", "06:00.0", "07:01.0", "07:05.0"}) {
      const bool isGone = std::find(test.gone.begin(), test.gone.end(), device) != test.gone.end();
      EXPECT_EQ(readRegister(device, 0x00) == gone, isGone)
          << device << (test.settings.empty() ? "" : test.settings[0]);
    }
  }
}

TEST(Fabric, ForgetsWhatALinkThatIsLostHasReset) {
  const struct {
    std::uint32_t bridgeControl;
    std::vector<std::string> lose;
    std::vector<std::string> regain;
    const char* latched;
  } cases[] = {
      {0, {"power 1 initially=off"}, {"power 1 initially=on"}, "20"},
      {0, {"pci port9 link=down"}, {"pci port9 link=up"}, "20"},
      {0x400000, {}, {}, "0"},  // a reset by the port, which knows of it
  };
  for (const auto& test : cases) {
    Instrument instrument("[pci]\nshim=1\n[power 1]\ninitially=on\n");
    EXPECT_EQ(pci_system_init(), 0);
    writeRegister(6, 0, 0x25C, 0x01000000);
    writeRegister(2, 9, 0x3C, test.bridgeControl);
    instrument.set(test.lose);
    EXPECT_EQ(readRegister("02:09.0", 0xFB8), test.latched);
    writeRegister(2, 9, 0x3C, 0);
    instrument.set(test.regain);
    usleep(200000);
    EXPECT_EQ(readRegister("06:00.0", 0x25C), "0");
    EXPECT_EQ(readRegister("07:01.0", 0x00), "10077a1e") << "buses have their numbers again";
  }
}

TEST(Fabric, LosesALinkThatNobodyHasSeen) {
  const std::string enable = "/sys/platform/gpio_module1_power_en/value";
  for (const bool byTheLine : {true, false}) {
    Instrument instrument("[pci]\n[power 1]\n[clock]\n1=on\n");
    writeAttribute(enable, "1");
    usleep(200000);
    if (byTheLine) {
      writeAttribute(enable, "0");
    } else {
      instrument.set({"power 1 supply=failed"});
    }
    EXPECT_EQ(pci_system_init(), 0);
    EXPECT_EQ(readRegister("02:09.0", 0xFB8), "20");
  }
}

TEST(Fabric, LosesWritesToWhatIsGone) {
  Instrument instrument("[pci]\nshim=1\n");
  EXPECT_EQ(pci_system_init(), 0);
  instrument.set({"pci port9 link=down"});
  writeRegister(6, 0, 0x25C, 0x01000000);
  std::uint8_t byte = 0;
  pci_device_cfg_read_u8(pci_device_find_by_slot(0, 6, 0, 0), &byte, 0x25C);
  EXPECT_EQ(byte, 0xFF);
  instrument.set({"pci port9 link=up"});
  EXPECT_EQ(readRegister("06:00.0", 0x25C), "0");
}

TEST(Fabric, ShowsAForgottenClockSource) {
  Instrument instrument("[pci]\n[power 2]\n");
  EXPECT_EQ(pci_system_init(), 0);
  const std::string link = "/sys/platform/gpio_module2_power_en/value";
  const auto up = [] { return readRegister("02:07.0", 0x78) == upAndTrained; };
  SpbFPGA fpga;
  writeAttribute(link, "1");
  usleep(200000);
  EXPECT_FALSE(up()) << "powered, without its clock";
  fpga.TurnOnModuleClockSource(2);
  EXPECT_FALSE(up()) << "it ran without its clock: it needs retraining";
  writeRegister(2, 7, 0x78, 0x20);
  usleep(1000);
  EXPECT_TRUE(up());
  fpga.TurnOffModuleClockSource(2);
  writeAttribute(link, "0");
  EXPECT_FALSE(up());
  fpga.TurnOnModuleClockSource(2);
  writeAttribute(link, "1");
  usleep(200000);
  EXPECT_TRUE(up()) << "power resets it";
}

TEST(Fabric, TellsTheRootPortOfErrors) {
  const struct {
    const char* setting;
    bool reported;
    const char* portStatus;  ///< Device Control and Device Status of the port
    const char* rootErrors;  ///< Root Error Status
    const char* source;      ///< Error Source Identification
    const char* secondary;   ///< Secondary Status of the switch, in its upper half
  } cases[] = {
      {"pci port1 latch-correctable=0x1", true, "1000f", "1", "208", "0"},
      {"pci port1 latch-correctable=0x2000", true, "1000f", "0", "0", "0"},  // masked
      {"pci port1 latch-uncorrectable=0x1000", true, "2000f", "24", "2080000", "40000000"},
      {"pci port1 latch-uncorrectable=0x10", true, "4000f", "54", "2080000", "40000000"},
      {"pci port1 link=down", true, "4000f", "54", "2080000", "40000000"},  // surprise down
      {"pci port1 latch-correctable=0x1", false, "10000", "0", "0", "0"},
      {"pci port1 latch-uncorrectable=0x10", false, "40000", "0", "0", "0"},
  };
  for (const auto& test : cases) {
    Instrument instrument("[pci]\n");
    EXPECT_EQ(pci_system_init(), 0);
    if (test.reported) {
      const PCIeDiagnostics enables;
    }
    instrument.set({test.setting});
    EXPECT_EQ(readRegister("02:01.0", 0x70), test.portStatus) << test.setting;
    EXPECT_EQ(readRegister("00:00.0", 0x130), test.rootErrors) << test.setting;
    EXPECT_EQ(readRegister("00:00.0", 0x134), test.source) << test.setting;
    EXPECT_EQ(readRegister("01:00.0", 0x1C), test.secondary) << test.setting;
  }
  {
    Instrument systemErrors(
        "[pci]\n[pci port1]\nregister-4=0x100100\n[pci "
        "switch]\nregister-3c=0x20000\nregister-4=0x100100\n");
    EXPECT_EQ(pci_system_init(), 0);
    systemErrors.set({"pci port1 latch-uncorrectable=0x10"});
    EXPECT_EQ(readRegister("02:01.0", 0x04), "40100100") << "signalled as a system error";
    EXPECT_EQ(readRegister("00:00.0", 0x130), "54");
    writeRegister(0, 0, 0x130, ~0U);
    writeRegister(1, 0, 0x04, 0);
    systemErrors.set({"pci port1 latch-uncorrectable=0x20"});
    EXPECT_EQ(readRegister("00:00.0", 0x130), "0") << "the switch signals none";
    EXPECT_EQ(readRegister("01:00.0", 0x78), "120000") << "its link is the root port's";
  }
  {
    Instrument dead("[pci]\nshim=1\n");
    const PCIeDiagnostics enables;
    dead.set({"pci port9 link=down"});
    writeRegister(0, 0, 0x130, ~0U);
    dead.set({"pci shim-port5 link=down"});
    EXPECT_EQ(readRegister("00:00.0", 0x130), "0") << "no message comes through a dead link";
    dead.set({"pci port9 link=up"});
    EXPECT_EQ(readRegister("07:05.0", 0xFB8), "0") << "it was off itself";
    EXPECT_EQ(readRegister("02:09.0", 0xFCC), "1a5") << "the first error is the sixth bit";
  }
  Instrument instrument("[pci]\n");
  const PCIeDiagnostics enables;
  instrument.set({"pci port1 latch-correctable=0x1", "pci port5 latch-correctable=0x1"});
  EXPECT_EQ(readRegister("00:00.0", 0x130), "3") << "more than one";
  EXPECT_EQ(readRegister("00:00.0", 0x134), "208") << "the first one's";
  writeRegister(2, 1, 0x3C, 0);
  writeRegister(1, 0, 0x3C, 0);
  writeRegister(0, 0, 0x130, ~0U);
  instrument.set({"pci port7 latch-correctable=0x1"});
  EXPECT_EQ(readRegister("00:00.0", 0x130), "0") << "the switch does not pass it on";
  EXPECT_EQ(readRegister("02:07.0", 0xFC4), "1");
  writeRegister(2, 7, 0xFC4, 1);
  usleep(1000);
  EXPECT_EQ(readRegister("02:07.0", 0xFC4), "0") << "latched once";
}

TEST(Fabric, LatchesALinkThatIsLostByTheWay) {
  for (const bool disabled : {false, true}) {
    Instrument instrument("[pci]\n[pci port1]\nlink-lost-after=2\n");
    EXPECT_EQ(pci_system_init(), 0);
    writeRegister(2, 1, 0x78, disabled ? 0x10 : 0);
    usleep(1999999);
    EXPECT_EQ(readRegister("02:01.0", 0xFB8), "0");
    EXPECT_EQ(readRegister("02:01.0", 0x78), disabled ? "10" : upAndTrained);
    usleep(1);
    EXPECT_EQ(readRegister("02:01.0", 0xFB8), disabled ? "0" : "20");
    EXPECT_EQ(readRegister("01:00.0", 0x1F4), "e00");
  }
}

TEST(Fabric, KeepsALinkThatIsNotToBeLost) {
  Instrument instrument(
      "[pci]\n[pci port1]\nlink-lost-after=2\n[at 1 for 3]\npci port1 link=down\n");
  EXPECT_EQ(pci_system_init(), 0);
  usleep(1500000);
  instrument.set({"pci port1 link-lost-after=never"});
  usleep(2000000);
  EXPECT_EQ(readRegister("02:01.0", 0x78), "0") << "for three seconds";
  usleep(1000000);
  EXPECT_EQ(readRegister("02:01.0", 0x78), upAndTrained) << "and then as before";
}

TEST(Fabric, LosesPrbsSyncAlone) {
  Instrument instrument("[pci]\n[at 1]\npci port1 prbs=no-sync\n");
  PCIeDiagnostics diagnostics;
  writeRegister(1, 0, 0x224, 1);
  writeRegister(1, 0, 0x25C, 0x01000000);
  EXPECT_EQ(readRegister("01:00.0", 0xB84), "10000");
  usleep(1000000);
  EXPECT_EQ(readRegister("01:00.0", 0xB84), "0");
  EXPECT_EQ(readRegister("01:00.0", 0x1F4), "f00") << "the link stays up";
}

TEST(Fabric, IsTheSameThroughItsFiles) {
  Instrument instrument("[pci]\nshim=1\n");
  EXPECT_EQ(pci_system_init(), 0);
  const std::string directory = "/sys/bus/pci/devices/0000:";
  const int root = open((directory + "00:00.0/config").c_str(), O_RDWR);
  const int upstream = open((directory + "01:00.0/config").c_str(), O_RDWR);
  std::uint8_t bytes[8] = {};
  EXPECT_EQ(pread(root, bytes, 3, 0x81), 3) << "any width at any offset";
  EXPECT_EQ(bytes[1] | bytes[2] << 8, 0x2012);
  const std::uint8_t prbs[] = {0xAA, 0xBB, 0xCC, 0x01, 0xEE};
  EXPECT_EQ(pwrite(upstream, prbs, 5, 0x25C), 5);
  EXPECT_EQ(readRegister("01:00.0", 0x25C), "1ccbbaa");
  EXPECT_EQ(readRegister("01:00.0", 0x260), "ee");
  writeRegister(1, 0, 0x25C, 0x12345678);
  EXPECT_EQ(pread(upstream, bytes, 4, 0x25C), 4);
  EXPECT_EQ(bytes[0], 0x78) << "read anew";
  EXPECT_EQ(lseek(upstream, 0x25D, SEEK_SET), 0x25D);
  EXPECT_EQ(read(upstream, bytes, 1), 1);
  EXPECT_EQ(bytes[0], 0x56);
  EXPECT_EQ(write(upstream, "\x42", 1), 1) << "where the descriptor is";
  EXPECT_EQ(readRegister("01:00.0", 0x25C), "12425678");
  EXPECT_EQ(lseek(upstream, 0, SEEK_CUR), 0x25F);
  EXPECT_EQ(pwrite(upstream, "\xFF\xFF", 2, 4095), 1) << "no further than there is";
  EXPECT_EQ(pwrite(upstream, "\xFF", 1, 4096), -1);
  EXPECT_EQ(errno, EFBIG);
  close(root);
  close(upstream);
  std::FILE* const stream = std::fopen((directory + "01:00.0/config").c_str(), "r+");
  std::fseek(stream, 0x25C, SEEK_SET);
  EXPECT_EQ(std::fwrite("\1\2\3\4", 1, 4, stream), 4U);
  EXPECT_EQ(std::fclose(stream), 0);
  EXPECT_EQ(readRegister("01:00.0", 0x25C), "4030201");
  instrument.set({"pci port9 link=down"});
  EXPECT_EQ(readFrom(directory + "06:00.0/config").substr(0, 4), "\xFF\xFF\xFF\xFF");
}

/// A shell script on the full instrument.
Outcome onInstrument(const std::string& script, const std::string& options = "--fast") {
  return runCommand(TALVERO_SIM " " + options + " -- sh -c '" + script + "'");
}

TEST(Fabric, IsSeenByTheUsualTools) {
  if (onInstrument("command -v lspci").status != 0) {
    GTEST_SKIP() << "no pciutils for this machine";
  }
  const Outcome listed = onInstrument("lspci -vv 2>/dev/null");
  EXPECT_EQ(listed.status, 0);
  std::size_t ports = 0;
  for (std::size_t at = 0; (at = listed.output.find("PCI bridge", at)) != std::string::npos; ++at) {
    ++ports;
  }
  EXPECT_EQ(ports, 9U);
  EXPECT_THAT(listed.output,
              AllOf(HasSubstr("Capabilities: [70] Express (v2) Root Port"),
                    HasSubstr("Capabilities: [68] Express (v2) Upstream Port"),
                    HasSubstr("Capabilities: [68] Express (v2) Downstream Port"),
                    HasSubstr("Capabilities: [100 v1] Advanced Error Reporting"),
                    HasSubstr("Capabilities: [fb4 v1] Advanced Error Reporting"),
                    HasSubstr("Surprise+ LLActRep+"), HasSubstr("LnkSta:\tSpeed 5GT/s, Width x1"),
                    Not(HasSubstr("<access denied>")), Not(HasSubstr("unknown"))));
  const Outcome set = onInstrument(
      "setpci -s 00:00.0 82.w; setpci -s 01:00.0 25c.l=11223344; setpci -s 01:00.0 25d.b; "
      "setpci -s 01:00.0 25e.w=aabb; setpci -s 01:00.0 25c.l; setpci -s 01:00.0 25c.b=55; "
      "setpci -s 01:00.0 25c.w");
  EXPECT_EQ(set.output, "2012\n33\naabb3344\n3355\n");
  const TemporaryDirectory directory;
  const std::string program = directory.file("test.py", R"(
import os, struct
device = '/sys/bus/pci/devices/0000:02:01.0/'
with open(device + 'config', 'r+b', buffering=0) as config:
    config.seek(0x78)
    print('%08x' % struct.unpack('<I', config.read(4)))
    config.seek(0x70)
    config.write(bytes([0x0f]))
print(open(device + 'vendor').read().strip(), sorted(os.listdir(device))[:2])
print(open('/sys/class/gpio/gpiochip512/ngpio').read().strip())
)");
  EXPECT_EQ(onInstrument("python3 " + program + "; setpci -s 02:01.0 70.w").output,
            "20120000\n0x7a1e ['class', 'config']\n4\n000f\n");
}

// --------------------------------------------------------------------------------------- lines

TEST(ExpanderLines, AreTheKernelsAndThePowerLinks) {
  const mode_t mask = umask(077);
  Instrument instrument(R"([mux 2-0070]
1=i2c-11
[mux 11-0071]
2=i2c-30
[module 11-0050]
id=1
top=i2c-2/1
system=2
solution=<7 0x1234>
[expander 30-0041]
2=high
3=low exported output-high active-low edge-none
[power 1]
[power 4]
)");
  umask(mask);
  const std::string enable = "/sys/platform/gpio_module1_power_en/";
  EXPECT_EQ(fs::read_symlink("/sys/platform/gpio_module1_power_en").filename(), "gpio512");
  EXPECT_EQ(fs::read_symlink("/sys/platform/gpio_2k_4k_a_seq_done").filename(), "gpio505")
      << "a line of its own, for want of an expander";
  EXPECT_EQ(writeAttribute(std::string(lines) + "export", "514"), 0);
  const struct {
    const char* file;
    const char* written;
    int error;
    const char* after;
  } steps[] = {
      {"gpio514/value", "1", EPERM, "1\n"},
      {"gpio515/value", "1", 0, "1\n"},
      {"gpio515/active_low", "0", 0, "0\n"},
      {"gpio515/value", "0x0", 0, "0\n"},
      {"gpio514/edge", "rising", 0, "rising\n"},
      {"gpio514/direction", "out", 0, "out\n"},
      {"gpio514/direction", "in", 0, "in\n"},
      {"gpio514/edge", "up", EINVAL, "rising\n"},
      {"gpio514/edge", "none", 0, "none\n"},
      {"gpio514/direction", "high", 0, "out\n"},
      {"gpio514/edge", "both", EIO, "none\n"},
      {"gpio512/value", "0x1", 0, "1\n"},
      {"gpio512/value", "no", EINVAL, "1\n"},
      {"gpio512/value", "1\n\n", EINVAL, "1\n"},
      {"gpio512/value", "9223372036854775808", ERANGE, "1\n"},
      {"gpio512/value", "2", 0, "1\n"},
      {"gpio513/value", "1", EPERM, "1\n"},
      {"gpio512/active_low", "1", 0, "1\n"},
      {"gpio512/value", "1", 0, "1\n"},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(writeAttribute(lines + std::string(step.file), step.written), step.error)
        << step.file;
    EXPECT_EQ(readFrom(lines + std::string(step.file)), step.after) << step.file << step.written;
    if (std::string(step.file) == "gpio512/value") {
      EXPECT_EQ(readFrom(enable + "value"), step.after);
    }
  }
  EXPECT_EQ(writeAttribute(enable + "active_low", "0"), 0);
  EXPECT_EQ(readFrom(enable + "value"), "0\n") << "driven low by 1, as it was active low";
  EXPECT_EQ(writeAttribute(enable + "value", "1"), 0);
  usleep(100000);
  EXPECT_EQ(readFrom(lines + std::string("gpio513/value")), "0\n") << "the sequence is done";
  EXPECT_EQ(writeAttribute(enable + "direction", "in"), 0);
  usleep(100000);
  EXPECT_EQ(readFrom(lines + std::string("gpio513/value")), "1\n") << "nobody drives it";
  EXPECT_EQ(writeAttribute(lines + std::string("gpio514/active_low"), "1"), 0);
  EXPECT_EQ(writeAttribute(lines + std::string("unexport"), "514"), 0);
  EXPECT_EQ(writeAttribute(lines + std::string("export"), "514"), 0);
  EXPECT_EQ(readFrom(lines + std::string("gpio514/active_low")), "0\n") << "forgotten";
  // Files as the kernel has them.
  struct stat status {};
  stat("/sys/class/gpio/export", &status);
  EXPECT_EQ(status.st_mode & 0777, 0200U);
  stat("/sys/class/gpio/gpiochip512/base", &status);
  EXPECT_EQ(status.st_mode & 0777, 0444U);
  EXPECT_EQ(readFrom("/sys/class/gpio/gpiochip512/label"), "30-0041\n");
  EXPECT_EQ(readFrom("/sys/bus/i2c/devices/11-0050/of_node/id"), std::string("1\0", 2));
  EXPECT_EQ(readFrom("/sys/bus/i2c/devices/11-0050/of_node/solution"),
            std::string("\0\0\0\7\0\0\x12\x34", 8));
  EXPECT_EQ(fs::read_symlink("/sys/bus/i2c/devices/2-0070/driver").filename(), "pca954x");
  EXPECT_FALSE(fs::exists("/sys/bus/i2c/devices/11-0050/driver"));
}

TEST(Power, IsOffFromTheFirstAccessUnlessDescribed) {
  const Instrument instrument("[power 1]\n");
  EXPECT_EQ(readFrom("/sys/platform/gpio_module1_seq_done/value"), "1\n");
}

// ---------------------------------------------------------------------------------- the end

TEST(Descriptions, SayWhatAnInstrumentIs) {
  std::vector<std::string> texts = {R"([gpio]
5=high exported output-low active-low edge-rising
6=low missing
[i2c]
0-0074=pmb
1-0001=
[mux 2-0070]
3=i2c-9
present=no
[module 2-0050]
id=<1 2>
openable=no
[expander 9-0041]
gpio=empty
base=x
1=low busy
[power 1]
initially=on
supply=failed
since=0.25
on-delay=never
[clock]
0=off
[pci]
shim=2
[pci root]
link=down
register-100=0x5
[pci port1]
stuck-70=0xff
prbs-errors-after=0.5
prbs-errors-per-second=0x7
trained=no
[faults]
fpga=on
[fail pci read* 0000:02:01.0 *]
error=ENXIO
after=2
times=3
rate=0.25
[at 3.0 for 0.5]
pci port1 link=down
[after 2 for 7 udev_new]
faults fpga=off
)"};
  for (const auto& file : fs::directory_iterator(INSTRUMENTS)) {
    texts.push_back(contentOf(file.path()));
  }
  for (const std::string& text : texts) {
    const std::string shown = simulator::describe(simulator::parseDescription(text));
    EXPECT_EQ(simulator::describe(simulator::parseDescription(shown)), shown);
    for (std::size_t begin = 0; &text == &texts[0] && begin < text.size();) {
      const std::size_t end = text.find('\n', begin);
      const std::string line = text.substr(begin, end - begin);
      begin = end + 1;
      EXPECT_THAT(shown, HasSubstr(line + "\n"));
    }
    Instrument instrument(text);
    const std::string left = simulator::describe(instrument.hardware());
    const Instrument again(left);
    EXPECT_EQ(simulator::describe(again.hardware()), left);
  }
}

TEST(Descriptions, SayWhatBecameOfAnInstrument) {
  std::string left;
  {
    Instrument instrument(contentOf(INSTRUMENTS "/full.conf") +
                          "[at 10]\npci port1 link=down\n[at 1 for 4]\ngpio 5=high\n"
                          "[after 3 udev_new]\nfaults fpga=on\n[fail udev_new]\nafter=2\n");
    const auto before = std::make_unique<simulator::Hardware>(instrument.hardware());
    PCIeDiagnostics diagnostics;
    diagnostics.setPRBSMode(DownstreamPort1, true);
    writeRegister(1, 0, 0x224, 1);
    writeAttribute("/sys/platform/gpio_module2_power_en/value", "0");
    SpbFPGA().TurnOffModuleClockSource(2);
    writeAttribute(std::string(lines) + "export", "7");
    writeAttribute(std::string(lines) + "gpio7/direction", "high");
    udev_unref(udev_new());
    usleep(3000000);
    writeAttribute("/sys/platform/gpio_module1_power_en/value", "0");
    usleep(20000);
    const auto after = std::make_unique<simulator::Hardware>(instrument.hardware());
    left = simulator::describe(*after);
    EXPECT_THAT(simulator::leftBehind(*before, *after),
                ElementsAre("PRBS on at port1", "loopback on at port1", "module 1 off",
                            "module 2 off", "clock source 2 off", "line 7 an output"));
    EXPECT_THAT(simulator::leftBehind(*before, *before), ElementsAre());
  }
  EXPECT_THAT(left, AllOf(HasSubstr("[gpio]\n5=high\n7=low exported output-high\n"),
                          HasSubstr("since=0.02"), HasSubstr("[clock]\n1=on\n\n"),
                          HasSubstr("prbs-since=3.02"), HasSubstr("[at 6.98]"),
                          HasSubstr("[at 1.98]\ngpio 5=low\n"), HasSubstr("[after 2 udev_new]"),
                          HasSubstr("after=1")));
  Instrument instrument(left);
  EXPECT_EQ(readFrom(std::string(lines) + "gpio7/value"), "1\n");
  EXPECT_EQ(readFrom(std::string(lines) + "gpio7/direction"), "out\n");
  EXPECT_EQ(readFrom("/sys/platform/gpio_module1_seq_done/value"), "0\n") << "for 80 ms";
  usleep(80000);
  EXPECT_EQ(readFrom("/sys/platform/gpio_module1_seq_done/value"), "1\n");
  EXPECT_EQ(pci_system_init(), 0);
  EXPECT_EQ(readRegister("01:00.0", 0xB84), "10000") << "PRBS goes on";
}

TEST(TalveroSim, ChangesAnInstrumentThatRuns) {
  const TemporaryDirectory directory;
  const std::string script = directory.file("script.sh", R"(
export TMPDIR=$(dirname $0)
ready=$TMPDIR/ready
sim() {
  "$SIM" set "$@"
  echo $?
}
sim "gpio 5=high"
"$SIM" --name bench -- sh -c '
  echo 5 >/sys/class/gpio/export
  echo $$ >'$ready'
  for level in 0 1 0; do
    while [ $(cat /sys/class/gpio/gpio5/value) = $level ]; do sleep 0.02; done
    echo changed >>'$ready'
  done' &
bench=$!
while ! [ -s $ready ]; do sleep 0.02; done
sim --on other "gpio 5=high"
sim --on bench "gpio 5=up"
sim --on bench "gpio 5=high"
while [ $(wc -l <$ready) = 1 ]; do sleep 0.02; done
sim --on $bench "gpio 5=low"
while [ $(wc -l <$ready) = 2 ]; do sleep 0.02; done
sim --on $(head -n 1 $ready) "gpio 5=high"
wait
"$SIM" -- sh -c 'echo 5 >/sys/class/gpio/export; $0 set "gpio 5=high"; cat /sys/class/gpio/gpio5/value' "$SIM"
)");
  const Outcome outcome = runCommand("SIM=" TALVERO_SIM " timeout 60 sh " + script);
  EXPECT_EQ(outcome.output, "2\n2\n2\n0\n0\n0\n1\n");
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("talvero-sim: no instrument runs\n"),
                    HasSubstr("talvero-sim: no instrument other runs (running: "),
                    HasSubstr("=bench)\n"), HasSubstr("talvero-sim: [gpio] 5: must be low, high")));
}

TEST(TalveroSim, TellsWhatBecameOfTheInstrument) {
  const TemporaryDirectory directory;
  const std::string state = directory.path + "/state.conf";
  const std::string options = "--fast --summary --state " + state;
  const std::string line = "/sys/platform/gpio_module1_power_en/value";
  Outcome outcome = onInstrument("echo 0 >" + line, options);
  EXPECT_EQ(outcome.errors, "talvero-sim: left behind: module 1 off\n");
  EXPECT_THAT(
      contentOf(state),
      AllOf(HasSubstr("# full, as it was left\n\n[description]\nversion="),
            HasSubstr("\n\n[board]\nstraps=100010\n"), HasSubstr("[power 1]\nsince=0.0\n")));
  outcome = onInstrument("cat " + line, "--summary --instrument " + state);
  EXPECT_EQ(outcome.output + outcome.errors, "0\ntalvero-sim: nothing left behind\n");
  EXPECT_EQ(onInstrument("true", "--state /nowhere/x").errors,
            "talvero-sim: /nowhere/x: cannot be written\n");
  EXPECT_EQ(runCommand(TALVERO_SIM " --show --instrument tuvak").output,
            simulator::describe(simulator::readDescription(INSTRUMENTS "/tuvak.conf")));
  const std::string typo =
      directory.file("typo.conf", "[fail raed *]\n[at 9]\ngpio 5=high\n[fail open *]\n");
  EXPECT_EQ(onInstrument("cat /sys/class/gpio/gpio5/value 2>/dev/null",
                         "--fast --summary --instrument " + typo)
                .errors,
            "talvero-sim: nothing left behind\ntalvero-sim: never met: [fail raed *]\n"
            "talvero-sim: never met: gpio 5=high\n");
  EXPECT_THAT(runCommand(TALVERO_SIM " --show --instrument " + typo).output,
              HasSubstr("[fail raed *]\n"));
  const std::string chance = directory.file("chance.conf", "[fail read *]\nrate=0.5\n");
  outcome = onInstrument("true", "--instrument " + chance);
  EXPECT_THAT(outcome.errors,
              testing::MatchesRegex("talvero-sim: --seed [0-9]+ repeats this run\n"));
  EXPECT_EQ(onInstrument("true", "--seed 5 --instrument " + chance).errors, "");
  EXPECT_EQ(runCommand(TALVERO_SIM).status, 2);
}

}  // namespace
