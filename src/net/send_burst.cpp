#include "net/send_burst.h"

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
#include "net/send_datagram.h"
#include "net/send_packet.h"
#include "report/packet_lines.h"
#include "wire/packet_sizes.h"

namespace {

static_assert(largest_burst <= fewest_packet_slots);  // each packet of a burst has a slot of its own

constexpr std::uint32_t largest_udp_bytes = largest_ip_length - ipv4_header_bytes - udp_header_bytes;

// A packet of a burst is gathered by the kernel: its front, which holds the header and zeros, and for a longer one the
// zeros that all of them share.
constexpr std::uint32_t front_bytes = 64;
constexpr std::size_t most_pieces = 2;

struct burst_buffers {
  std::array<std::array<std::uint8_t, front_bytes>, largest_burst> fronts;
  std::array<std::uint8_t, message_buffer_bytes> zeros;
  std::array<iovec, most_pieces * largest_burst> pieces;
  std::array<mmsghdr, largest_burst> messages;
  sockaddr_in destination;  // of all of them
};

burst_buffers burst;

std::size_t pieces_of_packet(const run_state* run) {
  return run->transmit_length <= front_bytes ? 1 : most_pieces;
}

void build_packet(const test_settings* settings, const run_state* run, const test_stats* stats, std::uint32_t index,
                  std::int64_t now) {
  const std::uint32_t sequence = run->current_tx__packet + index;
  std::uint8_t* front = burst.fronts[index].data();
  burst.fronts[index] = {};  // another run of this process may have had a longer header
  write_frame_header(settings, run, sequence, front);

  const std::size_t piece_count = pieces_of_packet(run);
  iovec* own_pieces = &burst.pieces[index * piece_count];
  own_pieces[0] = {.iov_base = front, .iov_len = std::min(run->transmit_length, front_bytes)};
  if (piece_count > 1) own_pieces[1] = {.iov_base = burst.zeros.data(), .iov_len = run->transmit_length - front_bytes};
  msghdr* message = &burst.messages[index].msg_hdr;
  message->msg_name = &burst.destination;
  message->msg_namelen = sizeof burst.destination;
  message->msg_iov = own_pieces;
  message->msg_iovlen = piece_count;
  arm_slot(settings, run, sequence, now);
  print_debug_line(settings, run, stats, sequence);
}

// What a call came to: `packets` of them were taken, or the first was not.
struct call_result {
  send_outcome outcome;
  std::uint32_t packets;
};

call_result send_side_by_side(const run_state* run, std::uint32_t first, std::uint32_t count) {
  const auto segment_bytes = static_cast<std::uint16_t>(run->transmit_length);
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof segment_bytes)> control = {};
  msghdr message = burst.messages[first].msg_hdr;
  message.msg_iovlen *= count;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* segment = CMSG_FIRSTHDR(&message);
  segment->cmsg_level = IPPROTO_UDP;
  segment->cmsg_type = UDP_SEGMENT;
  segment->cmsg_len = CMSG_LEN(sizeof segment_bytes);
  std::memcpy(CMSG_DATA(segment), &segment_bytes, sizeof segment_bytes);
  return {outcome_of(sendmsg(run->data_socket, &message, MSG_DONTWAIT)), count};
}

call_result send_one_by_one(const run_state* run, std::uint32_t first, std::uint32_t count) {
  const int sent = sendmmsg(run->data_socket, &burst.messages[first], count, MSG_DONTWAIT);
  return {outcome_of(sent), static_cast<std::uint32_t>(std::max(sent, 0))};
}

// Packets above the MTU, a device that leaves checksums to us, a kernel older than the option.
bool will_never_segment(int error) {
  return error == EINVAL || error == EIO || error == EOPNOTSUPP || error == EMSGSIZE;
}

// Packets of one call side by side; fewer than two: not that way.
std::uint32_t segments_of_call(const test_settings* settings, const run_state* run, std::uint32_t count) {
  if (!uses_udp(settings) || is_command_run(settings) || run->segmentation_refused != 0) return 0;
  return std::min(count, largest_udp_bytes / run->transmit_length);
}

// Packets `first` and up to `count` more of the burst.
call_result send_in_one_call(const test_settings* settings, run_state* run, std::uint32_t first, std::uint32_t count) {
  if (refuses_destination(settings, &burst.destination)) return {send_outcome::refused, 0};
  const std::uint32_t segments = segments_of_call(settings, run, count);
  if (segments > 1) {
    const call_result result = send_side_by_side(run, first, segments);
    if (result.outcome != send_outcome::refused) return result;
    if (will_never_segment(errno)) run->segmentation_refused = 1;
  }
  return send_one_by_one(run, first, count);  // which tells the packets apart
}

// Packets that had to wait leave later than was noted.
void note_send_times(const run_state* run, std::uint32_t first, std::uint32_t count) {
  const std::int64_t now = clock_now();
  for (std::uint32_t i = first; i < count; ++i) slot_of(run, run->current_tx__packet + i)->tx_time = now;
}

}  // namespace

bool sends_bursts(const test_settings* settings) {
  return settings->ignore_responses != 0 && !uses_tcp(settings) && !is_commander(settings) &&
         settings->traceroute == 0 && settings->total_requests == settings->echo_count;  // one host
}

// All packets are built and recorded first, at one time, so that the calls follow one another; what one call leaves the
// next takes.
std::uint32_t send_burst(const test_settings* settings, run_state* run, test_stats* stats, std::uint32_t count) {
  burst.destination = current_destination(settings);
  const std::int64_t now = clock_now();
  for (std::uint32_t i = 0; i < count; ++i) build_packet(settings, run, stats, i, now);
  std::uint32_t done = 0;
  while (done < count) {
    const call_result result = send_in_one_call(settings, run, done, count - done);
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
