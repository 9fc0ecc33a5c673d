// The far end of a blast. Reads everything that arrives at UDP port PORT, in bulk and every half millisecond so that no
// arrival has to wake it, until it is told to end (SIGTERM). Then it prints how many packets it read and how many the
// kernel dropped because its queue was full. Packets that crossed the link as one frame stay one (UDP_GRO), so that
// taking them apart again, within the sender's own call, is not charged to the sender.
#include <netinet/udp.h>

#include <array>
#include <csignal>

#include "bare_common.h"

static constexpr const char* usage = "PORT";
static constexpr int queue_bytes = 64 * 1048576;
static constexpr long sink_interval_nsec = 500000;
static constexpr unsigned packets_per_read = 64;
static constexpr std::size_t kept_bytes = 64;  // of each packet: the headers are all we look at
static constexpr std::size_t control_bytes = 128;

struct read_slots {
  std::array<mmsghdr, packets_per_read> headers;
  std::array<iovec, packets_per_read> pieces;
  std::array<std::array<std::uint8_t, kept_bytes>, packets_per_read> bytes;
  std::array<std::array<std::uint8_t, control_bytes>, packets_per_read> control;
};

struct far_end {
  int socket_fd;
  std::uint64_t received;
  std::uint32_t dropped;  // as the kernel counts it for this socket
};

static volatile std::sig_atomic_t told_to_end = 0;

static void end_soon(int /*signal*/) {
  told_to_end = 1;
}

static void prepare_slots(read_slots* slots) {
  for (unsigned i = 0; i < packets_per_read; ++i) {
    slots->pieces[i] = {slots->bytes[i].data(), kept_bytes};
    msghdr& header = slots->headers[i].msg_hdr;
    header = {};
    header.msg_iov = &slots->pieces[i];
    header.msg_iovlen = 1;
    header.msg_control = slots->control[i].data();
    header.msg_controllen = control_bytes;
  }
}

static void note_control_data(far_end* end, msghdr* header) {
  for (cmsghdr* item = CMSG_FIRSTHDR(header); item != nullptr; item = CMSG_NXTHDR(header, item)) {
    if (item->cmsg_level != SOL_SOCKET) continue;
    if (item->cmsg_type == SO_RXQ_OVFL) std::memcpy(&end->dropped, CMSG_DATA(item), sizeof end->dropped);
  }
}

// Reads what is queued, up to packets_per_read. False when nothing was there.
static bool read_some(far_end* end, read_slots* slots) {
  prepare_slots(slots);
  const int count = recvmmsg(end->socket_fd, slots->headers.data(), packets_per_read, MSG_DONTWAIT, nullptr);
  for (int i = 0; i < count; ++i) {
    note_control_data(end, &slots->headers[static_cast<std::size_t>(i)].msg_hdr);
    ++end->received;
  }
  return count > 0;
}

int main(int argc, char** argv) {
  constexpr int on = 1;
  far_end end = {};
  end.socket_fd = open_udp_socket(static_cast<std::uint16_t>(number_argument(argc, argv, 1, usage)));
  setsockopt(end.socket_fd, SOL_SOCKET, SO_RCVBUFFORCE, &queue_bytes, sizeof queue_bytes);
  setsockopt(end.socket_fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
  setsockopt(end.socket_fd, SOL_UDP, UDP_GRO, &on, sizeof on);
  static read_slots slots;
  struct sigaction ending = {};
  ending.sa_handler = end_soon;
  sigaction(SIGTERM, &ending, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);

  while (told_to_end == 0) {
    if (!read_some(&end, &slots)) {
      const timespec interval = {0, sink_interval_nsec};
      nanosleep(&interval, nullptr);
    }
  }
  std::printf("received %llu dropped %u\n", static_cast<unsigned long long>(end.received), end.dropped);
}
