// SPDX-License-Identifier: MIT
#include "bist/Supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "bist/Undo.h"

namespace {

std::system_error failure(const char* what) { return {errno, std::generic_category(), what}; }

/// A descriptor that is closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() { ::close(fd); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd;
};

/// Signals that are kept from this process while the object exists.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction action {};
      sigaction(signal, nullptr, &action);
      if (action.sa_handler != SIG_IGN) {  // as nohup has it, and shells in the background
        sigaddset(&blocked, signal);
      }
    }
    sigprocmask(SIG_BLOCK, &blocked, &before);
  }
  ~BlockedSignals() { release(); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

  void release() { sigprocmask(SIG_SETMASK, &before, nullptr); }

  sigset_t blocked{};

 private:
  sigset_t before{};
};

std::int64_t milliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1000000;
}

/// When the first signal came.
volatile std::int64_t interruptedAt = 0;

/// Ends the process, but for a signal that comes along with the first one: where a terminal is
/// closed or a group of processes is told to end, several do.
extern "C" void endAtSecondSignal(int signal) {
  constexpr std::int64_t along = 500;
  if (milliseconds() - interruptedAt >= along) {
    std::signal(signal, SIG_DFL);
    raise(signal);
  }
}

/// From now on, signals are taken again: another one ends the process.
void release(BlockedSignals& signals) {
  interruptedAt = milliseconds();
  struct sigaction action {};
  action.sa_handler = endAtSecondSignal;
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigismember(&signals.blocked, signal) == 1) {
      sigaction(signal, &action, nullptr);
    }
  }
  signals.release();
}

void writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = ::write(fd, text.data() + done, text.size() - done);
    if (size < 0 && errno != EINTR) {
      _exit(2);  // nobody is there any more
    }
    done += static_cast<std::size_t>(size < 0 ? 0 : size);
  }
}

/// What ends the process that does the work: no SIGKILL, so that whoever blocks signals for as long
/// as he holds what others share, as the simulated instrument does, gives it back before.
constexpr int endingSignal = SIGUSR1;

void end(pid_t worker) {
  ::kill(worker, endingSignal);
  ::waitpid(worker, nullptr, 0);
}

/// The process that does the work. It keeps the signals blocked: they are the other one's.
[[noreturn]] void doWork(int pipe, pid_t parent, const std::function<void(const Events&)>& work) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, endingSignal);
  sigprocmask(SIG_UNBLOCK, &ending, nullptr);
  prctl(PR_SET_PDEATHSIG, endingSignal);
  if (getppid() != parent) {
    _exit(2);
  }
  const Events send = [pipe](const Json& event) {
    writeAll(pipe, event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
  };
  try {
    work(send);
    send({{"event", "end"}});
  } catch (const std::exception& error) {
    send({{"event", "error"}, {"text", error.what()}});
  }
  _exit(0);
}

/// Takes the events that come through the pipe.
class Reader {
 public:
  Reader(Session& into, int fromPipe) : session(into), pipe(fromPipe) {}

  /// Takes those that are there; false at the end. No event is lost where an output throws: the
  /// first exception is kept.
  bool read() {
    char buffer[4096];  // no more: what the outputs make of it must not fill a pipe
    const ssize_t size = ::read(pipe, buffer, sizeof buffer);
    if (size <= 0) {
      return size < 0 && errno == EINTR;
    }
    text.append(buffer, static_cast<std::size_t>(size));
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
      const Json event = Json::parse(text.substr(0, end));
      text.erase(0, end + 1);
      take(event);
    }
    return true;
  }

  /// Does something with outputs, which may throw.
  void keepFailure(const std::function<void()>& output) {
    try {
      output();
    } catch (const std::exception&) {
      failure = failure != nullptr ? failure : std::current_exception();
    }
  }

  bool ended = false;
  std::string error;
  std::exception_ptr failure;

 private:
  void take(const Json& event) {
    if (event["event"] == "end") {
      ended = true;
    } else if (event["event"] == "error") {
      error = event["text"];
    } else {
      keepFailure([&] { session.take(event); });
    }
  }

  Session& session;
  int pipe;
  std::string text;
};

/// Whether poll() says of a pipe, a terminal or a socket that nobody reads it any more.
bool isUnread(int events) { return (events & (POLLERR | POLLHUP)) != 0; }

bool isOutputUnread() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return ::poll(&output, 1, 0) > 0 && isUnread(output.revents);
}

