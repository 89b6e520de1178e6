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
#include <cstring>
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
  ~BlockedSignals() { sigprocmask(SIG_SETMASK, &before, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

  sigset_t blocked{};

 private:
  sigset_t before{};
};

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

/// Takes the events that are in the pipe.
class Reader {
 public:
  explicit Reader(Session& into) : session(into) {}

  /// Reads what is there; false at its end.
  bool read(int pipe) {
    char buffer[65536];
    const ssize_t size = ::read(pipe, buffer, sizeof buffer);
    if (size <= 0) {
      return size < 0 && errno == EINTR;
    }
    text.append(buffer, static_cast<std::size_t>(size));
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos;
         end = text.find('\n', begin)) {
      const Json event = Json::parse(text.substr(begin, end - begin));
      begin = end + 1;
      if (event["event"] == "end") {
        ended = true;
      } else if (event["event"] == "error") {
        error = event["text"];
      } else {
        session.take(event);
      }
    }
    text.erase(0, begin);
    return true;
  }

  bool ended = false;
  std::string error;

 private:
  Session& session;
  std::string text;
};

/// Undoes what is switched, the last first. Another signal ends the process.
void undoAll(Session& session, LibraryOutput& libraryOutput) {
  std::vector<Json> switched = session.switched();
  for (; !switched.empty(); switched.pop_back()) {
    try {
      undo(switched.back());
      session.take({{"event", "switched back"}});
    } catch (const std::exception& error) {
      session.take({{"event", "not put back"}, {"why", error.what()}});
      dprintf(STDERR_FILENO, "talvero-bist: %s is not put back: %s\n",
              wordsOf(switched.back()).c_str(), error.what());
    }
  }
  libraryOutput.takeMessages(false);
}

/// Whether a descriptor is a pipe that nobody reads any more.
bool isUnread(int fd) {
  pollfd end{fd, 0, 0};
  return ::poll(&end, 1, 0) > 0 && (end.revents & POLLERR) != 0;
}

/// Waits until something happens; the signal that came, or SIGPIPE when nobody reads the standard
/// output any more; 0 for neither.
int waitFor(int pipe, int signals, bool& readable, int milliseconds) {
  pollfd fds[] = {{pipe, POLLIN, 0}, {signals, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  const int ready = ::poll(fds, 3, milliseconds);
  readable = ready > 0 && fds[0].revents != 0;
  if (ready > 0 && fds[1].revents != 0) {
    signalfd_siginfo info{};
    if (::read(signals, &info, sizeof info) == sizeof info) {
      return static_cast<int>(info.ssi_signo);
    }
  }
  return ready > 0 && (fds[2].revents & POLLERR) != 0 ? SIGPIPE : 0;
}

}  // namespace

int supervise(Session& session, LibraryOutput& libraryOutput, ProgressOutput* progress,
              const std::function<void(const Events&)>& work) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw failure("pipe");
  }
  const Descriptor readEnd(ends[0]);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(endingSignal, SIG_DFL);
  int interrupting = 0;
  Reader reader(session);
  pid_t worker = 0;
  try {
    const BlockedSignals blocked;
    const Descriptor signals(::signalfd(-1, &blocked.blocked, SFD_CLOEXEC));
    const pid_t self = getpid();
    {
      const Descriptor writeEnd(ends[1]);
      worker = ::fork();
      if (worker == 0) {
        doWork(writeEnd.fd, self, work);
      }
    }
    if (worker < 0) {
      throw failure("fork");
    }
    bool going = true;
    while (going && interrupting == 0) {
      bool readable = false;
      interrupting = waitFor(readEnd.fd, signals.fd, readable, progress != nullptr ? 1000 : -1);
      going = !readable || reader.read(readEnd.fd);
      if (progress != nullptr && !readable) {
        progress->show();
      }
    }
    end(worker);
    while (interrupting != 0 && reader.read(readEnd.fd)) {
    }
    interrupting = reader.ended && interrupting != SIGPIPE ? 0 : interrupting;
  } catch (...) {
    if (worker > 0) {
      end(worker);
    }
    if (!isUnread(STDOUT_FILENO)) {
      undoAll(session, libraryOutput);
      throw;
    }
    interrupting = SIGPIPE;
  }
  if (interrupting != 0) {
    session.interrupt(interrupting == SIGPIPE ? "nobody reads the output"
                                              : std::string("SIG") + sigabbrev_np(interrupting));
  }
  if (!reader.ended) {  // or else what is still switched is to stay so
    undoAll(session, libraryOutput);
  }
  if (interrupting == 0 && !reader.error.empty()) {
    throw std::runtime_error(reader.error);
  }
  if (interrupting == 0 && !reader.ended) {
    throw std::runtime_error("the process that tests has ended without a word");
  }
  return interrupting;
}
