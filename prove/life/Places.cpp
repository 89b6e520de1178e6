// SPDX-License-Identifier: MIT
// Where an instrument's files, its description and its program are: a full disk, directories that
// are missing or read-only, long and odd names, an ordinary user. Each way either works or ends
// with one line on the standard error stream, and leaves nothing.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "prove/life/Life.h"
#include "prove/life/Processes.h"

namespace {

namespace fs = std::filesystem;

const std::string sim = TALVERO_SIM;
const std::string bist = TALVERO_BIST;
constexpr int usageError = 2;

/// A line of talvero-sim or, when that is met later, of each program that it concerns.
bool isClear(const std::string& errors) {
  std::istringstream lines(errors);
  bool clear = errors.rfind("talvero-sim: ", 0) == 0;
  for (std::string line; std::getline(lines, line);) {
    clear = clear && line.rfind("talvero-", 0) == 0;
  }
  return clear;
}

/// What is wrong with a run: it has to be as the right one or, where it may fail, to fail clearly.
std::string wrongOf(const Outcome& outcome, const Outcome& right, bool mayFail) {
  const bool works = outcome.status == right.status && outcome.output == right.output &&
                     outcome.errors == right.errors;
  const bool fails =
      outcome.status == usageError && outcome.output.empty() && isClear(outcome.errors);
  return works || (mayFail && fails) ? ""
                                     : "ends with " + std::to_string(outcome.status) + ": " +
                                           outcome.output.substr(0, 200) + outcome.errors;
}

void add(std::vector<std::string>& failures, const std::string& name, const std::string& wrong) {
  if (!wrong.empty()) {
    failures.push_back(name + ": " + wrong);
  }
}

/// A command with a file system of its own on a directory, which `left` lists afterwards.
std::string onDisk(const fs::path& disk, const std::string& options, const std::string& command,
                   const fs::path& left) {
  return "exec unshare --mount --map-root-user sh -c 'mount -t tmpfs -o " + options + " disk " +
         disk.string() + " || exit 99; TMPDIR=" + disk.string() + " " + command +
         "; status=$?; ls " + disk.string() + " >" + left.string() + "; exit $status'";
}

/// Directories below each other, so that the whole name has so many characters.
fs::path deepDirectory(fs::path path, std::size_t length) {
  while (path.string().size() + 1 < length) {
    const std::size_t missing = length - path.string().size() - 1;
    path /= std::string(missing > 202 ? 200 : missing, 'd');
  }
  return path;
}

/// Makes them without naming them as a whole.
std::string makeAndEnter(const fs::path& path) {
  std::string commands = "cd /";
  for (const fs::path& name : path.relative_path()) {
    commands += " && { [ -d " + quoted(name.string()) + " ] || mkdir " + quoted(name.string()) +
                "; } && cd " + quoted(name.string());
  }
  return commands;
}

bool canMount() { return run("unshare --mount --map-root-user true").status == 0; }

struct Place {
  const char* name;
  std::string command;
  bool mayFail;
};

}  // namespace

Found fullDisks(long count, std::uint64_t /*seed*/) {
  Found found{2 * count, "sizes and numbers of files that a temporary directory has room for", {}};
  if (!canMount()) {
    return {0, "nobody may mount a small disk here", {}};
  }
  const Directory directory;
  const fs::path disk = directory.path / "disk";
  const fs::path left = directory.path / "left";
  fs::create_directory(disk);
  const std::string command = sim + " --fast -- " + bist + " slots";
  const Outcome right = run(command);
  const auto tryDisk = [&](const std::string& options, bool mayFail) {
    const Outcome outcome = run(onDisk(disk, options, command, left));
    add(found.failures, options, wrongOf(outcome, right, mayFail));
    if (!contentOf(left).empty()) {
      found.failures.push_back(options + ": leaves " + contentOf(left));
    }
  };
  tryDisk("size=64m", false);
  for (long step = 1; step <= count; ++step) {
    tryDisk("size=" + std::to_string(step * 2400 / count) + "k", true);
    tryDisk("nr_inodes=" + std::to_string(1 + step * 600 / count), true);
  }
  return found;
}

