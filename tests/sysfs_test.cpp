// SPDX-License-Identifier: MIT
#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "sysfs/SysfsUtil.h"
#include "tests/Support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

static thread_local int buffersGiven = 0;

extern "C" int setvbuf(std::FILE* stream, char* buffer, int mode, std::size_t size) noexcept {
  static const auto real = reinterpret_cast<decltype(&setvbuf)>(dlsym(RTLD_NEXT, "setvbuf"));
  buffersGiven += buffer != nullptr && mode == _IOFBF && size != 0 ? 1 : 0;
  return real(stream, buffer, mode, size);
}

namespace {

TEST(SysfsFiles, TextReaderReturnsTheContentWithOrWithoutItsLastCharacter) {
  const TemporaryDirectory directory;
  SysfsUtil sysfs;
  const struct {
    const char* content;
    bool strip;
    const char* expected;
  } cases[] = {{"1\n", true, "1"},
               {"1\n", false, "1\n"},
               {"1", true, ""},
               {"", true, ""},
               {"", false, ""},
               {"a\r\nb\n", true, "a\r\nb"},
               {"  a b\n", false, "  a b\n"},
               {"\n\n1\n", true, "\n\n1"},
               {"\n", true, ""}};
  for (const auto& test : cases) {
    bool success = false;
    EXPECT_EQ(sysfs.readSysfs(directory.file("a", test.content), &success, test.strip),
              test.expected);
    EXPECT_TRUE(success);
  }
  std::string large(10000, 'x');
  large[5000] = '\0';
  EXPECT_EQ(sysfs.readSysfs(directory.file("large", large), nullptr, false), large);

  bool success = true;
  EXPECT_EQ(sysfs.readSysfs(directory.path + "/missing", &success, true), "");
  EXPECT_FALSE(success);
  EXPECT_EQ(sysfs.readSysfs(directory.path + "/missing", nullptr, true), "");
}

TEST(SysfsFiles, RawReaderReadsBytesOrOneWord) {
  const TemporaryDirectory directory;
  SysfsUtil sysfs;
  const std::string file = directory.file("a", "  abc def\n");
  char buffer[5000];

  std::fill(std::begin(buffer), std::end(buffer), '#');
  EXPECT_TRUE(sysfs.readSysfs(file, buffer, 5));
  EXPECT_EQ(std::string(buffer, 6), "  abc#") << "no terminating zero byte is added";
  EXPECT_TRUE(sysfs.readSysfs(directory.file("one", "xyz"), buffer, 1));
  EXPECT_EQ(std::string(buffer, 6), "x abc#");
  EXPECT_TRUE(sysfs.readSysfs(file, buffer, 10));
  EXPECT_FALSE(sysfs.readSysfs(file, buffer, 11)) << "one byte more than there is";

  std::fill(std::begin(buffer), std::end(buffer), '#');
  EXPECT_TRUE(sysfs.readSysfs(file, buffer, 0));
  EXPECT_EQ(std::string(buffer, 5), std::string("abc\0#", 5));

  EXPECT_TRUE(sysfs.readSysfs(directory.file("long", std::string(4097, 'y')), buffer, 0));
  EXPECT_EQ(std::string(buffer), std::string(4095, 'y')) << "an attribute is one page";

  std::fill(std::begin(buffer), std::end(buffer), '#');
  EXPECT_FALSE(sysfs.readSysfs(directory.file("empty", ""), buffer, 0));
  EXPECT_FALSE(sysfs.readSysfs(directory.file("blank", " \n"), buffer, 0));
  EXPECT_FALSE(sysfs.readSysfs(directory.path + "/missing", buffer, 0));
  EXPECT_FALSE(sysfs.readSysfs(directory.path + "/missing", buffer, 4));
  EXPECT_FALSE(sysfs.readSysfs(file, buffer, -1));
  EXPECT_EQ(buffer[0], '#') << "left alone";
}

TEST(SysfsFiles, ReadersOpenForReadingOnly) {
  Instrument instrument("");
  SysfsUtil sysfs;
  const std::string attribute = "/sys/class/gpio/gpiochip0/base";  // refuses to be written
  char buffer[4096] = "";
  EXPECT_TRUE(sysfs.readSysfs(attribute, buffer, 0));
  EXPECT_STREQ(buffer, "0");
  EXPECT_EQ(sysfs.readSysfs(attribute, nullptr, true), "0");
  EXPECT_FALSE(sysfs.readSysfs(attribute, buffer, -1)) << "nothing is opened";
  const std::string read = "read " + attribute + " \"0\\n\"";
  EXPECT_THAT(instrument.takeTrace(), ElementsAre(read, read));
}

TEST(SysfsFiles, WriterWritesExactlyTheData) {
  const TemporaryDirectory directory;
  SysfsUtil sysfs;
  const std::string file = directory.file("a", "a longer text that was here before");
  EXPECT_TRUE(sysfs.writeSysfs(file, "out", 0));
  EXPECT_EQ(contentOf(file), "out");
  EXPECT_TRUE(sysfs.writeSysfs(file, "%s%n", 0));
  EXPECT_EQ(contentOf(file), "%s%n");
  EXPECT_TRUE(sysfs.writeSysfs(file, "", 0));
  EXPECT_EQ(contentOf(file), "");
  EXPECT_TRUE(sysfs.writeSysfs(file, "ab", 1));
  EXPECT_EQ(contentOf(file), "a");
  EXPECT_TRUE(sysfs.writeSysfs(file, "a\0bc", 3));
  EXPECT_EQ(contentOf(file), std::string("a\0b", 3));

  EXPECT_FALSE(sysfs.writeSysfs(file, "lost", -1));
  EXPECT_EQ(contentOf(file), std::string("a\0b", 3)) << "nothing is opened, nothing truncated";
  EXPECT_FALSE(sysfs.writeSysfs(directory.path + "/none/a", "x", 0));
  EXPECT_FALSE(sysfs.writeSysfs(directory.path + "/none/a", "x", 1));

  const std::string more(100000, 'x');  // more than any stream's buffer
  EXPECT_FALSE(sysfs.writeSysfs("/dev/full", more.c_str(), static_cast<int>(more.size())));
  EXPECT_FALSE(sysfs.writeSysfs("/dev/full", more.c_str(), 0));
  EXPECT_TRUE(sysfs.writeSysfs("/dev/full", "x", 1));
  EXPECT_TRUE(sysfs.writeSysfs("/dev/full", "x\n", 0)) << "an error at the close is not detected";

  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit{10000, before.rlim_max};
  std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_FALSE(sysfs.writeSysfs(file, more.c_str(), static_cast<int>(more.size())));
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(contentOf(file).size(), 10000U) << "a part does not count as success";
}

TEST(SysfsFiles, StreamsHaveBuffersOfTheirOwn) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("a", "word\n");
  SysfsUtil sysfs;
  char buffer[4096];
  const long before = allocatedArrays();
  std::ifstream(file).get();
  EXPECT_GT(allocatedArrays(), before) << "a stream without one takes memory";

