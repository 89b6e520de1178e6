// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// I2C bus names, as far as this library uses them.
///
/// The class belongs to the platform's serial-device library. This declaration names only what the
/// library calls; a platform library linked in the stand-in's place provides the same operation.
class I2CDev {
 public:
  /// Finds the bus behind a channel of the multiplexer on a bus.
  ///
  /// The stand-in follows the kernel's channel links. Where several multiplexers on the bus have
  /// the channel, it takes the one with the lowest address.
  ///
  /// @param busName  bus of the multiplexer, such as "i2c-2"
  /// @param channel  channel number of the multiplexer
  /// @return name of the bus behind the channel, in the form of `busName`; the stand-in returns an
  ///         empty text when there is none
  static std::string FindI2CBusNameOfMuxChannel(std::string busName, int channel);
};
