// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The hand outside the instrument of kernel/instrument.conf, on which this process is while one
/// exists: what the hardware does, whatever the kernel believes. There are two: one for the
/// simulated instrument, and one for a guest with a real kernel.
class Outside {
 public:
  Outside();
  ~Outside();
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;

  /// Drives a board line, and waits until the kernel can see it.
  void drive(int line, bool level);

  /// Makes a device's 32-bit register hold a value.
  ///
  /// @param device  such as "02:01.0"
  void setRegister(const std::string& device, std::uint32_t offset, std::uint32_t value);

  /// The accesses to configuration space since the last call, as in "read16 02:01.0 7a" or
  /// "write32 02:01.0 fb8 3ff030".
  std::vector<std::string> accesses();

 private:
  struct Way;
  std::unique_ptr<Way> way;
};