  const long arrays = allocatedArrays();
  sysfs.readSysfs(file, nullptr, true);
  EXPECT_EQ(allocatedArrays(), arrays);

  // With one, stdio neither takes memory nor asks for the file's size.
  buffersGiven = 0;
  sysfs.readSysfs(file, buffer, 0);
  sysfs.readSysfs(file, buffer, 2);
  sysfs.writeSysfs(file, "out", 0);
  EXPECT_EQ(buffersGiven, 3);
}

TEST(SysfsDirectories, ListsAndFindsEntries) {
  const TemporaryDirectory directory;
  SysfsUtil sysfs;
  EXPECT_THAT(sysfs.ReadDirectory(directory.path), UnorderedElementsAre(".", ".."));
  EXPECT_THAT(sysfs.ReadDirectory(directory.path + "/missing"), IsEmpty());
  directory.file("gpiochip3/base", "");
  directory.file("gpio/x", "");
  EXPECT_THAT(sysfs.ReadDirectory(directory.path),
              UnorderedElementsAre(".", "..", "gpio", "gpiochip3"));

  EXPECT_EQ(sysfs.FindFile(directory.path, "gpio", true), directory.path + "/gpio");
  EXPECT_EQ(sysfs.FindFile(directory.path, "gpiochip", true), "");
  EXPECT_EQ(sysfs.FindFile(directory.path, "chip", false), directory.path + "/gpiochip3");
  EXPECT_EQ(sysfs.FindFile(directory.path, "CHIP", false), "");
  EXPECT_EQ(sysfs.FindFile(directory.path + "/", "gpio", true), directory.path + "//gpio");
  EXPECT_EQ(sysfs.FindFile(directory.path, "x", true), "") << "subdirectories are not searched";
  EXPECT_EQ(sysfs.FindFile(directory.path + "/missing", "", false), "");

  // The order is the directory's own. Most keep to the order of creation, forward or backward, and
  // neither is sorted here.
  for (const char* name : {"b/x", "a/x", "c/x"}) {
    directory.file(name, "");
  }
  std::filesystem::create_symlink("nowhere", directory.path + "/link");
  std::vector<std::string> names;
  DIR* stream = opendir(directory.path.c_str());
  while (const dirent* entry = readdir(stream)) {
    names.emplace_back(entry->d_name);
  }
  closedir(stream);
  EXPECT_EQ(sysfs.ReadDirectory(directory.path), names);
  EXPECT_EQ(sysfs.FindFile(directory.path, "", false), directory.path + "/" + names.front());
}

