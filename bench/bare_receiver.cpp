// The far end of a blast. Reads everything that arrives at UDP port PORT, in bulk and every half millisecond so that no
// arrival has to wake it, until it is told to end (SIGTERM). Then it prints how many packets it read and how many the
// kernel dropped because its queue was full. Packets that crossed the link as one frame stay one (UDP_GRO), so that
// taking them apart again, within the sender's own call, is not charged to the sender.
#include <netinet/udp.h>

#include "bare.h"

static constexpr const char* usage = "PORT";
static constexpr int queue_bytes = 64 * 1048576;
static constexpr long sink_interval_nsec = 500000;

// How many packets the kernel has dropped for the socket, which it tells with each that it did not drop.
static void note_drops(msghdr* header, std::uint32_t* dropped) {
  for (cmsghdr* item = CMSG_FIRSTHDR(header); item != nullptr; item = CMSG_NXTHDR(header, item)) {
    if (item->cmsg_level != SOL_SOCKET) continue;
    if (item->cmsg_type == SO_RXQ_OVFL) std::memcpy(dropped, CMSG_DATA(item), sizeof *dropped);
  }
}

int main(int argc, char** argv) {
  static reader from;
  std::uint64_t received = 0;
  std::uint32_t dropped = 0;
  from.socket_fd = open_socket(SOCK_DGRAM, IPPROTO_UDP, queue_bytes);
  switch_on(from.socket_fd, SOL_SOCKET, SO_RXQ_OVFL);
  switch_on(from.socket_fd, SOL_UDP, UDP_GRO);
  bind_to(from.socket_fd, number_argument(argc, argv, 1, usage));
  run_until_told();
  while (told_to_end == 0) {
    const int got = read_messages(&from, MSG_DONTWAIT);
    for (int i = 0; i < got; ++i) note_drops(&from.headers[static_cast<std::size_t>(i)].msg_hdr, &dropped);
    const timespec interval = {0, sink_interval_nsec};
    if (got > 0) {
      received += static_cast<std::uint64_t>(got);
    } else {
      nanosleep(&interval, nullptr);
    }
  }
  std::printf("received %llu dropped %u\n", static_cast<unsigned long long>(received), dropped);
}
