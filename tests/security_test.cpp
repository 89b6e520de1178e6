// SPDX-License-Identifier: MIT
// What another user, a hostile description or a strange program file could try.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <link.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

}  // namespace