Found places(long /*count*/, std::uint64_t /*seed*/) {
  const Directory directory;
  const fs::path blanks = directory.path / "a b:c\td";
  const fs::path deep = deepDirectory(directory.path, 4000);
  const fs::path tmp = directory.path / "tmp";
  fs::create_directory(blanks);
  fs::create_directory(tmp);
  for (const std::size_t length : {1000U, 3800U, 4000U, 5000U}) {
    run(makeAndEnter(deepDirectory(directory.path, length)));
  }
  const fs::path shipped = fs::path(TALVERO_SIM).parent_path() / "instruments/full.conf";
  fs::copy_file(shipped, blanks / "full.conf");
  fs::copy_file(shipped, deep / "full.conf");
  fs::copy_file("/bin/cat", blanks / "cat");
  fs::copy_file("/bin/cat", deep / "cat");
  fs::copy_file("/bin/cat", directory.path / "file");
  fs::create_directory_symlink(tmp, directory.path / "link");

  const std::string program = " --fast -- " + bist + " slots";
  const std::string reads = " /sys/class/gpio/gpiochip0/base";
  const std::string in = "TMPDIR=";
  const auto at = [](const fs::path& path) { return quoted(path.string()); };
  const std::string here = in + at(tmp) + " " + sim;
  const Outcome right = run(here + program);
  const Outcome base = run(here + " -- cat" + reads);

  std::vector<Place> ofSlots = {
      {"no TMPDIR", "unset TMPDIR; " + sim + program, false},
      {"an empty TMPDIR", in + " " + sim + program, true},
      {"a missing TMPDIR", in + "/nowhere " + sim + program, true},
      {"a relative TMPDIR", "cd " + at(directory.path) + "; TMPDIR=tmp " + sim + program, true},
      {"a file as TMPDIR", in + at(directory.path / "file") + " " + sim + program, true},
      {"TMPDIR with blanks", in + at(blanks) + " " + sim + program, false},
      {"TMPDIR that is a link", in + at(directory.path / "link") + " " + sim + program, false},
      {"TMPDIR of 1000 characters",
       in + at(deepDirectory(directory.path, 1000)) + " " + sim + program, false},
      {"TMPDIR of 3800 characters",
       in + at(deepDirectory(directory.path, 3800)) + " " + sim + program, true},
      {"TMPDIR of 4000 characters", in + at(deep) + " " + sim + program, true},
      {"TMPDIR of 5000 characters",
       in + at(deepDirectory(directory.path, 5000)) + " " + sim + program, true},
      {"a description with blanks", here + " --instrument " + at(blanks / "full.conf") + program,
       false},
      {"a description at 4000 characters",
       here + " --instrument " + at(deep / "full.conf") + program, false},
      {"a description at 5000 characters",
       here + " --instrument " + at(deepDirectory(directory.path, 5000) / "full.conf") + program,
       true},
      {"a trace with blanks", here + " --trace " + at(blanks / "trace") + program, false},
      {"a trace at 4000 characters", here + " --trace " + at(deep / "trace") + program, false},
      {"a trace from a directory of 4000 characters",
       makeAndEnter(deep) + "; " + here + " --trace ./" + std::string(120, 't') + program, true},
      {"a state at 4000 characters", here + " --state " + at(deep / "state") + program, false},
      {"a directory as state", here + " --state " + at(blanks) + program, true},
      {"a directory that is gone",
       "mkdir " + at(directory.path / "gone") + "; cd " + at(directory.path / "gone") + "; rmdir " +
           at(directory.path / "gone") + "; " + here + program,
       true},
  };
  if (canMount()) {
    ofSlots.push_back({"TMPDIR that is read-only",
                       "exec unshare --mount --map-root-user sh -c 'mount -t tmpfs -o ro disk " +
                           tmp.string() + "; " + in + tmp.string() + " " + sim + program + "'",
                       true});
  }
  const std::vector<Place> ofCat = {
      {"a program with blanks", here + " -- " + at(blanks / "cat") + reads, false},
      {"a program at 4000 characters", here + " -- " + at(deep / "cat") + reads, false},
      {"from a directory of 4000 characters",
       makeAndEnter(deep) + "; " + here + " -- ./cat" + reads, false},
  };
  Found found{static_cast<long>(ofSlots.size() + ofCat.size()),
              "TMPDIR, descriptions, programs, traces and states: missing, odd, long",
              {}};
  const auto tryAll = [&](const std::vector<Place>& all, const Outcome& wanted) {
    for (const Place& place : all) {
      add(found.failures, place.name, wrongOf(run(place.command), wanted, place.mayFail));
      for (const fs::path& empty : {tmp, blanks, deep}) {
        for (const std::string& name : namesIn(empty)) {
          if (name.rfind("talvero-sim", 0) == 0) {
            found.failures.push_back(place.name + std::string(": leaves ") + name);
          }
        }
      }
    }
  };
  tryAll(ofSlots, right);
  tryAll(ofCat, base);
  return found;
}

Found ordinaryUser(long /*count*/, std::uint64_t /*seed*/) {
  constexpr uid_t other = 65533;
  const bool root = getuid() == 0;
  Found found{
      0, root ? "commands as a user without rights" : "commands as the user of this run", {}};
  const Directory directory;
  const fs::path tmp = directory.path / "tmp";
  fs::create_directory(tmp);
  if (root && (chown(tmp.c_str(), other, other) != 0 || chmod(directory.path.c_str(), 0755) != 0)) {
    found.failures.emplace_back("no directory for another user");
  }
  const std::string number = std::to_string(other);
  const std::string as =
      root ? "setpriv --reuid " + number + " --regid " + number + " --clear-groups " : "";
  if (run(as + "test -x " + sim).status != 0) {
    return {0, "nobody else may run what was built here", {}};
  }
  const std::string here = "env TMPDIR=" + tmp.string() + " " + sim + " --fast ";
  for (const std::string& command :
       {"-- " + bist + " board", "-- " + bist + " report --power-cycle",
        std::string("-- " ON_INSTRUMENT " threads 1"),
        "--instrument broken -- " + bist + " report"}) {
    const Outcome wanted = run(sim + " --fast " + command);
    add(found.failures, command, wrongOf(run(as + here + command), wanted, false));
    if (!namesIn(tmp).empty()) {
      found.failures.push_back(command + ": leaves " + namesIn(tmp).front());
    }
    ++found.tried;
  }
  return found;
}
