// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>

/// Which board of the instrument the program runs on.
///
/// The six strap lines are read once, at construction; construct a new object for a fresh reading.
/// Construction never fails: a strap line that cannot be read counts as low. Nothing is printed.
class BoardId {
 public:
  /// Reads the straps, GPIO lines 167 to 171 and 135, and leaves them exported as inputs.
  BoardId();
  ~BoardId();

  /// Board ID, 0 to 63. Bit 5 is line 135, bits 4 to 0 are lines 171 down to 167.
  std::uint16_t id;

  /// The ID as six characters "1" and "0", bit 5 first.
  std::string idBitString;

  /// The ID's description, which names the board and its fitted options.
  std::string idDescription;

  /// The description of `id`, of which bits 5 to 0 count; after construction, `idDescription`.
  std::string getIdDescription() const;

  /// The description contains "MMB": IDs 0 to 15 and 48 to 63.
  bool isMMB() const;

  /// The description contains "QUINDARA": IDs 9 and 10.
  bool isQuindara() const;

  /// The description contains "TUVAK": IDs 48 to 63.
  bool isTuvak() const;

  /// The description contains "CXB": IDs 16 to 31.
  bool isCXB() const;

  /// The description contains "SPB": IDs 32 to 47.
  bool isSPB() const;

  /// The description does not contain "UNKNOWN": a board of this ID exists.
  bool isBoardIdKnown() const;

  /// The ID is 32, the first SPB prototype.
  bool isProtoZero() const;

  /// The ID is 33, the second SPB prototype.
  bool isProtoOne() const;

  /// The ID is 34, the third SPB prototype.
  bool isProtoTwo() const;

  /// Whether a PMB is connected, which only the first SPB prototype can have: the kernel lists an
  /// I2C device at address 0x74 on bus 0. False on any other board, and when udev is unavailable.
  bool isPMBConnected() const;

  /// Whether an IMB is connected, which every SPB but the first prototype can have: GPIO line 80
  /// reads low. False on any other board, where the line is left alone; true when the line cannot
  /// be read.
  bool isIMBConnected() const;
};
