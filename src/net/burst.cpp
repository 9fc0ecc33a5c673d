#include "net/burst.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "net/datagram_send.h"
#include "net/packet.h"
#include "report/packet_lines.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::uint32_t largest_udp_bytes = largest_ip_length - ipv4_header_bytes - udp_header_bytes;

// The headers of a burst, and the zeros that follow each of them in its packet. The parts of a packet are gathered by
// the kernel, so no payload is ever written.
std::array<std::array<std::uint8_t, test_header_bytes>, largest_burst> headers = {};
std::array<std::uint8_t, message_buffer_bytes> zeros = {};
std::array<std::array<iovec, 2>, largest_burst> parts = {};

void build_packet(const test_settings* settings, const run_state* run, const test_stats* stats, std::uint32_t index) {
  const std::uint32_t sequence = run->current_tx__packet + index;
  std::uint8_t* header = headers[index].data();
  const std::uint32_t header_bytes = write_frame_header(settings, run, sequence, header);
  parts[index] = {{{.iov_base = header, .iov_len = header_bytes},
                   {.iov_base = zeros.data(), .iov_len = frame_bytes(settings, run) - header_bytes}}};
  print_debug_line(settings, run, stats, arm_slot(settings, run, sequence));
}

// What a call came to: `packets` of them were taken, or the first was not.
struct call_result {
  send_outcome outcome;
  std::uint32_t packets;
};

call_result send_side_by_side(const run_state* run, sockaddr_in* destination, std::uint32_t first,
                              std::uint32_t count) {
  const auto segment_bytes = static_cast<std::uint16_t>(run->transmit_length);
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof segment_bytes)> control = {};
  msghdr message = {};
  message.msg_name = destination;
  message.msg_namelen = sizeof *destination;
  message.msg_iov = parts[first].data();
  message.msg_iovlen = 2 * std::size_t{count};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* segment = CMSG_FIRSTHDR(&message);
  segment->cmsg_level = IPPROTO_UDP;
  segment->cmsg_type = UDP_SEGMENT;
  segment->cmsg_len = CMSG_LEN(sizeof segment_bytes);
  std::memcpy(CMSG_DATA(segment), &segment_bytes, sizeof segment_bytes);
  return {outcome_of(sendmsg(run->data_socket, &message, MSG_DONTWAIT)), count};
}

call_result send_one_by_one(const run_state* run, sockaddr_in* destination, std::uint32_t first, std::uint32_t count) {
  std::array<mmsghdr, largest_burst> messages = {};
  for (std::uint32_t i = 0; i < count; ++i) {
    msghdr* message = &messages[i].msg_hdr;
    message->msg_name = destination;
    message->msg_namelen = sizeof *destination;
    message->msg_iov = parts[first + i].data();
    message->msg_iovlen = 2;
  }
  const int sent = sendmmsg(run->data_socket, messages.data(), count, MSG_DONTWAIT);
  return {outcome_of(sent), static_cast<std::uint32_t>(std::max(sent, 0))};
}

// Packets above the MTU, a device that leaves checksums to us, a kernel older than the option.
bool will_never_segment(int error) {
  return error == EINVAL || error == EIO || error == EOPNOTSUPP || error == EMSGSIZE;
}

// Packets of one call side by side; fewer than two: not that way.
std::uint32_t segments_of_call(const test_settings* settings, const run_state* run, std::uint32_t count) {
  if (settings->udp == 0 || settings->remote_run != 0 || run->segmentation_refused != 0) return 0;
  return std::min(count, largest_udp_bytes / run->transmit_length);
}

// Packets `first` and up to `count` more of the burst.
call_result send_in_one_call(const test_settings* settings, run_state* run, sockaddr_in* destination,
                             std::uint32_t first, std::uint32_t count) {
  if (refuses_destination(settings, destination)) return {send_outcome::refused, 0};
  const std::uint32_t segments = segments_of_call(settings, run, count);
  if (segments > 1) {
    const call_result result = send_side_by_side(run, destination, first, segments);
    if (result.outcome != send_outcome::refused) return result;
    if (will_never_segment(errno)) run->segmentation_refused = 1;
  }
  return send_one_by_one(run, destination, first, count);  // which tells the packets apart
}

// Packets that had to wait leave later than was noted.
void note_send_times(const run_state* run, std::uint32_t first, std::uint32_t count) {
  for (std::uint32_t i = first; i < count; ++i) slot_of(run, run->current_tx__packet + i)->tx_time = clock_now();
}

}  // namespace

bool sends_bursts(const test_settings* settings) {
  return settings->ignore_responses != 0 && settings->tcp == 0 && settings->command_mode == 0 &&
         settings->traceroute == 0 && settings->total_requests == settings->echo_count;  // one host
}

// All packets are built and recorded first, so that the calls follow one another; what one call leaves the next takes.
std::uint32_t send_burst(const test_settings* settings, run_state* run, test_stats* stats, std::uint32_t count) {
  sockaddr_in destination = current_destination(settings);
  for (std::uint32_t i = 0; i < count; ++i) build_packet(settings, run, stats, i);
  std::uint32_t done = 0;
  while (done < count) {
    const call_result result = send_in_one_call(settings, run, &destination, done, count - done);
    if (result.outcome == send_outcome::taken) {
      done += result.packets;
    } else if (result.outcome == send_outcome::refused && errno != EINTR) {
      report_refused_packet(settings, run, frame_bytes(settings, run), -1);
      ++done;
    } else if (result.outcome == send_outcome::full) {
      if (!wait_for_buffer(settings, run, stats)) break;
      note_send_times(run, done, count);
    }
  }
  stats->tx_packets += done;
  run->current_tx__packet += done;
  return done;
}
