// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "modules/BackplaneInterface.h"
#include "modules/EmptyModuleInterface.h"
#include "modules/I2CModuleInterface.h"
#include "modules/ModuleControllerInterfaceFactory.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/PowerControlInterface.h"
#include "modules/Udev_PCA9536.h"
#include "tests/Support.h"

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// An instrument of its own process, as far as the topology is concerned.
class Modules : public Instrument {
 public:
  explicit Modules(const std::string& description) : Instrument(description) {
    const std::lock_guard<std::mutex> guard(ModuleI2CInfo::cacheLock);
    ModuleI2CInfo::cache.clear();
  }
};

/// Where the simulated file system lies in the real one.
std::string simulatedTree() {
  const char* const tree = std::getenv("UMOCKDEV_DIR");
  return tree != nullptr ? tree : throw std::runtime_error("no simulated file system");
}

// Module 1 behind two multiplexers, module 2 behind one.
const std::string buses = R"(
[mux 2-0070]
1=i2c-11
2=i2c-12
3=i2c-21
4=i2c-22
5=i2c-23
6=i2c-24
[mux 11-0071]
1=i2c-13
[mux 13-0072]
2=i2c-30
5=i2c-31
[mux 12-0071]
2=i2c-32
5=i2c-33
)";

const std::string modules = buses + R"(
[module 13-0050]
id=1
top=i2c-2/1/1
system=2
solution=5
[module 12-0050]
id=2
top=i2c-2/2
system=2
solution=5
)";

const std::string powered = modules + "[expander 30-0041]\n[expander 32-0041]\n";

TEST(Topology, IsResolvedOnceThroughUdevAndThePlatform) {
  Modules instrument(modules);
  const ModuleI2CInfo first(1);
  EXPECT_EQ(first.topBus, "i2c-13");
  EXPECT_EQ(first.systemBus, "i2c-30");
  EXPECT_EQ(first.solutionBus, "i2c-31");
  EXPECT_FALSE(first.is2k4k);
  EXPECT_THAT(
      instrument.takeTrace(),
      ElementsAre(
          "udev_new", "udev_enumerate_new", "udev_enumerate_add_match_subsystem i2c",
          "udev_enumerate_add_match_sysattr of_node/id \"1\"", "udev_enumerate_scan_devices",
          "udev_device_new_from_syspath /sys/devices/i2c-2/i2c-11/i2c-13/13-0050",
          "udev_device_get_sysattr_value of_node/2k4k: ENOENT",
          "udev_device_get_sysattr_value of_node/top \"i2c-2/1/1\"",
          "udev_device_get_sysattr_value of_node/system \"2\"",
          "udev_device_get_sysattr_value of_node/solution \"5\"", "udev_device_unref",
          "udev_enumerate_unref", "udev_unref", "bus behind i2c-2 channel 1 \"i2c-11\"",
          "bus behind i2c-11 channel 1 \"i2c-13\"", "bus behind i2c-13 channel 2 \"i2c-30\"",
          "bus behind i2c-13 channel 5 \"i2c-31\""));
  const ModuleI2CInfo second(1);
  EXPECT_EQ(second.topBus + second.systemBus + second.solutionBus, "i2c-13i2c-30i2c-31");
  EXPECT_THAT(instrument.takeTrace(), IsEmpty());
  EXPECT_EQ(first.local1() + first.local2() + first.local3() + first.local4(),
            "i2c-21i2c-22i2c-23i2c-24");
}

TEST(Topology, FollowsTheDeviceTree) {
  const struct {
    const char* properties;
    const char* top;
    const char* system;
    const char* solution;
    bool is2k4k;
  } cases[] = {
      {"top=i2c-7\nsystem=i2c-8\nsolution=x", "i2c-7", "i2c-8", "x", false},
      {"top=i2c-7\nsystem=i2c-8\nsolution=x\n2k4k=1", "i2c-7", "", "", true},
      {"top=i2c-2/2\nsystem= 2x\nsolution=+5", "i2c-12", "i2c-32", "i2c-33", false},
      {"top=i2c-2/2\nsystem=2\nsolution=5\n2k4k=1", "i2c-12", "i2c-12", "i2c-12", true},
      {"top=i2c-2/2\nsystem=2\nsolution=5\n2k4k=2", "i2c-12", "i2c-32", "i2c-33", false},
      {"top=i2c-2/2/\nsystem=2\nsolution=9", "i2c-12", "i2c-32", "", false},
      {"top=i2c-2/9\nsystem=2\nsolution=5", "", "", "", false},
      {"system=2\nsolution=5", "", "", "", false},
  };
  for (const auto& test : cases) {
    const Modules instrument(buses + "[module 2-0050]\nid=3\n" + test.properties);
    const ModuleI2CInfo info(3);
    EXPECT_EQ(info.topBus, test.top) << test.properties;
    EXPECT_EQ(info.systemBus, test.system) << test.properties;
    EXPECT_EQ(info.solutionBus, test.solution) << test.properties;
    EXPECT_EQ(info.is2k4k, test.is2k4k) << test.properties;
  }
}

