// SPDX-License-Identifier: MIT
// What another user, a hostile description or a strange program file could try.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <link.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>

#include "simulator/instrument/RunningInstruments.h"
#include "simulator/parts/Values.h"
#include "simulator/shared/State.h"
#include "tests/Support.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

constexpr uid_t someoneElse = 65533;

std::string repeated(const std::string& text, int times) {
  std::string result;
  for (int time = 0; time < times; ++time) {
    result += text;
  }
  return result;
}

TEST(Security, HostileDescriptionsAreRefusedInALine) {
  using namespace std::string_literals;
  const std::string many = repeated("x", 200000);
  const struct {
    std::string text;
    const char* reason;
  } cases[] = {
      {"[gpio]\n1=low\0high\n"s, "d.conf: line 2: has a control character"},
      {"[gpio]\n1=\x1B[2J\n", "d.conf: line 2: has a control character"},
      {"[gp\x7Fio]\n", "d.conf: line 1: has a control character"},
      {"[gpio]\n1=low\r2=low\n", "d.conf: line 2: has a control character"},
      {"[gpio]\n1=\xC2\x9B[J\n", "d.conf: line 2: has a control character"},
      {"# \x9\x8\n", "d.conf: line 1: has a control character"},
      {many, "d.conf: line 1: longer than 1000 characters"},
      {"\n[" + many + "]\n", "d.conf: line 2: longer than 1000 characters"},
      {"[at " + many + "]\ngpio 5=high\n", "d.conf: line 1: longer than 1000 characters"},
      {"[after 2 " + many + "]\ngpio 5=high\n", "d.conf: line 1: longer than 1000 characters"},
      {"[bus i2c-3]\nparent=" + many, "d.conf: line 2: longer than 1000 characters"},
      {"[pci]\n[pci port1]\nprbs-good=1/1" + repeated(", 1/1", 50000),
       "d.conf: line 3: longer than 1000 characters"},
      {repeated("#\n", 600000), "d.conf: longer than 1048576 bytes"},
      {"[bus i2c-3]\nparent=.", "d.conf: [bus i2c-3] parent: must be a directory below"},
      {"[bus i2c-3]\nparent=a/./b", "d.conf: [bus i2c-3] parent: must be a directory below"},
  };
  for (const auto& test : cases) {
    const std::string begin = test.text.substr(0, 40);
    try {
      simulator::parseDescription(test.text, "d.conf");
      ADD_FAILURE() << begin << ": taken";
    } catch (const simulator::DescriptionError& error) {
      const std::string reason = error.what();
      EXPECT_THAT(reason, StartsWith(test.reason)) << begin;
      EXPECT_LT(reason.size(), 300U) << begin;
      EXPECT_EQ(simulator::printable(reason), reason) << begin;
    }
  }
  const std::string line = "[bus i2c-3]\nparent=" + std::string(900, 'x');
  EXPECT_THAT(
      [&] { simulator::parseDescription(line); },
      testing::ThrowsMessage<simulator::DescriptionError>(HasSubstr("longer than 255 characters")));
  simulator::parseDescription("# \xC2\xB0 " + many + "\r\n#\t\r\n\r\n[gpio]\r\n5 =\thigh\r\n");
}

/// Two devices that a link leads out of the instrument, to the directory "bus/i2c" beside it.
constexpr char leadingOut[] =
    "[bus i2c-3]\nparent=i2c-2/2-0050/subsystem/x\n"
    "[bus i2c-4]\nparent=i2c-2/2-0050/subsystem/x/i2c-3/subsystem/y\n"
    "[i2c]\n2-0050=x\n4-0050=y\n";

TEST(Security, DescriptionsWriteOnlyIntoTheirInstrument) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.path + "/bus/i2c");
  const std::string file = directory.file("d.conf", leadingOut);
  const Outcome outcome = runCommand("TMPDIR=" + directory.path + " " TALVERO_SIM " --instrument " +
                                     file + " -- echo started");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors,
            "talvero-sim: /sys/devices/i2c-2/2-0050/subsystem: is no directory that a bus can be "
            "in\n");
  EXPECT_TRUE(fs::is_empty(directory.path + "/bus/i2c"));
  fs::remove_all(directory.path + "/bus");
  fs::remove(file);
  EXPECT_TRUE(fs::is_empty(directory.path)) << "nothing is left behind";
}

TEST(Security, ChangesWriteOnlyIntoTheirInstrument) {
  Instrument instrument("[i2c]\n2-0050=x\n");
  const std::string taken = "/sys/devices/i2c-2/2-0050/name";
  for (const char* const place : {"i2c-2/2-0050/subsystem", "i2c-2/2-0050/name"}) {
    EXPECT_THAT(
        [&] {
          instrument.set({std::string("bus i2c-4 parent=") + place, "gpio 5=high"});
        },
        testing::ThrowsMessage<std::runtime_error>(
            HasSubstr(std::string(place) + ": is no directory that a bus can be in")));
  }
  EXPECT_FALSE(instrument.hardware().lines[5].level) << "nothing has changed";
  EXPECT_EQ(contentOf(taken), "x\n");
  instrument.set({"bus i2c-4 parent=platform/x"});
  EXPECT_TRUE(fs::exists("/sys/devices/platform/x/i2c-4/name"));
  const std::string tooLong = "bus i2c-4 parent=" + std::string(100000, 'x');
  EXPECT_THAT([&] { instrument.set({tooLong}); },
              testing::ThrowsMessage<std::runtime_error>("longer than 1000 characters"));
}

