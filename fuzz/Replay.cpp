// SPDX-License-Identifier: MIT
// Calls a target once with each file of a directory, without libFuzzer.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Input.h"

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : ".")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    require(file.is_open());
    std::clog << entry.path().filename().string()
              << std::endl;  // the last one is the one that ends it
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++count;
  }
  require(count != 0);
}
