// SPDX-License-Identifier: MIT
#include "bist/capture/Capture.h"

#include <fcntl.h>
#include <sys/stat.h>
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
#include "bist/Machine.h"
#include "bist/Undo.h"
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

std::runtime_error cannotBeWritten(int error) {
  return std::runtime_error(file + ": cannot be written (" + std::strerror(error) + ")");
}

/// The file that is written, which takes the place of the one asked for once all is in it: a
/// capture from before is kept until then. What is no file itself, such as /dev/stdout, keeps its
/// place, and so does a file in a directory where nobody may create one.
class Draft {
 public:
  explicit Draft(Report& toReport) : report(toReport) {
    struct stat before {};
    const bool exists = lstat(file.c_str(), &before) == 0;
    if (!exists || S_ISREG(before.st_mode)) {
      name = file + ".XXXXXX";
      fd = ::mkostemp(name.data(), O_CLOEXEC);
    }
    if (fd >= 0) {
      const mode_t mask = ::umask(0);
      ::umask(mask);
      ::fchmod(fd, exists ? before.st_mode & 07777 : 0666 & ~mask);
    } else if (exists) {
      name.clear();
      fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
    }
    if (fd < 0) {
      throw cannotBeWritten(errno);
    }
    if (!name.empty()) {
      report.willSwitch(undoOfFile(name));
    }
  }
  ~Draft() {
    ::close(fd);
    if (!name.empty()) {
      ::unlink(name.c_str());
      report.switchedBack();
    }
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  void write(const std::string& text) {
    if (name.empty()) {
      (void)!::ftruncate(fd, 0);  // of a file; others have no length
    }
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t size = TEMP_FAILURE_RETRY(::write(fd, text.data() + done, text.size() - done));
      if (size < 0) {
        throw cannotBeWritten(errno);
      }
      done += static_cast<std::size_t>(size);
    }
    if (name.empty()) {
      return;
    }
    if (::rename(name.c_str(), file.c_str()) != 0) {
      throw cannotBeWritten(errno);
    }
    name.clear();
    report.switchedBack();
  }

 private:
  Report& report;
  std::string name;  // of a file that takes the other one's place; or empty
  int fd = -1;
};

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
  Draft draft(report);
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
