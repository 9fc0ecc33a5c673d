#include "net/kernel_stamps.h"

// clang-format off
#include <ctime>
#include <linux/errqueue.h>  // takes struct timespec from the one before
// clang-format on

#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "base/clock.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "net/socket_options.h"

namespace {

constexpr std::int64_t same_moment_usec = 1000;

constexpr std::uint32_t shortest_stamped_delay_usec = 200;  // at -d0 stamps would cost 10 to 25 % of the rate

// Numbered, and without a copy of the packet.
constexpr int wanted_stamps =
    SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_ID | SOF_TIMESTAMPING_OPT_TSONLY;

struct send_stamp {
  std::uint32_t number;  // of the datagram, counted from when stamps were asked for
  std::int64_t time;     // ticks; 0 = cannot be told
};

// Two formats of the stamp, and what it belongs to with an address (IP_RECVERR in ip(7)).
constexpr std::size_t control_bytes = 256;

bool find_number(msghdr* message, std::uint32_t* number) {
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    sock_extended_err origin = {};
    if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_RECVERR) continue;
    if (part->cmsg_len < CMSG_LEN(sizeof origin)) continue;
    std::memcpy(&origin, CMSG_DATA(part), sizeof origin);
    *number = origin.ee_data;
    return origin.ee_origin == SO_EE_ORIGIN_TIMESTAMPING;
  }
  return false;
}

// False when none is there.
bool read_send_stamp(int socket, send_stamp* stamp) {
  alignas(cmsghdr) std::array<std::uint8_t, control_bytes> control;
  msghdr message = {};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  if (recvmsg(socket, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return false;
  const clock_reading reading = read_both_clocks();
  stamp->time = stamp_of(&message, &reading);
  if (stamp->time > reading.now || !find_number(&message, &stamp->number)) stamp->time = 0;
  return true;
}

// A stamp that precedes our reading before the call is not true: the date was set in between.
void note_send_stamp(const send_stamp* stamp, const run_state* run) {
  const std::uint32_t sequence = run->stamped_from + stamp->number;
  packet_slot* slot = slot_of(run, sequence);
  if (stamp->time < slot->tx_time || slot->sequence != sequence || slot->outstanding == 0) return;
  const std::int64_t lag_usec = usec_between(slot->tx_time, stamp->time);
  if (lag_usec <= longest_stamp_lag_usec) slot->stamp_lag_usec = static_cast<std::uint32_t>(lag_usec) & 0xFFFFFF;
}

}  // namespace

void ask_for_arrival_stamps(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

std::int64_t stamp_of(msghdr* message, const clock_reading* reading) {
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    timespec stamp = {};
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SO_TIMESTAMPNS) continue;
    if (part->cmsg_len < CMSG_LEN(sizeof stamp)) continue;
    std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
    return stamp_to_ticks(&stamp, reading);
  }
  return 0;
}

std::int64_t arrival_of_answer(const frame_arrival* arrival, std::int64_t sent_at) {
  const bool can_be_true = arrival->stamp != 0 && arrival->stamp <= arrival->reading && arrival->stamp >= sent_at;
  return can_be_true ? arrival->stamp : std::max(arrival->reading, sent_at);
}

std::int64_t arrival_in_stream(const frame_arrival* arrival, std::int64_t last) {
  const std::int64_t arrived = arrival_of_answer(arrival, last - usec_to_ticks(same_moment_usec));
  return std::max(arrived, last);
}

void ask_for_send_stamps(const test_settings* settings, run_state* run) {
  if (!is_echo_mode(settings) || settings->ignore_responses != 0 || uses_tcp(settings)) return;
  if (settings->delay_usec < shortest_stamped_delay_usec) return;
  run->stamps_sends = set_socket_option(run->data_socket, SOL_SOCKET, SO_TIMESTAMPING, wanted_stamps) == 0 ? 1 : 0;
}

void take_send_stamps(const run_state* run) {
  if (run->stamps_sends == 0) return;
  send_stamp stamp = {};
  while (read_send_stamp(run->data_socket, &stamp)) note_send_stamp(&stamp, run);
}

// The numbers begin at 0 when they are asked for by a socket that had none.
void renumber_send_stamps(std::uint32_t sequence, run_state* run) {
  if (run->stamps_sends == 0) return;
  set_socket_option(run->data_socket, SOL_SOCKET, SO_TIMESTAMPING, 0);
  set_socket_option(run->data_socket, SOL_SOCKET, SO_TIMESTAMPING, wanted_stamps);
  run->stamped_from = sequence;
}
