#include "net/socket_wait.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>

#include "base/clock.h"
#include "base/live_output.h"
#include "base/signals.h"

namespace {

struct progress_answer {
  progress_printer print;
  const test_settings* settings;
  const run_state* run;
  const test_stats* stats;
};

progress_answer answer = {};

bool fits_a_descriptor_set(int descriptor) {
  return descriptor >= 0 && descriptor < FD_SETSIZE;
}

void add_to_set(int descriptor, fd_set* set) {
  if (fits_a_descriptor_set(descriptor)) FD_SET(descriptor, set);
}

bool is_in_set(int descriptor, const fd_set* set) {
  return fits_a_descriptor_set(descriptor) && FD_ISSET(descriptor, set);
}

timeval as_timeval(std::int64_t usec) {
  return {.tv_sec = static_cast<time_t>(usec / usec_per_second),
          .tv_usec = static_cast<suseconds_t>(usec % usec_per_second)};
}

}  // namespace

wait_result wait_on_socket(int socket, socket_event event, std::int64_t* left_usec) {
  flush_output();
  const int signals = signal_descriptor();
  timeval left = as_timeval(*left_usec);
  for (;;) {
    fd_set readable = {};
    fd_set writable = {};
    add_to_set(socket, event == socket_event::readable ? &readable : &writable);
    add_to_set(signals, &readable);
    // On Linux select leaves in `left` the time not slept (select(2)), so an interrupted wait goes on where it was.
    const int ready = select(std::max(fits_a_descriptor_set(socket) ? socket : -1, signals) + 1, &readable, &writable,
                             nullptr, &left);
    if (ready < 0 && errno == EINTR) continue;
    *left_usec = static_cast<std::int64_t>(left.tv_sec) * usec_per_second + left.tv_usec;
    if (ready < 0) return wait_result::failed;
    if (ready == 0) return wait_result::elapsed;
    if (is_in_set(signals, &readable)) {
      drain_signal_descriptor();
      answer_progress_request();
      if (stop_signal() != 0) return wait_result::stopped;
      continue;
    }
    if (is_in_set(socket, &readable) || is_in_set(socket, &writable)) return wait_result::ready;
  }
}

void yield_processor() {
  flush_output();
  sched_yield();
}

// What nobody can answer yet, such as a request during a connect, is kept for the run.
void answer_progress_request() {
  if (answer.print != nullptr && take_progress_request()) answer.print(answer.settings, answer.run, answer.stats);
}

void answer_progress_with(progress_printer print, const test_settings* settings, const run_state* run,
                          const test_stats* stats) {
  answer = {.print = print, .settings = settings, .run = run, .stats = stats};
}

void ask_for_exact_waits() {
  constexpr unsigned long shortest_slack_nsec = 1;
  prctl(PR_SET_TIMERSLACK, shortest_slack_nsec);
}