/// Whether a descriptor takes something at once, or refuses it at once.
bool isReady(int fd, short events, int milliseconds) {
  pollfd end{fd, events, 0};
  return ::poll(&end, 1, milliseconds) > 0;
}

int signalFrom(int signals) {
  signalfd_siginfo info{};
  return ::read(signals, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

/// Waits until something happens; the signal that came, or SIGPIPE when nobody reads the standard
/// output any more; 0 for neither. Events are `readable` only when the standard output can take
/// what they bring: a reader that has stopped must not keep signals from this process.
int waitFor(int pipe, int signals, bool& readable, int milliseconds) {
  constexpr int soon = 100;  // milliseconds
  const bool writable = isReady(STDOUT_FILENO, POLLOUT, 0);
  const short room = writable ? 0 : POLLOUT;
  pollfd fds[] = {
      {writable ? pipe : -1, POLLIN, 0}, {signals, POLLIN, 0}, {STDOUT_FILENO, room, 0}};
  const bool ready = ::poll(fds, 3, milliseconds) > 0;
  readable = ready && fds[0].revents != 0;
  if (ready && fds[1].revents != 0) {
    return signalFrom(signals);
  }
  if (!ready || !isUnread(fds[2].revents)) {
    return 0;
  }
  // A terminal that is closed sends a signal as well.
  return isReady(signals, POLLIN, soon) ? signalFrom(signals) : SIGPIPE;
}

/// Takes events until the last one; the signal that came before it.
int watch(Reader& reader, int pipe, int signals, ProgressOutput* progress) {
  for (int interrupting = 0;;) {
    bool readable = false;
    interrupting = waitFor(pipe, signals, readable, progress != nullptr ? 1000 : -1);
    const bool going = !readable || reader.read();
    if (interrupting != 0 || !going || reader.failure != nullptr) {
      return interrupting;
    }
    if (progress != nullptr && !readable) {
      progress->show();
    }
  }
}

/// Starts the process that does the work. Returns it, and the end of the pipe that it writes to.
pid_t start(const std::function<void(const Events&)>& work, int& readEnd) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw failure("pipe");
  }
  const Descriptor writeEnd(ends[1]);
  readEnd = ends[0];
  const pid_t self = getpid();
  const pid_t worker = ::fork();
  if (worker == 0) {
    doWork(writeEnd.fd, self, work);
  }
  if (worker < 0) {
    ::close(readEnd);
    throw failure("fork");
  }
  return worker;
}

}  // namespace

void undoAll(Session& session, LibraryOutput& libraryOutput) {
  std::vector<Json> switched = session.switched();
  for (; !switched.empty(); switched.pop_back()) {
    Json outcome = {{"event", "switched back"}};
    try {
      undo(switched.back());
    } catch (const std::exception& error) {
      outcome = {{"event", "not put back"}, {"why", error.what()}};
      dprintf(STDERR_FILENO, "talvero-bist: %s is not put back: %s\n",
              wordsOf(switched.back()).c_str(), error.what());
    }
    session.take(outcome);
  }
  libraryOutput.takeMessages(false);
}

int supervise(Session& session, LibraryOutput& libraryOutput, ProgressOutput* progress,
              const std::function<void(const Events&)>& work) {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(endingSignal, SIG_DFL);
  BlockedSignals signals;
  const Descriptor signalEnd(::signalfd(-1, &signals.blocked, SFD_CLOEXEC));
  int readEnd = -1;
  const pid_t worker = start(work, readEnd);
  const Descriptor pipe(readEnd);
  Reader reader(session, pipe.fd);
  int interrupting = watch(reader, pipe.fd, signalEnd.fd, progress);
  release(signals);
  end(worker);
  while (reader.read()) {
  }
  if (reader.failure != nullptr && isOutputUnread()) {
    interrupting = SIGPIPE;
  }
  if (reader.ended && interrupting != SIGPIPE) {
    interrupting = 0;
  }
  if (interrupting != 0) {
    reader.keepFailure([&] {
      session.interrupt(interrupting == SIGPIPE ? "nobody reads the output"
                                                : std::string("SIG") + sigabbrev_np(interrupting));
    });
  }
  if (!reader.ended || reader.failure != nullptr) {  // or else what is switched is to stay so
    undoAll(session, libraryOutput);
  }
  if (interrupting == 0 && reader.failure != nullptr) {
    std::rethrow_exception(reader.failure);
  }
  if (interrupting == 0 && !reader.ended) {
    throw std::runtime_error(
        reader.error.empty() ? "the process that tests has ended without a word" : reader.error);
  }
  return interrupting;
}
