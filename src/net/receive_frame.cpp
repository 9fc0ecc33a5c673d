#include "net/receive_frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "base/clock.h"
#include "base/live_output.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/signals.h"
#include "net/icmp_handler.h"
#include "net/kernel_stamps.h"
#include "net/message_handler.h"
#include "net/receive_datagram.h"
#include "net/socket_wait.h"
#include "wire/messages.h"

namespace {

constexpr std::int64_t longest_pause_usec = 10000000;  // inside one TCP message
constexpr std::int64_t stop_grace_usec = 100000;       // for the rest of a message, after a stop signal
constexpr std::size_t flushed_at_once = 2000;          // bytes
constexpr std::int64_t flush_silence_usec = 20000;
constexpr std::int64_t longest_flush_usec = 10000000;

// Where answers can be queued, as many are read at once as wait for an answer; in partner mode a stream is.
constexpr std::uint32_t read_at_once = 64;

// What a wait that begins in a read leaves is waited for exactly, so it must be far from its end then.
constexpr std::int64_t shortest_wait_to_read_in_usec = 50000;

std::uint32_t datagrams_to_expect(const test_settings* settings, const run_state* run) {
  return is_echo_mode(settings) ? run->current_tx__packet - run->oldest_outstanding : read_at_once;
}

frame_result report_failed_wait(const test_settings* settings) {
  if (speaks(settings)) std::fprintf(stderr, "Error- socket error on socket\n");
  return frame_failed;
}

frame_result handle_datagram(const received_datagram* datagram, test_settings* settings, run_state* run,
                             test_stats* stats) {
  const auto length = static_cast<int>(datagram->length);
  if (datagram->failed) return frame_none;
  if (length == 0) {
    if (speaks(settings)) std::fprintf(stderr, "Error- zero length recvfrom on an icmp socket\n");
    return frame_failed;
  }
  if (!uses_udp(settings)) {
    return handle_icmp_response(datagram->bytes.data(), length, &datagram->arrival, settings, stats, run);
  }
  return handle_test_message(datagram->source, datagram->source_port, datagram->bytes.data(), length,
                             &datagram->arrival, settings, stats, run);
}

// How a datagram is looked for before anything waits for it.
enum class first_read : std::uint8_t { none, at_once, patient };

// An echo test reads first and waits only when nothing is there: while answers stream in, that saves a call for each.
// In partner mode that read would find nothing, but for what was read ahead. A long wait begins in the read itself,
// which saves the call that only waits; but what was printed must be out before. A commander waits first all the same:
// behind that call more of its stream is there, and one read takes it.
first_read plan_first_read(const test_settings* settings, const run_state* run, std::int64_t wait_usec) {
  if (wait_usec == 0 || has_read_ahead()) return first_read::at_once;
  if (run->reads_can_wait != 0 && !is_commander(settings) && wait_usec >= shortest_wait_to_read_in_usec &&
      !output_is_waiting())
    return first_read::patient;
  return is_partner(settings) ? first_read::none : first_read::at_once;
}

read_result take_datagram(const test_settings* settings, run_state* run, read_patience patience,
                          received_datagram* datagram) {
  const std::uint32_t most = datagrams_to_expect(settings, run);
  const read_extent extent = uses_udp(settings) ? read_extent::front : read_extent::whole;  // ICMP has a checksum
  const bool was_read_ahead = has_read_ahead();
  const read_result result = read_datagram(run->data_socket, most, extent, patience, datagram);
  take_send_stamps(run);
  if (!was_read_ahead) run->step_time = run->stamps_sends == 0 ? datagram->arrival.reading : 0;
  return result;
}

// The same, where the read may wait. *wait_usec becomes what it leaves of the wait.
read_result take_datagram_patiently(const test_settings* settings, run_state* run, std::int64_t* wait_usec,
                                    received_datagram* datagram) {
  answer_progress_request();
  const std::int64_t began = time_of_step(run);
  const read_result result = take_datagram(settings, run, read_patience::ten_msec, datagram);
  if (result == read_result::nothing_there)
    *wait_usec = std::max<std::int64_t>(*wait_usec - usec_between(began, clock_now()), 0);
  return result;
}

frame_result receive_datagram(test_settings* settings, run_state* run, test_stats* stats, std::int64_t wait_usec) {
  received_datagram datagram = {};
  read_result read = read_result::nothing_there;
  const first_read first = plan_first_read(settings, run, wait_usec);
  if (first == first_read::at_once) read = take_datagram(settings, run, read_patience::none, &datagram);
  if (first == first_read::patient) read = take_datagram_patiently(settings, run, &wait_usec, &datagram);
  while (read == read_result::nothing_there) {
    if (wait_usec == 0) return frame_none;
    run->step_time = 0;
    const wait_result result = wait_on_socket(run->data_socket, socket_event::readable, &wait_usec);
    if (result == wait_result::failed) return report_failed_wait(settings);
    if (result != wait_result::ready) return frame_none;
    read = take_datagram(settings, run, read_patience::none, &datagram);
  }
  if (read == read_result::no_socket) return report_failed_wait(settings);
  return handle_datagram(&datagram, settings, run, stats);
}

frame_result receive_message(test_settings* settings, run_state* run, test_stats* stats, std::int64_t wait_usec) {
  const wait_result result = wait_on_socket(run->data_socket, socket_event::readable, &wait_usec);
  if (result == wait_result::failed) return report_failed_wait(settings);
  if (result != wait_result::ready) return frame_none;

  std::array<std::uint8_t, message_buffer_bytes> message_buffer;  // not zeroed: only received bytes are read
  std::uint8_t* buffer = message_buffer.data();
  constexpr int header_bytes = test_header_bytes;
  if (receive_all(run->data_socket, buffer, header_bytes) < header_bytes) return frame_failed;
  test_header header = {};
  if (!read_test_header({buffer, test_header_bytes}, &header)) return frame_failed;
  if (header.length < test_header_bytes || header.length > message_buffer_bytes) return frame_failed;
  const int body_bytes = static_cast<int>(header.length) - header_bytes;
  if (receive_all(run->data_socket, buffer + header_bytes, body_bytes) < body_bytes) return frame_failed;
  const frame_arrival arrival = {.stamp = 0, .reading = clock_now()};  // a stream has no stamps of its messages
  return handle_test_message(settings->start_host, 0, buffer, static_cast<int>(header.length), &arrival, settings,
                             stats, run);
}

// True when more of the stream can be read. `grace_usec` is what a stop signal leaves for the rest of a message.
bool wait_for_more(int socket, std::int64_t* grace_usec) {
  std::int64_t pause_usec = longest_pause_usec;
  for (;;) {
    std::int64_t* left_usec = stop_signal() != 0 ? grace_usec : &pause_usec;
    const wait_result result = wait_on_socket(socket, socket_event::readable, left_usec);
    if (result != wait_result::stopped) return result == wait_result::ready;
  }
}

bool is_stream(int socket) {
  int type = 0;
  socklen_t length = sizeof type;
  return getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

}  // namespace

frame_result receive_one_frame(test_settings* settings, run_state* run, test_stats* stats, std::int64_t wait_usec) {
  if (settings->debug != 0 && speaks(settings)) {
    std::fprintf(stdout, "Select for %ld.%06ld\n", static_cast<long>(wait_usec / usec_per_second),
                 static_cast<long>(wait_usec % usec_per_second));
  }
  if (run->data_socket == -1) {
    run->step_time = 0;
    (void)wait_on_socket(-1, socket_event::readable, &wait_usec);
    return frame_none;
  }
  if (uses_tcp(settings)) {
    run->step_time = 0;
    return receive_message(settings, run, stats, wait_usec);
  }
  return receive_datagram(settings, run, stats, wait_usec);
}

int receive_all(int socket, std::uint8_t* destination, int count) {
  std::int64_t grace_usec = stop_grace_usec;
  int total = 0;
  while (total < count) {
    const ssize_t got =
        recvfrom(socket, destination + total, static_cast<std::size_t>(count - total), MSG_DONTWAIT, nullptr, nullptr);
    if (got > 0) {
      total += static_cast<int>(got);
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) || !wait_for_more(socket, &grace_usec)) {
      break;
    }
  }
  return total;
}

void flush_pending_frames(int socket) {
  if (socket < 0) return;
  const bool stream = is_stream(socket);
  const std::int64_t start = clock_now();
  std::array<std::uint8_t, flushed_at_once> scratch;
  int discarded = discard_read_ahead();
  while (stop_signal() == 0 && usec_between(start, clock_now()) < longest_flush_usec) {
    std::int64_t silence_usec = flush_silence_usec;
    const wait_result result = wait_on_socket(socket, socket_event::readable, &silence_usec);
    if (result == wait_result::stopped) continue;
    if (result != wait_result::ready) break;
    const ssize_t length = recv(socket, scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (length < 0 || (length == 0 && stream)) break;
    ++discarded;
  }
  if (discarded > 0) std::fprintf(stderr, "Flushed %d frames\n", discarded);
}