TEST(Topology, TakesTheLastOfSeveralDevicesThatCanBeOpened) {
  const std::string first = "[module 2-0050]\nid=3\ntop=i2c-1\nsystem=a\nsolution=b\n";
  const std::string second = "[module 2-0051]\nid=3\ntop=i2c-2/2\n";
  const std::string buses2And5 = "system=2\nsolution=5\n";
  const struct {
    std::string devices;
    const char* systemBus;
    const char* solutionBus;
    bool is2k4k;
  } cases[] = {
      {first + second + buses2And5, "i2c-32", "i2c-33", false},
      // Once it is a 2k4k it stays one, but its buses are the last device's.
      {first + "2k4k=1\n" + second, "i2c-12", "i2c-12", true},
      {first + "2k4k=1\n" + second + buses2And5 + "2k4k=0", "i2c-32", "i2c-33", true},
      {first + second + "openable=no", "a", "b", false},
      {first + "openable=no\n" + second + buses2And5, "i2c-32", "i2c-33", false},
  };
  for (const auto& test : cases) {
    const Modules instrument(buses + test.devices);
    const ModuleI2CInfo info(3);
    EXPECT_EQ(info.systemBus, test.systemBus) << test.devices;
    EXPECT_EQ(info.solutionBus, test.solutionBus) << test.devices;
    EXPECT_EQ(info.is2k4k, test.is2k4k) << test.devices;
  }
}

TEST(Topology, RemembersNumbersThatNoDeviceDescribes) {
  Modules instrument(modules);
  EXPECT_EQ(ModuleI2CInfo(4294967295U).topBus, "");
  EXPECT_THAT(instrument.takeTrace(),
              Contains("udev_enumerate_add_match_sysattr of_node/id \"4294967295\""));
  EXPECT_FALSE(ModuleI2CInfo(4294967295U).is2k4k);
  EXPECT_THAT(instrument.takeTrace(), IsEmpty());
}

/// What constructing a topology throws; empty for nothing.
std::string failureOf(unsigned int module) {
  try {
    const ModuleI2CInfo info(module);
    return "";
  } catch (const std::invalid_argument& error) {
    return std::string("invalid_argument ") + error.what();
  } catch (const std::out_of_range& error) {
    return std::string("out_of_range ") + error.what();
  } catch (const std::runtime_error& error) {
    return std::string("runtime_error ") + error.what();
  }
}

TEST(Topology, FailuresLeaveTheCacheAsItWas) {
  const std::string module = "[module 2-0050]\nid=3\n";
  const struct {
    std::string description;
    const char* failure;
    const char* absent;  // from the trace
  } cases[] = {
      {module + "top=i2c-2//1", "invalid_argument stoi", "bus behind i2c-2 channel 1"},
      {module + "top=i2c-2/2\nsystem=x\nsolution=5", "invalid_argument stoi", "i2c-12 channel"},
      {module + "top=i2c-2/2\nsystem=2", "invalid_argument stoi", "i2c-12 channel"},
      {module + "top=i2c-2/99999999999", "out_of_range stoi", "bus behind"},
      {module + "top=i2c-2/2\n[faults]\nbus-lookup=on", "runtime_error no access to the I2C buses",
       "i2c-12"},
      {module + "[faults]\nudev-context=on", "runtime_error Can't create udev", "enumerate"},
      {module + "[faults]\nudev-enumeration=on", "runtime_error Can't create udev", "scan"},
  };
  for (const auto& test : cases) {
    Modules instrument(buses + test.description);
    EXPECT_EQ(failureOf(3), test.failure) << test.description;
    EXPECT_THAT(instrument.takeTrace(), Not(Contains(HasSubstr(test.absent)))) << test.description;
    EXPECT_TRUE(ModuleI2CInfo::cache.empty()) << test.description;
    EXPECT_EQ(failureOf(3), test.failure) << "asked again, and not locked";
  }
}

TEST(Topology, IsResolvedOnceForManyThreads) {
  Modules instrument(modules);
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (unsigned int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&right, thread] {
      const unsigned int module = thread % 2 + 1;
      right += ModuleI2CInfo(module).systemBus == (module == 1 ? "i2c-30" : "i2c-32") ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(right, 8);
  const std::vector<std::string> trace = instrument.takeTrace();
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "udev_new"), 2);
}

