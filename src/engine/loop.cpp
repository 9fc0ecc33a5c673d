#include "engine/loop.h"

#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>

#include "base/address_text.h"
#include "base/cleanup_exit.h"
#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "engine/batch_progress.h"
#include "engine/echo_progress.h"
#include "engine/pacing.h"
#include "engine/release.h"
#include "net/receive_frame.h"
#include "net/socket_connection.h"
#include "net/socket_options.h"
#include "net/socket_wait.h"
#include "report/results_files.h"
#include "report/summary.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::int64_t full_connection_wait_usec = 1000;

void derive_sizes(test_settings* settings, run_state* run) {
  const packet_sizes sizes = sizes_for_carrier(uses_udp(settings), uses_tcp(settings), settings->ip_length);
  settings->ip_length = sizes.ip_length;
  settings->payload_length = sizes.payload_length;
  run->transmit_length = sizes.transmit_length;
  run->payload_length = sizes.payload_length;
}

// A stream's packets and the window of the running bitrate are looked up by any sequence number. Otherwise only open
// requests are, and the packets of one burst.
std::uint32_t slots_needed(const test_settings* settings) {
  if (is_partner(settings) || settings->average_window != 0) return packet_table_slots;
  if (settings->ignore_responses != 0) return fewest_packet_slots;
  return std::max(std::bit_ceil(settings->max_outstanding), fewest_packet_slots);
}

// A command run would spend more on mapping a table than on what it notes there. There is one at a time, inside a run
// whose own table it must not touch.
std::array<packet_slot, fewest_packet_slots> table_of_command_run;

