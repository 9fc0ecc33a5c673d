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

namespace {

constexpr std::uint32_t longest_read_run = 16;
constexpr std::size_t control_bytes =
    128;  // what comes with a datagram: its stamp, in two formats (net/kernel_stamps.h)

struct stored_datagram {
  alignas(cmsghdr) std::array<std::uint8_t, control_bytes> control;
  sockaddr_in source;
  std::array<std::uint8_t, message_buffer_bytes> bytes;
};

// One monitor's frames must not be lost while it executes a command, so they outlive the call that read them.
struct datagram_queue {
  std::array<stored_datagram, longest_read_run> store;  // only what was received is ever touched
  std::array<mmsghdr, longest_read_run> messages;
  std::array<iovec, longest_read_run> parts;
  std::uint32_t prepared;  // of the messages, those that were ever prepared
  std::uint32_t stored;    // in the store
  std::uint32_t next;      // of these, the first that was not handed on
  clock_reading read_at;   // behind the call that read them
};

datagram_queue queue;

void prepare_message(std::uint32_t index) {
  stored_datagram* place = &queue.store[index];
  queue.parts[index] = {.iov_base = place->bytes.data(), .iov_len = place->bytes.size()};
  msghdr* message = &queue.messages[index].msg_hdr;
  *message = {};
  message->msg_name = &place->source;
  message->msg_namelen = sizeof place->source;
  message->msg_iov = &queue.parts[index];
  message->msg_iovlen = 1;
  message->msg_control = place->control.data();
  message->msg_controllen = place->control.size();
}

// Of a message that it filled the kernel has changed the lengths.
void prepare_again(std::uint32_t index) {
  queue.messages[index].msg_hdr.msg_namelen = sizeof(sockaddr_in);
  queue.messages[index].msg_hdr.msg_controllen = control_bytes;
}

// Without patience it does not wait even for a datagram that select announced: that may be gone again, dropped for a
// wrong checksum (select(2)). A wait that a signal ends brings nothing.
int read_some(int socket, std::uint32_t most, read_patience patience) {
  for (std::uint32_t i = 0; i < queue.stored; ++i) prepare_again(i);
  queue.stored = queue.next = 0;
  for (; queue.prepared < most; ++queue.prepared) prepare_message(queue.prepared);
  const int flags = patience == read_patience::none ? MSG_DONTWAIT : MSG_WAITFORONE;
  int got = 0;
  do {
    got = recvmmsg(socket, queue.messages.data(), most, flags, nullptr);
  } while (got < 0 && errno == EINTR && patience == read_patience::none);
  return got;
}

void hand_on(std::uint32_t index, received_datagram* datagram) {
  stored_datagram* from = &queue.store[index];
  mmsghdr* message = &queue.messages[index];
  *datagram = {.bytes = {from->bytes.data(), message->msg_len},
               .failed = false,
               .source = from->source.sin_addr.s_addr,
               .source_port = from->source.sin_port,
               .arrival = {.stamp = stamp_of(&message->msg_hdr, &queue.read_at), .reading = queue.read_at.now}};
}

}  // namespace

// Queued datagrams cost one call together, but are handed on one by one: the loop reports and sends between them as if
// each had been read by itself.
read_result read_datagram(int socket, std::uint32_t most, read_patience patience, received_datagram* datagram) {
  if (queue.next == queue.stored) {
    const int got = read_some(socket, std::clamp(most, 1U, longest_read_run), patience);
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