TEST(SysfsDirectories, FindsTheBaseOfAGpioChip) {
  SysfsUtil sysfs;
  const struct {
    const char* content;
    int base;
  } cases[] = {{"2504\n", 2504}, {" +12x\n", 12}, {"010\n", 10}, {"0x1f\n", 0},
               {"abc\n", -1},    {"\n", -1},      {"-1\n", -1},  {"7", -1}};
  for (const auto& test : cases) {
    const TemporaryDirectory device;
    device.file("gpio/gpiochip504/database", test.content);
    EXPECT_EQ(sysfs.FindGpioBase(device.path), test.base) << test.content;
  }
  const TemporaryDirectory device;
  device.file("gpiochip9/gpiochip9/base", "9\n");  // beside "gpio", as some kernels have it
  EXPECT_EQ(sysfs.FindGpioBase(device.path), -1) << "no gpio";
  device.file("gpio/gpio-chip/base", "1\n");
  EXPECT_EQ(sysfs.FindGpioBase(device.path), -1) << "no gpiochip";
  device.file("gpio/gpiochip1/ba-se", "1\n");
  EXPECT_EQ(sysfs.FindGpioBase(device.path), -1) << "no base";
  std::filesystem::create_symlink("nowhere", device.path + "/gpio/gpiochip1/base");
  EXPECT_EQ(sysfs.FindGpioBase(device.path), -1) << "unreadable base";
}

TEST(GpioLines, EveryReadExportsTheLineAndMakesItAnInput) {
  Instrument instrument("[gpio]\n167=high\n5=low");
  SysfsUtil sysfs;
  EXPECT_TRUE(sysfs.readGpioValue(167));
  EXPECT_THAT(instrument.takeTrace(), ElementsAre("write /sys/class/gpio/export \"167\"",
                                                  "write /sys/class/gpio/gpio167/direction \"in\"",
                                                  "read /sys/class/gpio/gpio167/value \"1\\n\""));
  bool success = false;
  EXPECT_EQ(sysfs.readGpioValue("167", &success), "1");
  EXPECT_TRUE(success);
  EXPECT_EQ(instrument.takeTrace().front(), "write /sys/class/gpio/export \"167\": EBUSY")
      << "the kernel's refusal is not a failure";
  EXPECT_FALSE(sysfs.readGpioValue(5));
  EXPECT_EQ(sysfs.readGpioValue("5", nullptr), "0");
}

TEST(GpioLines, EveryWriteExportsTheLineAndMakesItAnOutput) {
  Instrument instrument("[gpio]\n5=high");
  SysfsUtil sysfs;
  const std::string value = "/sys/class/gpio/gpio5/value";
  EXPECT_TRUE(sysfs.setGpioValue(5, true));
  EXPECT_THAT(instrument.takeTrace(), ElementsAre("write /sys/class/gpio/export \"5\"",
                                                  "write /sys/class/gpio/gpio5/direction \"out\"",
                                                  "write /sys/class/gpio/gpio5/value \"1\""));
  EXPECT_EQ(sysfs.readSysfs(value, nullptr, true), "1");
  EXPECT_TRUE(sysfs.setGpioValue(5, false));
  EXPECT_EQ(instrument.takeTrace().back(), "write /sys/class/gpio/gpio5/value \"0\"");
  EXPECT_EQ(sysfs.readSysfs(value, nullptr, true), "0");

  EXPECT_TRUE(sysfs.setGpioValue("5", "up")) << "the kernel's refusal is not detected";
  EXPECT_EQ(instrument.takeTrace().back(), "write /sys/class/gpio/gpio5/value \"up\": EINVAL");

  EXPECT_TRUE(sysfs.readGpioValue(5)) << "the level from outside, as the line is an input again";
  EXPECT_EQ(sysfs.readSysfs("/sys/class/gpio/gpio5/direction", nullptr, true), "in");
}

TEST(GpioLines, StopAtTheFirstStepThatFails) {
  const std::string lines = "[gpio]\n1=missing\n2=no-direction\n3=no-value\n";
  const struct {
    const char* line;
    const char* faults;
    std::size_t steps;
    bool written;  // what a write reports
  } cases[] = {{"1", "", 2, false},
               {"2", "", 2, false},
               {"-1", "", 2, false},
               {"3", "", 3, false},
               {"4", "[faults]\ngpio-export=on", 1, false}};
  for (const auto& test : cases) {
    Instrument instrument(lines + test.faults);
    SysfsUtil sysfs;
    bool success = true;
    EXPECT_EQ(sysfs.readGpioValue(test.line, &success), "") << test.line;
    EXPECT_FALSE(success) << test.line;
    EXPECT_EQ(instrument.takeTrace().size(), test.steps) << test.line;
    EXPECT_EQ(sysfs.readGpioValue(test.line, nullptr), "") << test.line;
    EXPECT_FALSE(sysfs.readGpioValue(std::stoi(test.line))) << test.line;
    instrument.takeTrace();
    EXPECT_EQ(sysfs.setGpioValue(test.line, "1"), test.written) << test.line;
    EXPECT_EQ(instrument.takeTrace().size(), test.steps) << test.line;
  }
}

