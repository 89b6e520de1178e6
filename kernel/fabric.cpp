// SPDX-License-Identifier: MIT
// What the instrument's PCIe switches do: in a guest, their registers beyond the standard ones are
// memory. At the start they show all links up and a PRBS checker in sync; afterwards a one that is
// written to latched error status clears it. Goes into the background once all is shown.
//
// The kernel tells of a write at once. On the guest's one processor, a process with a priority of
// real time answers it before the writer goes on.

#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>

namespace {

enum class Kind { upstream, downstream };

struct Bridge {
  const char* device;
  Kind kind;
};

constexpr Bridge bridges[] = {
    {"0000:01:00.0", Kind::upstream},   {"0000:02:01.0", Kind::downstream},
    {"0000:02:05.0", Kind::downstream}, {"0000:02:07.0", Kind::downstream},
    {"0000:02:09.0", Kind::downstream}, {"0000:06:00.0", Kind::upstream},
    {"0000:07:01.0", Kind::downstream}, {"0000:07:05.0", Kind::downstream},
};

struct Value {
  Kind kind;
  off_t offset;
  std::uint32_t value;
};

constexpr Value atTheStart[] = {
    {Kind::upstream, 0x1F4, 0x00000F00},   // links
    {Kind::upstream, 0x244, 0x40000000},   // the PRBS error counter is valid, and 0
    {Kind::upstream, 0xB84, 0x000F0000},   // the PRBS checkers are in sync
    {Kind::downstream, 0x78, 0x20000000},  // data link active
};

constexpr off_t latchedErrors[] = {0xFB8, 0xFC4};

std::string configOf(const Bridge& bridge) {
  return std::string("/sys/bus/pci/devices/") + bridge.device + "/config";
}

void clearLatchedErrors(int config) {
  for (const off_t offset : latchedErrors) {
    std::uint32_t value = 0;
    if (pread(config, &value, sizeof value, offset) == sizeof value && value != 0) {
      value = 0;
      pwrite(config, &value, sizeof value, offset);
    }
  }
}

}  // namespace

int main() {
  sched_param priority{};
  priority.sched_priority = 1;
  if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
    std::perror("sched_setscheduler");
    return 1;
  }
  const int events = inotify_init1(IN_CLOEXEC);
  int configs[std::size(bridges) + 1] = {};  // by the number of the watch, from 1
  for (const Bridge& bridge : bridges) {
    const int config = open(configOf(bridge).c_str(), O_RDWR | O_CLOEXEC);
    const int watch = inotify_add_watch(events, configOf(bridge).c_str(), IN_MODIFY);
    if (config < 0 || watch < 1 || watch > static_cast<int>(std::size(bridges))) {
      std::perror(bridge.device);
      return 1;
    }
    configs[watch] = config;
    for (const Value& value : atTheStart) {
      if (value.kind == bridge.kind) {
        pwrite(config, &value.value, sizeof value.value, value.offset);
      }
    }
  }
  if (daemon(0, 1) != 0) {
    std::perror("daemon");
    return 1;
  }
  inotify_event event{};
  while (read(events, &event, sizeof event) == sizeof event) {
    clearLatchedErrors(configs[event.wd]);
  }
}
