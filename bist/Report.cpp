// SPDX-License-Identifier: MIT
#include "bist/Report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <utility>

namespace {

constexpr const char* verdicts[] = {"  PASS", "  FAIL", ""};  // indexed by Verdict

/// A message with the part that it is about, where the section's other lines do not tell.
std::string textOf(const Message& message, const Section& section) {
  const Subject& about = message.about;
  return about.kind.empty() || about.kind == section.about.kind
             ? message.text
             : about.kind + " " + std::to_string(about.number) + ": " + message.text;
}

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
    const std::string text = textOf(*message, section);
    const auto other = std::find_if(message, section.messages.end(), [&](const Message& next) {
      return textOf(next, section) != text;
    });
    out << "  | " << text;
    if (other - message > 1) {
      out << " (" << other - message << " times)";
    }
    out << "\n";
    message = other;
  }
}

Json messageJson(const Message& message, const Section& section) {
  Json json = {{"section", section.key}};
  if (!message.about.kind.empty()) {
    json[message.about.kind] = message.about.number;
  }
  json["text"] = message.text;
  return json;
}

}  // namespace

Verdict passIf(bool good) { return good ? Verdict::pass : Verdict::fail; }

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ", ") + word;
  }
  return text;
}

void Report::takeMessages(Section& section, const Subject& about) {
  for (const std::string& text : output.takeMessages(section.showTrace)) {
    section.messages.push_back({about, text});
  }
}

void Report::add(Section section) {
  takeMessages(section, section.about);
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
  Json messages = Json::array();
  for (const Section& section : sections) {
    all[section.key] = section.data;
    for (const Message& message : section.messages) {
      messages.push_back(messageJson(message, section));
    }
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
        result.push_back(section.title + ", " + line.label + ": " +
                         (line.failure.empty() ? line.text : line.failure));
      }
    }
  }
  return result;
}
