// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/Support.h"

using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

/// Runs a shell script on an instrument, in a directory.
Outcome onInstrument(const TemporaryDirectory& directory, const std::string& instrument,
                     const std::string& script, const std::string& options = "--fast") {
  return runCommand("cd " + directory.path + " && SOURCE_DATE_EPOCH=86400 " TALVERO_SIM " " +
                    options + " --instrument " + instrument +
                    " -- sh -c 'bist() { " TALVERO_BIST " \"$@\"; }; change() { " TALVERO_SIM
                    " set \"$@\"; }; " +
                    script + "'");
}

/// The lines of a description but for its comments, in no order.
std::vector<std::string> linesOf(const std::string& file) {
  std::istringstream text(contentOf(file));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    if (line.empty() || line[0] != '#') {
      lines.push_back(line);
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

/// Captures an instrument once a script has run on it, replays the capture, and expects the replay
/// to give the same report and the same capture. Returns the capture.
std::string expectSameReplayed(const TemporaryDirectory& directory, const std::string& instrument,
                               const std::string& script = "") {
  const std::string commands = "; echo $?; bist --json report --power-cycle";
  const std::string first =
      onInstrument(directory, instrument, script + " bist capture first.conf" + commands).output;
  const std::string second =
      onInstrument(directory, "first.conf", "bist capture second.conf" + commands).output;
  const auto report = [](const std::string& output) {  // without what is of the run
    const std::size_t begin = output.find("\n{\n");
    return output.substr(begin, output.find("\n  \"format\"") - begin);
  };
  EXPECT_TRUE(report(first) == report(second)) << instrument << script << first << second;
  std::string captured = contentOf(directory.path + "/first.conf");
  EXPECT_EQ(captured, contentOf(directory.path + "/second.conf")) << instrument << script;
  return captured;
}

std::vector<std::string> shippedInstruments() {
  std::vector<std::string> files = {SOURCE_DIR "/kernel/instrument.conf"};
  for (const auto& file : fs::directory_iterator(INSTRUMENTS)) {
    files.push_back(file.path());
  }
  return files;
}

class Capture : public testing::Test {
 protected:
  TemporaryDirectory directory;

  std::string file(const std::string& name) const { return directory.path + "/" + name; }
};

// Every kind of state that is no default, as it is captured.
constexpr char odd[] = R"([board]
straps=100010

[gpio]
12=high exported edge-both
80=high exported active-low
127=low output-high
133=low busy
134=low missing
170=low no-direction
200=low exported output-low

[bus i2c-7]

[bus i2c-2]
parent=platform/30a40000.i2c

[mux 2-0070]
1=i2c-11
3=i2c-20
12=i2c-12

[expander 11-0041]
first-line=600
base=700
2=high
3=low exported output-high active-low

[expander 12-0041]
gpio=empty

[expander 20-0041]
first-line=512
base=missing

[module 11-0050]
id=1
top=i2c-2/1
system=
solution=<>
2k4k=<0x1 0x20000>
openable=no

[i2c]
0-0074=pmb
5-0050=eeprom with blanks

[power 1]
initially=on
on-delay=never
supply=failed

[power 2]
initially=on
sequence-done=missing

[power 4]
power-enable=missing

[power 5]
off-delay=never

[pci]
shim=3

[pci root]
link-status=0x1011
register-78=0x10000
register-110=0x1

[pci switch]
register-18=0x90300

[pci port1]
bus=0x3
link-status=0x7042
register-1e8=0x12345678

[pci port5]
bus=0x3

[pci port7]
bus=0x3
link=down

[pci port9]
bus=0x3
register-8=0x2800000
stuck-100=0xff

[pci shim-port5]
present=no
)";

TEST_F(Capture, IsWhatTheInstrumentIs) {
  int number = 0;
  for (const std::string& instrument : shippedInstruments()) {
    if (number++ % fewer != 0) {
      continue;
    }
    const std::string captured = expectSameReplayed(directory, instrument);
    const bool broken = instrument.find("broken") != std::string::npos;
    EXPECT_THAT(captured, StartsWith("# Captured at 1970-01-02T00:00:00Z on "));
    EXPECT_EQ(captured.find("# Not") != std::string::npos, broken) << captured;
    if (!broken && instrument.find("full") == std::string::npos) {
      continue;
    }
    // As it is found, and as the simulator itself says that it is.
    onInstrument(directory, instrument, "bist capture again.conf", "--fast --state left.conf");
    EXPECT_EQ(linesOf(file("left.conf")), linesOf(file("again.conf"))) << instrument;
    onInstrument(directory, instrument, "true", "--fast --state untouched.conf");
    EXPECT_EQ(contentOf(file("left.conf")).find(contentOf(file("untouched.conf"))), 0U)
        << "latched errors that come back are noticed by whoever reads";
  }
}

TEST_F(Capture, SaysWhatIsNoDefault) {
  directory.file("odd.conf", odd);
  const std::string captured = expectSameReplayed(directory, "odd.conf");
  EXPECT_EQ(captured.substr(captured.find("[board]")), odd);
}

// PRBS and loopback master are left on at port1, and a line is an output.
constexpr char leftOn[] =
    "config=/sys/bus/pci/devices/0000:01:00.0/config;"
    "printf \"\\\\001\" | dd of=$config bs=1 seek=607 conv=notrunc 2>log;"
    "printf \"\\\\001\" | dd of=$config bs=1 seek=548 conv=notrunc 2>log;"
    "echo 12 >/sys/class/gpio/export; echo high >/sys/class/gpio/gpio12/direction;";

TEST_F(Capture, FollowsWhatHasHappened) {
  const char* const scripts[] = {
      "bist report --power-cycle >log; bist tx 0 --drive-level 3 >log; bist shim 1 >log;",
      "bist power 1 off >log;",
      "change \"pci port5 present=no\" \"pci port1 link=down\" \"pci root latch-correctable=1\";",
      "change \"expander 30-0041 present=no\" \"gpio 80=high\";",
      "change \"expander 10-0041 present=no\" \"clock 1=off\" \"pci switch readable=no\";",
      "change \"mux 2-0070 present=no\" \"pci switch register-1e8=0x5\";",
      leftOn,
  };
  int number = 0;
  for (const char* const script : scripts) {
    if (number++ % fewer != 0) {
      continue;
    }
    expectSameReplayed(directory, "full", script);
  }
}

TEST_F(Capture, TouchesNothing) {
  const std::string gpio = "/sys/class/gpio/";
  for (const char* const option : {"", "--no-export"}) {
    directory.file("odd.conf", odd);
    onInstrument(directory, "odd.conf", std::string("bist capture ") + option + " c.conf",
                 "--fast --trace trace");
    std::istringstream trace(contentOf(file("trace")));
    std::string exported;
    for (std::string line; std::getline(trace, line);) {
      if (line.find("write " + gpio + "export \"") == 0 &&
          line.find("\": E") == std::string::npos) {
        EXPECT_EQ(exported, "") << "one at a time";
        exported = line.substr(line.find('"'));
      } else if (line.find("write " + gpio + "unexport") == 0) {
        EXPECT_EQ(line, "write " + gpio + "unexport " + exported);
        exported = "";
      } else {
        EXPECT_THAT(line, AllOf(Not(HasSubstr("pci write")), Not(StartsWith("clock")),
                                Not(StartsWith("fpga"))));
        EXPECT_EQ(line.find("write ") == 0, line.find("\": E") != std::string::npos) << line;
        EXPECT_TRUE(*option == '\0' || line.find("write") != 0) << line;
      }
    }
    EXPECT_EQ(exported, "");
  }
  const std::string captured = contentOf(file("c.conf"));
  EXPECT_THAT(captured, AllOf(HasSubstr("board not known"),
                              HasSubstr("# Not exported, and left out: line 170\n"),
                              HasSubstr("left out: line 602 (11-0041 line 2)\n"),
                              HasSubstr("12=high exported"), Not(HasSubstr("straps="))));
}

TEST_F(Capture, LeavesNoLineExportedWhenItIsEnded) {
  const Outcome outcome = onInstrument(directory, "full", R"sh(
    before=$(ls /sys/class/gpio)
    for time in 00 01 02 03 04 05 06 08 10 12 14 16 18 20 25 30; do
      )sh" TALVERO_BIST R"sh( capture c.conf >log 2>&1 & sleep 0.$time; kill -TERM $!; wait
      [ "$(ls /sys/class/gpio)" = "$before" ] || echo lines are left after 0.$time s
    done
    echo tried)sh",
                                       "");
  EXPECT_EQ(outcome.output, "tried\n") << outcome.errors;
}

