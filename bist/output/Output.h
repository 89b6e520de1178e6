// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "bist/Report.h"

/// What a run is, besides its results.
struct RunFacts {
  std::vector<std::string> arguments;
  bool informs = false;  ///< the command may have nothing to test
  Json board = {};       ///< its number and description; null where the command asks for none
  std::chrono::system_clock::time_point start = std::chrono::system_clock::now();
};

/// What has been found so far. Sections, lines and messages are the events that brought them, with
/// "lines" and "messages" in a section, and in a line "start", seconds from the start of the run.
struct Record {
  RunFacts facts;
  std::vector<Json> sections;
  std::string interrupted;  ///< by what; empty for a run that came to its end
  double seconds = 0;       ///< that the run took

  /// How many lines have a verdict such as "pass".
  std::size_t count(const std::string& verdict) const;

  /// Each line that says fail, as a sentence.
  std::vector<std::string> failures() const;

  /// "pass", "fail" or "not tested": what has not been tested, or not to the end, has not passed.
  std::string verdict() const;

  /// "2 failed, 14 passed".
  std::string counts() const;
};

/// "2 failed, 14 passed", by how many there are of each verdict; "nothing tested" for none.
std::string countsText(const std::function<std::size_t(const char* verdict)>& count);

/// Whether a line is about a test.
bool isTest(const Json& line);

/// One form in which results are written. Failing to write is an exception.
class Output {
 public:
  virtual ~Output() = default;
  virtual void take(const Json& /*event*/) {}
  virtual void finish(const Record& record) = 0;

  /// Whether it keeps what has been found though an error ends the run.
  virtual bool isRecord() const { return false; }
};

/// Sections as indented text, line by line as they come; a last line says the verdict. Coloured if
/// asked for.
class TextOutput : public Output {
 public:
  TextOutput(std::ostream& stream, bool coloured) : out(stream), colour(coloured) {}
  void take(const Json& event) override;
  void finish(const Record& record) override;

 private:
  std::ostream& out;
  bool colour;
  Json section;
  std::vector<std::string> messages;
};

/// One JSON object: each section's data under its key, then "messages", "failures", "verdict" and
/// what else is known of the run.
class JsonOutput : public Output {
 public:
  explicit JsonOutput(std::ostream& stream) : out(stream) {}
  void finish(const Record& record) override;

 private:
  std::ostream& out;
};

/// An output into a file of its own, which is opened, and loses what it has, at once. Throws
/// std::runtime_error when it cannot be written.
class FileOutput : public Output {
 public:
  explicit FileOutput(const std::string& fileName);
  bool isRecord() const override { return true; }

 protected:
  void requireWritten();

  std::ofstream out;

 private:
  std::string name;
};

/// What happens, as it happens, each line with its time and on the disk at once: all that other
/// outputs have, the library's register trace, what is switched and what is put back.
class LogOutput : public FileOutput {
 public:
  LogOutput(const std::string& fileName, const RunFacts& facts);
  void take(const Json& event) override;
  void finish(const Record& record) override;

 private:
  void log(const char* kind, const std::string& text);
  void logLine(const Json& line);

  std::vector<std::string> switched;  ///< in words
};

/// JUnit XML: a suite for each section, a case for each test.
class JUnitOutput : public FileOutput {
 public:
  using FileOutput::FileOutput;
  void finish(const Record& record) override;
};

/// A page to look at and to print, in one file without scripts.
class HtmlOutput : public FileOutput {
 public:
  using FileOutput::FileOutput;
  void finish(const Record& record) override;
};

/// While the run goes on, a line on the terminal that says what is going on.
class ProgressOutput : public Output {
 public:
  ~ProgressOutput() override { clear(); }
  void take(const Json& event) override;
  void finish(const Record& record) override;

  /// Shows the time that has passed, if something goes on.
  void show();

 private:
  void clear();

  std::string title;
  long duration = 0;
  std::chrono::steady_clock::time_point since;
};

/// What is known of a run besides its results.
Json runJson(const Record& record);

/// "2026-11-26T03:14:22Z".
std::string timeText(std::chrono::system_clock::time_point time);
