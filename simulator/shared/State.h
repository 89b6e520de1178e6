// SPDX-License-Identifier: MIT
#pragma once

#include <pthread.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdint>
#include <string>

#include "simulator/shared/Hardware.h"
#include "simulator/shared/VirtualClock.h"

/// The state of the simulated instrument, shared by all processes that run on it.
///
/// The state lives in a file that each process maps, so that a shell script of several BIST
/// programs works on one instrument. It holds plain data only.
namespace simulator {

struct State {
  pthread_mutex_t mutex;
  pid_t process;                ///< that talvero-sim, or another instrument, is
  char name[textSize];          ///< by which it is found; empty for none
  char root[PATH_MAX];          ///< umockdev's directory; the simulated /sys is below it
  char trace[PATH_MAX];         ///< file that receives the trace; empty for none
  bool timestamps;              ///< its lines begin with time and process
  std::atomic<bool> traceLost;  ///< a line could not be written
  std::atomic<bool> ended;      ///< talvero-sim is gone, and the tree with it
  bool fast;                    ///< sleeps advance the clock instead of sleeping
  std::int64_t started;         ///< host's clock when the instrument started, microseconds
  std::int64_t moment;          ///< of a change while it is made, late perhaps; or negative
  VirtualClock clock;           ///< in fast mode
  Hardware hardware;
};

/// The environment variable that names the state file to the programs that run on the instrument.
constexpr char stateVariable[] = "TALVERO_SIM_STATE";

/// The one that names the root directory of the simulated file system to umockdev.
constexpr char rootVariable[] = "UMOCKDEV_DIR";

/// Puts the instrument of the given state file behind this process, which has umockdev's directory,
/// the parent directory of the file, in its environment. Ends the process with one line on standard
/// error if it cannot.
State& attach(const char* stateFile);

/// Ends the process with one line on standard error when the simulated /sys is not in place.
void requireTree();

/// Takes the instrument away again, if there is one.
void detach();

/// The state, for the process that sets it up; everybody else takes it Locked. Null when no
/// instrument is attached.
State* state();

bool attached();

/// Ends the process with one line on standard error.
[[noreturn]] void endProcess(const std::string& reason);

/// Ends the process unless an instrument is attached: `access` would reach the host's hardware.
void requireInstrument(const char* access);

/// Ends a process that has outlived its instrument.
void requireRunning();

/// Access to the state, for one holder at a time. Signals wait meanwhile: a handler may access it
/// too. Requires a running instrument.
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

/// Whether a fault is switched on; false without an instrument. Takes the state itself: who holds
/// it already asks hardware.faults.
bool faultIsOn(Fault fault);

}  // namespace simulator