TEST(Security, DescriptionsFromPipesAreBoundedToo) {
  const Outcome large =
      runCommand("bash -c 'head -c 9000000 /dev/zero 2>/dev/null | " TALVERO_SIM
                 " --show --instrument /dev/stdin; (( PIPESTATUS[0] )) && echo left the rest'");
  EXPECT_EQ(large.output, "left the rest\n");
  EXPECT_EQ(large.errors, "talvero-sim: /dev/stdin: longer than 1048576 bytes\n");
  const TemporaryDirectory directory;
  const std::string pipe = directory.path + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(
      runCommand("timeout -k 10 0.5 " TALVERO_SIM " --instrument " + pipe + " -- true").status,
      124);
}

/// What looks as an instrument's directory does, locked as one that runs where that is wanted.
class Pretender {
 public:
  Pretender(const std::string& path, const std::string& victim, bool running) : directory(path) {
    fs::create_directory(path);
    fs::permissions(path, fs::perms::owner_all);
    fs::create_symlink(victim, path + "/state");
    lock = open((path + "/" + simulator::lockName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(running ? flock(lock, LOCK_EX) : 0, 0);
  }
  ~Pretender() { close(lock); }
  Pretender(const Pretender&) = delete;
  Pretender& operator=(const Pretender&) = delete;

  std::string directory;

 private:
  int lock;
};

TEST(Security, WhatOthersPrepareIsLeftAlone) {
  const std::function<void(const Pretender&)> disguises[] = {
      [](const Pretender& pretender) {  // another user's
        EXPECT_EQ(lchown(pretender.directory.c_str(), someoneElse, someoneElse), 0);
      },
      [](const Pretender& pretender) {  // one that everybody writes to
        fs::permissions(pretender.directory, fs::perms::all);
      },
      [](const Pretender& pretender) {  // a link
        fs::rename(pretender.directory, pretender.directory + ".there");
        fs::rename(pretender.directory + ".there",
                   fs::path(pretender.directory).parent_path() / "there");
        fs::create_directory_symlink("there", pretender.directory);
      },
      [](const Pretender& pretender) {  // somebody's own directory
        fs::rename(pretender.directory, fs::path(pretender.directory).parent_path() / "there");
      },
  };
  const std::string before(sizeof(simulator::State), '\0');
  for (const auto& disguise : disguises) {
    if (&disguise == disguises && getuid() != 0) {
      continue;  // who is not root cannot give directories away
    }
    for (const bool running : {false, true}) {
      const TemporaryDirectory elsewhere;
      const TemporaryDirectory temporary;
      const std::string victim = elsewhere.file("victim", before);
      const Pretender pretender(temporary.path + "/talvero-sim.AAAAAA", victim, running);
      disguise(pretender);
      const std::string sim = "TMPDIR=" + temporary.path + " " TALVERO_SIM " ";
      const std::string list = "ls -lR " + temporary.path;
      const std::string files = runCommand(list).output;
      EXPECT_EQ(runCommand(sim + "-- true").status, 0);
      EXPECT_EQ(runCommand(sim + "set 'gpio 5=high'").errors, "talvero-sim: no instrument runs\n");
      EXPECT_EQ(runCommand(list).output, files) << &disguise - disguises << running;
      EXPECT_TRUE(contentOf(victim) == before) << &disguise - disguises << running;
    }
  }
}

TEST(Security, InstrumentsAreOpenToTheirUserOnlyAndOfNoForeseenName) {
  const TemporaryDirectory directory;
  const std::string command = "umask 0; TMPDIR=" + directory.path +
                              " " TALVERO_SIM " -- sh -c 'stat -c \"%a %F %n\" $UMOCKDEV_DIR'";
  const std::string one = runCommand(command).output;
  EXPECT_THAT(one, StartsWith("700 directory " + directory.path + "/talvero-sim."));
  EXPECT_NE(one, runCommand(command).output);
}

TEST(Security, StrangeProgramFilesAreTheKernelsToRefuse) {
#ifndef __x86_64__
  GTEST_SKIP() << "QEMU, not the kernel, starts programs";
#endif
  const TemporaryDirectory directory;
  const std::string itself = directory.path + "/itself";
  directory.file("itself", "#!" + itself + "\n");
  fs::permissions(itself, fs::perms::owner_all);
  const std::string pipe = directory.path + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0700), 0);
  for (const std::string& program : {itself, pipe}) {
    const Outcome outcome = runCommand("timeout -k 10 10 " TALVERO_SIM " -- " + program);
    EXPECT_EQ(outcome.status, 126);
    EXPECT_THAT(outcome.errors, StartsWith("talvero-sim: cannot run " + program + ": "));
  }
}

/// The names of a loaded library's dynamic symbols.
std::string namesIn(const link_map* library) {
  const char* names = nullptr;
  std::size_t size = 0;
  for (const ElfW(Dyn)* entry = library->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_STRTAB) {
      std::memcpy(&names, &entry->d_un.d_ptr, sizeof names);
    } else if (entry->d_tag == DT_STRSZ) {
      size = entry->d_un.d_val;
    }
  }
  return {names, size};
}

TEST(Security, TheLibraryReadsNoEnvironment) {
  int libraries = 0;
  for (const link_map* library = _r_debug.r_map; library != nullptr; library = library->l_next) {
    const std::string name = fs::path(library->l_name).filename();
    if (name.rfind("libbist-talvero-hw-lib.so", 0) != 0 &&
        name.rfind("libtalvero-platform.so", 0) != 0) {
      continue;
    }
    ++libraries;
    const std::string names = namesIn(library);
    EXPECT_THAT(names, HasSubstr("dir"));
    EXPECT_EQ(names.find("getenv"), std::string::npos) << name;
    EXPECT_EQ(names.find("environ"), std::string::npos) << name;
  }
  EXPECT_EQ(libraries, 2);
}

}  // namespace