/// Records every call of a virtual operation. Files are not touched: reading one gives `text`.
class RecordingSysfs : public SysfsUtil {
 public:
  using SysfsUtil::readGpioValue;
  using SysfsUtil::readSysfs;
  using SysfsUtil::setGpioValue;

  std::string readSysfs(std::string path, bool* success, bool strip) override {
    *success = readable;
    record("text " + path + (strip ? " stripped" : ""));
    return text;
  }
  bool writeSysfs(std::string path, char const* data, int length) override {
    return record("write " + path + " " + data + " " + std::to_string(length));
  }
  bool exportGpio(char const* gpio) override {
    return record(std::string("export ") + gpio) && SysfsUtil::exportGpio(gpio);
  }
  std::string readGpioValue(char const* gpio, bool* success) override {
    record(std::string("get ") + gpio);
    return SysfsUtil::readGpioValue(gpio, success);
  }
  bool setGpioValue(char const* gpio, char const* value) override {
    return record(std::string("set ") + gpio + " " + value) && SysfsUtil::setGpioValue(gpio, value);
  }
  bool setGpioDirectionOutput(char const* gpio) override {
    return record(std::string("out ") + gpio) && SysfsUtil::setGpioDirectionOutput(gpio);
  }
  bool setGpioDirectionInput(char const* gpio) override {
    return record(std::string("in ") + gpio) && SysfsUtil::setGpioDirectionInput(gpio);
  }

  std::vector<std::string> calls;
  std::string text = "1";
  bool readable = true;

 private:
  bool record(const std::string& call) {
    calls.push_back(call);
    return true;
  }
};

TEST(GpioLines, AreReachedThroughTheVirtualOperations) {
  RecordingSysfs reading;
  EXPECT_TRUE(reading.readGpioValue(7));
  EXPECT_THAT(reading.calls, ElementsAre("get 7", "export 7", "write /sys/class/gpio/export 7 0",
                                         "in 7", "write /sys/class/gpio/gpio7/direction in 0",
                                         "text /sys/class/gpio/gpio7/value stripped"));
  RecordingSysfs writing;
  EXPECT_TRUE(writing.setGpioValue(-8, true));
  EXPECT_THAT(writing.calls,
              ElementsAre("set -8 1", "export -8", "write /sys/class/gpio/export -8 0", "out -8",
                          "write /sys/class/gpio/gpio-8/direction out 0",
                          "write /sys/class/gpio/gpio-8/value 1 0"));
}

TEST(GpioLines, AreHighOnlyWhenTheValueIsExactlyOne) {
  RecordingSysfs sysfs;
  for (const char* text : {"", "0", "10", "01", "1\n", " 1"}) {
    sysfs.text = text;
    EXPECT_FALSE(sysfs.readGpioValue(7)) << text;
  }
  sysfs.text = "1";
  sysfs.readable = false;
  EXPECT_TRUE(sysfs.readGpioValue(7)) << "the text decides alone";
}

TEST(SysfsDirectories, ReadTheBaseOfAGpioChipThroughTheVirtualOperation) {
  const TemporaryDirectory device;
  const std::string base = device.file("gpio/gpiochip8/base", "");
  RecordingSysfs sysfs;
  EXPECT_EQ(sysfs.FindGpioBase(device.path), 1);
  device.file("none/gpio/gpiochip8/label", "");
  EXPECT_EQ(sysfs.FindGpioBase(device.path + "/none"), -1);
  EXPECT_THAT(sysfs.calls, ElementsAre("text " + base + " stripped")) << "nothing else is read";
  sysfs.readable = false;
  EXPECT_EQ(sysfs.FindGpioBase(device.path), -1) << "a failed read's text does not count";
}

TEST(SysfsFiles, LeaveNoDescriptorOpen) {
  Instrument instrument("[gpio]\n1=missing\n3=no-value");
  SysfsUtil sysfs;
  const TemporaryDirectory directory;
  directory.file("gpio/gpiochip1/base", "1\n");
  char buffer[8];
  const std::size_t before = openFiles();
  for (const char* line : {"1", "2", "3"}) {
    sysfs.readGpioValue(line, nullptr);
    sysfs.setGpioValue(line, "1");
  }
  EXPECT_EQ(sysfs.FindGpioBase(directory.path), 1);
  sysfs.readSysfs(directory.path + "/gpio/gpiochip1/base", buffer, 8);
  sysfs.writeSysfs("/dev/full", "x", 1);
  EXPECT_EQ(openFiles(), before);
}

}  // namespace
