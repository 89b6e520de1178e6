// SPDX-License-Identifier: MIT
#include "simulator/shared/State.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

namespace simulator {

namespace {

State* shared = nullptr;

constexpr char goneText[] = "the instrument is gone: talvero-sim has ended";

}  // namespace

void endProcess(const std::string& reason) {
  const std::string line = "talvero-sim: " + reason + "\n";
  (void)!::write(STDERR_FILENO, line.data(), line.size());
  _exit(2);
}

State& attach(const char* stateFile) {
  const int fd = ::open(stateFile, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    endProcess(errno == EACCES ? "the instrument is another user's"
               : errno == ENOENT
                   ? goneText
                   : std::string("the instrument's state ") + stateFile + " cannot be opened");
  }
  void* memory = mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (memory == MAP_FAILED) {
    endProcess("the instrument's state cannot be mapped");
  }
  shared = static_cast<State*>(memory);
  return *shared;
}

void requireTree() {
  // Answered by umockdev: the same file must be there through /sys and through the tree itself.
  const char* root = secure_getenv(rootVariable);
  if (root == nullptr || std::string(root) != shared->root ||
      ::access("/sys/class/gpio/.talvero-sim", F_OK) != 0) {
    endProcess("the simulated /sys is not in place (is libumockdev-preload.so.0 loaded?)");
  }
}

void detach() {
  if (shared != nullptr) {
    munmap(shared, sizeof(State));
    shared = nullptr;
  }
}

State* state() { return shared; }

bool attached() { return shared != nullptr; }

void requireInstrument(const char* access) {
  if (!attached()) {
    endProcess(std::string("no simulated instrument: refusing ") + access);
  }
}

void requireRunning() {
  if (shared->ended) {
    endProcess(goneText);
  }
}

Locked::Locked() {
  requireRunning();
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &signals);
  if (pthread_mutex_lock(&shared->mutex) == EOWNERDEAD) {
    pthread_mutex_consistent(&shared->mutex);  // a program was killed inside a call
    shared->moment = -1;
  }
}

Locked::~Locked() {
  pthread_mutex_unlock(&shared->mutex);
  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

State* Locked::operator->() const { return shared; }

State& Locked::operator*() const { return *shared; }

bool faultIsOn(Fault fault) { return attached() && Locked()->hardware.faults[fault]; }

}  // namespace simulator
