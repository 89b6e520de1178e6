// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

/// A file of lines that loses none when the program, or the machine, ends at any moment: each line
/// is on the disk before the next thing happens. What cannot be written is an exception.
class CsvFile {
 public:
  /// Opens a file, which only one process does at a time.
  ///
  /// @param resume  the file is there and is to be continued, or else it must not be there
  CsvFile(const std::string& fileName, bool resume);
  ~CsvFile();
  CsvFile(const CsvFile&) = delete;
  CsvFile& operator=(const CsvFile&) = delete;

  /// The whole lines that were there when it was opened.
  const std::vector<std::string>& lines() const { return before; }

  /// What came after them, which a loss of power may have cut off.
  const std::string& cutLine() const { return cut; }

  /// Drops what came after them. Nothing else is changed before the first append.
  void dropCutLine();

  void append(const std::string& line);

 private:
  void read();
  [[noreturn]] void fail(const char* what) const;

  std::string name;
  int file = -1;
  std::size_t whole = 0;  ///< bytes of whole lines
  std::vector<std::string> before;
  std::string cut;
};
