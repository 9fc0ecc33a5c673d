#include "app/cleanup_exit.h"

#include <cstdio>
#include <cstdlib>

#include "app/live_output.h"
#include "app/signals.h"

void cleanup_exit(int status) {
  flush_output();
  std::fputs("Cleanup exit\n", stderr);
  end_by_stop_signal();
  std::exit(status);
}
