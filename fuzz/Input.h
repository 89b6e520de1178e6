// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

/// What every target has: an input to take apart, a check, and silence.

/// Called with each input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// An input, which is taken from its front. After its end come zeros and empty texts.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest(reinterpret_cast<const char*>(data)), end(rest + size) {}

  bool empty() const { return rest == end; }

  /// A number from 0 to `last` from one byte; a digit is its own.
  unsigned int number(unsigned int last) {
    return empty() ? 0 : static_cast<std::uint8_t>(*rest++ - '0') % (last + 1);
  }

  /// A number from `bytes` bytes, the lowest first.
  std::uint32_t word(unsigned int bytes = 4) {
    std::uint32_t value = 0;
    for (unsigned int index = 0; index < bytes && !empty(); ++index) {
      value |= std::uint32_t{static_cast<std::uint8_t>(*rest++)} << 8 * index;
    }
    return value;
  }

  /// The text up to a separator or the end.
  std::string text(char separator) {
    std::string taken;
    for (; !empty() && *rest != separator; ++rest) {
      taken += *rest;
    }
    rest += empty() ? 0 : 1;
    return taken;
  }

  /// Takes a character if it is the next one.
  bool take(char character) {
    const bool isNext = !empty() && *rest == character;
    rest += isNext ? 1 : 0;
    return isNext;
  }

 private:
  const char* rest;
  const char* end;
};

/// Ends the program, which is a finding, where something does not hold.
inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

/// Keeps both standard streams from printing.
inline void beSilent() {
  struct Nowhere : std::streambuf {
    int overflow(int character) override { return character; }
    std::streamsize xsputn(const char*, std::streamsize size) override { return size; }
  };
  static auto& nowhere = *new Nowhere;
  std::cout.rdbuf(&nowhere);
  std::cerr.rdbuf(&nowhere);
}
