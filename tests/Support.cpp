// SPDX-License-Identifier: MIT
#include "tests/Support.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <utility>

namespace fs = std::filesystem;

static thread_local long held = 0;
static thread_local long arrays = 0;

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  ++held;
  return memory;
}

void* operator new[](std::size_t size) {
  ++arrays;
  return operator new(size);
}

void operator delete(void* memory) noexcept {
  held -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }

void operator delete[](void* memory) noexcept { operator delete(memory); }

void operator delete[](void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }

long heldBlocks() { return held; }

long allocatedArrays() { return arrays; }

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

Timeline::Timeline(Instrument& traced)
    : instrument(traced), before{std::cout.rdbuf(this), std::cerr.rdbuf(this)} {
  std::cerr << std::nounitbuf;
  std::cerr.tie(nullptr);
}

Timeline::~Timeline() {
  std::cerr << std::unitbuf;
  std::cerr.tie(&std::cout);
  std::cout.rdbuf(before[0]);
  std::cerr.rdbuf(before[1]);
}

int Timeline::sync() {
  for (const std::string& access : instrument.takeTrace()) {
    events.push_back(access);
  }
  events.push_back(str());
  str("");
  return 0;
}

std::vector<std::string> Timeline::take() {
  for (const std::string& access : instrument.takeTrace()) {
    events.push_back(access);
  }
  return std::exchange(events, {});
}

std::string contentOf(const std::string& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

int writeAttribute(const std::string& file, const std::string& text) {
  const int fd = open(file.c_str(), O_WRONLY);
  if (fd < 0) {
    return errno;
  }
  const int error =
      write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
  close(fd);
  return error;
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