TEST_F(Capture, RemarksWhatCannotBeRead) {
  const struct {
    const char* description;
    const char* remark;
  } cases[] = {
      {"[faults]\nudev-context=on", "I2C devices: libudev does not list them, or not all"},
      {"[fail udev_enumerate_scan_devices]", "I2C devices: libudev does not list them"},
      {"[faults]\ngpio-export=on", "line 135: EACCES (Permission denied)"},
      {"[fail open /sys/class/gpio/export]\nerror=EIO", "line 80: EIO (Input/output error)"},
      {"[gpio]\n167=no-value", "line 167 value: EACCES (Permission denied)"},
      {"[fail list /sys/class/gpio]\nerror=EMFILE", "/sys/class/gpio/: EMFILE"},
      {"[fail list /sys/bus/pci/devices]\nerror=EIO", "/sys/bus/pci/devices/: EIO"},
      {"[fail read /sys/class/gpio/gpio80/edge]", "/sys/class/gpio/gpio80/edge: EIO"},
      {"[fail read */0000:02:05.0/config]", "0000:02:05.0 (pci port5): EIO (Input/output error)"},
      {"[pci root]\nreadable=no", "0000:00:00.0 (pci root): EIO"},
      {"[pci port1]\nlink=down\n[pci]\nshim=0", "pci shim): does not answer, behind a link"},
      {"[at 0]\npci port7 present=no", "0000:02:07.0 (pci port7): does not answer, gone since"},
      {"[fail read */0-0074/name]", "0-0074 name: EIO"},
      {"[fail list */2-0070]\nerror=EACCES", "/sys/devices/i2c-2/2-0070: EACCES"},
      {"[fail read */of_node/top]", "2-0050 of_node/top: EIO"},
      {"[fail read */gpio_module1_seq_done/value]", "gpio_module1_seq_done: EIO"},
      {"[fail read */ngpio]", "/ngpio: EIO"},
      {"[fail write /sys/class/gpio/unexport \"134\"]", "line 134 cannot be unexported again: EIO"},
      {"[pci root]\nclass=0x060000",
       "0000:00:00.0 is no root port of an instrument (class 0x60000)"},
  };
  int number = 0;
  for (const auto& [description, remark] : cases) {
    if (number++ % fewer != 0) {
      continue;
    }
    directory.file("d.conf",
                   std::string("[board]\nstraps=100010\n[i2c]\n0-0074=pmb\n[pci]\n[power 1]"
                               "\n[mux 2-0070]\n1=i2c-9\n[module 2-0050]\nid=1\n"
                               "top=i2c-2/1\n[expander 9-0041]\n") +
                       description + "\n");
    const Outcome outcome = onInstrument(directory, "d.conf", "bist capture c.conf --json");
    EXPECT_EQ(outcome.status, 1) << description;
    const json result = json::parse(outcome.output);
    EXPECT_THAT(result["capture"]["notRead"].dump(), HasSubstr(remark)) << description;
    const std::string captured = contentOf(file("c.conf"));
    EXPECT_THAT(captured, HasSubstr("# Not read: ")) << description;
    EXPECT_THAT(captured, HasSubstr(remark)) << description;
    EXPECT_EQ(onInstrument(directory, "c.conf", "true").status, 0) << description;
    const char* const parts[] = {"straps=100010\n", "0-0074=pmb\n", "\n[pci]\n"};
    EXPECT_GE(
        std::count_if(std::begin(parts), std::end(parts),
                      [&](const char* part) { return captured.find(part) != std::string::npos; }),
        2)
        << "the rest is there: " << captured;
  }
}

