// SPDX-License-Identifier: MIT
// Command lines of both programs, one argument a line, the program's name first. They are read, and
// nothing is done of them.
#include <stdexcept>
#include <vector>

#include "bist/CommandLine.h"
#include "fuzz/Input.h"
#include "simulator/CommandLine.h"

namespace {

void readSim(int count, const char* const* arguments) {
  Arguments read;
  const std::optional<int> status = readCommandLine(count, arguments, read);
  require(!status || *status == 0 || *status == usageError);
  require(status || read.list || read.show || read.set || !read.program.empty());
}

void readBist(int count, const char* const* arguments) {
  try {
    const Call call = readCall(count, arguments);
    require(call.command != nullptr || call.exitStatus == pass ||
            call.exitStatus == usageOrNoHardware);
  } catch (const std::runtime_error&) {  // a file's name
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  beSilent();
  Input input(data, size);
  std::vector<std::string> words;
  do {
    words.push_back(input.text('\n'));
  } while (!input.empty());
  std::vector<const char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(word.c_str());
  }
  (words[0] == "talvero-sim" ? readSim : readBist)(static_cast<int>(arguments.size()),
                                                   arguments.data());
  return 0;
}
