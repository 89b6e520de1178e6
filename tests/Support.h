// SPDX-License-Identifier: MIT
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "simulator/instrument/SimulatedInstrument.h"

/// How many times fewer of many cases of a kind are tried where programs run many times slower: on
/// the target's processor, which is emulated, and with a sanitizer.
#if defined(__aarch64__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int fewer = 6;
#else
constexpr int fewer = 1;
#endif

/// An instrument described by a text, in virtual time.
class Instrument : public simulator::SimulatedInstrument {
 public:
  explicit Instrument(const std::string& description)
      : SimulatedInstrument(simulator::parseDescription(description)) {}
};

/// A directory that is removed with the object.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// Writes a file into the directory and returns its path.
  std::string file(const std::string& name, const std::string& content) const;

  std::string path;
};

std::string contentOf(const std::string& file);

/// errno of a bare write to a file, 0 for success.
int writeAttribute(const std::string& file, const std::string& text);

/// Collects what the program writes to std::cout and std::cerr while it exists.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  std::string output() const { return out.str(); }
  std::string errors() const { return err.str(); }

 private:
  std::ostringstream out;
  std::ostringstream err;
  std::streambuf* before[2];
};

/// Accesses and console lines in the order in which they happen, while it exists. What is flushed
/// at once is one line; what is not flushed is none.
class Timeline : private std::stringbuf {
 public:
  explicit Timeline(Instrument& traced);
  ~Timeline() override;
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  /// What has happened since the last call.
  std::vector<std::string> take();

 private:
  int sync() override;

  Instrument& instrument;
  std::vector<std::string> events;
  std::streambuf* before[2];
};

/// What a shell command has printed and how it has ended.
struct Outcome {
  int status;  ///< exit status; 128 plus the number of the signal that ended it
  std::string output;
  std::string errors;
};

Outcome runCommand(const std::string& command);

/// Blocks of memory that this thread has taken by `new` and not given back.
long heldBlocks();

/// How often this thread has taken memory by `new[]`.
long allocatedArrays();

/// How many files and directories this process has open. Sockets, pipes and events do not count.
std::size_t openFiles();
