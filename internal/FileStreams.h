// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>

/// A sysfs attribute is at most one page. Streams get a buffer of that size of their own before
/// they first use one, so that no stream allocates memory or asks the kernel for a file's size.
/// They stay buffered: the kernel's refusal of a value must surface at the close, not at the print.
constexpr std::size_t attributeSize = 4096;

/// A stdio stream, closed with the object. The result of closing is nobody's business here.
class StdioFile {
 public:
  StdioFile(const std::string& path, const char* mode) : stream(std::fopen(path.c_str(), mode)) {
    if (stream != nullptr) {
      std::setvbuf(stream, buffer, _IOFBF, sizeof buffer);
    }
  }
  ~StdioFile() {
    if (stream != nullptr) {
      std::fclose(stream);
    }
  }
  StdioFile(const StdioFile&) = delete;
  StdioFile& operator=(const StdioFile&) = delete;

  /// Null when the file could not be opened.
  std::FILE* get() const { return stream; }

 private:
  std::FILE* stream;
  char buffer[attributeSize];
};

/// A std::ifstream or std::ofstream, in binary mode.
template <typename Stream>
class FileStream {
 public:
  explicit FileStream(const std::string& path) {
    stream.rdbuf()->pubsetbuf(buffer, sizeof buffer);
    stream.open(path, std::ios::binary);
  }

  /// In a failed state when the file could not be opened.
  Stream& get() { return stream; }

 private:
  char buffer[attributeSize];
  Stream stream;
};
