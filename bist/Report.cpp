// SPDX-License-Identifier: MIT
#include "bist/Report.h"

#include <algorithm>

namespace {

using Seconds = std::chrono::duration<double>;

constexpr const char* verdictNames[] = {"pass", "fail", "skipped", "not tested", ""};  // by Verdict

Json subjectJson(const Subject& about) {
  return about.kind.empty() ? Json::object() : Json{{about.kind, about.number}};
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

void Report::begin(const Section& section, std::size_t labelWidth, std::size_t textWidth) {
  current = section;
  others.clear();
  events({{"event", "section"},
          {"key", section.key},
          {"title", section.title},
          {"about", subjectJson(section.about)},
          {"labelWidth", labelWidth},
          {"textWidth", textWidth}});
  started = std::chrono::steady_clock::now();
}

void Report::note(const Line& line) {
  failed = failed || line.verdict == Verdict::fail || line.verdict == Verdict::notTested;
}

Json Report::eventOf(const Line& line) const {
  const auto now = std::chrono::steady_clock::now();
  const auto duration = Seconds(now - started).count();
  return {{"event", "line"},
          {"label", line.label},
          {"text", line.text},
          {"verdict", verdictNames[static_cast<int>(line.verdict)]},
          {"failure", line.failure.empty() ? line.text : line.failure},
          {"test", line.test},
          {"seconds", duration},
          {"figures", line.figures},
          {"limit", line.limit},
          {"kept", line.kept}};
}

void Report::line(const Line& line, const Subject& about) {
  note(line);
  events(eventOf(line));
  started = std::chrono::steady_clock::now();
  takeMessages(about);
  tellMessages();
}

void Report::takeMessages(const Subject& about) {
  for (const std::string& text : output.takeMessages(current.showTrace)) {
    messages.push_back({{"event", "message"}, {"about", subjectJson(about)}, {"text", text}});
  }
}

void Report::takeOtherMessages(const Subject& about, const std::vector<std::string>& known) {
  for (const std::string& text : output.takeMessages(current.showTrace)) {
    const bool isKnown = std::any_of(known.begin(), known.end(), [&](const std::string& begin) {
      return text.rfind(begin, 0) == 0;
    });
    if (!isKnown && others.insert(text).second) {
      messages.push_back({{"event", "message"}, {"about", subjectJson(about)}, {"text", text}});
    }
  }
}

void Report::tellMessages() {
  for (const Json& message : messages) {
    events(message);
  }
  messages.clear();
}

void Report::soFar(const std::vector<Line>& lines, const Json& data) {
  Json ending = Json::array();
  for (const Line& line : lines) {
    ending.push_back(eventOf(line));
  }
  ending.push_back({{"event", "end of section"}, {"data", data}});
  events({{"event", "so far"}, {"events", ending}});
}

void Report::end(const Json& data) {
  tellMessages();
  events({{"event", "end of section"}, {"data", data}});
  current = {};
}

void Report::add(const Section& section) {
  const auto before = started;
  std::size_t labelWidth = 0;
  std::size_t textWidth = 0;
  for (const Line& line : section.lines) {
    labelWidth = std::max(labelWidth, line.label.size());
    textWidth = std::max(textWidth, line.text.size());
  }
  begin(section, labelWidth, textWidth);
  started = before;
  for (const Line& line : section.lines) {
    note(line);
    events(eventOf(line));
  }
  started = std::chrono::steady_clock::now();
  takeMessages(section.about);
  end(section.data);
}

void Report::progress(const std::string& title, unsigned int seconds) {
  events({{"event", "progress"}, {"title", title}, {"seconds", seconds}});
}

void Report::willSwitch(const Json& undo) { events({{"event", "switch"}, {"undo", undo}}); }

void Report::switchedBack() { events({{"event", "switched back"}}); }
