// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// Access to kernel attributes below /sys: reading and writing them, and driving single GPIO lines
/// through the kernel's sysfs GPIO interface.
///
/// No operation prints anything or throws for a failed access: failures are results. SysfsUtil is
/// the implementation; derive from it (or from this interface) to put something else behind BIST
/// code.
class Sysfs {
 public:
  virtual ~Sysfs();

  /// Reads a file into the caller's memory.
  ///
  /// @param path    file to read, used unchanged
  /// @param buffer  receives the content; left alone when the file cannot be opened
  /// @param length  bytes to read, with no terminating zero byte added; 0 reads one word instead:
  ///                leading white space is skipped, and at most 4095 characters up to the next
  ///                white space are stored with a terminating zero byte, so `buffer` must then hold
  ///                4096 bytes, or the file's longest word and one byte more
  /// @return true when exactly `length` bytes, or a word, were read; false when the file cannot be
  ///         opened, is too short (what was read stays in `buffer`), holds no word, or when
  ///         `length` is negative (nothing is opened)
  virtual bool readSysfs(std::string path, char* buffer, int length) = 0;

  /// Reads a whole file as text.
  ///
  /// @param path           file to read, used unchanged
  /// @param success        receives whether the file could be opened (an empty file is a success);
  ///                       may be null
  /// @param stripLastChar  drop the last character, whatever it is: the kernel ends attributes with
  ///                       a newline
  /// @return the content; empty when the file cannot be opened
  virtual std::string readSysfs(std::string path, bool* success, bool stripLastChar) = 0;

  /// Writes to an existing attribute, or replaces a file's content.
  ///
  /// An error that the kernel reports only when the data reaches the attribute, that is, when the
  /// file is closed, is not detected.
  ///
  /// @param path    file to write, used unchanged
  /// @param data    what to write; nothing is added to it
  /// @param length  bytes of `data` to write; 0 writes `data` as a zero-terminated text
  /// @return true when the file was opened and the stream took all of the data; false otherwise,
  ///         and when `length` is negative (nothing is opened)
  virtual bool writeSysfs(std::string path, char const* data, int length) = 0;

  /// Exports a GPIO line to user space by writing its name to /sys/class/gpio/export.
  ///
  /// @param gpio  kernel GPIO number in decimal, used unchanged; not null
  /// @return true when the export file could be opened, also when the kernel refuses the number
  ///         (already exported, or unknown)
  virtual bool exportGpio(char const* gpio) = 0;

  /// Reads a GPIO line, which is exported and made an input first and stays so.
  ///
  /// @param gpio     kernel GPIO number in decimal, used unchanged; not null
  /// @param success  receives whether the value file could be opened; may be null
  /// @return the value without its line end, "0" or "1"; empty when the line cannot be exported,
  ///         made an input or read
  virtual std::string readGpioValue(char const* gpio, bool* success) = 0;

  /// Drives a GPIO line, which is exported and made an output first and stays so.
  ///
  /// Making the line an output drives it low before the value is written: a line that is already
  /// high gives a short low pulse.
  ///
  /// @param gpio   kernel GPIO number in decimal, used unchanged; not null
  /// @param value  text to write to the value file, unchanged; "0" or "1"
  /// @return false when the line cannot be exported or made an output (the value file is then left
  ///         alone) or its value file cannot be opened; a text that the kernel refuses is not
  ///         detected
  virtual bool setGpioValue(char const* gpio, char const* value) = 0;

  /// Makes an exported GPIO line an output, driven low.
  ///
  /// @param gpio  kernel GPIO number in decimal, used unchanged; not null
  /// @return false when the direction file cannot be opened (line not exported, direction fixed)
  virtual bool setGpioDirectionOutput(char const* gpio) = 0;

  /// Makes an exported GPIO line an input.
  ///
  /// @param gpio  kernel GPIO number in decimal, used unchanged; not null
  /// @return false when the direction file cannot be opened (line not exported, direction fixed)
  virtual bool setGpioDirectionInput(char const* gpio) = 0;
};
