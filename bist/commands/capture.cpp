// SPDX-License-Identifier: MIT
#include "bist/capture/Capture.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "bist/Command.h"
#include "bist/Draft.h"
#include "bist/Machine.h"
#include "bist/output/Output.h"
#include "simulator/parts/Changes.h"
#include "simulator/parts/Description.h"

namespace {

std::string file;
bool noExport = false;

void addOptions(CLI::App& app) {
  app.add_option("FILE", file, "the description, which talvero-sim --instrument reads")
      ->required()
      ->option_text(" ");
  app.add_flag("--no-export", noExport,
               "leave out the lines that are not exported, instead of exporting them meanwhile")
      ->disable_flag_override();
}

/// Now or, where captures are to be compared, the time that the environment says.
std::chrono::system_clock::time_point captureTime() {
  const char* const given = std::getenv("SOURCE_DATE_EPOCH");
  if (given == nullptr) {
    return std::chrono::system_clock::now();
  }
  const std::string digits = given;
  if (digits.empty() || digits.size() > 11 ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    throw std::runtime_error("SOURCE_DATE_EPOCH must be seconds since 1970, not \"" + digits +
                             "\"");
  }
  return std::chrono::system_clock::from_time_t(std::stoll(digits));
}

/// The board's number where all of its straps have been read.
std::string boardText(const Capture& capture) {
  std::size_t read = 0;
  for (const char* const strap : strapLines) {
    read += static_cast<std::size_t>(std::count_if(
        capture.lines.begin(), capture.lines.end(),
        [=](const Capture::Line& line) { return std::to_string(line.number) == strap; }));
  }
  const std::string bits = *simulator::valueOf(*capture.hardware, {"board", "straps", ""});
  return read == bits.size()
             ? "board " + std::to_string(std::stoi(bits, nullptr, 2)) + " (" + bits + ")"
             : "board not known";
}

/// The first comment of the description.
std::vector<std::string> commentsOf(const Capture& capture) {
  utsname system{};
  uname(&system);
  std::vector<std::string> comments = {
      "Captured at " + timeText(captureTime()) + " on " + system.nodename + ", " +
          boardText(capture) + ",",
      std::string("by talvero-bist ") + TALVERO_VERSION + ", kernel " + system.release + " " +
          system.machine,
      "",
      "No reading tells: clock sources; delays, errors and whatever else follows from switching."};
  const auto add = [&](const char* title, const std::vector<std::string>& remarks) {
    for (const std::string& remark : remarks) {
      comments.push_back(title + remark);
    }
  };
  add("Not read: ", capture.notRead);
  add("Not exported, and left out: ", capture.leftOut);
  add("Not described: ", capture.notSaid);
  return comments;
}

/// Why nothing has been found.
std::runtime_error nothingFound(const Capture& capture) {
  std::string text = "no instrument here: nothing of one can be read";
  for (const std::string& reason : capture.notRead) {
    text += "; " + reason;
  }
  if (!capture.leftOut.empty()) {
    text += "; no line is exported, and --no-export leaves the others out";
  }
  return std::runtime_error(text);
}

void run(Report& report) {
  captureTime();  // throws for a wrong one before anything is done
  Draft draft(report, file);
  Capture capture;
  capture.exportsLines = !noExport;
  captureI2c(capture);
  capturePower(capture);
  captureLines(capture);
  capturePci(capture);
  if (!capture.foundSomething) {
    throw nothingFound(capture);
  }
  captureBehaviour(capture);
  compareWithDescribed(capture);
  draft.write(simulator::descriptionFile(commentsOf(capture), *capture.hardware));
  Section section{"capture", "Capture"};
  section.lines = {{"description", file}};
  if (capture.notRead.empty()) {
    section.lines.push_back({"read", "everything", Verdict::pass, "", "capture"});
  }
  for (const std::string& remark : capture.notRead) {
    section.lines.push_back({"not read", remark, Verdict::fail, "", "capture"});
  }
  for (const std::string& remark : capture.leftOut) {
    section.lines.push_back({"left out", remark});
  }
  for (const std::string& remark : capture.notSaid) {
    section.lines.push_back({"not described", remark});
  }
  section.data = {{"file", file},
                  {"notRead", capture.notRead},
                  {"leftOut", capture.leftOut},
                  {"notDescribed", capture.notSaid}};
  report.add(section);
}

}  // namespace

const Command captureCommand = {"capture", "describe the instrument, for talvero-sim to replay it",
                                Needs::nothing, addOptions, run};
