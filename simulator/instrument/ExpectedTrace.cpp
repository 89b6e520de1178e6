// SPDX-License-Identifier: MIT
#include "simulator/instrument/ExpectedTrace.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>

namespace simulator {

namespace {

/// A line without the time and process in front. An access begins with a letter.
std::string accessIn(const std::string& line) {
  if (line.empty() || std::isdigit(static_cast<unsigned char>(line.front())) == 0) {
    return line;
  }
  return line.substr(line.find(' ', line.find(' ') + 1) + 1);
}

std::string lineOrEnd(const std::vector<std::string>& lines, std::size_t index) {
  return index < lines.size() ? accessIn(lines[index]) : "(end of the trace)";
}

}  // namespace

ExpectedTrace::ExpectedTrace(const std::string& name) : file(name) {
  std::ifstream stream(name, std::ios::binary);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  if (!stream.is_open() || stream.bad()) {
    throw std::runtime_error(name + ": cannot be read");
  }
}

std::string ExpectedTrace::differenceFrom(const std::vector<std::string>& trace) const {
  const auto same = [](const std::string& one, const std::string& other) {
    return accessIn(one) == accessIn(other);
  };
  const auto difference =
      std::mismatch(lines.begin(), lines.end(), trace.begin(), trace.end(), same);
  if (difference.first == lines.end() && difference.second == trace.end()) {
    return "";
  }
  const auto index = static_cast<std::size_t>(difference.first - lines.begin());
  return file + ":" + std::to_string(index + 1) + ": the trace differs\n" +
         "  expected: " + lineOrEnd(lines, index) + "\n" +
         "  actual:   " + lineOrEnd(trace, index) + "\n";
}

}  // namespace simulator