TEST_F(Capture, EndsWithoutAnInstrumentOrAFile) {
  directory.file("nothing.conf", "[faults]\ngpio-export=on\n");
  Outcome outcome = onInstrument(directory, "nothing.conf", "bist capture c.conf");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(
      outcome.errors,
      StartsWith("talvero-bist: no instrument here: nothing of one can be read; line 80: EACCES "
                 "(Permission denied); line 127: EACCES"));
  EXPECT_FALSE(fs::exists(file("c.conf")));

  outcome = onInstrument(directory, "full", "bist capture c.conf --no-export");
  EXPECT_EQ(outcome.status, 0) << "expanders and links can be read all the same";
  directory.file("lines.conf", "[board]\nstraps=100010\n");
  outcome = onInstrument(directory, "lines.conf", "bist capture c.conf --no-export");
  EXPECT_THAT(outcome.errors,
              EndsWith("; no line is exported, and --no-export leaves the others out\n"));
  outcome = onInstrument(directory, "full", "SOURCE_DATE_EPOCH=1e9 bist capture c.conf");
  EXPECT_EQ(outcome.errors,
            "talvero-bist: SOURCE_DATE_EPOCH must be seconds since 1970, not \"1e9\"\n");

  EXPECT_EQ(onInstrument(directory, "full", "bist capture nowhere/c.conf").errors,
            "talvero-bist: nowhere/c.conf: cannot be written (No such file or directory)\n");
  directory.file("kept.conf", "before");
  outcome =
      onInstrument(directory, "full",
                   "(trap \"\" XFSZ; ulimit -f 0; bist capture kept.conf; echo $?) 2>&1 | cat");
  EXPECT_EQ(outcome.output, "talvero-bist: kept.conf: cannot be written (File too large)\n2\n");
  EXPECT_EQ(contentOf(file("kept.conf")), "before");
  EXPECT_EQ(onInstrument(directory, "full", "bist capture /dev/full").errors,
            "talvero-bist: /dev/full: cannot be written (No space left on device)\n");
  onInstrument(directory, "mmb", "chmod 640 kept.conf; bist capture kept.conf");
  EXPECT_EQ(fs::status(file("kept.conf")).permissions(), fs::perms(0640));
  EXPECT_EQ(std::distance(fs::directory_iterator(directory.path), fs::directory_iterator()), 4)
      << "no drafts are left";
  EXPECT_THAT(onInstrument(directory, "mmb",
                           "ln -s /proc/self/fd/1 out; bist capture out | cat; [ -L out ]; echo $?")
                  .output,
              AllOf(HasSubstr("\n[description]\nversion="), EndsWith("\nPASS: 1 passed\n0\n")));
}

