// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/ptrace.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pcie/PCIeDiagnostics.h"
#include "simulator/shared/State.h"
#include "tests/Support.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;
using testing::Lt;

namespace {

/// The host's clock, which no instrument moves.
double hostSeconds() {
  timespec time{};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

TEST(VirtualTime, PassesWithoutWaiting) {
  const double begin = hostSeconds();
  const Instrument instrument("");
  const auto start = std::chrono::steady_clock::now();
  usleep(1000);
  sleep(5);
  std::this_thread::sleep_for(std::chrono::seconds(55));
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec -= 100;
  EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr), 0) << "over already";
  const timespec half{0, 500000000};
  EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &half, nullptr), 0);
  const timespec wrong{0, -1};
  EXPECT_EQ(nanosleep(&wrong, nullptr), -1);
  std::this_thread::sleep_until(start + std::chrono::seconds(70));
  EXPECT_NEAR(static_cast<double>(instrument.milliseconds()), 70000, 4000);
  EXPECT_LT(hostSeconds() - begin, 30);
}

TEST(VirtualTime, ShowsOnEveryClock) {
  const double begin = hostSeconds();
  EXPECT_EQ(std::getenv("UMOCKDEV_DIR"), nullptr) << "left by an earlier instrument";
  { const Instrument earlier(""); }
  EXPECT_EQ(std::getenv("UMOCKDEV_DIR"), nullptr);
  const Instrument instrument("");
  const auto seconds = [](clockid_t clock) {
    timespec time{};
    EXPECT_EQ(clock_gettime(clock, &time), 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  timeval day{};
  gettimeofday(&day, nullptr);
  const time_t whole = time(nullptr);
  const double before[] = {seconds(CLOCK_MONOTONIC), seconds(CLOCK_REALTIME),
                           seconds(CLOCK_BOOTTIME), seconds(CLOCK_PROCESS_CPUTIME_ID)};
  usleep(7300 * 1000);
  EXPECT_THAT(seconds(CLOCK_MONOTONIC) - before[0], AllOf(Ge(7.299), Lt(12)));
  EXPECT_THAT(seconds(CLOCK_REALTIME) - before[1], AllOf(Ge(7.299), Lt(12)));
  EXPECT_THAT(seconds(CLOCK_BOOTTIME) - before[2], AllOf(Ge(7.299), Lt(12)));
  EXPECT_LT(seconds(CLOCK_PROCESS_CPUTIME_ID) - before[3], 1);
  EXPECT_THAT(static_cast<double>(time(nullptr) - whole), AllOf(Ge(7), Lt(12)));
  const timeval earlier = day;
  gettimeofday(&day, nullptr);
  EXPECT_THAT(static_cast<double>(day.tv_sec - earlier.tv_sec), AllOf(Ge(7), Lt(12)));

  // Waits until a time of these clocks end then, though the kernel's clocks are behind.
  const auto wait = std::chrono::milliseconds(20);
  std::mutex mutex;
  std::unique_lock<std::mutex> lock(mutex);
  std::condition_variable condition;
#ifndef __SANITIZE_THREAD__  // which passes these on to the C library, past the simulator
  EXPECT_EQ(condition.wait_for(lock, wait), std::cv_status::timeout);
  EXPECT_EQ(condition.wait_until(lock, std::chrono::system_clock::now() + wait),
            std::cv_status::timeout);
#endif
  std::promise<void> promise;
  EXPECT_EQ(promise.get_future().wait_for(wait), std::future_status::timeout);
  std::timed_mutex taken;
  taken.lock();
  std::thread([&] { EXPECT_FALSE(taken.try_lock_for(wait)); }).join();
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  timespec until{};
  timespec_get(&until, TIME_UTC);
  for (const timespec past : {until, timespec{until.tv_sec, 0}, timespec{0, 0}}) {
    EXPECT_EQ(sem_timedwait(&semaphore, &past), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
  }
  const int timer = timerfd_create(CLOCK_MONOTONIC, 0);
  itimerspec setting{};
  clock_gettime(CLOCK_MONOTONIC, &setting.it_value);
  EXPECT_EQ(sem_clockwait(&semaphore, CLOCK_MONOTONIC, &setting.it_value), -1);
  std::thread waiting([&] {
    EXPECT_EQ(pthread_mutex_timedlock(taken.native_handle(), &until), ETIMEDOUT);
    sem_wait(&semaphore);
  });
  EXPECT_EQ(pthread_timedjoin_np(waiting.native_handle(), nullptr, &until), ETIMEDOUT);
  sem_post(&semaphore);
  waiting.join();
  timerfd_settime(timer, TFD_TIMER_ABSTIME, &setting, nullptr);
  std::uint64_t expired = 0;
  EXPECT_EQ(read(timer, &expired, sizeof expired), 8);
  setting.it_value = {0, 1000000};
  timerfd_settime(timer, 0, &setting, nullptr);
  EXPECT_EQ(read(timer, &expired, sizeof expired), 8) << "after a millisecond";
  close(timer);
  EXPECT_LT(hostSeconds() - begin, 30);
}

void spin(double duration) {
  for (const double begin = hostSeconds(); hostSeconds() - begin < duration;) {
  }
}

double programSeconds() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

// What has gone wrong once in a while counts as wrong.
constexpr int rounds = 10;

TEST(VirtualTime, IsThatOfTheLongestOfParallelSleeps) {
  for (int round = 0; round < rounds; ++round) {
    Instrument instrument("[pci]\n[pci port1]\nlink-lost-after=2");
    const double hostBegin = hostSeconds();  // around the other one
    const double begin = programSeconds();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
      threads.emplace_back([] { std::this_thread::sleep_for(seconds(1)); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(instrument.milliseconds(), 1000);
    const double program = programSeconds() - begin;
    const double host = hostSeconds() - hostBegin;
    EXPECT_THAT(program, AllOf(Ge(1), Lt(1.001 + host)));
    EXPECT_LT(host, 30);
    EXPECT_TRUE(PCIeDiagnostics().isLinkUp(DownstreamPort1));
  }
}

TEST(VirtualTime, HidesNoTimeOutBehindAHeartbeat) {
  for (int round = 0; round < rounds; ++round) {
    const Instrument instrument("[power 1]\non-delay=6");
    std::atomic<int> beats{0};
    std::atomic<bool> stop{false};
    std::thread heartbeat([&] {
      while (!stop) {
        ++beats;
        std::this_thread::sleep_for(milliseconds(100));
      }
    });
    usleep(250000);
    // From here on the main thread sleeps and accesses, as Udev_PCA9536 does.
    const auto begin = instrument.milliseconds();
    std::ofstream("/sys/platform/gpio_module1_power_en/value") << "1" << std::flush;
    int polls = 0;
    while (contentOf("/sys/platform/gpio_module1_seq_done/value") != "0\n" && polls < 250) {
      std::this_thread::sleep_for(milliseconds(20));
      ++polls;
    }
    EXPECT_EQ(polls, 250);
    EXPECT_EQ(instrument.milliseconds() - begin, 5000);
    EXPECT_EQ(beats, 3 + 50);
    stop = true;
    heartbeat.join();
  }
}

TEST(VirtualTime, PassesWhileThreadsWaitForSomethingElse) {
  const double begin = hostSeconds();
  const Instrument instrument("");
  std::promise<void> promise;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread waiting([&] { promise.get_future().wait(); });
  std::thread reading([&] {
    char end = ' ';
    EXPECT_EQ(read(ends[0], &end, 1), 1);
    usleep(2000);
  });
  std::thread working([&] {
    for (int second = 0; second < 100; ++second) {
      sleep(1);
    }
    promise.set_value();
    EXPECT_EQ(write(ends[1], "x", 1), 1);
  });
  waiting.join();
  reading.join();
  working.join();
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(instrument.milliseconds(), 100002);
  EXPECT_LT(hostSeconds() - begin, 30);
}

TEST(VirtualTime, WaitsForAThreadThatWaitsShortly) {
  const Instrument instrument("");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread sleeper([] { sleep(1); });
  usleep(1000);
  pollfd descriptor{ends[0], POLLIN, 0};
  EXPECT_EQ(poll(&descriptor, 1, 4), 0);
  EXPECT_EQ(instrument.milliseconds(), 5);
  EXPECT_EQ(poll(&descriptor, 1, 200), 0);
  EXPECT_EQ(instrument.milliseconds(), 205) << "the sleeper does not pass its end";
  sleeper.join();
  close(ends[0]);
  close(ends[1]);
}

std::vector<std::string> traceOfThreads() {
  Instrument instrument("");
  const auto work = [](const char* attribute, std::vector<int> sleeps) {
    for (const int sleep : sleeps) {
      usleep(static_cast<useconds_t>(sleep) * 1000);
      contentOf(std::string("/sys/class/gpio/gpiochip0/") + attribute);
    }
  };
  std::thread threads[] = {std::thread(work, "base", std::vector<int>{10, 20, 0, 7, 7, 7}),
                           std::thread(work, "label", std::vector<int>{20, 10, 0, 21}),
                           std::thread(work, "ngpio", std::vector<int>{30, 1, 1, 1, 1, 1})};
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(instrument.milliseconds(), 51);
  return instrument.takeTrace();
}

TEST(VirtualTime, OrdersThreadsTheSameEachTime) {
#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__
  GTEST_SKIP() << "threads begin beside those that create them";
#endif
  const auto sleep = [](int time) { return "sleep " + std::to_string(time * 1000) + " us"; };
  const std::string base = "read /sys/class/gpio/gpiochip0/base \"0\\n\"";
  const std::string label = "read /sys/class/gpio/gpiochip0/label \"talvero-sim\\n\"";
  const std::string ngpio = "read /sys/class/gpio/gpiochip0/ngpio \"256\\n\"";
  for (int round = 0; round < rounds; ++round) {
    EXPECT_THAT(traceOfThreads(),
                ElementsAre(sleep(10), sleep(20), sleep(30),    // as they were created
                            base, sleep(20), label, sleep(10),  // at 10 and 20
                            ngpio, sleep(1),                    // at 30, as they fell asleep
                            base, sleep(0), label, sleep(0),    //
                            base, sleep(7), label, sleep(21),   //
                            ngpio, sleep(1), ngpio, sleep(1),   //
                            ngpio, sleep(1), ngpio, sleep(1), ngpio, base, sleep(7), base, sleep(7),
                            label, base));
  }
}

TEST(VirtualTime, IsThatOfTheLongestOfParallelPrograms) {
  const double begin = hostSeconds();
  const auto elapsed = [](const std::string& commands) {
    const Outcome outcome =
        runCommand(TALVERO_SIM " --fast -- sh -c 'begin=$(date +%s%N); " + commands +
                   "; end=$(date +%s%N); echo $(((end - begin) / 1000000))'");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return std::stoi(outcome.output);
  };
  EXPECT_THAT(elapsed("sleep 60 & sleep 61 & (sleep 10; sleep 52) & wait"),
              AllOf(Ge(62000), Lt(64000)));
#ifdef __x86_64__  // QEMU knows no locks whose holder has died
  EXPECT_THAT(elapsed("sleep 100 & sleep 1; kill -KILL $!; sleep 200"),
              AllOf(Ge(201000), Lt(203000)))
      << "a program that was killed does not stop the others";
#endif
  EXPECT_THAT(elapsed("read line </dev/null & sleep 60"), AllOf(Ge(60000), Lt(62000)));
  EXPECT_LT(hostSeconds() - begin, 30);
}

TEST(VirtualTime, CountsForAChildFromItsFork) {
  for (int round = 0; round < rounds; ++round) {
    const Instrument instrument("");
    usleep(0);  // from which on this process takes part
    const pid_t child = fork();
    sleep(1);
    if (child == 0) {
      sleep(1);
      _exit(0);
    }
    sleep(1);
    EXPECT_EQ(instrument.milliseconds(), 2000);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(instrument.milliseconds(), 2000);
  }
}

/// The host's time, in which no clock of the instrument's goes on.
void passOutside() {
  const timespec time{0, 300000000};
  syscall(SYS_nanosleep, &time, nullptr);
}

/// Ends as a program of an emulator does: its first thread before one that takes no part.
void* outliveTheFirst(void* /*argument*/) {
  passOutside();
  syscall(SYS_exit_group, 0);
  return nullptr;
}

TEST(VirtualTime, IsHeldByProgramsThatAreAboutToGoOn) {
#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__ || !defined __x86_64__
  GTEST_SKIP() << "sanitizers and QEMU have threads of their own and trace their own way";
#endif
  const auto beginThread = reinterpret_cast<decltype(&pthread_create)>(
      dlsym(dlopen("libc.so.6", RTLD_LAZY), "pthread_create"));
  const std::function<void()> ways[] = {
      [] {  // as below a debugger that has stopped it
        ptrace(PTRACE_TRACEME);
        raise(SIGSTOP);
      },
      [&] {
        pthread_t thread{};
        beginThread(&thread, nullptr, outliveTheFirst, nullptr);
        syscall(SYS_exit, 0);
      },
      [] {                   // until the child has begun a program, or has ended
        if (vfork() == 0) {  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
          passOutside();     // NOLINT(clang-analyzer-unix.Vfork): it changes nothing
          _exit(0);
        }
      },
  };
  for (const auto& way : ways) {
    const Instrument instrument("");
    usleep(0);  // from which on this process takes part
    const double begin = hostSeconds();
    const pid_t child = fork();
    if (child == 0) {
      way();
      _exit(1);
    }
    usleep(200000);
    EXPECT_GE(hostSeconds() - begin, 0.1) << &way - ways;
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
  }
}

TEST(VirtualTime, IsNotHeldByWhatHasEnded) {
  const double begin = hostSeconds();
  const std::function<void()> ways[] = {
      [] { _exit(0); },  // for which nobody waits yet
      [] {
        std::thread([] {
          sleep(100);
          _exit(0);
        }).detach();
        syscall(SYS_exit, 0);  // the first thread alone
      },
  };
  for (const auto& way : ways) {
    const Instrument instrument("");
    usleep(0);  // from which on this process takes part
    const pid_t child = fork();
    if (child == 0) {
      way();
    }
    sleep(200);
    EXPECT_EQ(instrument.milliseconds(), 200000) << &way - ways;
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
  }
  EXPECT_LT(hostSeconds() - begin, 30);
}

/// Run below talvero-sim by the test after it.
TEST(Programs, DISABLED_TakeTheirTimeFromTheirStart) {
  static char name[] = "sleep";
  static char minute[] = "60";
  static char* arguments[] = {name, minute, nullptr};
  const std::function<pid_t()> ways[] = {
      [] {
        const pid_t child = fork();
        return child == 0 ? execvp(name, arguments) : child;
      },
#ifndef __SANITIZE_THREAD__  // which makes it a fork, past the simulator
      [] {
        const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
        if (child == 0) {
          execvp(name, arguments);
          _exit(1);
        }
        return child;
      },
#endif
      [] {
        pid_t child = 0;
        posix_spawnp(&child, name, nullptr, nullptr, arguments, environ);
        return child;
      },
  };
#ifndef __SANITIZE_THREAD__  // which has a thread of its own
  EXPECT_EQ(simulator::state()->clock.used, 1U) << "talvero-sim takes no part, which costs time";
#endif
  for (const auto& way : ways) {
    const double begin = programSeconds();
    const pid_t child = way();
    sleep(60);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_THAT(programSeconds() - begin, AllOf(Ge(60), Lt(61))) << &way - ways;
  }
}

TEST(VirtualTime, CountsForAProgramFromItsStart) {
#ifndef __x86_64__
  GTEST_SKIP() << "under QEMU, programs are started by another one";
#endif
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const Outcome outcome =
      runCommand(TALVERO_SIM " --fast -- " + self +
                 " --gtest_also_run_disabled_tests "
                 "--gtest_filter=Programs.DISABLED_TakeTheirTimeFromTheirStart");
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
}

TEST(VirtualTime, EndsAbsoluteSleepsAtTheirTime) {
  for (const bool fast : {true, false}) {
    simulator::SimulatedInstrument::Options options;
    options.fast = fast;
    simulator::SimulatedInstrument instrument(simulator::parseDescription(""), options);
    const double begin = hostSeconds();
    timespec until{};
    for (const clockid_t clock : {CLOCK_MONOTONIC, CLOCK_REALTIME}) {
      clock_gettime(clock, &until);
      for (int period = 0; period < (fast ? 10 : 1); ++period) {
        until.tv_sec += (until.tv_nsec + 20000000) / 1000000000;
        until.tv_nsec = (until.tv_nsec + 20000000) % 1000000000;
        EXPECT_EQ(clock_nanosleep(clock, TIMER_ABSTIME, &until, nullptr), 0);
        timespec now{};
        clock_gettime(clock, &now);
        const auto late = (now.tv_sec - until.tv_sec) * 1000000000L + now.tv_nsec - until.tv_nsec;
        EXPECT_GE(late, 0);
        EXPECT_TRUE(late < 5000000 || !fast) << "has not been rounded, as that on the instrument";
      }
    }
    if (fast) {
      const auto slept = simulator::state()->clock.slept.load();
      EXPECT_THAT(slept, AllOf(Ge(390000), Le(400000)));
      EXPECT_EQ(slept % 1000, 0) << "does not tell how fast the program runs";
      EXPECT_EQ(clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr), 0) << "over";
      EXPECT_EQ(simulator::state()->clock.slept, slept);
      EXPECT_LT(hostSeconds() - begin, 0.3);
    }
    EXPECT_THAT(instrument.takeTrace(), Each("sleep until a time"));
  }
}

TEST(VirtualTime, EndsTimedWaitsAtTheirTime) {
  for (int round = 0; round < rounds; ++round) {
    const Instrument instrument("[power 1]\non-delay=4\n");
    const double begin = hostSeconds();
    writeAttribute("/sys/platform/gpio_module1_power_en/value", "1");
    auto done = std::async(std::launch::async, [] {
      while (contentOf("/sys/platform/gpio_module1_seq_done/value") != "0\n") {
        usleep(20000);
      }
    });
    const auto start = instrument.milliseconds();
    EXPECT_EQ(done.wait_for(std::chrono::seconds(2)), std::future_status::timeout);
    EXPECT_THAT(instrument.milliseconds() - start, AllOf(Ge(1980), testing::Le(2020)));
    EXPECT_EQ(done.wait_for(std::chrono::seconds(3)), std::future_status::ready);
    EXPECT_THAT(instrument.milliseconds(), AllOf(Ge(4000), testing::Le(4020)));
    std::mutex mutex;
    std::condition_variable changed;
    bool stop = false;
    int beats = 0;
    std::thread heartbeat([&] {
      std::unique_lock<std::mutex> lock(mutex);
      while (!changed.wait_for(lock, milliseconds(100), [&] { return stop; })) {
        ++beats;
      }
    });
    usleep(3050000);
    {
      const std::lock_guard<std::mutex> lock(mutex);
      stop = true;
    }
    changed.notify_one();
    heartbeat.join();
#ifndef __SANITIZE_THREAD__  // which passes these waits on to the C library, past the simulator
    EXPECT_EQ(beats, 30);
#endif
    EXPECT_LT(hostSeconds() - begin, 30);
  }
}

TEST(VirtualTime, IsThatOfWaitsWithoutDescriptors) {
  Instrument instrument("");
  timespec time{0, 30000000};
  timeval value{0, 30000};
  EXPECT_EQ(poll(nullptr, 0, 30), 0);
  EXPECT_EQ(ppoll(nullptr, 0, &time, nullptr), 0);
  EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &value), 0);
  EXPECT_EQ(value.tv_usec, 0);
  EXPECT_EQ(pselect(0, nullptr, nullptr, nullptr, &time, nullptr), 0);
  EXPECT_EQ(instrument.milliseconds(), 120);
  EXPECT_THAT(instrument.takeTrace(), AllOf(Each("sleep 30000 us"), testing::SizeIs(4)));
  // Others take the host's, and so much on the instrument's clock.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  pollfd descriptor{ends[0], POLLIN, 0};
  const double begin = hostSeconds();
  EXPECT_EQ(poll(&descriptor, 1, 30), 0);
  fd_set set;
  FD_ZERO(&set);
  FD_SET(ends[0], &set);
  value.tv_usec = 30000;
  EXPECT_EQ(select(ends[0] + 1, &set, nullptr, nullptr, &value), 0);
  const int events = epoll_create1(0);
  epoll_event event{EPOLLIN, {}};
  EXPECT_EQ(epoll_ctl(events, EPOLL_CTL_ADD, ends[0], &event), 0);
  EXPECT_EQ(epoll_wait(events, &event, 1, 30), 0);
  time = {0, 30000000};
  EXPECT_EQ(pselect(ends[0] + 1, &set, nullptr, nullptr, &time, nullptr), 0);
  EXPECT_FALSE(FD_ISSET(ends[0], &set));
  EXPECT_THAT(hostSeconds() - begin, AllOf(Ge(0.09), Lt(30)));
  EXPECT_EQ(instrument.milliseconds(), 240);
  std::thread writer([&] {
    syscall(SYS_nanosleep, &time, nullptr);  // in the host's time
    EXPECT_EQ(write(ends[1], "x", 1), 1);
  });
  FD_SET(ends[0], &set);
  value = {30, 0};
  EXPECT_EQ(select(ends[0] + 1, &set, nullptr, nullptr, &value), 1);
  EXPECT_TRUE(FD_ISSET(ends[0], &set));
  writer.join();
  EXPECT_EQ(epoll_wait(events, &event, 1, 5000), 1);
  close(events);
  close(ends[0]);
  close(ends[1]);
}

volatile std::sig_atomic_t handled = 0;

TEST(VirtualTime, IsInterruptedBySignals) {
  struct sigaction action {};
  action.sa_handler = [](int) { handled = handled + 1; };
  action.sa_flags = SA_RESTART;  // no sleep is
  struct sigaction before {};
  sigaction(SIGUSR1, &action, &before);
  const Instrument instrument("");
  static const timespec request{1000, 0};
  static timespec left{};
  static timeval value{1000, 0};
  const std::function<bool()> sleeps[] = {
      [] { return nanosleep(&request, &left) == -1 && errno == EINTR; },
      [] { return clock_nanosleep(CLOCK_REALTIME, 0, &request, &left) == EINTR; },
      [] {
        left.tv_sec = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) + 1000;
        const timespec until = left;
        left.tv_sec = 999;
        return clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr) == EINTR;
      },
      [] { return usleep(1000000000) == -1 && errno == EINTR; },
      [] { return (left.tv_sec = sleep(1000)) != 0; },
      [] { return poll(nullptr, 0, 1000000) == -1 && errno == EINTR; },
      [] { return ppoll(nullptr, 0, &request, nullptr) == -1 && errno == EINTR; },
      [] {
        const int result = select(0, nullptr, nullptr, nullptr, &value);
        left.tv_sec = value.tv_sec;
        return result == -1 && errno == EINTR;
      },
      [] { return pselect(0, nullptr, nullptr, nullptr, &request, nullptr) == -1; },
  };
  for (const auto& interrupted : sleeps) {
    std::atomic<bool> ended = false;
    std::thread sleeper([&] {
      EXPECT_TRUE(interrupted()) << &interrupted - sleeps;
      const auto now = instrument.milliseconds();
      ended = true;
      spin(0.005);
      EXPECT_EQ(instrument.milliseconds(), now) << "it holds the clock again";
    });
    usleep(500);  // until the other sleeps
    while (!ended) {
      pthread_kill(sleeper.native_handle(), SIGUSR1);  // may come before the kernel's wait
      std::this_thread::yield();
    }
    usleep(500);
    sleeper.join();
    EXPECT_EQ(left.tv_sec, 999);
  }
  // A mask counts for the wait.
  sigset_t all;
  sigset_t none;
  sigset_t old;
  sigfillset(&all);
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  raise(SIGUSR1);
  handled = 0;
  EXPECT_EQ(usleep(1000), 0);
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(ppoll(nullptr, 0, &request, &none), -1);
  EXPECT_EQ(handled, 1);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  EXPECT_EQ(instrument.milliseconds(), std::size(sleeps) + 1);
  sigaction(SIGUSR1, &before, nullptr);
}

