#include "base/cleanup_exit.h"

#include <cstdio>
#include <cstdlib>

#include "base/live_output.h"
#include "base/signals.h"

namespace {

void (*action_at_exit)() = nullptr;

}  // namespace

void call_at_exit(void (*action)()) {
  action_at_exit = action;
}

// The signal ends the process as if nobody had caught it, so that a shell sees why; it comes behind the last line.
void cleanup_exit(int status) {
  if (action_at_exit != nullptr) action_at_exit();
  flush_output();
  std::fputs("Cleanup exit\n", stderr);
  end_by_stop_signal();
  std::exit(status);
}
