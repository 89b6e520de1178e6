// SPDX-License-Identifier: MIT
// talvero-sim's command line: what it hides of the host, and what it makes of the trace.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>

#include "tests/Support.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char sim[] = TALVERO_SIM " --fast -- ";
constexpr uid_t nobody = 65533;  // not who the unknown are shown as
constexpr int cannotChange = 77;

/// What a shell command prints, with its errors, in a process that `change` has changed; "cannot
/// change" where it has returned false.
std::string outputAfter(const std::function<bool()>& change, const std::string& command) {
  const TemporaryDirectory directory;
  const std::string output = directory.file("output", "");
  std::filesystem::permissions(directory.path, std::filesystem::perms::all);
  const pid_t child = fork();
  if (child == 0) {
    const int fd = open(output.c_str(), O_WRONLY | O_APPEND);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    setenv("TMPDIR", directory.path.c_str(), 1);
    if (!change()) {
      _exit(cannotChange);
    }
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status) == cannotChange ? "cannot change" : contentOf(output);
}

bool changeNothing() { return true; }

bool write(const char* file, const std::string& text) {
  return static_cast<bool>(std::ofstream(file) << text << std::flush);
}

/// Another user, of whom one capability is kept back.
bool becomeNobody() {
  return prctl(PR_CAPBSET_DROP, CAP_NET_RAW) == 0 && setgroups(0, nullptr) == 0 &&
         setgid(nobody) == 0 && setuid(nobody) == 0 && access(TALVERO_SIM, X_OK) == 0;
}

constexpr bool (*users[])() = {changeNothing, becomeNobody};

/// Root as most containers have it.
bool becomeContainersRoot() { return geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN) == 0; }

/// Makes the kernel refuse a system call with a value as one of its arguments.
bool refuse(unsigned int call, unsigned int argument, unsigned int value) {
  const auto place = static_cast<unsigned int>(offsetof(seccomp_data, args) +
                                               argument * sizeof(seccomp_data::args[0]));
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, place),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(steps), steps};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool refuseNamespaces() {
  return refuse(SYS_unshare, 0, CLONE_NEWNS) && refuse(SYS_unshare, 0, CLONE_NEWUSER | CLONE_NEWNS);
}

bool refusePrivateMounts() { return refuse(SYS_mount, 3, MS_REC | MS_SLAVE); }

bool refuseCovers() { return refuse(SYS_mount, 3, MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC); }

/// Root of a mount namespace whose mounts others there would see too.
bool becomeRootOfNamespace() {
  if (unshare(CLONE_NEWNS) != 0) {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !write("/proc/self/setgroups", "deny") ||
        !write("/proc/self/uid_map", "0 " + user + " 1") ||
        !write("/proc/self/gid_map", "0 " + group + " 1")) {
      return false;
    }
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_SHARED, nullptr) == 0;
}

bool namespacesAreAllowed() {
  return outputAfter(becomeRootOfNamespace, "echo entered") == "entered\n";
}

