// SPDX-License-Identifier: MIT
#include <algorithm>
#include <iomanip>
#include <stdexcept>

#include "bist/output/Output.h"

namespace {

constexpr struct {
  const char* verdict;
  const char* text;
  const char* colour;
} verdicts[] = {{"pass", "PASS", "\033[32m"},
                {"fail", "FAIL", "\033[31m"},
                {"skipped", "SKIPPED", "\033[33m"},
                {"not tested", "NOT TESTED", "\033[31m"}};

/// A verdict as it stands at the end of a line.
std::string shown(const std::string& verdict, bool colour) {
  for (const auto& row : verdicts) {
    if (verdict == row.verdict) {
      return colour ? std::string(row.colour) + row.text + "\033[0m" : row.text;
    }
  }
  return "";
}

/// A message with the part that it is about, where the section's other lines do not tell.
std::string textOf(const Json& message, const Json& section) {
  const Json& about = message["about"];
  std::string text = message["text"];
  if (about.empty() || section["about"].contains(about.begin().key())) {
    return text;
  }
  return about.begin().key() + " " + about.begin().value().dump() + ": " + text;
}

void printMessages(std::ostream& out, const std::vector<std::string>& messages) {
  for (auto message = messages.begin(); message != messages.end();) {
    const auto other = std::find_if(message, messages.end(),
                                    [&](const std::string& next) { return next != *message; });
    out << "  | " << *message;
    if (other - message > 1) {
      out << " (" << other - message << " times)";
    }
    out << "\n";
    message = other;
  }
}

void requireWritten(std::ostream& out) {
  if (!out.flush()) {
    throw std::runtime_error("standard output cannot be written");
  }
}

}  // namespace

void TextOutput::take(const Json& event) {
  const std::string kind = event["event"];
  if (kind == "section") {
    section = event;
    messages.clear();
    out << event["title"].get<std::string>() << "\n" << std::left;
  } else if (kind == "line") {
    const std::string verdict = shown(event["verdict"], colour);
    out << "  " << std::setw(section["labelWidth"]) << event["label"].get<std::string>() << "  ";
    out << std::setw(verdict.empty() ? 0 : section["textWidth"].get<int>())
        << event["text"].get<std::string>() << (verdict.empty() ? "" : "  ") << verdict << "\n";
  } else if (kind == "message") {
    messages.push_back(textOf(event, section));
    return;
  } else if (kind == "end of section") {
    printMessages(out, messages);
    messages.clear();
    section = nullptr;
    out << "\n";
  } else {
    return;
  }
  requireWritten(out);
}

void TextOutput::finish(const Record& record) {
  if (!section.is_null()) {
    printMessages(out, messages);
    out << "\n";
  }
  const bool hasTested = record.verdict() != "pass" || record.count("pass") != 0;
  if (record.interrupted.empty() && hasTested) {
    out << shown(record.verdict(), colour) << ": " << record.counts() << "\n";
  } else if (!record.interrupted.empty()) {
    out << "interrupted (" << record.interrupted << "): " << record.counts() << "\n";
  }
  requireWritten(out);
}