// Mapped, not taken from the heap: pages come zeroed when they are first touched.
void allocate_packet_table(const test_settings* settings, run_state* run) {
  if (is_command_run(settings)) {
    run->packet_table_size = fewest_packet_slots;
    run->packet_table = table_of_command_run.data();
    return;
  }
  run->packet_table_size = slots_needed(settings);
  void* table = mmap(nullptr, run->packet_table_size * sizeof(packet_slot), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (table == MAP_FAILED) {
    std::fprintf(stderr, "ERROR: Cannot allocate packet buffers.\n");
    cleanup_exit(1);
  }
  run->packet_table = static_cast<packet_slot*>(table);
}

void free_packet_table(run_state* run) {
  if (run->packet_table != table_of_command_run.data())
    munmap(run->packet_table, run->packet_table_size * sizeof(packet_slot));
  run->packet_table = nullptr;
}

// Commands all go to the first host.
std::uint32_t hosts_of_test(const test_settings* settings) {
  if (is_commander(settings)) return 1;
  return ntohl(settings->end_host) - ntohl(settings->start_host) + 1;
}

// A monitor that still streams for a run before this one could not take our command, and its packets would be counted
// as ours: they are read away first, but not for ever. On a connection that run is over with its connection.
void await_silence(const test_settings* settings, const run_state* run) {
  if (is_commander(settings) && uses_udp(settings)) flush_pending_frames(run->data_socket);
}

// The clock starts last, so that nothing of this is measured.
void start_run(test_settings* settings, run_state* run, test_stats* stats) {
  *stats = {};
  print_host_range(settings);
  if (speaks(settings)) answer_progress_with(print_progress, settings, run, stats);
  derive_sizes(settings, run);
  allocate_packet_table(settings, run);
  if (settings->process_id == 0) settings->process_id = static_cast<std::uint32_t>(getpid());
  leave_out_own_traffic(settings, run);
  settings->total_requests = hosts_of_test(settings) * settings->echo_count;
  await_silence(settings, run);
  stats->start_time = clock_now();
  run->last_tx_time = clock_now();
}

// The pause of a test that never reads, until its next release; a stop signal ends it. A pass that released nothing, as
// every pass of a TCP monitor, has no release ahead and rests for a whole delay.
void rest_without_reading(bool released, const test_settings* settings, run_state* run) {
  std::int64_t left_usec = released ? time_until_next_release(settings, run) : settings->delay_usec;
  if (settings->delay_usec > 1 && left_usec > 0 && !was_cut_short(settings, run))
    (void)wait_on_socket(-1, socket_event::readable, &left_usec);
  yield_processor();
  run->step_time = 0;
}

void await_first_sender(test_settings* settings) {
  settings->process_id = 0;
  settings->start_host = inet_addr("127.0.0.1");
}

// A connection whose read failed has lost its place in the stream, and ends.
frame_result read_frame(test_settings* settings, run_state* run, test_stats* stats, std::int64_t wait_usec) {
  const frame_result status = receive_one_frame(settings, run, stats, wait_usec);
  if (status == frame_failed && uses_tcp(settings)) close_data_socket(run);
  return status;
}

bool keep_receiving(test_settings* settings, run_state* run, test_stats* stats, frame_result status) {
  if (is_commander(settings)) return batch_report(settings, run, stats, status) != 0;
  if (is_partner(settings)) return true;
  return echo_progress(settings, run, stats) != 0;
}

// A TCP monitor takes its next connection. A commander has none to wait for: its test is over.
void take_connection(run_state* run) {
  if (run->listen_socket > 0) {
    accept_test_connection(run);
  } else {
    run->connection_is_gone = 1;
  }
}

// `shortest_wait_usec` keeps a test that cannot send from asking again without a pause.
void receive_phase(std::int64_t shortest_wait_usec, test_settings* settings, run_state* run, test_stats* stats) {
  bool goes_on = true;
  while (goes_on && !was_cut_short(settings, run)) {
    if (is_partner(settings) && run->data_socket == -1) {
      take_connection(run);
      if (was_cut_short(settings, run)) return;
    }
    const std::int64_t wait_usec = std::max(time_until_next_event(settings, run), shortest_wait_usec);
    const frame_result status = read_frame(settings, run, stats, wait_usec);
    if (was_cut_short(settings, run) && is_commander(settings)) return;  // the open batch is dropped, not judged
    goes_on = keep_receiving(settings, run, stats, status);
  }
}

// The order of the steps: a monitor forgets its identifier only after its own echo went out with it. A batch is opened
// after its command, which took its place and its number from the same fields.
void run_one_pass(test_settings* settings, run_state* run, test_stats* stats, const command_body* command) {
  note_duration(settings, stats, time_of_step(run), run);
  const std::uint32_t due = packets_due(settings, run);
  const release_end released = release_packets(due, settings, run, stats, command);
  if (settings->ignore_responses != 0) {
    rest_without_reading(due != 0, settings, run);
    return;
  }
  if (is_monitor(settings) && uses_icmp(settings)) await_first_sender(settings);
  if (is_commander(settings)) {
    if (run->current_tx__packet == 0) return;  // the test ended before its command could leave
    open_batch(run, stats);
  }
  receive_phase(released == release_end::complete ? 0 : full_connection_wait_usec, settings, run, stats);
}

// After a stop signal an echo test sends nothing more, but its outstanding requests are answered or time out.
void settle_outstanding(test_settings* settings, run_state* run, test_stats* stats) {
  while (run->oldest_outstanding < run->current_tx__packet) {
    const std::int64_t wait_usec = time_until_timeout(settings, run);
    (void)read_frame(settings, run, stats, wait_usec);
    (void)echo_progress(settings, run, stats);
  }
}

// A commander that was cut short asked for no more than it got. A monitor that a stop signal ends has nothing to sum
// up; one that ends by itself is like any other run.
void report_end(test_settings* settings, const run_state* run, const test_stats* stats) {
  if (!speaks(settings)) return;
  if (is_commander(settings)) {
    if (was_cut_short(settings, run)) settings->echo_count = run->batch;
    write_results_files(settings, stats);
  } else if (!is_monitor(settings) || !was_cut_short(settings, run)) {
    print_test_summary(settings, stats);
  }
}

// Requests are settled while their table lives and before the end is noted: waiting for them belongs to the test.
void finish_run(test_settings* settings, run_state* run, test_stats* stats) {
  const bool waits_for_answers = is_echo_mode(settings) && settings->ignore_responses == 0;
  if (was_cut_short(settings, run) && waits_for_answers) settle_outstanding(settings, run, stats);
  stats->end_time = clock_now();
  free_packet_table(run);
  if (speaks(settings)) answer_progress_with(nullptr, nullptr, nullptr, nullptr);
  report_end(settings, run, stats);
  if (end_of_test(settings, run) == test_end::connection_gone) end_without_connection();
}

}  // namespace

int run_test(test_settings* settings, test_stats* stats, run_state* run, const command_body* command) {
  start_run(settings, run, stats);
  while (end_of_test(settings, run) == test_end::none) run_one_pass(settings, run, stats, command);
  finish_run(settings, run, stats);
  return 0;
}

void print_host_range(const test_settings* settings) {
  if (!speaks(settings)) return;
  if (settings->start_host == settings->end_host) {
    std::fprintf(stderr, "Destination IP = %s\n", address_text(settings->start_host));
    return;
  }
  std::fprintf(stderr, "Start IP= %s  ", address_text(settings->start_host));
  std::fprintf(stderr, "End IP= %s\n", address_text(settings->end_host));
}