/// A host with device nodes, which are files here, and one more sysfs, in "other sys".
bool becomeHost(const std::string& directory) {
  const std::string devices = directory + "/dev";
  const std::string other = directory + "/other sys";
  std::filesystem::create_directories(devices);
  std::filesystem::create_directories(other);
  if (!becomeRootOfNamespace() || mount("none", devices.c_str(), "tmpfs", 0, "mode=755") != 0 ||
      mount("/sys", other.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    return false;
  }
  for (const char* device : {"mem", "gpiochip0", "gpiochip12", "i2c-1", "null"}) {
    write((devices + "/" + device).c_str(), "host\n");
  }
  return mount("/dev/null", (devices + "/null").c_str(), nullptr, MS_BIND, nullptr) == 0 &&
         mount(devices.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

/// Shows what is left of the host.
constexpr char hostFiles[] = HOST_FILES;

TEST(HostHardware, IsHiddenWhereNamespacesAreAllowed) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "a process with its thread may not enter a user namespace";
#elif !defined __x86_64__
  GTEST_SKIP() << "under QEMU, names lead to what QEMU was started with";
#endif
  if (!namespacesAreAllowed()) {
    GTEST_SKIP() << "no namespaces";
  }
  const std::string command = sim + std::string("sh -c 'cat /sys/class/gpio/gpiochip0/label; ") +
                              hostFiles + " /sys /proc/bus/pci'";
  for (const auto& user : users) {
    const std::string output = outputAfter(user, command);
    if (user == becomeNobody && output == "cannot change") {
      continue;  // not root, or nobody else may run what was built here
    }
    EXPECT_THAT(output, testing::MatchesRegex("talvero-sim\n/sys: r555\n"
                                              "/proc/bus/pci: (r555|No such file or directory)\n"));
  }
}

TEST(HostHardware, IsHiddenWhereverItIs) {
  const TemporaryDirectory directory;
  const std::string root = directory.path;
  if (!namespacesAreAllowed() || root.rfind("/dev/", 0) == 0) {
    GTEST_SKIP() << "no namespaces, or none without temporary files below /dev";
  }
  const std::string other = root + "/other sys";
  const std::string output = outputAfter(
      [&root] { return becomeHost(root); },
      sim + std::string(hostFiles) + " /dev/mem /dev/gpiochip0 /dev/gpiochip12 /dev/i2c-1 \"" +
          other + "\"; cat /dev/mem; test -d \"" + other +
          "/class\" && test -d /sys/class && echo there");
  EXPECT_EQ(output, "/dev/mem: 0\n/dev/gpiochip0: 0\n/dev/gpiochip12: 0\n/dev/i2c-1: 0\n" + other +
                        ": r555\nhost\nthere\n");
}

/// What a program can tell of itself.
constexpr char aboutItself[] =
    "id -u; id -g; pwd; echo $PATH; while read -r name value; do "
    "case $name in Cap*|Sig[BIP]*|Shd*|NoNew*) echo $name $value;; esac; done </proc/self/status";

TEST(HostHardware, IsAllThatIsHidden) {
  for (const auto& user : users) {
    EXPECT_EQ(outputAfter(user, sim + std::string("sh -c '") + aboutItself + "'"),
              outputAfter(user, std::string("sh -c '") + aboutItself + "'"));
  }
}

TEST(HostHardware, IsNotReachedByProgramsWithCapabilities) {
  const TemporaryDirectory directory;
  const std::string program = directory.path + "/program";
  std::filesystem::permissions(directory.path, std::filesystem::perms::all);
  std::filesystem::copy_file(TALVERO_SIM, program);
  const vfs_cap_data capability{VFS_CAP_REVISION_2, {{1U << CAP_NET_BIND_SERVICE, 0}, {0, 0}}};
  if (setxattr(program.c_str(), "security.capability", &capability, sizeof capability, 0) != 0) {
    GTEST_SKIP() << "not root, or no capabilities of files";
  }
  const std::string reason =
      "talvero-sim: " + program +
      " has capabilities of its own: it would reach this machine's own hardware\n";
  for (const std::string& command : {program, "sh -c 'exec " + program + "'"}) {
    const std::string output = outputAfter(becomeNobody, sim + command);
    if (output == "cannot change") {
      GTEST_SKIP() << "nobody else may run what was built here";
    }
    EXPECT_THAT(output, testing::StartsWith(reason));
    EXPECT_THAT(outputAfter(changeNothing, sim + command), Not(HasSubstr(reason)))
        << "root's programs gain nothing";
  }
}

TEST(HostHardware, IsAsBeforeWhereNamespacesAreNotAllowed) {
  std::vector<std::function<bool()>> changes{becomeContainersRoot};
  for (const auto& user : users) {
    for (const auto& refusal : {refuseNamespaces, refusePrivateMounts, refuseCovers}) {
      changes.emplace_back([user, refusal] { return user() && refusal(); });
    }
  }
  const std::string show =
      std::string("cat /proc/self/uid_map; ") + hostFiles + " /sys; " + aboutItself;
  for (const auto& change : changes) {
    EXPECT_EQ(
        outputAfter(change, sim + ("sh -c '" + show) + "; cat /sys/class/gpio/gpiochip0/label'"),
        outputAfter(change, show + "; echo talvero-sim"));
  }
}

TEST(HostHardware, IsReachedByNoMoreFunctionsWhereItIsNotHidden) {
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__ || !defined __x86_64__
  GTEST_SKIP() << "functions of the C library, without those of a sanitizer or of QEMU";
#endif
  EXPECT_EQ(runCommand(WAYS).status, 2) << "of this machine's own files it tries none";
  const std::string command =
      TALVERO_SIM " --instrument " SOURCE_DIR "/prove/ways/ways.conf -- " WAYS;
  const std::string hidden = outputAfter(changeNothing, command);
  EXPECT_THAT(hidden, testing::StartsWith("open                simulated           open open64 "));
  EXPECT_EQ(outputAfter(refuseNamespaces, command), hidden);
}

/// A trace of three lines, of which a sleep is one.
constexpr char traced[] =
    "sh -c 'cat /sys/class/gpio/gpiochip0/base; sleep 3.02; cat /sys/class/gpio/gpiochip0/ngpio'";

TEST(Trace, CarriesTimeAndProcessIfAsked) {
  const TemporaryDirectory directory;
  const std::string trace = directory.path + "/trace";
  const std::string command = TALVERO_SIM " --fast --trace " + trace;
  runCommand(command + " -- " + traced);
  const std::string plain = contentOf(trace);
  EXPECT_EQ(plain,
            "read /sys/class/gpio/gpiochip0/base \"0\\n\"\n"
            "sleep 3020000 us\n"
            "read /sys/class/gpio/gpiochip0/ngpio \"256\\n\"\n");
  runCommand(command + " --timestamps -- " + traced);
  const std::string stamped = contentOf(trace);
  std::smatch match;
  ASSERT_TRUE(std::regex_match(stamped, match,
                               std::regex("0\\.000000 (\\d+) read [^\n]*\n"
                                          "0\\.000000 (\\d+) sleep [^\n]*\n"
                                          "3\\.020000 (\\d+) read [^\n]*\n")))
      << stamped;
  EXPECT_NE(match[1], match[2]);
  EXPECT_NE(match[2], match[3]);
  const Outcome useless = runCommand(TALVERO_SIM " --timestamps -- true");
  EXPECT_EQ(useless.status, 2);
  EXPECT_THAT(useless.errors, HasSubstr("--timestamps requires --trace"));
}

TEST(Trace, IsComparedWithAnExpectedOne) {
  const TemporaryDirectory directory;
  const std::string first = "read /sys/class/gpio/gpiochip0/base \"0\\n\"";
  const std::string last = "read /sys/class/gpio/gpiochip0/ngpio \"256\\n\"";
  const std::string end = "(end of the trace)";
  const struct {
    std::string expected;
    std::string line;  // empty where all are equal
    std::string was;
    std::string is;
  } cases[] = {
      {first + "\nsleep 3020000 us\n" + last + "\n", "", "", ""},
      {first + "\nsleep 3020000 us\n" + last, "", "", ""},
      {"0.000000 7 " + first + "\n1.5 8 sleep 3020000 us\n12.000000 9 " + last, "", "", ""},
      {first + "\nsleep 3 us\n" + last, "2", "sleep 3 us", "sleep 3020000 us"},
      {first + "\n0.000000 7 sleep 3 us", "2", "sleep 3 us", "sleep 3020000 us"},
      {first + "\nsleep 3020000 us\n", "3", end, last},
      {first + "\nsleep 3020000 us\n" + last + "\n" + last, "4", last, end},
      {"", "1", end, first},
  };
  const std::string file = directory.path + "/expected";
  const std::string trace = directory.path + "/trace";
  for (const auto& test : cases) {
    directory.file("expected", test.expected);
    const std::string report = test.line.empty()
                                   ? ""
                                   : "talvero-sim: " + file + ":" + test.line +
                                         ": the trace differs\n  expected: " + test.was +
                                         "\n  actual:   " + test.is + "\n";
    for (const std::string& with : {std::string(), " --timestamps --trace " + trace}) {
      const Outcome outcome =
          runCommand(TALVERO_SIM " --fast --expect " + file + with + " -- " + traced);
      EXPECT_EQ(outcome.errors, report) << with;
      EXPECT_EQ(outcome.status, test.line.empty() ? 0 : 1) << with;
      EXPECT_EQ(outcome.output, "0\n256\n");
    }
  }
  EXPECT_THAT(contentOf(trace), HasSubstr(last)) << "it is written all the same";
}

TEST(Trace, DecidesTheExitStatusOnlyWhereItDiffers) {
  const TemporaryDirectory directory;
  const std::string same = directory.file("same", "");
  const std::string other = directory.file("other", "sleep 1 us\n");
  const std::string ends[] = {"exit 7", "kill -KILL $$"};
  const int statuses[] = {7, 128 + SIGKILL};
  for (std::size_t index = 0; index < std::size(ends); ++index) {
    const std::string program = " -- sh -c '" + ends[index] + "'";
    EXPECT_EQ(runCommand("exec " TALVERO_SIM " --expect " + same + program).status,
              statuses[index]);
    EXPECT_EQ(runCommand("exec " TALVERO_SIM " --expect " + other + program).status, 1);
  }
}

TEST(Trace, CanBeExpectedOfTheFileThatItReplaces) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("trace", "sleep 1000000 us\n");
  const std::string command = TALVERO_SIM " --fast --expect " + file + " --trace " + file + " -- ";
  EXPECT_EQ(runCommand(command + "sleep 1").status, 0);
  EXPECT_EQ(runCommand(command + "sleep 2").status, 1);
  EXPECT_EQ(contentOf(file), "sleep 2000000 us\n");
}

TEST(Trace, IsNotExpectedOfWhatCannotBeRead) {
  const TemporaryDirectory directory;
  const std::string empty = directory.file("empty", "");
  const std::pair<std::string, std::string> cases[] = {
      {" --expect /nowhere", "talvero-sim: /nowhere: cannot be read\n"},
      {" --expect /tmp", "talvero-sim: /tmp: cannot be read\n"},
      {" --expect " + empty + " --trace /dev/null",
       "talvero-sim: /dev/null: --expect cannot read this trace again\n"},
  };
  for (const auto& [options, reason] : cases) {
    const Outcome outcome = runCommand(TALVERO_SIM + options + " -- echo started");
    EXPECT_EQ(outcome.status, 2) << options;
    EXPECT_EQ(outcome.errors, reason);
    EXPECT_THAT(outcome.output, IsEmpty());
  }
}

}  // namespace