TEST_F(Capture, SaysWhatADescriptionCannot) {
  // A module with more than one module's properties, texts that are no lines, and a kernel that
  // numbers otherwise, laid over the simulated tree.
  const Outcome outcome = onInstrument(directory, "full", R"(
    tree=$UMOCKDEV_DIR/sys/devices/i2c-2/i2c-11/11-0050/of_node
    printf "a,b\0c,d\0" >$tree/compatible
    printf "\0\0\0\120" >$tree/reg
    printf "two\0texts\0" >$tree/solution
    printf " blank\0" >$tree/system
    mkdir $tree/child
    bist capture c.conf)");
  EXPECT_EQ(outcome.status, 0) << outcome.errors << outcome.output;
  EXPECT_THAT(contentOf(file("c.conf")),
              AllOf(HasSubstr("# Not described: [module 11-0050] has the properties "
                              "compatible=<0x612c6200 0x632c6400>, reg=<0x50>\n"),
                    HasSubstr("[module 11-0050] solution=two?texts?: not a line of text\n"),
                    HasSubstr("[module 11-0050] system= blank: not a line of text\n"),
                    Not(HasSubstr("child"))));
}

TEST_F(Capture, RemarksWhatTheReplayWouldAnswerOtherwise) {
  const std::string pci = "$UMOCKDEV_DIR/sys/bus/pci/devices";
  const std::string link = "/sys/platform/gpio_module";
  const struct {
    std::string script;
    const char* remark;
  } cases[] = {
      {"mkdir " + pci + "/0000:03:00.1", "0000:03:00.1 (0x0, class 0x0) is no device of a fabric"},
      {"cp -r " + pci + "/0000:02:05.0 " + pci + "/0001:02:05.0",
       "0001:02:05.0 (0x10037a1e, class"},
      {"echo in >" + link + "1_power_en/direction", "line 512 direction reads in, described out"},
      {"echo 1 >" + link + "2_seq_done/active_low", "line 501 active_low reads 1, described 0"},
      {"echo falling >/sys/class/gpio/gpio507/edge", "line 507 edge reads falling, described none"},
      {"d=$UMOCKDEV_DIR/sys/devices/i2c-2/2-0050; mkdir $d/gpio", "2-0050 (module) has GPIO lines"},
      {"d=$UMOCKDEV_DIR/sys/devices/i2c-2/i2c-9/9-0041/gpio; echo 3 >$d/gpiochip512/ngpio",
       "9-0041 has 3 lines"},
  };
  directory.file("d.conf",
                 "[board]\nstraps=100010\n[pci]\n[mux 2-0070]\n1=i2c-9\n[power 1]\n"
                 "[power 2]\n[power 5]\n[module 2-0050]\nid=1\ntop=i2c-2/1\n"
                 "[expander 9-0041]\n");
  for (const auto& [script, remark] : cases) {
    const Outcome outcome = onInstrument(directory, "d.conf", script + "; bist capture c.conf");
    EXPECT_THAT(contentOf(file("c.conf")), HasSubstr(remark)) << script << outcome.errors;
  }
}

