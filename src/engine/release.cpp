#include "engine/release.h"

#include <sys/socket.h>

#include <algorithm>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "engine/batch_progress.h"
#include "engine/pacing.h"
#include "net/send_burst.h"
#include "net/send_packet.h"
#include "net/socket_connection.h"
#include "net/socket_wait.h"

namespace {

// After a failed send nothing more is due. A command run leaves closing to the monitor that lent the socket, which
// finds the connection ended at its next read: half a message would shift everything behind it.
void end_sending(const test_settings* settings, run_state* run) {
  if (is_command_run(settings)) {
    shutdown(run->data_socket, SHUT_RDWR);
  } else {
    close_data_socket(run);
  }
  run->current_tx__packet = settings->total_requests;
}

// In echo mode a TCP connection that takes nothing more ends the release: its answers have to be read first, or both
// sides would wait for each other to read.
bool must_read_first(const test_settings* settings, const run_state* run) {
  return uses_tcp(settings) && is_echo_mode(settings) && settings->ignore_responses == 0 &&
         !has_room_to_send(run->data_socket);
}

// Sends one packet, or as many of the `due` as one call takes. Returns how many; 0 when nothing more is to be sent.
std::uint32_t send_some(std::uint32_t due, test_settings* settings, run_state* run, test_stats* stats,
                        const command_body* command) {
  if (sends_bursts(settings)) return send_burst(settings, run, stats, std::min(due, largest_burst));
  if (is_commander(settings)) arm_batch(settings, run);  // its first packets may come before the send returns
  const int result = send_test_packet(settings, run, stats, command);
  if (result < 0) end_sending(settings, run);
  if (result > 0) run->stop_requested = 1;
  return result == 0 ? 1 : 0;
}

}  // namespace

// A release may be long: it ends by itself once the duration is over or a stop signal came.
release_end release_packets(std::uint32_t due, test_settings* settings, run_state* run, test_stats* stats,
                            const command_body* command) {
  while (due != 0 && !was_cut_short(settings, run)) {
    if (must_read_first(settings, run)) {
      return_credit(due, settings, run);
      return release_end::connection_is_full;
    }
    const std::uint32_t sent = send_some(due, settings, run, stats, command);
    answer_progress_request();
    run->step_time = 0;
    const std::int64_t now = sent != 0 ? slot_of(run, run->current_tx__packet - 1)->tx_time : clock_now();
    note_duration(settings, stats, now, run);
    if (sent == 0 || end_of_test(settings, run) != test_end::none) break;
    due -= sent;
  }
  return release_end::complete;
}
