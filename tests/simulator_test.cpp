// SPDX-License-Identifier: MIT
#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <fts.h>
#include <ftw.h>
#include <glob.h>
#include <gmock/gmock.h>
#include <linux/magic.h>
#include <pciaccess.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>
#include <wordexp.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "pcie/PCIeDiagnostics.h"
#include "simulator/shared/State.h"
#include "tests/Support.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST(SimulatedGpio, RefusesWhatTheKernelRefuses) {
  const Instrument instrument("[gpio]\n6=missing\n8=high");
  const struct {
    const char* attribute;
    const char* text;
    int error;
  } steps[] = {{"gpio5/value", "1", ENOENT},   {"export", "5\n", 0},
               {"export", "5", EBUSY},         {"export", "0x8", 0},
               {"export", "6", EINVAL},        {"export", "256", EINVAL},
               {"export", "-1", EINVAL},       {"export", "five", EINVAL},
               {"gpio5/value", "1", EPERM},    {"gpio5/direction", "up", EINVAL},
               {"gpio5/direction", "high", 0}, {"gpio5/value", "x", EINVAL},
               {"gpio5/value", "1", 0},        {"gpiochip0/base", "1", EACCES},
               {"gpio5/direction", "low", 0},  {"gpio5/value", "2", 0},
               {"unexport", "7", EINVAL},      {"unexport", "5", 0},
               {"gpio5/value", "1", ENOENT},   {"gpio8/none", "x", ENOENT},
               {"gpio8", "x", EISDIR},         {"gpiochip0/base", "x", EACCES}};
  for (const auto& step : steps) {
    EXPECT_EQ(writeAttribute(std::string("/sys/class/gpio/") + step.attribute, step.text),
              step.error)
        << step.attribute << " " << step.text;
  }
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio8/value"), "1\n");
  writeAttribute("/sys/class/gpio/export", "5");
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio5/value"), "1\n")
      << "2 is high, and a re-export keeps it";
  writeAttribute("/sys/class/gpio/gpio5/direction", "high");
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio5/value"), "1\n");
  const int line = open("/sys/class/gpio/gpio8/value", O_WRONLY);
  writeAttribute("/sys/class/gpio/unexport", "8");
  EXPECT_EQ(write(line, "1", 1), -1);
  EXPECT_EQ(errno, ENODEV);
  close(line);
  EXPECT_EQ(contentOf("/sys/class/gpio/gpiochip0/ngpio"), "256\n");
  EXPECT_EQ(open("/sys/class/gpio/export", O_WRONLY | O_CREAT | O_EXCL, 0666), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(open("/sys/class/gpio/export", O_RDONLY), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST(SimulatedGpio, LacksTheFilesThatADescriptionTakes) {
  const Instrument instrument("[gpio]\n1=no-direction\n2=no-value\n");
  for (const char* const line : {"1", "2"}) {
    writeAttribute("/sys/class/gpio/export", line);
  }
  EXPECT_EQ(access("/sys/class/gpio/gpio1/direction", F_OK), -1);
  EXPECT_EQ(open("/sys/class/gpio/gpio1/direction", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(open("/sys/class/gpio/gpio2/value", O_RDONLY), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST(SimulatedPower, FollowsTheEnableLine) {
  Instrument instrument("[power 1]\ninitially=on\n[power 2]\nsequence-done=missing\n");
  const std::string link = "/sys/platform/gpio_module1_";
  const auto done = [&] { return contentOf(link + "seq_done/value") == "0\n"; };
  const auto enable = [&](const char* text) {
    return writeAttribute(link + "power_en/value", text);
  };
  EXPECT_TRUE(done());
  EXPECT_EQ(enable("1"), 0);
  EXPECT_TRUE(done()) << "it has been on: nothing begins anew";
  EXPECT_EQ(enable("0"), 0);
  usleep(99999);
  EXPECT_TRUE(done());
  usleep(1);
  EXPECT_FALSE(done());
  EXPECT_EQ(enable("1"), 0);
  usleep(99999);
  EXPECT_FALSE(done());
  usleep(1);
  EXPECT_TRUE(done());
  EXPECT_EQ(enable("x"), EINVAL);
  EXPECT_EQ(writeAttribute(link + "seq_done/value", "1"), EPERM);
  EXPECT_EQ(access("/sys/platform/gpio_module2_power_en/value", F_OK), 0);
  EXPECT_EQ(access("/sys/platform/gpio_module2_seq_done", F_OK), -1);
}

TEST(SimulatedI2c, ShowsBusesAsTheKernelDoes) {
  const Instrument instrument("[mux 2-0070]\n1=i2c-11\n");
  const std::string bus = "/sys/devices/i2c-2/i2c-11";
  EXPECT_EQ(std::filesystem::read_symlink(bus + "/mux_device"), "../2-0070");
  EXPECT_EQ(contentOf(bus + "/name"), "simulated bus\n");
}

TEST(SimulatedI2c, IsFoundDepthFirstBelowItsAdapter) {
  const Instrument instrument(
      "[bus i2c-2]\nparent=platform/soc@0/30a40000.i2c\n[mux 2-0070]\n0=i2c-10\n1=i2c-11\n2=i2c-9\n"
      "[mux 11-0071]\n4=i2c-30\n3=i2c-31\n[expander 9-0041]\n[expander 11-0072]\n"
      "[expander 30-0041]\n[expander 31-0041]\n[expander 10-0041]\n[expander 3-0041]\n");
  const std::string bus = "/sys/devices/platform/soc@0/30a40000.i2c/i2c-2";
  EXPECT_EQ(contentOf(bus + "/name"), "simulated bus\n");
  EXPECT_EQ(access("/sys/devices/platform/name", F_OK), -1);
  int line = 512;
  for (const char* const device : {"/i2c-10/10-0041", "/i2c-11/i2c-31/31-0041",
                                   "/i2c-11/i2c-30/30-0041", "/i2c-11/11-0072", "/i2c-9/9-0041"}) {
    const std::string chip = bus + device + "/gpio/gpiochip" + std::to_string(line);
    EXPECT_EQ(contentOf(chip + "/base"), std::to_string(line) + "\n") << device;
    line += 4;
  }
  EXPECT_EQ(access("/sys/devices/i2c-3/3-0041/gpio/gpiochip532", F_OK), 0);
}

TEST(SimulatedGpio, TellsAStreamOfARefusalAtTheClose) {
  const Instrument instrument("");
  std::FILE* stream = std::fopen("/sys/class/gpio/export", "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_GT(std::fprintf(stream, "999"), 0);
  EXPECT_EQ(std::fclose(stream), EOF);
  EXPECT_EQ(errno, EINVAL);

  std::ofstream file("/sys/class/gpio/export");
  file << "7";
  file.close();
  EXPECT_TRUE(file.good());
  EXPECT_EQ(access("/sys/class/gpio/gpio7/value", F_OK), 0);
}

TEST(SimulatedGpio, IsWhereEveryWayOfWritingItsPathLeads) {
  const Instrument instrument("");
  const std::string before = std::filesystem::current_path();
  ASSERT_EQ(chdir("/sys/class"), 0);
  const int directory = open("gpio", O_RDONLY | O_DIRECTORY);
  const char* const paths[] = {"gpio/export", "./gpio/../gpio/export", "//sys/class/gpio/export",
                               "/sys/./class//gpio/export"};
  for (const char* const path : paths) {
    EXPECT_EQ(writeAttribute(path, "1"), 0) << path;
    EXPECT_EQ(access("/sys/class/gpio/gpio1", F_OK), 0) << path;
    EXPECT_EQ(writeAttribute("/sys/class/gpio/unexport", "1"), 0) << path;
    close(creat(path, 0666));
  }
  const int relative = openat(directory, "export", O_WRONLY);
  EXPECT_EQ(write(relative, "2", 1), 1);
  EXPECT_EQ(access("gpio/gpio2/value", F_OK), 0);
  EXPECT_EQ(openat(directory, "gpiochip0/base", O_WRONLY), -1);
  EXPECT_EQ(errno, EACCES);
  close(relative);
  close(directory);
  EXPECT_EQ(chdir(before.c_str()), 0);
}

TEST(SimulatedGpio, FollowsADescriptorWhateverBecomesOfIt) {
  Instrument instrument("[gpio]\n3=high");
  const int original = open("/sys/class/gpio/export", O_WRONLY);
  const int copy = fcntl(original, F_DUPFD, 100);
  close(original);
  EXPECT_EQ(pwrite(copy, "3", 1, 0), 1);
  EXPECT_EQ(write(copy, "", 0), 0);
  EXPECT_EQ(write(copy, "3", 1), -1);
  EXPECT_EQ(errno, EBUSY);
  char text[4] = "";
  EXPECT_EQ(read(copy, text, 1), -1);
  close(copy);

  writeAttribute("/sys/class/gpio/gpio3/direction", "out");
  const int value = open("/sys/class/gpio/gpio3/value", O_RDWR);
  const int reader = open("/sys/class/gpio/gpio3/value", O_RDONLY);
  EXPECT_EQ(read(value, text, 3), 2);
  EXPECT_STREQ(text, "0\n");
  EXPECT_EQ(write(value, "1", 1), 1);
  EXPECT_EQ(pread(value, text, 3, 0), 2);
  EXPECT_STREQ(text, "1\n");
  EXPECT_EQ(read(reader, text, 3), 2);
  EXPECT_STREQ(text, "0\n") << "as it was when it was opened";
  EXPECT_EQ(lseek(reader, 0, SEEK_SET), 0);
  EXPECT_EQ(read(reader, text, 3), 2);
  EXPECT_STREQ(text, "1\n");
  EXPECT_EQ(write(reader, "0", 1), -1);
  EXPECT_EQ(errno, EBADF);
  close(value);
  close(reader);
  const std::vector<std::string> trace = instrument.takeTrace();
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "write /sys/class/gpio/gpio3/value \"1\""), 1);
}

TEST(SimulatedGpio, TakesWhatAStreamFlushes) {
  const Instrument instrument("");
  std::FILE* stream = std::fopen("/sys/class/gpio/export", "w");
  std::fputs("4", stream);
  EXPECT_EQ(std::fflush(stream), 0);
  EXPECT_EQ(access("/sys/class/gpio/gpio4", F_OK), 0);
  std::fputs("4", stream);
  EXPECT_EQ(std::fflush(stream), EOF);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_NE(std::ferror(stream), 0);
  stream = std::freopen("/sys/class/gpio/gpio4/direction", "w", stream);
  std::fputs("out", stream);
  stream = std::freopen("/sys/class/gpio/gpio4/value", "r+", stream);
  EXPECT_EQ(std::fgetc(stream), '0') << "\"out\" has been taken";
  std::rewind(stream);
  std::fputs("1", stream);
  EXPECT_EQ(std::fclose(stream), 0);
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio4/value"), "1\n");
}

TEST(SimulatedGpio, ForgetsALineOnceItsLevelIsDriven) {
  const Instrument instrument("[gpio]\n5=high");
  writeAttribute("/sys/class/gpio/export", "5");
  writeAttribute("/sys/class/gpio/gpio5/direction", "out");
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio5/value"), "0\n") << "\"out\" drives the line low";
  writeAttribute("/sys/class/gpio/gpio5/direction", "in");
  EXPECT_EQ(contentOf("/sys/class/gpio/gpio5/value"), "1\n");
}

TEST(Descriptions, AreRefusedWithFileGroupAndKey) {
  std::string manyDevices = "[i2c]\n";
  for (int address = 0; address <= 128; ++address) {
    char line[16];
    std::snprintf(line, sizeof line, "9-%04x=x\n", address);
    manyDevices += line;
  }
  std::string manyFailures;
  std::string manyChanges = "[at 1]\n";
  for (int number = 0; number <= 128; ++number) {
    manyFailures += "[fail udev " + std::to_string(number) + "]\n";
    manyChanges += "gpio " + std::to_string(number) + "=high\n";
  }
  const std::string longText = "[module 2-0050]\ntop=" + std::string(256, 'x');
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {"[bord]\nstraps=0", "d.conf: [bord]: unknown group"},
      {"[board]\nstrap=000000", "d.conf: [board] strap: unknown key"},
      {"[board]\nstraps=00002", "d.conf: [board] straps: must be six characters 0 and 1"},
      {"[gpio]\n256=low", "d.conf: [gpio] 256: not a line number from 0 to 255"},
      {"[gpio]\n80=lo", "d.conf: [gpio] 80: must be low, high, missing"},
      {"[i2c]\n0-74=pmb", "d.conf: [i2c] 0-74: not an I2C device"},
      {"[i2c]\n00-0074=pmb", "d.conf: [i2c] 00-0074: not an I2C device"},
      {"[mux 2-0070]\n32=i2c-9", "d.conf: [mux 2-0070] 32: not a channel number from 0 to 31"},
      {"[mux 2-0070]\n1=i2c-09", "d.conf: [mux 2-0070] 1: must be a bus such as i2c-9"},
      {"[mux 2-0070]\n1=i2c-9\n2=i2c-9", "[mux 2-0070] 2: i2c-9 is behind another channel already"},
      {"[bus i2c-2]\nparent=../x", "[bus i2c-2] parent: must be a directory below /sys/devices"},
      {"[bus i2c-2]\nparent=/x", "[bus i2c-2] parent: must be a directory below /sys/devices"},
      {"[bus i2c-2]\nabove=x", "[bus i2c-2] above: unknown key"},
      {"[bus 2]\nparent=x", "[bus 2]: must be a bus such as i2c-9"},
      {"[mux 2-0070]\n1=i2c-9\n[bus i2c-9]\nparent=x", "[bus i2c-9]: is behind a multiplexer"},
      {"[bus i2c-9]\nparent=x\n[mux 2-0070]\n1=i2c-9", "1: i2c-9 has an adapter of its own"},
      {"[mux 2-0070]\n1=i2c-2", "[mux 2-0070] 1: leads back to i2c-2, which it is behind"},
      {"[mux 2-0070]\n1=i2c-9\n[mux 9-0070]\n0=i2c-10\n[mux 10-0070]\n3=i2c-2",
       "[mux 10-0070] 3: leads back to i2c-2, which it is behind"},
      {"[expander 2-0041]\ngpio=chips", "d.conf: [expander 2-0041] gpio: must be chip, empty or"},
      {"[expander 2-0041]\nfirst-line=255", "first-line: must be a line number from 256 to 65531"},
      {"[expander 2-0041]\nfirst-line=65532",
       "first-line: must be a line number from 256 to 65531"},
      {"[expander 2-0041]\nfirst-line=600\n[expander 3-0041]\nfirst-line=603",
       "[expander 3-0041] first-line: lines that 2-0041 has"},
      {"[pci]\n[pci switch]\nbus=0", "d.conf: [pci switch] bus: [pci root] is there"},
      {"[pci]\n[pci port1]\nbus=256", "[pci port1] bus: must be a bus number from 0 to 0xff"},
      {"[faults]\nudev=on", "d.conf: [faults] udev: unknown key"},
      {"[faults]\nudev-context=1", "d.conf: [faults] udev-context: must be on or off, not \"1\""},
      {"straps=1", "d.conf: "},
      {std::string("[gpio]\n80=low\0x", 15), "d.conf: line 2: has a control character"},
      {manyDevices, "d.conf: [i2c] 9-0080: more than 128 I2C devices"},
      {longText, "d.conf: [module 2-0050] top: longer than 255 characters"},
      {"[power 1]\non-delay=x", "d.conf: [power 1] on-delay: must be a time in seconds"},
      {"[power 3]", "d.conf: [power 3]: only modules 1, 2, 4 and 5 have power links"},
      {"[pci]\n[pci port2]", "d.conf: [pci port2]: unknown group"},
      {"[pci]\n[pci shim]", "d.conf: [pci shim]: no such device; describe [pci]"},
      {"[pci]\nshim=4", "d.conf: [pci] shim: must be a module number from 0 to 3"},
      {"[pci]\n[pci root]\nregister-102=0", "d.conf: [pci root] register-102: not the offset of"},
      {"[pci]\n[pci root]\nlink-lost-after=later", "must be a time in seconds such as 2.5"},
      {"[pci]\n[pci root]\nlink-status=0x10000", "must be a number from 0 to 65535"},
      {"[pci]\n[pci root]\nclass=0x1000000", "must be a class code from 0 to 0xffffff"},
      {"[pci]\n[pci root]\nlink=on", "d.conf: [pci root] link: must be up or down, not \"on\""},
      {"[pci]\n[pci root]\ncorrectable=0x100000000", "must be a number from 0 to 0xffffffff"},
      {"[pci]\n[pci root]\nlinks=up", "d.conf: [pci root] links: unknown key"},
      {"[pci]\n[pci root]\nprbs=sync", "d.conf: [pci root] prbs: no effect on this device"},
      {"[pci]\n[pci switch]\nprbs-good=any", "prbs-good: no effect on this device"},
      {"[pci]\n[pci port1]\nprbs-good=5-16/3", "prbs-good: must be any, or drive levels and post-"},
      {"[pci]\n[pci port1]\nprbs-good=5/7-3", "such as 5-11/3-7, 2/12, not \"5/7-3\""},
      {"[pci]\n[pci port1]\nprbs-good=5/3,", "not \"5/3,\""},
      {"[pci]\n[pci port1]\nprbs-good=1/1,2/2,3/3,4/4,5/5,6/6,7/7,8/8,9/9", "more than 8 areas"},
      {"[pci]\n[pci switch]\nlink=up", "[pci switch] link: no effect on this device"},
      {"[pci]\n[pci switch]\nlink-lost-after=1", "link-lost-after: no effect on this device"},
      {"[pci]\n[pci switch]\nregister-1f4=0", "register-1f4: no effect: bits 0xffffffff show"},
      {"[pci]\n[pci switch]\nregister-244=0x10000", "no effect: bits 0x40ff0000 show"},
      {"[pci]\n[pci switch]\nregister-224=0x8", "no effect: bits 0x88808 show"},
      {"[pci]\n[pci shim-port1]\nlink=up", "[pci shim-port1]: no such device"},
      {"[mux 2-0070]\n[expander 2-0070]", "[expander 2-0070]: is a [mux] already"},
      {"[expander 2-0041]\n4=low", "[expander 2-0041] 4: unknown key"},
      {"[module 2-0050]\nid=<1 x>", "[module 2-0050] id: must be a number"},
      {"[gpio]\n5=low highish", "[gpio] 5: must be low, high, missing, busy"},
      {"[clock]\n6=on", "[clock] 6: not a slot from 0 to 5"},
      {"[at soon]\ngpio 5=low", "[at soon] gpio 5: must be a time in seconds"},
      {"[at 1 to 2]\ngpio 5=low", "[at 1 to 2] gpio 5: must be [at TIME] or [at TIME for TIME]"},
      {"[at 1]\ngpio 5=lo", "[at 1] gpio 5: must be low"},
      {"[at 1]\npci port1 link=down", "[at 1] pci port1 link: no such device"},
      {"[at 1]\nafter 1 x gpio=1", "[at 1] after 1 x gpio: a change does not change others"},
      {"[after udev_new]\ngpio 5=low", "must be [after NUMBER ACCESS] or [after NUMBER for"},
      {"[at 1 for 0]\ngpio 5=low", "must be for some time, not \"0\""},
      {"[after 1 for 0 x]\ngpio 5=low", "must be for some accesses, not \"0\""},
      {"[pci]\n[at 1]\npci shim=1", "[at 1] pci shim: stays as it is while the instrument runs"},
      {"[pci]\n[at 1 for 1]\npci port1 latch-correctable=1", "cannot be as before by itself"},
      {"[at 1 for 1]\ngpio 5=active-low", "[at 1 for 1] gpio 5: cannot be as before by itself"},
      {"[at 1 for 1]\nfail udev_new times=1", "cannot be as before by itself"},
      {"[fail udev_new]\nerror=EWHAT", "[fail udev_new] error: must be the name of an error"},
      {"[fail udev_new]\nrate=1.5", "rate: must be a probability from 0 to 1 such as 0.01"},
      {manyFailures, "[fail udev 64]: more than 64 kinds of failure"},
      {manyChanges, "[at 1] gpio 128: more than 128 changes to come"},
  };
  for (const auto& test : cases) {
    try {
      simulator::parseDescription(test.text, "d.conf");
      ADD_FAILURE() << test.text;
    } catch (const simulator::DescriptionError& error) {
      EXPECT_THAT(error.what(), HasSubstr(test.reason));
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos) << "one line";
    }
  }
  EXPECT_THROW(simulator::readDescription("/nowhere.conf"), simulator::DescriptionError);
}

TEST(SimulatedPci, ShowsTrainingForAMillisecond) {
  const Instrument instrument("[pci]");
  const PCIeDiagnostics diagnostics;
  pci_device* const root = diagnostics.rootPort;
  constexpr pciaddr_t linkControl = 0x80;
  constexpr pciaddr_t linkStatus = 0x82;
  constexpr std::uint16_t training = 0x800;
  const auto status = [&] {
    std::uint16_t value = 0;
    EXPECT_EQ(pci_device_cfg_read_u16(root, &value, linkStatus), 0);
    return value;
  };
  EXPECT_EQ(status() & training, 0);
  pci_device_cfg_write_u16(root, 0x20, linkControl);
  usleep(999);
  EXPECT_EQ(status() & training, training);
  usleep(1);
  EXPECT_EQ(status() & training, 0);
  std::uint16_t control = 1;
  pci_device_cfg_read_u16(root, &control, linkControl);
  EXPECT_EQ(control, 0) << "the retrain bit reads 0";
}

TEST(SimulatedPci, ClearsStatusByWrittenOnesAlone) {
  const Instrument instrument("[pci]\n[pci root]\nregister-78=0xffff0123\nregister-104=0xff\n");
  pci_system_init();
  pci_device* const root = pci_device_find_by_slot(0, 0, 0, 0);
  const struct {
    pciaddr_t offset;
    std::uint32_t written;
    std::uint32_t after;
  } cases[] = {{0x78, 0x00050123, 0xfffa0123},   // Device Status: four bits, the others read-only
               {0x78, 0xffff0456, 0xfff00456},   // Device Control takes what is written
               {0x104, 0x0f, 0xf0},              // Uncorrectable Error Status
               {0x80, 0xffff0001, 0x20120001},   // Link Status is read-only
               {0x04, 0xffffffff, 0x0010ffff},   // Command; Status has its list of capabilities
               {0x0C, 0xffffffff, 0x000100ff},   // Cache Line Size; Header Type is read-only
               {0x00, 0x12345678, 0x10007a1e}};  // IDs
  for (const auto& test : cases) {
    std::uint32_t value = 0;
    EXPECT_EQ(pci_device_cfg_write_u32(root, test.written, test.offset), 0);
    EXPECT_EQ(pci_device_cfg_read_u32(root, &value, test.offset), 0);
    EXPECT_EQ(value, test.after) << std::hex << test.offset;
  }
}

TEST(SimulatedPci, RefusesWhatTheKernelRefuses) {
  const Instrument instrument(
      "[pci]\n[pci switch]\nreadable=no\n[pci port1]\nprbs-errors-after=0\n"
      "prbs-errors-per-second=1000\nlink-lost-after=2");
  PCIeDiagnostics diagnostics;
  std::uint32_t value = ~0U;
  EXPECT_EQ(pci_device_cfg_read_u32(diagnostics.rootPort, &value, 4093), ENXIO);
  EXPECT_EQ(value, 0xFF000000) << "what there is has been read";
  EXPECT_EQ(pci_device_cfg_write_u32(diagnostics.rootPort, 0, 4093), EFBIG);
  EXPECT_EQ(pci_device_cfg_read_u32(diagnostics.rootPort, &value, 4092), 0);
  EXPECT_EQ(pci_device_cfg_read_u32(diagnostics.switchUpstreamPort, &value, 0), EIO);
  EXPECT_EQ(pci_device_cfg_write_u32(diagnostics.switchUpstreamPort, 0, 0), EIO);

  pci_device_cfg_write_u32(diagnostics.rootPort, 0xFF00FF00, 0x40);
  EXPECT_EQ(pci_device_cfg_write_bits(diagnostics.rootPort, 0xFFFF, 0x1234, 0x40), 0);
  EXPECT_EQ(pci_device_cfg_read_u32(diagnostics.rootPort, &value, 0x40), 0);
  EXPECT_EQ(value, 0xFF001234);
  std::uint8_t bytes[8] = {};
  pciaddr_t count = 0;
  EXPECT_EQ(pci_device_cfg_read(diagnostics.rootPort, bytes, 4090, 8, &count), 0);
  EXPECT_EQ(count, 6U);
}

TEST(SimulatedPci, CountsErrorsOfTheSelectedPortUpTo255) {
  const Instrument instrument(
      "[pci]\n[pci port1]\nprbs-errors-after=0\nprbs-errors-per-second=1000\n"
      "link-lost-after=2");
  const Console console;
  PCIeDiagnostics diagnostics;
  diagnostics.setupPRBSLoopbackTest(DownstreamPort1);
  sleep(1);
  EXPECT_EQ(diagnostics.readPRBSErrorCounter(DownstreamPort1), 255U);
  diagnostics.configurePRBSDiagnosicRegister(DownstreamPort5);
  EXPECT_EQ(diagnostics.readPRBSErrorCounter(DownstreamPort1), 0U)
      << "of the port that is selected";
  const auto left = static_cast<unsigned long>(2000 - instrument.milliseconds());
  diagnostics.wait_ms(left - 1);
  EXPECT_TRUE(diagnostics.checkForPRBSSync(DownstreamPort1));
  diagnostics.wait_ms(1);
  EXPECT_FALSE(diagnostics.checkForPRBSSync(DownstreamPort1)) << "the link is lost at 2 s";
}

TEST(Safety, NothingReachesTheHostsOwnGpioWithoutAnInstrument) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(open("/sys/class/gpio/export", O_WRONLY),
               "no simulated instrument: refusing /sys/class/gpio/export");
}

void release(dirent64** entries, int count) {
  for (int index = 0; index < count; ++index) {
    std::free(entries[index]);
  }
  std::free(entries);
}

TEST(Safety, EveryNameLeadsToTheSimulatedFile) {
  const Instrument instrument("");
  const char* const label = "/sys/class/gpio/gpiochip0/label";
  EXPECT_EQ(faccessat(AT_FDCWD, label, R_OK, 0), 0);
  EXPECT_EQ(faccessat(AT_FDCWD, "/sys/kernel", F_OK, 0), -1);
  EXPECT_EQ(eaccess(label, R_OK), 0);
  EXPECT_EQ(euidaccess(label, R_OK), 0);
  struct statvfs system {};
  EXPECT_EQ(statvfs(label, &system), 0);
  EXPECT_GE(listxattr(label, nullptr, 0), 0);
  EXPECT_GE(llistxattr(label, nullptr, 0), 0);

  glob_t found{};
  EXPECT_EQ(glob("/sys/*/gpio/gpiochip?", 0, nullptr, &found), 0);
  ASSERT_EQ(found.gl_pathc, 1U);
  EXPECT_STREQ(found.gl_pathv[0], "/sys/class/gpio/gpiochip0");
  globfree(&found);

  dirent64** entries = nullptr;
  EXPECT_EQ(scandir64("/sys/class", &entries, nullptr, alphasort64), 3);
  EXPECT_STREQ(entries[2]->d_name, "gpio");
  release(entries, 3);
  const int parent = open("/sys/class", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(scandirat64(parent, "gpio", &entries, nullptr, alphasort64), 5 + 1);
  release(entries, 6);
  close(parent);

  static std::vector<std::string> walked;
  walked.clear();
  EXPECT_EQ(ftw(
                "/sys",
                [](const char* name, const struct stat*, int) -> int {
                  walked.emplace_back(name);
                  return 0;
                },
                4),
            0);
  EXPECT_EQ(nftw(
                "/sys/class",
                [](const char* name, const struct stat*, int, FTW* place) -> int {
                  walked.push_back(std::string("base ") + (name + place->base));
                  return 0;
                },
                4, FTW_PHYS),
            0);
  EXPECT_THAT(walked,
              testing::IsSupersetOf({std::string("/sys"), std::string(label),
                                     std::string("base class"), std::string("base label")}));

  // These would show names that nobody has given them.
  const char* const trees[] = {"/tmp", "/sys", nullptr};
  EXPECT_EQ(fts_open(const_cast<char* const*>(trees), FTS_PHYSICAL, nullptr), nullptr);
  wordexp_t words{};
  EXPECT_EQ(wordexp("/sys/class/*", &words, 0), WRDE_NOSPACE);
  EXPECT_EQ(wordexp("/sys/class", &words, 0), 0);
  wordfree(&words);
}

TEST(Safety, NobodyChangesFilesBelowSys) {
  const Instrument instrument("");
  const char* const file = "/sys/class/gpio/gpiochip0/label";
  const timeval times[2] = {};
  const timespec precise[2] = {};
  const TemporaryDirectory directory;
  const std::string own = directory.file("own", "");
  const char* const other = own.c_str();
  const std::pair<const char*, std::function<int()>> changes[] = {
      {"chmod", [&] { return chmod(file, 0); }},
      {"lchmod", [&] { return lchmod(file, 0); }},
      {"fchmodat", [&] { return fchmodat(AT_FDCWD, file, 0, 0); }},
      {"chown", [&] { return chown(file, 1, 1); }},
      {"lchown", [&] { return lchown(file, 1, 1); }},
      {"fchownat", [&] { return fchownat(AT_FDCWD, file, 1, 1, 0); }},
      {"rename", [&] { return rename(file, other); }},
      {"rename to", [&] { return rename(other, file); }},
      {"renameat", [&] { return renameat(AT_FDCWD, file, AT_FDCWD, other); }},
      {"renameat to", [&] { return renameat(AT_FDCWD, other, AT_FDCWD, file); }},
      {"renameat2", [&] { return renameat2(AT_FDCWD, file, AT_FDCWD, other, 0); }},
      {"link", [&] { return link(file, other); }},
      {"linkat", [&] { return linkat(AT_FDCWD, other, AT_FDCWD, file, 0); }},
      {"symlink", [&] { return symlink(other, file); }},
      {"symlinkat", [&] { return symlinkat(other, AT_FDCWD, file); }},
      {"unlink", [&] { return unlink(file); }},
      {"unlinkat", [&] { return unlinkat(AT_FDCWD, file, 0); }},
      {"remove", [&] { return remove(file); }},
      {"rmdir", [&] { return rmdir("/sys/bus"); }},
      {"mkdir", [&] { return mkdir("/sys/class/gpio/x", 0777); }},
      {"mkdirat", [&] { return mkdirat(AT_FDCWD, "/sys/class/gpio/x", 0777); }},
      {"mknod", [&] { return mknod("/sys/x", S_IFREG, 0); }},
      {"mknodat", [&] { return mknodat(AT_FDCWD, "/sys/x", S_IFREG, 0); }},
      {"mkfifo", [&] { return mkfifo("/sys/x", 0777); }},
      {"mkfifoat", [&] { return mkfifoat(AT_FDCWD, "/sys/x", 0777); }},
      {"truncate", [&] { return truncate(file, 0); }},
      {"truncate64", [&] { return truncate64(file, 0); }},
      {"utime", [&] { return utime(file, nullptr); }},
      {"utimes", [&] { return utimes(file, times); }},
      {"lutimes", [&] { return lutimes(file, times); }},
      {"futimesat", [&] { return futimesat(AT_FDCWD, file, times); }},
      {"utimensat", [&] { return utimensat(AT_FDCWD, file, precise, 0); }},
      {"setxattr", [&] { return setxattr(file, "user.x", "", 0, 0); }},
      {"lsetxattr", [&] { return lsetxattr(file, "user.x", "", 0, 0); }},
      {"removexattr", [&] { return removexattr(file, "user.x"); }},
      {"lremovexattr", [&] { return lremovexattr(file, "user.x"); }},
  };
  for (const auto& [name, call] : changes) {
    errno = 0;
    EXPECT_EQ(call(), -1) << name;
    EXPECT_EQ(errno, EPERM) << name;
  }
  EXPECT_EQ(contentOf(file), "talvero-sim\n");
  EXPECT_EQ(chmod(other, 0600), 0) << "other files are changed";
  EXPECT_EQ(unlinkat(AT_FDCWD, other, 0), 0);
}

TEST(Safety, OtherDoorsToTheHostsHardwareAreShut) {
  const Instrument instrument("");
  for (const char* const door : {"/dev/mem", "/dev/gpiochip0", "/dev/i2c-1", "/dev/port",
                                 "/dev/kmem", "/proc/bus/pci/devices", "//proc/./mtrr", "/value"}) {
    EXPECT_EQ(open(door, O_RDONLY), -1) << door;
    EXPECT_EQ(errno, ENOENT) << door;
    EXPECT_EQ(std::fopen(door, "r"), nullptr) << door;
    EXPECT_EQ(errno, ENOENT) << door;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  EXPECT_EQ(posix_spawn_file_actions_addopen(&actions, 1, "/sys/class/gpio/export", O_WRONLY, 0),
            EACCES);
  EXPECT_EQ(posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0), 0);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(open("/etc/passwd/x", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOTDIR) << "other files fail as they do";
}

volatile std::sig_atomic_t signals = 0;

TEST(Signals, WaitWhileTheStateIsHeld) {
  const Instrument instrument("");
  const auto before = std::signal(SIGUSR1, [](int /*signal*/) { signals = signals + 1; });
  {
    const simulator::Locked state;
    std::raise(SIGUSR1);
    EXPECT_EQ(signals, 0) << "its handler would wait for the state for ever";
  }
  EXPECT_EQ(signals, 1);
  std::signal(SIGUSR1, before);
}

TEST(Signals, ThatKillAHolderLeaveTheStateToOthers) {
#ifndef __x86_64__
  GTEST_SKIP() << "QEMU tells nobody of locks that a thread has died with";
#endif
  const Instrument instrument("");
  const pid_t child = fork();
  if (child == 0) {
    const simulator::Locked state;
    kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ(instrument.milliseconds(), 0) << "does not wait for ever, which the time allowed ends";
}

TEST(Forks, LeaveTheChildNoLockOfAnotherThread) {
  const Instrument instrument("");
  std::atomic<bool> done{false};
  std::thread busy([&done] {
    while (access("/sys/class/gpio", F_OK) == 0 && !done) {
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int status = 0;
  for (int count = 0; count < 50 && status == 0; ++count) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(access("/sys/class/gpio", F_OK) == 0 ? 0 : 1);
    }
    while (waitpid(child, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(child, SIGKILL);  // others are blocked while it waits for the lock
      }
    }
  }
  EXPECT_EQ(status, 0);
  done = true;
  busy.join();
}

TEST(Threads, SeeWhichFileSystemTheirFilesAreOn) {
  const Instrument instrument("");
  std::atomic<int> wrong{0};
  const auto ask = [&wrong](const char* path, bool isSysfs) {
    const int fd = open(path, O_RDONLY);
    for (int time = 0; time < 2000; ++time) {
      struct statfs system {};
      wrong += fstatfs(fd, &system) != 0 || (system.f_type == SYSFS_MAGIC) != isSysfs ? 1 : 0;
    }
    close(fd);
  };
  std::thread threads[] = {std::thread(ask, "/sys/class/gpio", true), std::thread(ask, "/", false),
                           std::thread(ask, "/sys/class", true)};
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(Instruments, HaveRoomForTheirState) {
  const Instrument instrument("");
  struct stat status {};
  ASSERT_EQ(stat((std::getenv("UMOCKDEV_DIR") + std::string("/state")).c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, status.st_size) << "programs would end by SIGBUS";
}

TEST(TalveroSim, PassesOnHowTheProgramEnds) {
  const std::string sim = TALVERO_SIM " --fast -- ";
  EXPECT_EQ(runCommand(sim + "sh -c 'exit 7'").status, 7);
  EXPECT_EQ(runCommand("exec " + sim + "sh -c 'kill -TERM $$'").status, 128 + SIGTERM);
  EXPECT_EQ(runCommand(sim + "no-such-program").status, 127);
  EXPECT_EQ(runCommand(sim + "/etc/passwd").status, 126);
  EXPECT_EQ(runCommand(TALVERO_SIM).status, 2);
  const Outcome forwarded =
      runCommand("exec " + sim +
                 "sh -c 'trap \"echo caught; exit 3\" TERM; kill -TERM $PPID; "
                 "while :; do sleep 0.1; done'");
  EXPECT_EQ(forwarded.status, 3);
  EXPECT_EQ(forwarded.output, "caught\n");
}

TEST(TalveroSim, SaysInOneLineWhatIsWrong) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("x.conf", "[gpio]\n1=up\n");
  const std::string sim = TALVERO_SIM;
  const std::string library =
      std::filesystem::path(sim).parent_path() / "libtalvero-sim-preload.so";
  std::filesystem::create_directory(directory.path + "/a b");
  std::filesystem::create_symlink(library, directory.path + "/a b/libtalvero-sim-preload.so");
  const struct {
    std::string command;
    std::string reason;
  } cases[] = {
      {sim + " --instrument " + file + " -- true", file + ": [gpio] 1: must be low, high"},
      {sim + " --instrument /nowhere.conf -- true", "/nowhere.conf: cannot be read"},
      {sim + " --instrument broke -- true", "broke: neither a file nor a shipped instrument (see"},
      {sim + " --trace /dev/full -- cat /sys/class/gpio/gpiochip0/base", "/dev/full: the trace"},
      {"TMPDIR=/nowhere " + sim + " -- true", "no directory for temporary files: /nowhere"},
      {"cd /; TMPDIR=tmp " + sim + " -- true", "no directory for temporary files: tmp"},
      {"LD_LIBRARY_PATH='" + directory.path + "/a b':$LD_LIBRARY_PATH " + sim + " -- true",
       "no path with space"},
  };
  for (const auto& test : cases) {
    const Outcome outcome = runCommand(test.command);
    EXPECT_EQ(outcome.status, 2) << test.command;
    EXPECT_THAT(outcome.errors, StartsWith("talvero-sim: ")) << test.command;
    EXPECT_THAT(outcome.errors, HasSubstr(test.reason)) << test.command;
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << test.command;
  }
}

TEST(TalveroSim, KeepsOneInstrumentForAWholeScript) {
  const TemporaryDirectory directory;
  const std::string trace = directory.path + "/trace";
  const Outcome outcome = runCommand(
      TALVERO_SIM " --trace " + trace +
      " -- sh -c 'cd /sys/class/gpio; echo 5 >/sys/class/gpio/export; "
      "env echo 5 >/sys/class/gpio/export; env echo out >/sys/class/gpio/gpio5/direction; "
      "echo 1 >/sys/class/gpio/gpio5/value; cat /sys/class/gpio/gpio5/value'");
  EXPECT_EQ(outcome.output, "1\n");
  EXPECT_THAT(outcome.errors, HasSubstr("busy"));
  EXPECT_EQ(contentOf(trace),
            "write /sys/class/gpio/export \"5\\n\"\n"
            "write /sys/class/gpio/export \"5\\n\": EBUSY\n"
            "write /sys/class/gpio/gpio5/direction \"out\\n\"\n"
            "write /sys/class/gpio/gpio5/value \"1\\n\"\n"
            "read /sys/class/gpio/gpio5/value \"1\\n\"\n");
}

TEST(TalveroSim, TakesWhatShellsRedirect) {
  const Outcome outcome =
      runCommand(TALVERO_SIM
                 " --instrument halcyra -- bash -c 'cd /sys/class/gpio; echo 5 >export; "
                 "exec 7>export; echo 6 >&7; exec 7>&-; "
                 "exec {fd}>export; echo 7 >&$fd; "
                 "{ echo 8; env echo 9; } >export; (env printf 10) >export; "
                 "getconf LONG_BIT >export; "  // 64, written as it ends
                 "echo gpio?*; echo 5 >export; echo $?; "
                 "env echo 5 >export; echo $?; cat <gpio5/value'");
  EXPECT_EQ(outcome.output, "gpio10 gpio5 gpio6 gpio64 gpio7 gpio8 gpio9 gpiochip0\n1\n1\n0\n");
}

/// Run below talvero-sim by the test after it.
TEST(Programs, DISABLED_StartOnTheInstrument) {
  static char empty[] = "";
  static char file[] = "/sys/class/gpio/gpiochip0/label";
  static char* arguments[] = {empty, file, nullptr};
  static char* nothing[] = {nullptr};
  static const char* const cat = std::getenv("CAT");
  const std::pair<const char*, int (*)()> ways[] = {
      {"execve", [] { return execve(cat, arguments, nothing); }},
      {"execv", [] { return clearenv() + execv(cat, arguments); }},
      {"execvp", [] { return unsetenv("LD_PRELOAD") + execvp("cat", arguments); }},
      {"execvpe", [] { return execvpe("cat", arguments, nothing); }},
      {"execl", [] { return clearenv() + execl(cat, "cat", file, nullptr); }},
      {"execlp", [] { return setenv("LD_PRELOAD", "", 1) + execlp("cat", "cat", file, nullptr); }},
      {"execle", [] { return execle(cat, "cat", file, nullptr, nothing); }},
      {"posix_spawn",
       [] {
         pid_t child = 0;
         EXPECT_EQ(posix_spawn(&child, cat, nullptr, nullptr, arguments, nothing), 0);
         return waitpid(child, nullptr, 0) - child;
       }},
      {"posix_spawnp",
       [] {
         pid_t child = 0;
         EXPECT_EQ(posix_spawnp(&child, "cat", nullptr, nullptr, arguments, nothing), 0);
         return waitpid(child, nullptr, 0) - child;
       }},
      {"system",
       [] {
         setenv("LD_PRELOAD", "", 1);
         unsetenv("TALVERO_SIM_STATE");
         return system((cat + std::string(" ") + file).c_str());
       }},
  };
  for (const auto& [name, way] : ways) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      dup2(ends[1], STDOUT_FILENO);
      _exit(way());
    }
    close(ends[1]);
    char text[32] = "";
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(read(ends[0], text, sizeof text - 1), 12) << name;
    EXPECT_STREQ(text, "talvero-sim\n") << name;
    EXPECT_EQ(status, 0) << name;
    close(ends[0]);
  }
}

TEST(TalveroSim, PutsEveryProgramOnTheInstrument) {
#ifndef __x86_64__
  GTEST_SKIP() << "under QEMU, programs do not find their libraries without their environment";
#endif
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const Outcome outcome = runCommand("CAT=$(command -v cat) " TALVERO_SIM " -- " + self +
                                     " --gtest_also_run_disabled_tests "
                                     "--gtest_filter=Programs.DISABLED_StartOnTheInstrument");
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
  const std::string cat = "$(command -v cat) /sys/class/gpio/gpiochip0/label";
  EXPECT_EQ(runCommand(TALVERO_SIM " -- sh -c \"unset LD_PRELOAD; " + cat + "; env -i " + cat +
                       "; LD_PRELOAD=libm.so.6 " + cat + "\"")
                .output,
            "talvero-sim\ntalvero-sim\ntalvero-sim\n");
}

TEST(TalveroSim, TakesALibraryThatIsOpenedAndClosed) {
  const Outcome outcome = runCommand(TALVERO_SIM " --fast -- " REOPEN " " STATICS_MODULE " 2");
  EXPECT_EQ(outcome.status, 0);
  const std::string once = "constructor right\ndestructor right\n";
  EXPECT_EQ(outcome.output, once + once + once + once);
}

TEST(TalveroBist, FindsItsInstrumentBehindALink) {
  const TemporaryDirectory directory;
  std::filesystem::create_directory(directory.path + "/tmp");
  std::filesystem::create_directory_symlink("tmp", directory.path + "/link");
  const std::string run = TALVERO_SIM " --fast -- sh -c '" TALVERO_SIM
                                      " set \"gpio 5=high\" && exec " TALVERO_BIST " slots'";
  const Outcome outcome = runCommand("TMPDIR=" + directory.path + "/link " + run);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(outcome.output, runCommand(run).output);
}

TEST(TalveroSim, LeavesSignalsAsTheyWere) {
  const auto ignored = [](const std::string& command) {
    const std::string status = runCommand(command + "cat /proc/self/status").output;
    const std::size_t mask = status.find("SigIgn:\t") + 8;
    return status.substr(mask + 9, 7);  // of the first 28 signals
  };
  const std::string ignoring =
      "env --ignore-signal=PIPE --ignore-signal=USR1 --ignore-signal=CHLD ";
  for (const std::string& before : {std::string(), ignoring}) {
    EXPECT_EQ(ignored(before + TALVERO_SIM " -- "), ignored(before)) << before;
  }
  EXPECT_NE(ignored(ignoring), ignored(""));
}

TEST(TalveroSim, EndsProgramsThatOutliveItWithALine) {
  const TemporaryDirectory directory;
  const std::string errors = directory.path + "/errors";
  runCommand("cd " + directory.path +
             "; mkfifo go; " TALVERO_SIM
             " -- sh -c '(read line <go; exec 2>errors; echo 5 >/sys/class/gpio/export) &'; "
             "echo >go");
  for (int tenth = 0; tenth < 100 && contentOf(errors).empty(); ++tenth) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(contentOf(errors), "talvero-sim: the instrument is gone: talvero-sim has ended\n");
  if (getuid() == 0 && runCommand("command -v setpriv").status == 0) {
    const Outcome other = runCommand(TALVERO_SIM " -- setpriv --reuid 65534 --clear-groups true");
    EXPECT_EQ(other.status, 2);
    EXPECT_EQ(other.errors, "talvero-sim: the instrument is another user's\n");
  }
}

TEST(TalveroSim, RefusesProgramsThatWouldReachTheHostsHardware) {
  const TemporaryDirectory directory;
  Elf64_Ehdr header{};
  std::ifstream(TALVERO_SIM, std::ios::binary)
      .read(reinterpret_cast<char*>(&header), sizeof header);
  header.e_phnum = 0;  // and so no dynamic linker
  const std::string program =
      directory.file("program", std::string(reinterpret_cast<const char*>(&header), sizeof header));
  const std::string script = directory.file("script", "#! " + program + " -x\n");
  const std::string reason = "is statically linked: it would reach";
  for (const std::string& file : {program, script}) {
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    const Outcome direct = runCommand(TALVERO_SIM " -- " + file);
    EXPECT_EQ(direct.status, 2);
    EXPECT_THAT(direct.errors, HasSubstr("talvero-sim: " + file + " " + reason));
    const Outcome nested = runCommand(TALVERO_SIM " -- sh -c 'exec " + file + "'");
    EXPECT_EQ(nested.status, 126);
    EXPECT_THAT(nested.errors, HasSubstr("talvero-sim: " + file + " " + reason));
  }
}

/// Whether a process is there and more than an entry that nobody has asked for.
bool isRunning(const std::string& pid) {
  const std::string status = contentOf("/proc/" + pid + "/status");
  return !status.empty() && status.find("State:\tZ") == std::string::npos;
}

TEST(TalveroSim, LeavesOtherInstrumentsAlone) {
  const TemporaryDirectory directory;
  const Outcome outcome =
      runCommand("cd " + directory.path +
                 "; export TMPDIR=$PWD; mkfifo started go; " TALVERO_SIM
                 " -- sh -c 'echo >started; read line <go; cat /sys/class/gpio/gpiochip0/base' & "
                 "read line <started; " TALVERO_SIM " -- true; echo >go; wait");
  EXPECT_EQ(outcome.output, "0\n");
  EXPECT_EQ(outcome.errors, "");
}

TEST(TalveroSim, LeavesNothingBehind) {
  const TemporaryDirectory directory;
  const std::string sim = "TMPDIR=" + directory.path + " " TALVERO_SIM " -- ";
  runCommand(sim + "sh -c 'kill -KILL $$'");
  EXPECT_EQ(runCommand("ls " + directory.path).output, "");
  runCommand("mkfifo " + directory.path + "/never; " + sim + "sh -c 'cd " + directory.path +
             "; echo $$ >pid; kill -KILL $PPID; read line <never'");
  const std::string pid = std::to_string(std::stoi(contentOf(directory.path + "/pid")));
  for (int tenth = 0; tenth < 100 && isRunning(pid); ++tenth) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_FALSE(isRunning(pid)) << "a program ends with talvero-sim";
  std::filesystem::remove(directory.path + "/pid");
  std::filesystem::remove(directory.path + "/never");
  EXPECT_NE(runCommand("ls " + directory.path).output, "") << "nobody was left to remove it";
  const std::string ofOther = directory.file("talvero-sim-notes/sys", "");
  directory.file("talvero-sim.killed/sys", "");  // before it had a lock
  std::filesystem::permissions(directory.path + "/talvero-sim.killed",
                               std::filesystem::perms::owner_all);
  runCommand(sim + "true");
  EXPECT_TRUE(std::filesystem::remove(ofOther) &&
              std::filesystem::remove(directory.path + "/talvero-sim-notes"));
  EXPECT_EQ(runCommand("ls " + directory.path).output, "");
}

}  // namespace
