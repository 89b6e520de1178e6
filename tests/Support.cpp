#include "tests/Support.h"

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (fs::temp_directory_path() / "talvero-test.XXXXXX").string();
  path = mkdtemp(name.data());
}

TemporaryDirectory::~TemporaryDirectory() { fs::remove_all(path); }

std::string TemporaryDirectory::file(const std::string& name, const std::string& content) const {
  const fs::path file = fs::path(path) / name;
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << content;
  return file.string();
}

Console::Console() : before{std::cout.rdbuf(out.rdbuf()), std::cerr.rdbuf(err.rdbuf())} {}

Console::~Console() {
  std::cout.rdbuf(before[0]);
  std::cerr.rdbuf(before[1]);
}

std::string contentOf(const std::string& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

Outcome runCommand(const std::string& command) {
  const TemporaryDirectory directory;
  const std::string output = directory.path + "/output";
  const std::string errors = directory.path + "/errors";
  const int status = std::system(("(" + command + ") >" + output + " 2>" + errors).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(output),
          contentOf(errors)};
}

std::size_t openFiles() {
  std::size_t count = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += fs::read_symlink(entry.path(), gone).is_absolute() ? 1U : 0U;
  }
  return count;
}