TEST(VirtualTime, GoesOnWithoutCancelledThreads) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "it takes a cancelled sleep for one that goes on";
#endif
  const Instrument instrument("");
  pthread_t sleeper{};
  pthread_create(
      &sleeper, nullptr, [](void*) -> void* { return sleep(1000), nullptr; }, nullptr);
  usleep(1000);
  pthread_cancel(sleeper);
  void* result = nullptr;
  EXPECT_EQ(pthread_join(sleeper, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  sleep(2000);
  EXPECT_EQ(instrument.milliseconds(), 2000001);
}

TEST(VirtualTime, IsNotStoppedByABusyThread) {
  const Instrument instrument("");
  std::atomic<bool> stop = false;
  std::thread busy([&] {
    while (!stop) {
    }
  });
  const double hostBegin = hostSeconds();  // around the other one
  const double begin = programSeconds();
  usleep(100000);
  const double program = programSeconds() - begin;
  const double host = hostSeconds() - hostBegin;
  stop = true;
  busy.join();
  EXPECT_THAT(host, AllOf(Ge(0.08), Lt(10)));
  EXPECT_THAT(program, AllOf(Ge(0.1), Lt(host + 0.02)));
  EXPECT_EQ(instrument.milliseconds(), 100);
}

TEST(VirtualTime, IsThatOfManyThreads) {
  const double begin = hostSeconds();
  const Instrument instrument("");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 100; ++thread) {
    threads.emplace_back([] {
      for (int tenth = 0; tenth < 10; ++tenth) {
        std::this_thread::sleep_for(milliseconds(100));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  // A slow machine creates the last when the first have slept some times.
  EXPECT_THAT(instrument.milliseconds(), AllOf(Ge(1000), Le(2000)));
  EXPECT_LT(hostSeconds() - begin, 30);
}

}  // namespace
