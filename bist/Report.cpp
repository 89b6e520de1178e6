// SPDX-License-Identifier: MIT
#include "bist/Report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <utility>

namespace {

constexpr const char* verdicts[] = {"  PASS", "  FAIL", ""};  // indexed by Verdict

void printSection(std::ostream& out, const Section& section) {
  std::size_t labelWidth = 0;
  std::size_t textWidth = 0;
  for (const Line& line : section.lines) {
    labelWidth = std::max(labelWidth, line.label.size());
    textWidth = std::max(textWidth, line.text.size());
  }
  out << section.title << "\n" << std::left;
  for (const Line& line : section.lines) {
    out << "  " << std::setw(static_cast<int>(labelWidth)) << line.label << "  ";
    out << std::setw(line.verdict == Verdict::none ? 0 : static_cast<int>(textWidth)) << line.text
        << verdicts[static_cast<int>(line.verdict)] << "\n";
  }
  for (auto message = section.messages.begin(); message != section.messages.end();) {
    const auto other = std::find_if(message, section.messages.end(),
                                    [&](const std::string& next) { return next != *message; });
    out << "  | " << *message;
    if (other - message > 1) {
      out << " (" << other - message << " times)";
    }
    out << "\n";
    message = other;
  }
}

}  // namespace

Verdict passIf(bool good) { return good ? Verdict::pass : Verdict::fail; }

void Report::add(Section section) {
  section.messages = output.takeMessages(section.showTrace);
  sections.push_back(std::move(section));
}

void Report::printText(std::ostream& out) const {
  for (const Section& section : sections) {
    printSection(out, section);
    out << "\n";
  }
  const std::size_t count = failures().size();
  out << (count == 0 ? "PASS"
                     : "FAIL: " + std::to_string(count) + (count == 1 ? " fault" : " faults"))
      << "\n";
}

void Report::printJson(std::ostream& out) const {
  Json all;
  std::vector<std::string> messages;
  for (const Section& section : sections) {
    all[section.key] = section.data;
    messages.insert(messages.end(), section.messages.begin(), section.messages.end());
  }
  all["messages"] = messages;
  all["failures"] = failures();
  all["verdict"] = passed() ? "pass" : "fail";
  // Attribute texts come from files: bytes that are no UTF-8 must not end the program.
  out << all.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

std::vector<std::string> Report::failures() const {
  std::vector<std::string> result;
  for (const Section& section : sections) {
    for (const Line& line : section.lines) {
      if (line.verdict == Verdict::fail) {
        result.push_back(section.title + ", " + line.label + ": " + line.text);
      }
    }
  }
  return result;
}
