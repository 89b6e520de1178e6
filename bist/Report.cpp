#include "bist/Report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace {

const char* name(Verdict verdict) {
  switch (verdict) {
    case Verdict::pass:
      return "PASS";
    case Verdict::fail:
      return "FAIL";
    case Verdict::none:
      break;
  }
  return "";
}

std::vector<std::string> failures(const std::vector<Section>& sections) {
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
    if (line.verdict == Verdict::none) {
      out << line.text << "\n";
    } else {
      out << std::setw(static_cast<int>(textWidth)) << line.text << "  " << name(line.verdict)
          << "\n";
    }
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

bool passed(const std::vector<Section>& sections) { return failures(sections).empty(); }

void printText(std::ostream& out, const std::vector<Section>& sections) {
  for (const Section& section : sections) {
    printSection(out, section);
    out << "\n";
  }
  const std::size_t count = failures(sections).size();
  if (count == 0) {
    out << "PASS\n";
  } else {
    out << "FAIL: " << count << (count == 1 ? " fault" : " faults") << "\n";
  }
}

void printJson(std::ostream& out, const std::vector<Section>& sections) {
  Json all;
  std::vector<std::string> messages;
  for (const Section& section : sections) {
    all[section.key] = section.data;
    messages.insert(messages.end(), section.messages.begin(), section.messages.end());
  }
  all["messages"] = messages;
  all["failures"] = failures(sections);
  all["verdict"] = passed(sections) ? "pass" : "fail";
  // Attribute texts come from files: bytes that are no UTF-8 must not end the program.
  out << all.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}
