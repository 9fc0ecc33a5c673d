#include "net/receive_datagram.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/clock.h"
#include "base/run_records.h"
#include "wire/packet_sizes.h"
#include "wire/remote_command.h"

namespace {

static_assert(datagram_front_bytes >= sizeof(operation_message));

constexpr std::uint32_t most_fronts = 64;  // that one call reads
constexpr std::uint32_t most_whole = 16;
constexpr std::size_t control_bytes = 128;  // what comes with a datagram: its stamp, in two formats (kernel_stamps.h)

using control_block = std::array<std::uint8_t, control_bytes>;

// One monitor's frames must not be lost while it executes a command, so they outlive the call that read them.
struct datagram_queue {
  alignas(cmsghdr) std::array<control_block, most_fronts> controls;
  std::array<sockaddr_in, most_fronts> sources;
  std::array<std::array<std::uint8_t, datagram_front_bytes>, most_fronts> fronts;
  std::array<std::array<std::uint8_t, message_buffer_bytes>, most_whole> whole;  // only what came is ever touched
  std::array<mmsghdr, most_fronts> messages;
  std::array<iovec, most_fronts> parts;
  read_extent extent;      // for which the messages are prepared
  std::uint32_t prepared;  // of the messages, those that were ever prepared
  std::uint32_t stored;    // that the last call read
  std::uint32_t next;      // of these, the first that was not handed on
  clock_reading read_at;   // behind the call that read them
};

datagram_queue queue;

iovec place_of_bytes(std::uint32_t index) {
  if (queue.extent == read_extent::front)
    return {.iov_base = queue.fronts[index].data(), .iov_len = datagram_front_bytes};
  return {.iov_base = queue.whole[index].data(), .iov_len = message_buffer_bytes};
}

void prepare_message(std::uint32_t index) {
  queue.parts[index] = place_of_bytes(index);
  msghdr* message = &queue.messages[index].msg_hdr;
  *message = {};
  message->msg_name = &queue.sources[index];
  message->msg_namelen = sizeof(sockaddr_in);
  message->msg_iov = &queue.parts[index];
  message->msg_iovlen = 1;
  message->msg_control = queue.controls[index].data();
  message->msg_controllen = control_bytes;
}

// Of a message that it filled the kernel has changed the lengths.
void prepare_again(std::uint32_t index) {
  queue.messages[index].msg_hdr.msg_namelen = sizeof(sockaddr_in);
  queue.messages[index].msg_hdr.msg_controllen = control_bytes;
}

// Without patience it does not wait even for a datagram that select announced: that may be gone again, dropped for a
// wrong checksum (select(2)). A wait that a signal ends brings nothing.
int read_some(int socket, std::uint32_t most, read_extent extent, read_patience patience) {
  if (extent != queue.extent) queue.prepared = 0;
  queue.extent = extent;
  for (std::uint32_t i = 0; i < queue.stored; ++i) prepare_again(i);
  queue.stored = queue.next = 0;
  for (; queue.prepared < most; ++queue.prepared) prepare_message(queue.prepared);
  const int flags = MSG_TRUNC | (patience == read_patience::none ? MSG_DONTWAIT : MSG_WAITFORONE);  // the true lengths
  int got = 0;
  do {
    got = recvmmsg(socket, queue.messages.data(), most, flags, nullptr);
  } while (got < 0 && errno == EINTR && patience == read_patience::none);
  return got;
}

void hand_on(std::uint32_t index, received_datagram* datagram) {
  mmsghdr* message = &queue.messages[index];
  const iovec* part = &queue.parts[index];
  *datagram = {
      .bytes = {static_cast<std::uint8_t*>(part->iov_base), std::min<std::size_t>(message->msg_len, part->iov_len)},
      .length = message->msg_len,
      .failed = false,
      .source = queue.sources[index].sin_addr.s_addr,
      .source_port = queue.sources[index].sin_port,
      .arrival = {.stamp = stamp_of(&message->msg_hdr, &queue.read_at), .reading = queue.read_at.now}};
}

}  // namespace

// Queued datagrams cost one call together, but are handed on one by one: the loop reports and sends between them as if
// each had been read by itself.
read_result read_datagram(int socket, std::uint32_t most, read_extent extent, read_patience patience,
                          received_datagram* datagram) {
  if (queue.next == queue.stored) {
    const std::uint32_t largest = extent == read_extent::front ? most_fronts : most_whole;
    const int got = read_some(socket, std::clamp(most, 1U, largest), extent, patience);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return read_result::nothing_there;
    if (got < 0 && (errno == EBADF || errno == ENOTSOCK)) return read_result::no_socket;
    *datagram = {};
    datagram->failed = got < 0;
    if (got <= 0) return got < 0 ? read_result::datagram : read_result::nothing_there;
    queue.stored = static_cast<std::uint32_t>(got);
    queue.read_at = read_both_clocks();
  }
  hand_on(queue.next++, datagram);
  return read_result::datagram;
}

// The time-out is counted in ticks of the kernel's timer, 10 ms at most, and begins in the middle of one.
void let_reads_wait(run_state* run) {
  constexpr timeval short_wait = {.tv_sec = 0, .tv_usec = 10000};
  const int result = setsockopt(run->data_socket, SOL_SOCKET, SO_RCVTIMEO, &short_wait, sizeof short_wait);
  run->reads_can_wait = result == 0 ? 1 : 0;
}

bool has_read_ahead() {
  return queue.next != queue.stored;
}

int discard_read_ahead() {
  const auto discarded = static_cast<int>(queue.stored - queue.next);
  queue.stored = queue.next = queue.prepared = 0;
  return discarded;
}
