#pragma once

#include <pthread.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdint>
#include <string>

/// The state of the simulated instrument, shared by all processes that run on it, and the few
/// functions that every simulated part stands on.
///
/// The state lives in a file that each process maps, so that a shell script of several BIST
/// programs works on one instrument. It holds plain data only.
namespace simulator {

/// A line of the board's GPIO chip.
struct GpioLine {
  enum class Condition : std::uint8_t {
    working,
    missing,      ///< the kernel knows no line of this number
    noDirection,  ///< exported without a direction file
    noValue,      ///< the value file cannot be opened
  };
  Condition condition;
  bool level;  ///< what the hardware outside drives on the line
  bool exported;
  bool output;
  bool driven;  ///< the level of an output
};

constexpr int gpioLineCount = 256;

/// A device of the PCI Express fabric, function 0 in domain 0.
struct PciDevice {
  bool present;
  bool unreadable;  ///< every access to its configuration space fails
  std::uint8_t bus;
  std::uint8_t device;

  // Link and errors. Times are microseconds, negative for never.
  bool linkUp;
  std::int64_t linkLostAfter;  ///< from the start of the instrument
  std::uint16_t linkStatus;    ///< Link Status register while the link is up
  std::int64_t trainingUntil;
  std::uint32_t uncorrectable;  ///< error status that latches again whenever it is cleared
  std::uint32_t correctable;

  // Self-test of a downstream port.
  bool loopbackRefused;  ///< its switch does not become loopback master
  bool prbsOutOfSync;
  std::int64_t prbsErrorsAfter;  ///< from when PRBS is switched on
  std::uint32_t prbsErrorsPerSecond;
  std::int64_t prbsSince;

  std::uint8_t config[4096];
  std::uint8_t stuck[4096];  ///< bits that no write changes
};

enum PciPlace : unsigned {
  rootPort,
  switchUpstream,
  port1,
  port5,
  port7,
  port9,
  shimUpstream,
  shimPort1,
  shimPort5,
  pciPlaceCount
};

constexpr const char* pciPlaceNames[pciPlaceCount] = {
    "root", "switch", "port1", "port5", "port7", "port9", "shim", "shim-port1", "shim-port5"};

/// The power of a module, as its GPIO links below /sys/platform show it.
struct PowerSequence {
  bool present;  ///< the module has links
  bool enableMissing;
  bool doneMissing;
  bool flickers;  ///< the first done reading does not last
  bool enabled;
  std::int64_t switchedAt;  ///< microseconds
  std::int64_t onDelay;     ///< microseconds; negative for never
  std::int64_t offDelay;
};

/// Modules are numbered as the slots, 0 to 5; four of them have power links.
constexpr unsigned int moduleCount = 6;

/// Faults that a description switches on by name.
enum Fault : unsigned {
  udevContext,
  udevEnumeration,
  gpioExport,
  interruptedSleep,
  fpgaAccess,
  busLookup,
  faultCount
};

constexpr const char* faultNames[faultCount] = {
    "udev-context", "udev-enumeration", "gpio-export", "interrupted-sleep", "fpga", "bus-lookup"};

struct State {
  pthread_mutex_t mutex;
  char root[PATH_MAX];          ///< umockdev's directory; the simulated /sys is below it
  char trace[PATH_MAX];         ///< file that receives the trace; empty for none
  std::atomic<bool> traceLost;  ///< a line could not be written
  bool fast;                    ///< sleeps advance the clock instead of sleeping
  std::int64_t started;         ///< host's clock when the instrument started, microseconds
  std::int64_t slept;           ///< clock in fast mode, microseconds
  bool faults[faultCount];
  GpioLine lines[gpioLineCount];
  PciDevice pci[pciPlaceCount];
  PowerSequence power[moduleCount];
  bool clocks[moduleCount];         ///< clock sources that are on
  char unopenableDevice[PATH_MAX];  ///< sysfs path of the device that libudev cannot open
};

/// The environment variable that names the state file to the programs that run on the instrument.
constexpr char stateVariable[] = "TALVERO_SIM_STATE";

/// Puts the instrument of the given state file behind this process, which has umockdev's directory,
/// the parent directory of the file, in its environment. Ends the process with one line on standard
/// error when the simulated /sys is not in place.
void attach(const char* stateFile);

/// Takes the instrument away again, if there is one.
void detach();

/// The state, for the process that sets it up; everybody else takes it Locked. Null when no
/// instrument is attached.
State* state();

bool attached();

/// Ends the process unless an instrument is attached: `access` would reach the host's hardware.
void requireInstrument(const char* access);

/// Access to the state, for one holder at a time. Signals wait meanwhile: a handler may access it
/// too.
class Locked {
 public:
  Locked();
  ~Locked();
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  State* operator->() const;
  State& operator*() const;

 private:
  sigset_t signals;  // blocked before
};

/// Whether a fault is switched on; false without an instrument.
bool faultIsOn(Fault fault);

/// Time since the instrument started, microseconds, on the host's clock or, in fast mode, on the
/// instrument's own.
std::int64_t now(const State& state);

/// The host's clock, microseconds.
std::int64_t hostTime();

/// Appends a line to the trace. What happens inside a call that is itself in the trace, such as
/// libudev's own reading of /sys, is left out: see Nested.
void trace(const std::string& line);

/// Appends "line" or, for a refused access, "line: ENOENT" and the like.
void traceResult(const std::string& line, int error);

/// Text in double quotes, with line ends and other control characters escaped.
std::string inQuotes(const std::string& text);

/// While one exists, this thread's file accesses belong to a traced call and are not traced.
class Nested {
 public:
  Nested();
  ~Nested();
  Nested(const Nested&) = delete;
  Nested& operator=(const Nested&) = delete;
};

bool nested();

}  // namespace simulator
