#include "simulator/SimulatedInstrument.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/pci_regs.h>
#include <sys/file.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "simulator/Power.h"

namespace simulator {

namespace {

namespace fs = std::filesystem;

// Held locked by the process of an instrument for as long as it lives.
constexpr char lockName[] = "talvero-sim.lock";

void createFile(const fs::path& file, const std::string& content = "") {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << content;
}

int createLock(const fs::path& root) {
  // Named only once it is locked, so that nobody takes the new instrument for an abandoned one.
  const fs::path draft = root / "lock";
  const int fd = ::open(draft.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || flock(fd, LOCK_EX) != 0) {
    throw std::system_error(errno, std::generic_category(), draft.string());
  }
  fs::rename(draft, root / lockName);
  return fd;
}

void createGpioClass(const fs::path& root) {
  const fs::path directory = root / "sys/class/gpio";
  createFile(directory / ".talvero-sim");
  createFile(directory / "export");
  createFile(directory / "unexport");
  createFile(directory / "gpiochip0/base", "0\n");
  createFile(directory / "gpiochip0/label", "talvero-sim\n");
  createFile(directory / "gpiochip0/ngpio", std::to_string(gpioLineCount) + "\n");
}

/// The I2C buses and devices of a description, as udev shows them.
class I2cTree {
 public:
  I2cTree(UMockdevTestbed* owner, const fs::path& treeRoot, const Description& instrument)
      : testbed(owner), root(treeRoot), description(instrument) {}

  /// Creates everything; returns the path of the device that cannot be opened, if there is one.
  std::string create() {
    std::string unopenable;
    for (const auto& [name, device] : description.i2cDevices) {
      const std::string path = createDevice(name, device);
      unopenable = device.openable ? unopenable : path;
    }
    return unopenable;
  }

 private:
  using I2cDevice = Description::I2cDevice;

  static std::string busOf(const std::string& deviceName) {
    return "i2c-" + deviceName.substr(0, deviceName.find('-'));
  }

  std::string add(const std::string& name, const std::string& parent, const std::string& text) {
    char* path = umockdev_testbed_add_device(testbed, "i2c", name.c_str(),
                                             parent.empty() ? nullptr : parent.c_str(), "name",
                                             (text + "\n").c_str(), nullptr, nullptr);
    if (path == nullptr) {
      throw std::runtime_error("cannot create the I2C device " + name);
    }
    std::string result = path;
    g_free(path);
    return result;
  }

  /// The path of a bus, which is created if it is not there yet. A bus behind a multiplexer lies
  /// below the multiplexer's bus.
  std::string bus(const std::string& name) {
    if (buses.count(name) == 0) {
      std::string parent;
      for (const auto& [muxName, mux] : description.i2cDevices) {
        for (const auto& [channel, behind] : mux.channels) {
          if (behind == name && busOf(muxName) != name) {
            parent = bus(busOf(muxName));
          }
        }
      }
      buses[name] = add(name, parent, "simulated bus");
    }
    return buses[name];
  }

  std::string createDevice(const std::string& name, const I2cDevice& device) {
    std::string path = add(name, bus(busOf(name)), device.name);
    for (const auto& [key, value] : device.properties) {
      createFile(treePath(path) / "of_node" / key, value);
    }
    for (const auto& [channel, behind] : device.channels) {
      fs::create_symlink("../" + behind, treePath(path) / ("channel-" + std::to_string(channel)));
      fs::create_symlink("../" + name, treePath(bus(behind)) / "mux_device");
    }
    createGpio(path, device.gpio);
    return path;
  }

  void createGpio(const std::string& path, I2cDevice::Gpio gpio) {
    if (gpio == I2cDevice::Gpio::none) {
      return;
    }
    fs::create_directories(treePath(path) / "gpio");
    if (gpio == I2cDevice::Gpio::chip) {
      // The kernel assigns the numbers at run time, from 512 upward.
      const std::string base = std::to_string(nextGpioBase);
      nextGpioBase += linesOfAnExpander;
      createFile(treePath(path) / "gpio" / ("gpiochip" + base) / "base", base + "\n");
      createFile(treePath(path) / "gpiochip0" / "dev", "254:0\n");
    }
  }

  fs::path treePath(const std::string& path) const { return fs::path(root.string() + path); }

  static constexpr int linesOfAnExpander = 4;

