// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "simulator/shared/State.h"

/// What a machine has answered, as a description of an instrument. Each part of it is captured by
/// the file of its name here. Nothing is written but the numbers of lines that are exported and
/// unexported again.
struct Capture {
  /// An answer, and what it is about. A part that compares it with the instrument that is described
  /// keeps what it needs to ask that again.
  struct Line {
    int number;            ///< as the kernel has it
    std::string expander;  ///< the device that has the line; empty for the board
    int offset;            ///< in the device's chip
    std::map<std::string, std::string> attributes;  ///< what they hold; nothing for none
  };
  struct Device {
    std::string name;
    std::string directory;
  };
  struct Chip {
    std::string expander;
    int base;
    int count;
  };
  struct PowerLink {
    std::uint32_t module;
    std::string name;
    int number;   ///< of the line that it leads to
    bool isDone;  ///< or power enable
  };
  struct Space {
    simulator::PciPlace place;
    std::string bytes;
  };

  bool exportsLines = true;  ///< or leaves those out that are not exported
  std::unique_ptr<simulator::Hardware> hardware = std::make_unique<simulator::Hardware>();
  bool foundSomething = false;
  std::vector<std::string> notRead;  ///< what could not be read, and why
  std::vector<std::string> notSaid;  ///< what a description cannot say, or says otherwise
  std::vector<std::string> leftOut;  ///< lines that are not exported
  std::vector<Line> lines;
  std::vector<Device> devices;
  std::vector<Chip> chips;
  std::vector<PowerLink> powerLinks;
  std::vector<Space> spaces;

  /// Begins a group that is there for itself.
  void begin(const std::string& group);

  /// Gives a key of the description a value, or begins its group for an empty key, or remarks that
  /// it cannot be said.
  void say(const std::string& group, const std::string& key, const std::string& value);

  /// Remarks what a description cannot say.
  void remark(const std::string& text);

  /// Remarks that something cannot be read, for an errno value.
  void cannotRead(const std::string& what, int error);

  /// What an attribute holds, without its line end, and the names in a directory, in order; nothing
  /// where there is none. Remarks any other reason for which it cannot be read.
  std::string attribute(const std::string& file);
  std::vector<std::string> namesIn(const std::string& directory);
};

void captureI2c(Capture& capture);
void capturePower(Capture& capture);
void captureLines(Capture& capture);  ///< after the expanders and power links that have lines
void capturePci(Capture& capture);    ///< after the power, which PCIe links depend on

/// Takes over what a simulated instrument says of its behaviour, which no reading tells.
void captureBehaviour(Capture& capture);

/// Makes the described instrument answer alike where that can be said, and remarks where it would
/// answer otherwise.
void compareWithDescribed(Capture& capture);

/// Reads a whole file; returns 0 or an errno value.
int readFile(const std::string& name, std::string& content);

/// The text of an attribute without its line end.
std::string withoutEnd(std::string text);

/// "EACCES", and what that means.
std::string errorText(int error);
