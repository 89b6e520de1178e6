// SPDX-License-Identifier: MIT
#include "bist/Machine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "bist/Report.h"
#include "board/BoardId.h"
#include "sysfs/SysfsUtil.h"

namespace {

constexpr char spbOption[] = "--spb-despite-straps";

bool spbDespiteStraps = false;

std::vector<std::string> readStraps() {
  std::vector<std::string> lines;
  SysfsUtil sysfs;
  for (const char* const line : strapLines) {
    bool success = false;
    sysfs.readGpioValue(line, &success);
    if (!success) {
      lines.emplace_back(line);
    }
  }
  return lines;
}

}  // namespace

const std::vector<std::string>& unreadableStraps() {
  static const std::vector<std::string> lines = readStraps();
  return lines;
}

void addSpbOption(CLI::App& app) {
  app.add_flag(spbOption, spbDespiteStraps,
               "take the board for an SPB whatever its straps say, for the bring-up of a board "
               "whose straps are broken")
      ->disable_flag_override();
}

bool isSpb() { return spbDespiteStraps || BoardId().isSPB(); }

void requireInstrument() {
  errno = 0;
  // Any line will do; a BoardId exports this one as well.
  if (!SysfsUtil().exportGpio(strapLines[0])) {
    const int error = errno;
    const std::string reason =
        std::string("/sys/class/gpio/export cannot be opened (") + std::strerror(error) + ")";
    if (error == EACCES || error == EPERM) {
      throw std::runtime_error("no rights to use the GPIO lines: " + reason + ". Run it as root");
    }
    throw std::runtime_error("no instrument here: " + reason +
                             ". On a workstation, run it on a simulated one: talvero-sim -- "
                             "talvero-bist report");
  }
  const std::vector<std::string>& unreadable = unreadableStraps();
  if (unreadable.size() == std::size(strapLines) && !spbDespiteStraps) {
    throw std::runtime_error("no instrument here: none of the strap lines can be read (" +
                             joined(unreadable) + ")");
  }
}

void requireSpb(const std::string& command) {
  if (isSpb()) {
    return;
  }
  const BoardId board;
  const std::vector<std::string>& unreadable = unreadableStraps();
  throw std::runtime_error(command + " needs an SPB, and by its straps this board is " +
                           std::to_string(board.id) + " (" + board.idBitString + "), " +
                           board.idDescription +
                           (unreadable.empty() ? "" : "; cannot be read: " + joined(unreadable)) +
                           ". " + spbOption + " overrules the straps");
}