  UMockdevTestbed* testbed;
  fs::path root;
  const Description& description;
  std::map<std::string, std::string> buses;
  int nextGpioBase = 512;
};

void createPowerLinks(const fs::path& root, const Description& description) {
  const fs::path directory = root / "sys/platform";
  for (unsigned int module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = description.power[module];
    if (power.present && !power.enableMissing) {
      createFile(directory / power::enableLink(module) / "value");
    }
    if (power.present && !power.doneMissing) {
      createFile(directory / power::doneLink(module) / "value");
    }
  }
}

std::string hexText(std::uint32_t number) {
  std::ostringstream text;
  text << "0x" << std::hex << number << "\n";  // libpciaccess wants the line end
  return text.str();
}

/// What libpciaccess reads when it discovers a device.
void createPciDevice(const fs::path& root, const PciDevice& device) {
  char name[32];
  std::snprintf(name, sizeof name, "0000:%02x:%02x.0", device.bus, device.device);
  const fs::path directory = root / "sys/bus/pci/devices" / name;
  const auto* const config = reinterpret_cast<const char*>(device.config);
  const auto word = [&](std::size_t offset) {
    std::uint16_t value = 0;
    std::memcpy(&value, device.config + offset, sizeof value);
    return value;
  };
  createFile(directory / "config", std::string(config, sizeof device.config));
  createFile(directory / "vendor", hexText(word(PCI_VENDOR_ID)));
  createFile(directory / "device", hexText(word(PCI_DEVICE_ID)));
  createFile(directory / "class",
             hexText(std::uint32_t{word(PCI_CLASS_DEVICE)} << 8 | device.config[PCI_CLASS_PROG]));
  createFile(directory / "revision", hexText(device.config[PCI_REVISION_ID]));
  createFile(directory / "subsystem_vendor", hexText(0));
  createFile(directory / "subsystem_device", hexText(0));
  createFile(directory / "irq", "0\n");
  createFile(directory / "resource", "");
}

void createPciDevices(const fs::path& root, const Description& description) {
  if (!description.pciSystem) {
    return;
  }
  fs::create_directories(root / "sys/bus/pci/devices");
  for (const PciDevice& device : description.pci) {
    if (device.present) {
      createPciDevice(root, device);
    }
  }
}

void initialise(State& state, const std::string& root, const std::string& traceFile,
                const Description& description, bool fast) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&state.mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  root.copy(state.root, sizeof state.root - 1);
  traceFile.copy(state.trace, sizeof state.trace - 1);
  state.fast = fast;
  state.started = hostTime();
  std::copy(std::begin(description.lines), std::end(description.lines), state.lines);
  std::copy(std::begin(description.faults), std::end(description.faults), state.faults);
  std::copy(std::begin(description.pci), std::end(description.pci), state.pci);
  std::copy(std::begin(description.power), std::end(description.power), state.power);
}

std::string ownLibrary() {
  Dl_info library{};
  dladdr(reinterpret_cast<const void*>(&attach), &library);
  return fs::absolute(library.dli_fname).string();
}

/// umockdev ends the process when it has no place for its tree.
UMockdevTestbed* createTestbed() {
  const fs::path directory = g_get_tmp_dir();
  if (!directory.is_absolute() || access(directory.c_str(), W_OK | X_OK) != 0) {
    throw std::runtime_error("no directory for temporary files: " + directory.string() +
                             " (TMPDIR)");
  }
  return umockdev_testbed_new();
}

/// AddressSanitizer's run-time library, in a build that uses it: it insists on coming first.
std::string sanitizerLibrary() {
  Dl_info library{};
  const void* symbol = dlsym(RTLD_DEFAULT, "__asan_init");
  return symbol != nullptr && dladdr(symbol, &library) != 0 ? std::string(library.dli_fname) + ":"
                                                            : "";
}

}  // namespace

SimulatedInstrument::SimulatedInstrument(const Description& description)
    : SimulatedInstrument(description, Options()) {}

SimulatedInstrument::SimulatedInstrument(const Description& description, const Options& options)
    : testbed(createTestbed()) {
  try {
    char* directory = umockdev_testbed_get_root_dir(testbed);
    root = directory;
    g_free(directory);
    traceFile = options.trace.empty() ? root + "/trace" : fs::absolute(options.trace).string();
    if (!std::ofstream(traceFile)) {
      throw std::runtime_error(traceFile + ": cannot be written");
    }
    lock = createLock(root);
    createGpioClass(root);
    const std::string unopenable = I2cTree(testbed, root, description).create();
    createPowerLinks(root, description);
    createPciDevices(root, description);
    const std::string stateFile = root + "/state";
    createFile(stateFile, std::string(sizeof(State), '\0'));
    attach(stateFile.c_str());
    initialise(*state(), root, traceFile, description, options.fast);
    unopenable.copy(state()->unopenableDevice, sizeof state()->unopenableDevice - 1);
  } catch (...) {
    release();
    throw;
  }
}

SimulatedInstrument::~SimulatedInstrument() { release(); }

void SimulatedInstrument::release() {
  detach();
  g_object_unref(testbed);
  if (lock >= 0) {
    ::close(lock);
  }
}

std::vector<std::string> SimulatedInstrument::takeTrace() {
  std::ifstream file(traceFile);
  file.seekg(traceTaken);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    traceTaken += static_cast<std::streamoff>(line.size()) + 1;
    lines.push_back(line);
  }
  return lines;
}

void SimulatedInstrument::requireTrace() const {
  if (state()->traceLost) {
    throw std::runtime_error(traceFile + ": the trace cannot be written");
  }
}

std::int64_t SimulatedInstrument::milliseconds() const { return now(*Locked()) / 1000; }

void SimulatedInstrument::setProgramEnvironment() const {
  const std::string library = ownLibrary();
  if (library.find_first_of(" :") != std::string::npos) {
    throw std::runtime_error(library + ": the dynamic linker preloads no path with space or colon");
  }
  std::string preload = sanitizerLibrary() + library + ":libumockdev-preload.so.0";
  if (const char* before = std::getenv("LD_PRELOAD")) {
    preload += std::string(":") + before;
  }
  setenv("LD_PRELOAD", preload.c_str(), 1);
  setenv(stateVariable, (root + "/state").c_str(), 1);
}

void removeAbandonedInstruments() {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(g_get_tmp_dir(), ignored)) {
    const int fd = ::open((entry.path() / lockName).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
      fs::remove_all(entry.path(), ignored);
    }
    ::close(fd);
  }
}

}  // namespace simulator