TEST(Topology, IsNotLockedInTheChildOfAFork) {
  const Modules instrument(modules);
  // A thread that begins or ends takes locks of the allocator, for which no fork waits.
  std::atomic<int> begun{0};
  std::atomic<int> forked{0};
  const auto waitFor = [](const std::atomic<int>& number, int all) {
    while (number < all) {
      std::this_thread::yield();
    }
  };
  std::thread resolver([&] {
    ++begun;
    while (forked < 2) {
      const ModuleI2CInfo module(1);
      const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
      ModuleI2CInfo::cache.clear();
    }
  });
  std::atomic<int> failed{0};
  const auto forkOften = [&] {
    ++begun;
    waitFor(begun, 3);
    for (int time = 0; time < 10; ++time) {
      const pid_t child = fork();
      if (child == 0) {
        alarm(10);
        _exit(ModuleI2CInfo(1).topBus.empty() ? 1 : 0);
      }
      int status = -1;
      waitpid(child, &status, 0);
      failed += status != 0 ? 1 : 0;
    }
    ++forked;
    waitFor(forked, 2);
  };
  std::thread other(forkOften);
  forkOften();
  other.join();
  resolver.join();
  EXPECT_EQ(failed, 0);
}

TEST(Topology, IsNotWaitedForByAForkOfItsHolder) {
  const Modules instrument(modules);
  const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(Topology, ABusIsLookedUpOnItsOwnMultiplexers) {
  // The bus behind a channel links back to its multiplexer, whose channels are its parent's.
  const Modules instrument(
      "[mux 2-0071]\n1=i2c-9\n[mux 2-0070]\n1=i2c-8\n2=i2c-7\n"
      "[module 9-0050]\nid=1\ntop=i2c-9\n"
      "[module 2-0050]\nid=2\ntop=i2c-2/1/2\n2k4k=1\n"
      "[module 2-0051]\nid=3\ntop=i2c-2/1\n2k4k=1\n");
  EXPECT_EQ(ModuleI2CInfo(2).topBus, "") << "nothing is behind i2c-8";
  EXPECT_EQ(ModuleI2CInfo(3).topBus, "i2c-8") << "the multiplexer with the lowest address";
}

TEST(Topology, NamesOfBusesAndDevicesAreComparedFromTheirBeginning) {
  const Modules instrument(
      "[mux 2-0070]\n1=i2c-8\n[mux 3-0070]\n1=i2c-9\n"
      "[module 2-0050]\nid=1\ntop=i2c-2/1\n2k4k=1\n"
      "[module 2-0051]\nid=2\ntop=i3c-2/1\n2k4k=1\n"
      "[module 2-0053]\nid=4\ntop=i2/1\n2k4k=1\n");
  const std::string devices = simulatedTree() + "/sys/bus/i2c/devices";
  std::filesystem::create_directory_symlink("../i2c-3/3-0070", devices + "/i2c-2/12-0070");
  std::filesystem::create_directory_symlink("i2c-2", devices + "/i3c-2");
  EXPECT_EQ(ModuleI2CInfo(1).topBus, "i2c-8") << "not by the device of another bus";
  EXPECT_EQ(ModuleI2CInfo(2).topBus, "") << "no I2C bus";
  EXPECT_EQ(ModuleI2CInfo(4).topBus, "") << "no I2C bus";
}

TEST(Expander, IsFoundOnTheSystemBus) {
  const std::string found = "/sys/devices/i2c-2/i2c-11/i2c-13/i2c-30/30-0041/gpio/gpiochip512";
  const struct {
    const char* expanders;
    std::string path;
  } cases[] = {
      {"[expander 30-0041]", found},
      {"", ""},
      {"[expander 31-0041]\n[expander 3-0041]", ""},
      {"[expander 30-0041]\ngpio=none", ""},
      {"[expander 30-0041]\ngpio=empty", ""},
      // A later one on the bus is not examined.
      {"[expander 30-0041]\ngpio=none\n[expander 30-0042]", ""},
      {"[expander 30-0041]\ngpio=empty\n[expander 30-0042]", ""},
      {"[i2c]\n30-0041=pca9535\n30-0042=pca95361", ""},
  };
  for (const auto& test : cases) {
    Modules instrument(modules + test.expanders);
    Udev_PCA9536 controller(1);
    EXPECT_EQ(controller.GetPath(), test.path) << test.expanders;
    EXPECT_THAT(instrument.takeTrace(), Not(Contains(HasSubstr("clock"))));
  }
  // A bus name that occurs inside a longer one matches as well.
  const Modules instrument("[module 2-0050]\nid=7\ntop=x\nsystem=i2c-3\n[expander 30-0041]");
  EXPECT_EQ(Udev_PCA9536(7).GetPath(), "/sys/devices/i2c-30/30-0041/gpio/gpiochip512");
}

TEST(Expander, HasItsChipInADirectoryOfTheExactName) {
  const Modules instrument(modules + "[expander 30-0041]\ngpio=none");
  const std::string device = "/sys/devices/i2c-2/i2c-11/i2c-13/i2c-30/30-0041";
  std::filesystem::create_directories(simulatedTree() + device + "/gpiochip9/gpiochip9");
  EXPECT_EQ(Udev_PCA9536(1).FindSubdir(device, "gpio", false), device + "/gpiochip9");
  EXPECT_EQ(Udev_PCA9536(1).GetPath(), "") << "only \"gpio\" itself counts";
}

TEST(Expander, IsLookedForOnlyWhereThereAreAny) {
  {
    Modules instrument(modules);
    Udev_PCA9536 controller(1);
    EXPECT_THAT(
        instrument.takeTrace(),
        ElementsAre("udev_new", "udev_enumerate_new", "udev_enumerate_add_match_subsystem i2c",
                    "udev_enumerate_add_match_sysattr name \"pca9536\"",
                    "udev_enumerate_scan_devices", "udev_enumerate_unref", "udev_unref"))
        << "and no topology";
    EXPECT_THAT(controller.GetDevices(), IsEmpty());
  }
  Modules instrument(powered);
  Udev_PCA9536 controller(1);
  const std::vector<std::string> trace = instrument.takeTrace();
  EXPECT_THAT(std::vector<std::string>(trace.end() - 2, trace.end()),
              ElementsAre("list /sys/devices/i2c-2/i2c-11/i2c-13/i2c-30/30-0041",
                          "list /sys/devices/i2c-2/i2c-11/i2c-13/i2c-30/30-0041/gpio"));
  EXPECT_EQ(controller.GetDevices().size(), 2U);
  for (const char* fault : {"udev-context", "udev-enumeration"}) {
    const Modules broken(powered + "[faults]\n" + fault + "=on");
    EXPECT_THROW(Udev_PCA9536{1}, std::runtime_error);
  }
}

TEST(Expander, ListsAndFindsEntries) {
  const Modules instrument(powered);
  const TemporaryDirectory directory;
  directory.file("gpio/x", "");
  const Udev_PCA9536 controller(3);
  EXPECT_EQ(controller.ReadDirectory(directory.path).size(), 3U);
  EXPECT_THAT(controller.ReadDirectory(directory.path + "/none"), IsEmpty());
  EXPECT_EQ(controller.FindSubdir(directory.path, "gpio", true), directory.path + "/gpio");
  EXPECT_EQ(controller.FindSubdir(directory.path, "pi", true), "");
  EXPECT_EQ(controller.FindSubdir(directory.path, "pi", false), directory.path + "/gpio");
}

/// The power controller of a module; how it was set up is out of the trace.
class PoweredModule : public Modules {
 public:
  explicit PoweredModule(const std::string& description, unsigned int module = 2)
      : Modules(description), controller(module) {
    takeTrace();
  }

  Udev_PCA9536 controller;
  Console console;
};

const char* const enable2 = "/sys/platform/gpio_module2_power_en/value";
const char* const done2 = "/sys/platform/gpio_module2_seq_done/value";

std::string write(const char* path, const char* text) {
  return std::string("write ") + path + " \"" + text + "\"";
}

std::string read(const char* path, const char* text) {
  return std::string("read ") + path + " \"" + text + "\\n\"";
}

std::ptrdiff_t readings(const std::vector<std::string>& trace) {
  return std::count_if(trace.begin(), trace.end(), [](const std::string& line) {
    return line.find("seq_done") != std::string::npos;
  });
}

TEST(Power, IsSwitchedInOrderAndConfirmedTwice) {
  PoweredModule instrument(powered + "[power 2]\non-delay=0.03\noff-delay=0.01");
  Udev_PCA9536& controller = instrument.controller;
  EXPECT_FALSE(controller.isPowerOn());
  instrument.takeTrace();
  controller.PowerOn();
  const std::string sleep = "sleep 20000 us";
  EXPECT_THAT(instrument.takeTrace(),
              ElementsAre("fpga open", write(enable2, "1"), "clock on 2", read(done2, "1"), sleep,
                          read(done2, "1"), sleep, read(done2, "0"), sleep, read(done2, "0"),
                          "fpga close"));
  EXPECT_TRUE(controller.isPowerOn());
  EXPECT_EQ(instrument.takeTrace(), std::vector<std::string>{read(enable2, "1")});
  controller.PowerOff();
  EXPECT_THAT(instrument.takeTrace(),
              ElementsAre("fpga open", "clock off 2", write(enable2, "0"), read(done2, "0"), sleep,
                          read(done2, "1"), "fpga close"));
  EXPECT_FALSE(controller.isPowerOn());
  EXPECT_EQ(instrument.console.output() + instrument.console.errors(), "");
}

TEST(Power, SequencesFlickerAndTimeOut) {
  const struct {
    const char* power;
    bool on;
    std::ptrdiff_t readings;
    const char* errors;
  } cases[] = {
      {"on-delay=0", true, 2, ""},
      {"on-delay=4.96", true, 250, ""},
      {"on-delay=never", true, 250, "Power on sequence done timed out\n"},
      {"on-delay=0.02\nflicker=yes", true, 5, "Power on done debounce check failed \n"},
      {"initially=on\non-delay=0\noff-delay=0", false, 1, ""},
      {"initially=on\non-delay=0\noff-delay=1.98", false, 100, ""},
      {"initially=on\non-delay=0\noff-delay=never", false, 100,
       "Power off sequence done timed out\n"},
  };
  for (const auto& test : cases) {
    PoweredModule instrument(powered + "[power 2]\n" + test.power);
    Udev_PCA9536& controller = instrument.controller;
    test.on ? controller.PowerOn() : controller.PowerOff();
    EXPECT_EQ(readings(instrument.takeTrace()), test.readings) << test.power;
    EXPECT_EQ(instrument.console.errors(), test.errors) << test.power;
    EXPECT_EQ(controller.isPowerOn(), test.on) << "nothing is undone";
  }
}

TEST(Power, AFirstReadingOfDoneOutlivesATimeOut) {
  PoweredModule instrument(powered +
                           "[power 2]\ninitially=on\non-delay=0\n[power 1]\ninitially=on\n");
  Udev_PCA9536& controller = instrument.controller;
  const Console& console = instrument.console;
  controller.WaitForPowerSequence(false, 20ms);
  EXPECT_EQ(readings(instrument.takeTrace()), 1);
  EXPECT_EQ(console.errors(), "Power on sequence done timed out\n");
  Udev_PCA9536(1).WaitForPowerSequence(false, 20ms);
  EXPECT_EQ(readings(instrument.takeTrace()), 1) << "confirmed at once, for any controller";
  EXPECT_EQ(console.errors(), "Power on sequence done timed out\n");

  for (const auto timeout : {0ms, -5ms}) {
    controller.WaitForPowerSequence(true, timeout);
    EXPECT_EQ(readings(instrument.takeTrace()), 0);
    EXPECT_THAT(console.errors(), HasSubstr("Power off sequence done timed out\n"));
  }
}

TEST(Power, SaysWhichLineCannotBeOpened) {
  PoweredModule instrument(powered +
                           "[power 2]\npower-enable=missing\nsequence-done=missing\noff-delay=0\n");
  Udev_PCA9536& controller = instrument.controller;
  const Console& console = instrument.console;
  EXPECT_FALSE(controller.isPowerOn());
  EXPECT_FALSE(controller.GpioExported());
  EXPECT_EQ(console.errors(), std::string("Can't open: ") + enable2 + "\n");
  EXPECT_FALSE(controller.PowerSequenceDone());
  controller.PowerOff();
  EXPECT_EQ(console.errors(), std::string("Can't open: ") + enable2 + "\nCan't open: " + done2 +
                                  "\nCan't open: " + enable2 + "\nCan't open: " + done2 + "\n");
}

TEST(Power, GpioExportedIsAboutThePowerEnableLine) {
  for (const bool exported : {true, false}) {
    const std::string missing = exported ? "sequence-done" : "power-enable";
    const PoweredModule instrument(powered + "[power 2]\n" + missing + "=missing\n");
    EXPECT_EQ(instrument.controller.GpioExported(), exported) << missing;
  }
}

TEST(Power, OfAnExpanderWithoutAChipHasNoLinks) {
  for (const char* gpio : {"none", "empty"}) {
    PoweredModule instrument(modules + "[power 1]\ninitially=on\n[expander 30-0041]\ngpio=" + gpio,
                             1);
    EXPECT_FALSE(instrument.controller.isPowerOn());
    EXPECT_EQ(instrument.console.errors(), "Can't open: /value\n") << gpio;
  }
}

TEST(Power, LinesAreFlushedWhenTheyAreDue) {
  PoweredModule instrument(powered + "[power 2]\non-delay=0\nflicker=yes\n[power 1]\n");
  Timeline timeline(instrument);
  instrument.controller.PowerOn();
  const std::vector<std::string> events = timeline.take();
  const auto failed =
      std::find(events.begin(), events.end(), "Power on done debounce check failed \n");
  ASSERT_NE(failed, events.end());
  EXPECT_EQ(*(failed - 1), read(done2, "1"));
  EXPECT_EQ(*(failed + 1), "sleep 20000 us");
  instrument.controller.WaitForPowerSequence(false, 0ms);
  instrument.controller.WaitForPowerSequence(true, 0ms);
  EXPECT_THAT(timeline.take(), ElementsAre("Power on sequence done timed out\n",
                                           "Power off sequence done timed out\n"));
  Udev_PCA9536(3).isPowerOn();
  EXPECT_EQ(timeline.take().back(), "Can't open: /value\n");
}

TEST(Power, GpioExportedWritesNothing) {
  PoweredModule instrument(powered + "[power 2]\ninitially=on\non-delay=0");
  EXPECT_TRUE(instrument.controller.GpioExported());
  EXPECT_THAT(instrument.takeTrace(), IsEmpty()) << "neither read nor written";
  EXPECT_EQ(contentOf(enable2), "1\n");
  EXPECT_TRUE(instrument.controller.PowerSequenceDone());
}

TEST(Power, LinksAreThoseOfTheModule) {
  const std::map<unsigned int, std::string> links = {
      {1, "gpio_module1"}, {2, "gpio_module2"}, {4, "gpio_2k_4k_a"}, {5, "gpio_2k_4k_b"}};
  for (const auto& [module, link] : links) {
    const std::string number = std::to_string(module);
    PoweredModule instrument("[module 2-0050]\nid=" + number + "\ntop=x\nsystem=i2c-9\n[power " +
                                 number + "]\non-delay=0\noff-delay=0\n[expander 9-0041]\n",
                             module);
    Udev_PCA9536& controller = instrument.controller;
    controller.PowerOn();
    const std::string enable = "/sys/platform/" + link + "_power_en/value";
    const bool polled = module < 4;
    const std::vector<std::string> trace = instrument.takeTrace();
    EXPECT_THAT(trace, Contains("write " + enable + " \"1\""));
    EXPECT_THAT(trace, Contains("clock on " + number));
    EXPECT_EQ(readings(trace), polled ? 2 : 0);
    EXPECT_TRUE(controller.isPowerOn());
    controller.PowerOff();
    EXPECT_EQ(readings(instrument.takeTrace()), polled ? 1 : 0);
    EXPECT_EQ(controller.PowerSequenceDone(), false);
    EXPECT_THAT(instrument.takeTrace(),
                ElementsAre("read /sys/platform/" + link + "_seq_done/value \"1\\n\""));
    EXPECT_EQ(instrument.console.errors(), "");
  }
}

TEST(Power, OfA2k4kModuleIsOnlyRecorded) {
  for (const unsigned int module : {1U, 4U}) {
    PoweredModule instrument(
        "[mux 2-0070]\n1=i2c-9\n[module 2-0050]\nid=" + std::to_string(module) +
            "\ntop=i2c-2/1\n2k4k=1\n[expander 9-0041]\n",
        module);
    Udev_PCA9536& controller = instrument.controller;
    EXPECT_FALSE(controller.isPowerOn());
    controller.PowerOn();
    EXPECT_TRUE(controller.isPowerOn());
    controller.PowerOff();
    EXPECT_FALSE(controller.isPowerOn());
    EXPECT_THAT(instrument.takeTrace(), IsEmpty());
    EXPECT_EQ(instrument.console.errors(), "");
  }
}

TEST(Power, IsPolledForEveryModuleBut4And5) {
  for (const unsigned int module : {0U, 3U, 6U}) {
    PoweredModule instrument(modules, module);
    instrument.controller.WaitForPowerSequence(true, 20ms);
    EXPECT_EQ(instrument.console.errors(), "Can't open: /value\n") << module;
  }
}

/// Counts what is asked of it.
class CountingPower : public PowerControlInterface {
 public:
  explicit CountingPower(std::string& calls) : record(calls) {}
  ~CountingPower() override { record += "~"; }
  std::string GetPath() override { return record += "?", ""; }
  bool isPowerOn() override {
    record += "=";
    return record.size() % 2 == 0;
  }
  void PowerOn() override { record += "+"; }
  void PowerOff() override { record += "-"; }

 private:
  std::string& record;
};

TEST(ModuleControllers, HandPowerOnToTheirPowerController) {
  std::string calls;
  ModuleControllerInterface* controller = new I2CModuleInterface(new CountingPower(calls));
  EXPECT_TRUE(controller->isPresent());
  EXPECT_EQ(calls, "") << "present without asking";
  EXPECT_FALSE(controller->isOn());
  EXPECT_TRUE(controller->isOn());
  controller->turnOn();
  controller->turnOff();
  delete controller;
  EXPECT_EQ(calls, "==+-~");

  EmptyModuleInterface empty;
  empty.turnOn();
  EXPECT_FALSE(empty.isPresent());
  EXPECT_FALSE(empty.isOn());
}

TEST(ModuleControllers, FitWhatIsFound) {
  const Modules instrument(powered + "[power 2]\n");
  for (const int slot : {-1, 0, 1, 2, 3, 7}) {
    const std::unique_ptr<ModuleControllerInterface> controller(
        ModuleControllerInterfaceFactory::createModuleInterface(slot));
    EXPECT_EQ(controller->isPresent(), slot == 1 || slot == 2) << slot;
    EXPECT_EQ(dynamic_cast<I2CModuleInterface*>(controller.get()) != nullptr,
              controller->isPresent());
  }
  EXPECT_EQ(ModuleI2CInfo::cache.count(4294967295U), 1U) << "a negative slot is a large number";
}

const std::string spb = "[board]\nstraps=100010\n";

TEST(Backplane, TellsWhichModulesArePresent) {
  const struct {
    int slot;
    const char* lines;
    bool present;
    const char* line;  // that is read besides the straps
  } cases[] = {{0, "80=low", true, "\"80\""},
               {0, "80=high", false, "\"80\""},
               {1, "127=low", true, "\"127\""},
               {1, "127=high", false, "\"127\""},
               {2, "133=low", true, "\"133\""},
               {2, "133=high", false, "\"133\""},
               {3, "134=low", true, "\"134\""},
               {3, "134=high", false, "\"134\""},
               {3, "134=missing", true, "\"134\""},
               {4, "", true, ""},
               {5, "80=low", true, "\"80\""},
               {5, "80=high", false, "\"80\""},
               {6, "", false, ""},
               {-1, "", false, ""}};
  for (const auto& test : cases) {
    Modules instrument(spb + "[gpio]\n" + test.lines);
    BackplaneInterface backplane;
    instrument.takeTrace();
    EXPECT_EQ(backplane.isModulePresent(test.slot), test.present) << test.slot << test.lines;
    std::string exported;
    for (const std::string& line : instrument.takeTrace()) {
      exported += line.find("export") != std::string::npos ? line.substr(line.find('"')) : "";
    }
    EXPECT_EQ(exported.find("\"167\"\"168\"\"169\"\"170\"\"171\"\"135\""), 0U) << exported;
    EXPECT_EQ(exported.substr(30).substr(0, 5), std::string(test.line)) << test.slot;
  }
  const Modules instrument(spb + "[gpio]\n127=high\n133=high\n134=high\n" + powered);
  const BackplaneInterface backplane;
  for (const int slot : {1, 2, 3}) {
    EXPECT_EQ(backplane.isModulePresent(slot), slot != 3) << "its expander was found";
  }
}

TEST(Backplane, SwitchesPowerAndClockInOrder) {
  Modules instrument(spb + powered + "[power 2]\non-delay=0\noff-delay=0\n");
  BackplaneInterface backplane;
  instrument.takeTrace();
  EXPECT_TRUE(backplane.turnModuleOn(2));
  EXPECT_THAT(instrument.takeTrace(),
              ElementsAre("fpga open", write(enable2, "1"), "clock on 2", read(done2, "0"),
                          "sleep 20000 us", read(done2, "0"), "fpga close", "clock on 2"));
  EXPECT_TRUE(backplane.isModuleOn(2));
  instrument.takeTrace();
  EXPECT_TRUE(backplane.turnModuleOff(2));
  EXPECT_THAT(instrument.takeTrace(),
              ElementsAre("clock off 2", "fpga open", "clock off 2", write(enable2, "0"),
                          read(done2, "1"), "fpga close"));
  EXPECT_FALSE(backplane.isModuleOn(2));

  instrument.takeTrace();
  EXPECT_TRUE(backplane.turnModuleOn(0));
  EXPECT_TRUE(backplane.turnModuleOff(0));
  EXPECT_FALSE(backplane.isModuleOn(0));
  EXPECT_THAT(instrument.takeTrace(), ElementsAre("clock on 0", "clock off 0"));
  for (const int slot : {-1, 6}) {
    EXPECT_FALSE(backplane.turnModuleOn(slot));
    EXPECT_FALSE(backplane.turnModuleOff(slot));
    EXPECT_FALSE(backplane.isModuleOn(slot));
  }
  EXPECT_THAT(instrument.takeTrace(), IsEmpty());
}

TEST(Backplane, OfOneSlotProbesThatSlotOnly) {
  Modules instrument(spb + "[gpio]\n127=high\n" + powered +
                     "[power 1]\ninitially=on\n[power 2]\ninitially=on\n");
  {
    BackplaneInterface backplane(2);
    EXPECT_THAT(instrument.takeTrace(), Not(Contains(HasSubstr("of_node/id \"1\""))));
    EXPECT_TRUE(backplane.isModuleOn(2));
    EXPECT_FALSE(backplane.isModulePresent(1)) << "has an expander, but no controller";
    EXPECT_TRUE(backplane.isModulePresent(4));
    for (const int slot : {1, 5}) {
      instrument.takeTrace();
      EXPECT_FALSE(backplane.isModuleOn(slot));
      EXPECT_TRUE(backplane.turnModuleOn(slot));
      EXPECT_TRUE(backplane.turnModuleOff(slot));
      EXPECT_THAT(instrument.takeTrace(), ElementsAre("clock on " + std::to_string(slot),
                                                      "clock off " + std::to_string(slot)));
    }
  }
  EXPECT_THAT(instrument.takeTrace(), ElementsAre("fpga close"));
  EXPECT_TRUE(BackplaneInterface(1).isModuleOn(1));
  EXPECT_FALSE(BackplaneInterface(-3).isModuleOn(0));
  EXPECT_FALSE(BackplaneInterface(7).isModuleOn(7));
}

TEST(Backplane, OfSlot0IsNamedByAZeroOfAnyType) {
  const Modules instrument("[module 2-0050]\nid=0\ntop=x\nsystem=i2c-9\n[expander 9-0041]\n");
  EXPECT_TRUE(BackplaneInterface(0).isModulePresent(0)) << "its expander was found";
  EXPECT_TRUE(BackplaneInterface(0U).isModulePresent(0));
  EXPECT_TRUE(BackplaneInterface(0L).isModulePresent(0));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion-null"
  EXPECT_TRUE(BackplaneInterface(NULL).isModulePresent(0));  // NOLINT(modernize-use-nullptr)
#pragma GCC diagnostic pop
  EXPECT_FALSE(BackplaneInterface(1U).isModulePresent(0));
}

TEST(Backplane, ReleasesItsControllers) {
  const Modules instrument(powered);
  const auto useTwo = [] {
    const BackplaneInterface all;
    const BackplaneInterface one(2);
  };
  useTwo();  // what is taken once
  const long before = heldBlocks();
  useTwo();
  EXPECT_EQ(heldBlocks(), before);
}

TEST(Backplane, ReleasesWhatItHasWhenItCannotBeSetUp) {
  {
    Modules instrument(spb + "[faults]\nfpga=on");
    EXPECT_THROW(BackplaneInterface{}, std::runtime_error);
    EXPECT_THAT(instrument.takeTrace(), ElementsAre("fpga open: refused"));
  }
  // Slots 0 to 2 have their controllers when slot 3 fails.
  Modules instrument(spb + powered + "[module 2-0050]\nid=3\ntop=i2c-2/x\n");
  EXPECT_THROW(BackplaneInterface{}, std::invalid_argument);
  EXPECT_EQ(instrument.takeTrace().back(), "fpga close");
  EXPECT_THROW(BackplaneInterface{3}, std::invalid_argument);
  EXPECT_EQ(instrument.takeTrace().back(), "fpga close");
}

TEST(Backplane, AsksForTheLinkOfTheSlotsPort) {
  const char* const ports[] = {"port1", "port9", "port7", "port5"};
  for (int slot = 0; slot < 4; ++slot) {
    const Modules instrument(std::string("[pci]\nshim=1\n[pci ") + ports[slot] + "]\nlink=down\n");
    const BackplaneInterface backplane;
    for (int asked = -1; asked < 7; ++asked) {
      EXPECT_EQ(backplane.isModuleLinkUp(asked), asked >= 0 && asked < 4 && asked != slot)
          << asked << " with " << ports[slot] << " down";
    }
  }
  Modules instrument("[pci]\n");
  const BackplaneInterface backplane;
  instrument.takeTrace();
  EXPECT_TRUE(backplane.isModuleLinkUp(1));
  EXPECT_EQ(instrument.takeTrace().front(), "pci_system_init");
  EXPECT_EQ(instrument.milliseconds(), 100);
  EXPECT_FALSE(backplane.isModuleLinkUp(4));
  EXPECT_EQ(instrument.takeTrace().front(), "pci_system_init") << "whatever the slot";
}

}  // namespace
