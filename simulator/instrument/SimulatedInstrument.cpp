// SPDX-License-Identifier: MIT
#include "simulator/instrument/SimulatedInstrument.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "simulator/instrument/RunningInstruments.h"
#include "simulator/parts/Changes.h"
#include "simulator/parts/Part.h"
#include "simulator/shared/Clock.h"
#include "simulator/shared/State.h"

namespace simulator {

namespace {

namespace fs = std::filesystem;

/// Locks a new directory; -1 when it has been taken for an abandoned one before that, and removed.
int createLock(const fs::path& root) {
  const fs::path file = root / lockName;
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 ? errno != ENOENT : flock(fd, LOCK_EX) != 0) {
    throw std::system_error(errno, std::generic_category(), file.string());
  }
  struct stat own {};
  struct stat named {};
  if (fd >= 0 && fstat(fd, &own) == 0 && stat(file.c_str(), &named) == 0 &&
      own.st_ino == named.st_ino) {
    return fd;
  }
  ::close(fd);
  return -1;
}

/// Has room for all of the state at once: a hole in it would end programs by SIGBUS on a full disk.
void createState(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const int error = fd < 0 ? errno : posix_fallocate(fd, 0, sizeof(State));
  ::close(fd);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), file);
  }
}

void initialise(State& state, const std::string& root, const std::string& traceFile,
                const Hardware& hardware, const SimulatedInstrument::Options& options) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&state.mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  state.process = getpid();
  options.name.copy(state.name, sizeof state.name - 1);
  root.copy(state.root, sizeof state.root - 1);
  if (traceFile != "/dev/null") {  // umockdev keeps a socket for each time that a device is opened
    traceFile.copy(state.trace, sizeof state.trace - 1);
  }
  state.timestamps = options.timestamps;
  state.fast = options.fast;
  state.started = hostTime();
  state.moment = -1;
  state.hardware = hardware;
  state.hardware.random = options.seed;
}

std::string ownLibrary() {
  Dl_info library{};
  dladdr(reinterpret_cast<const void*>(&attach), &library);
  return fs::absolute(library.dli_fname).string();
}

/// The directory of a new instrument, which umockdev shows from now on.
std::string createRoot() {
  const fs::path directory = temporaryDirectory();
  std::string root = (directory / directoryStart).string() + "XXXXXX";
  if (!directory.is_absolute() || mkdtemp(root.data()) == nullptr) {
    throw std::runtime_error("no directory for temporary files: " + directory.string() +
                             " (TMPDIR)");
  }
  setenv(rootVariable, root.c_str(), 1);
  return root;
}

/// AddressSanitizer's run-time library, in a build that uses it: it insists on coming first.
std::string sanitizerLibrary() {
  Dl_info library{};
  const void* symbol = dlsym(RTLD_DEFAULT, "__asan_init");
  return symbol != nullptr && dladdr(symbol, &library) != 0 ? std::string(library.dli_fname) + ":"
                                                            : "";
}

}  // namespace

SimulatedInstrument::SimulatedInstrument(const Hardware& hardware)
    : SimulatedInstrument(hardware, Options()) {}

SimulatedInstrument::SimulatedInstrument(const Hardware& hardware, const Options& options)
    : root(createRoot()) {
  try {
    while ((lock = createLock(root)) < 0) {
      root = createRoot();
    }
    traceFile = options.trace.empty() ? root + "/trace" : fs::absolute(options.trace).string();
    if (!std::ofstream(traceFile)) {
      throw std::runtime_error(traceFile + ": cannot be written");
    }
    const std::string stateFile = root + "/state";
    createState(stateFile);
    State& shared = attach(stateFile.c_str());
    initialise(shared, root, traceFile, hardware, options);
    settle(shared);
    shared.hardware.running = true;
    changeFiles(root, {}, treeOf(shared.hardware));
    requireTree();
  } catch (...) {
    release();
    throw;
  }
}

SimulatedInstrument::~SimulatedInstrument() { release(); }

void SimulatedInstrument::release() {
  if (state() != nullptr) {
    state()->ended = true;
  }
  detach();
  std::error_code ignored;
  fs::remove_all(root, ignored);
  unsetenv(rootVariable);
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

void SimulatedInstrument::set(const std::vector<std::string>& settings) { setKeys(settings); }

std::chrono::microseconds SimulatedInstrument::makeChanges() {
  const std::int64_t second = 1000000;
  const Locked state;
  simulator::makeChanges(*state);
  const std::int64_t next = nextChange(state->hardware);
  return std::chrono::microseconds(std::clamp<std::int64_t>(next - now(*state), 0, second));
}

Hardware SimulatedInstrument::hardware() const {
  const Locked state;
  simulator::makeChanges(*state);
  state->hardware.time = now(*state);
  return state->hardware;
}

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

}  // namespace simulator
