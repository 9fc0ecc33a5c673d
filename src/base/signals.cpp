#include "base/signals.h"

#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace {

constexpr std::array<int, 3> stop_signals = {SIGINT, SIGTERM, SIGHUP};

std::array<bool, stop_signals.size()> is_caught = {};

volatile std::sig_atomic_t noted_stop_signal = 0;
volatile std::sig_atomic_t progress_requested = 0;
int wake_descriptor = -1;

void wake_the_wait() {
  const std::uint64_t one = 1;
  // A counter that is full is readable already, so a failed write loses nothing.
  [[maybe_unused]] const ssize_t written = write(wake_descriptor, &one, sizeof one);
}

// Only async-signal-safe calls (signal-safety(7)).
void note_stop_signal(int signal_number) {
  const int saved_errno = errno;
  noted_stop_signal = signal_number;
  for (std::size_t i = 0; i < stop_signals.size(); ++i) {
    if (is_caught[i]) std::signal(stop_signals[i], SIG_DFL);
  }
  wake_the_wait();
  errno = saved_errno;
}

void note_progress_request(int /*signal_number*/) {
  const int saved_errno = errno;
  progress_requested = 1;
  wake_the_wait();
  errno = saved_errno;
}

// Interrupted calls are restarted, or a write of standard output that waits for a slow pipe would lose its lines;
// select and a read with a time-out are never restarted (signal(7)), and they are where the program waits.
bool catch_unless_ignored(int signal_number, void (*handler)(int)) {
  struct sigaction action = {};
  if (sigaction(signal_number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) return false;
  action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int each : stop_signals) sigaddset(&action.sa_mask, each);
  return sigaction(signal_number, &action, nullptr) == 0;
}

}  // namespace

void catch_signals(bool progress_on_quit) {
  noted_stop_signal = 0;
  progress_requested = 0;
  wake_descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake_descriptor >= FD_SETSIZE) {
    close(wake_descriptor);
    wake_descriptor = -1;
  }
  for (std::size_t i = 0; i < stop_signals.size(); ++i) {
    is_caught[i] = catch_unless_ignored(stop_signals[i], note_stop_signal);
  }
  if (progress_on_quit) catch_unless_ignored(SIGQUIT, note_progress_request);
}

int stop_signal() {
  return noted_stop_signal;
}

bool take_progress_request() {
  if (progress_requested == 0) return false;
  progress_requested = 0;
  return true;
}

int signal_descriptor() {
  return wake_descriptor;
}

void drain_signal_descriptor() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(wake_descriptor, &count, sizeof count);
}

void end_by_stop_signal() {
  const int signal_number = noted_stop_signal;
  if (signal_number == 0) return;
  std::signal(signal_number, SIG_DFL);
  std::raise(signal_number);
}
