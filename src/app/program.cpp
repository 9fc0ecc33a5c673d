#include "app/program.h"

#include <cstdio>

#include "app/options.h"
#include "app/usage.h"
#include "base/cleanup_exit.h"
#include "base/live_output.h"
#include "base/privileges.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/signals.h"
#include "base/version.h"
#include "engine/loop.h"
#include "net/host_losses.h"
#include "net/socket_connection.h"
#include "net/socket_open.h"
#include "net/socket_wait.h"
#include "report/results_files.h"
#include "report/summary.h"
#include "wire/remote_command.h"

namespace {

// The compiler takes date and time from SOURCE_DATE_EPOCH where that is set.
void print_banner() {
  std::fprintf(stdout, "Vorn version %d.%d, a network test tool for IPv4. MIT licence, no warranty.\n", version_major,
               version_minor);
  std::fprintf(stdout, "Built %s at %s\n", __DATE__, __TIME__);
}

// The command carries both flags set; the commander itself waits for what comes back.
void prepare_command(test_settings* settings, command_body* command) {
  if (!is_commander(settings)) return;
  call_at_exit(close_unused_results_file);
  build_remote_command(settings, command);
  settings->ignore_responses = 0;
  settings->unidirectional = 0;
}

}  // namespace

// The socket is opened with the signals caught, because a connect may wait long, and before the privileges go, because
// a raw socket needs one.
int run_program(int argc, char** argv) {
  set_up_standard_streams();
  become_real_user();
  print_banner();

  test_settings settings = {};
  if (parse_command_line(argc, argv, &settings) != 0) {
    print_usage(argv[0]);
    cleanup_exit(1);
  }

  test_stats stats = {};
  command_body command = {};
  prepare_command(&settings, &command);
  run_state run = {};
  catch_signals(!is_monitor(&settings));
  open_test_socket(&settings, &run);
  give_up_privileges();
  current_run_state = &run;
  ask_for_exact_waits();

  const host_counters before = read_host_counters();
  const int status = run_test(&settings, &stats, &run, &command);
  const host_losses losses = losses_since(&before, &settings, &run, &stats);
  print_host_losses(&losses);
  close_data_socket(&run);
  return status;
}
