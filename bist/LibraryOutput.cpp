// SPDX-License-Identifier: MIT
#include "bist/LibraryOutput.h"

#include <stdexcept>
#include <utility>

LibraryOutput::LibraryOutput(const std::string& traceFileName)
    : standardOutput(std::cout.rdbuf()),
      standardError(std::cerr.rdbuf()),
      ownOutput(standardOutput),
      traceName(traceFileName) {
  if (!traceName.empty()) {
    traceFile.open(traceName);
    requireTrace();
  }
  std::cout.rdbuf(&traces);
  std::cerr.rdbuf(&failures);
}

LibraryOutput::~LibraryOutput() {
  std::cout.rdbuf(standardOutput);
  std::cerr.rdbuf(standardError);
}

std::vector<std::string> LibraryOutput::takeMessages(bool withTrace) {
  const std::string trace = traces.take();
  const std::string failed = failures.take();
  if (!traceName.empty()) {
    traceFile << trace << failed << std::flush;
  }
  std::istringstream text((withTrace ? trace : "") + failed);
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

void LibraryOutput::listen(const std::function<void(const std::string& line)>& listener) {
  traces.listener = listener;
  failures.listener = listener;
  traces.xsputn("", 0);  // what is there already
  failures.xsputn("", 0);
}

std::string LibraryOutput::Lines::take() {
  told = 0;
  return std::exchange(text, "");
}

int LibraryOutput::Lines::overflow(int character) {
  const char written = traits_type::to_char_type(character);
  xsputn(&written, 1);
  return character;
}

std::streamsize LibraryOutput::Lines::xsputn(const char* written, std::streamsize size) {
  text.append(written, static_cast<std::size_t>(size));
  for (std::size_t end = text.find('\n', told); listener && end != std::string::npos;
       end = text.find('\n', told)) {
    const std::string line = text.substr(told, end - told);
    told = end + 1;
    listener(line);
  }
  return size;
}