TEST_F(Capture, OfANewerVersionIsRefusedWithThat) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"[description]\nversion=99.0.0\n[pci]\n[pci root]\nheat=1",
       "[pci root] heat: unknown key; the description is of version 99.0.0, newer than this one, "},
      {"[description]\nversion=99.0.0\n[laser 1]\npower=1",
       "[laser 1]: unknown group; the description is of version 99.0.0, newer"},
      {"[description]\nversion=99.0.0\nformat=2", "[description] format: unknown key; the desc"},
      {"[description]\nversion=0.1.9\n[pci]\nheat=1", "[pci] heat: unknown key\n"},
      {"[description]\nformat=2", "[description] format: unknown key\n"},
      {"[description]\nversion=2", "[description] version: must be a version such as 0."},
      {"[description]\nversion=0.1.2x", "[description] version: must be a version such as 0."},
      {"[description]\nversion=-1.0.0", "[description] version: must be a version such as 0."},
      {"[description]\nversion=", "[description] version: must be a version such as 0."},
  };
  for (const auto& [text, error] : cases) {
    directory.file("d.conf", text);
    const Outcome outcome = onInstrument(directory, "d.conf", "true");
    EXPECT_EQ(outcome.status, 2) << text;
    EXPECT_THAT(outcome.errors, StartsWith(std::string("talvero-sim: d.conf: ") + error)) << text;
  }
  directory.file("d.conf", "[description]\nversion=99.0.0\n[board]\nstraps=100010\n");
  EXPECT_EQ(onInstrument(directory, "d.conf", "true").status, 0);
}

}  // namespace
