#include "tools/LibraryOutput.h"

#include <stdexcept>

LibraryOutput::LibraryOutput(const std::string& traceFile)
    : standardOutput(std::cout.rdbuf()),
      standardError(std::cerr.rdbuf()),
      ownOutput(standardOutput) {
  if (!traceFile.empty()) {
    trace.open(traceFile);
    if (!trace) {
      throw std::runtime_error(traceFile + ": cannot be written");
    }
  }
  std::cout.rdbuf(trace.rdbuf());  // which takes nothing when no file is open
  std::cerr.rdbuf(failures.rdbuf());
}

LibraryOutput::~LibraryOutput() {
  std::cout.rdbuf(standardOutput);
  std::cerr.rdbuf(standardError);
}

std::vector<std::string> LibraryOutput::takeMessages() {
  std::istringstream text(failures.str());
  failures.str("");
  std::vector<std::string> messages;
  for (std::string line; std::getline(text, line);) {
    trace << line << "\n";
    messages.push_back(line);
  }
  return messages;
}
