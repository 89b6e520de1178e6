// SPDX-License-Identifier: MIT
// Descriptions of instruments, captured ones too: refused with a line that says why, or what is
// written of them is the same instrument, whose files are all below /sys.
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <set>
#include <sstream>

#include "fuzz/Input.h"
#include "simulator/instrument/DescriptionFile.h"
#include "simulator/parts/Part.h"

namespace {

using simulator::Hardware;

bool isBelowSys(const std::filesystem::path& path) {
  return path.lexically_normal().string().rfind("/sys/", 0) == 0;
}

void checkFiles(const Hardware& hardware) {
  const auto state = std::make_unique<simulator::State>();
  state->moment = 0;
  state->hardware = hardware;
  simulator::settle(*state);
  for (const auto& [path, file] : simulator::treeOf(state->hardware)) {
    require(isBelowSys(path));
    require(!S_ISLNK(file.mode) ||
            isBelowSys(std::filesystem::path(path).parent_path() / file.content));
  }
}

/// What a description says, in whatever order: each line with its group.
std::multiset<std::string> statementsOf(const std::string& description) {
  std::multiset<std::string> statements;
  std::istringstream text(description);
  std::string group;
  for (std::string line; std::getline(text, line);) {
    group = line.rfind('[', 0) == 0 ? line : group;
    statements.insert(group + line);
  }
  return statements;
}

void checkWritten(const Hardware& hardware) {
  const std::string text = simulator::descriptionFile({"again", ""}, hardware);
  const auto again = std::make_unique<Hardware>(simulator::parseDescription(text));
  require(statementsOf(simulator::descriptionFile({"again", ""}, *again)) == statementsOf(text));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::unique_ptr<Hardware> hardware;
  try {
    hardware = std::make_unique<Hardware>(
        simulator::parseDescription(std::string(reinterpret_cast<const char*>(data), size)));
  } catch (const simulator::DescriptionError& reason) {
    require(std::string(reason.what()).find('\n') == std::string::npos);
    return 0;
  }
  checkFiles(*hardware);
  // Describing thousands of registers takes a hundred times as long as reading what differs.
  if (!hardware->pciSystem || size % 16 == 0) {
    checkWritten(*hardware);
  }
  return 0;
}
