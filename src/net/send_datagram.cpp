#include "net/send_datagram.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/test_end.h"
#include "net/kernel_stamps.h"
#include "net/socket_options.h"
#include "net/socket_wait.h"

namespace {

// Select calls a datagram socket writable only when half of its buffer is free, which takes a minute on a slow link; a
// packet's room may be there much earlier.
constexpr std::int64_t buffer_slice_usec = 10000;

bool serves_others(const test_settings* settings) {
  return is_monitor(settings) || is_command_run(settings);
}

}  // namespace

send_outcome outcome_of(ssize_t result) {
  if (result >= 0) return send_outcome::taken;
  return errno == EAGAIN || errno == EWOULDBLOCK ? send_outcome::full : send_outcome::refused;
}

sockaddr_in current_destination(const test_settings* settings) {
  return socket_address(settings->start_host, uses_icmp(settings) ? std::uint16_t{0} : settings->remote_port);
}

bool refuses_destination(const test_settings* settings, const sockaddr_in* destination) {
  if (!serves_others(settings) || !IN_MULTICAST(ntohl(destination->sin_addr.s_addr))) return false;
  errno = EACCES;
  return true;
}

bool wait_for_buffer(const test_settings* settings, const run_state* run, const test_stats* stats) {
  take_send_stamps(run);  // one that waits would end the wait at once
  std::int64_t left_usec = std::min(time_until_end(settings, stats), buffer_slice_usec);
  if (wait_on_socket(run->data_socket, socket_event::writable, &left_usec) == wait_result::failed) return false;
  return !sending_is_over(settings, stats);
}

datagram_sent send_datagram(const test_settings* settings, const run_state* run, const test_stats* stats,
                            const sockaddr_in* destination, std::span<const std::uint8_t> bytes) {
  if (refuses_destination(settings, destination)) return {.result = -1, .sent_at = clock_now(), .at_once = false};
  datagram_sent sent = {};
  const auto* address = reinterpret_cast<const sockaddr*>(destination);
  for (bool first = true;; first = false) {
    sent.sent_at = clock_now();
    sent.result = sendto(run->data_socket, bytes.data(), bytes.size(), MSG_DONTWAIT, address, sizeof *destination);
    if (sent.result < 0 && errno == EINTR) continue;
    sent.at_once = first && sent.result >= 0;
    if (outcome_of(sent.result) != send_outcome::full) return sent;
    if (!wait_for_buffer(settings, run, stats)) break;
  }
  errno = EAGAIN;
  return sent;
}

void report_refused_packet(const test_settings* settings, run_state* run, std::uint32_t length, ssize_t result) {
  if (serves_others(settings) && errno == EACCES) return;
  if (is_command_run(settings) && run->refusal_reported != 0) return;
  run->refusal_reported = 1;
  std::fprintf(stdout, "Err- could not send %d bytes, sent %d bytes\n", static_cast<int>(length),
               static_cast<int>(result));
}
