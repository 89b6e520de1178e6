// SPDX-License-Identifier: MIT
#include "bist/capture/Capture.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bist/Command.h"
#include "simulator/parts/Changes.h"
#include "simulator/parts/Description.h"

namespace {

namespace fs = std::filesystem;

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
std::string timeText() {
  const char* const given = std::getenv("SOURCE_DATE_EPOCH");
  const std::time_t time = given == nullptr ? std::time(nullptr) : std::atoll(given);
  char text[32];
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

/// The board's number where all of its straps have been read.
std::string boardText(const Capture& capture) {
  std::size_t read = 0;
  for (const int strap : {135, 171, 170, 169, 168, 167}) {
    read += static_cast<std::size_t>(
        std::count_if(capture.lines.begin(), capture.lines.end(),
                      [=](const Capture::Line& line) { return line.number == strap; }));
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
      "Captured at " + timeText() + " on " + system.nodename + ", " + boardText(capture) + ",",
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

void write(const Capture& capture, const std::string& name) {
  std::ofstream stream(name);
  stream << simulator::descriptionFile(commentsOf(capture), *capture.hardware);
  if (!stream.flush()) {
    throw std::runtime_error(file + ": cannot be written");
  }
}

/// Takes the file's place once all is written: a capture from before is kept until then. What is no
/// file itself, such as /dev/stdout, keeps its place.
void replace(const Capture& capture) {
  const fs::file_type type = fs::symlink_status(file).type();
  if (type != fs::file_type::not_found && type != fs::file_type::regular) {
    write(capture, file);
    return;
  }
  const std::string draft = file + ".part";
  try {
    write(capture, draft);
    fs::rename(draft, file);
  } catch (...) {
    std::error_code ignored;
    fs::remove(draft, ignored);
    throw;
  }
}

void run(Report& report) {
  Capture capture;
  capture.exportsLines = !noExport;
  captureI2c(capture);
  capturePower(capture);
  captureLines(capture);
  capturePci(capture);
  if (!capture.foundSomething) {
    throw std::runtime_error("no instrument here: nothing of one can be read");
  }
  captureBehaviour(capture);
  compareWithDescribed(capture);
  replace(capture);
  Section section{"capture", "Capture"};
  section.lines = {{"description", file}};
  for (const std::string& remark : capture.notRead) {
    section.lines.push_back({"not read", remark, Verdict::fail});
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
