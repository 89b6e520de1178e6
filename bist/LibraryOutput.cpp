// SPDX-License-Identifier: MIT
#include "bist/LibraryOutput.h"

#include <stdexcept>

LibraryOutput::LibraryOutput(const std::string& traceFileName)
    : standardOutput(std::cout.rdbuf()),
      standardError(std::cerr.rdbuf()),
      ownOutput(standardOutput),
      traceName(traceFileName) {
  if (!traceName.empty()) {
    traceFile.open(traceName);
    requireTrace();
  }
  std::cout.rdbuf(traces.rdbuf());
  std::cerr.rdbuf(failures.rdbuf());
}

LibraryOutput::~LibraryOutput() {
  std::cout.rdbuf(standardOutput);
  std::cerr.rdbuf(standardError);
}

std::vector<std::string> LibraryOutput::takeMessages(bool withTrace) {
  std::istringstream text((withTrace ? traces.str() : "") + failures.str());
  if (!traceName.empty()) {
    traceFile << traces.str() << failures.str() << std::flush;
  }
  traces.str("");
  failures.str("");
  std::vector<std::string> messages;
  for (std::string line; std::getline(text, line);) {
    messages.push_back(line);
  }
  return messages;
}

void LibraryOutput::requireTrace() const {
  if (!traceFile) {
    throw std::runtime_error(traceName + ": cannot be written");
  }
}
