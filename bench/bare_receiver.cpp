// The far end of a blast. Reads everything that arrives at UDP port PORT, in bulk and every half millisecond so that no
// arrival has to wake it, until it is told to end (SIGTERM). Packets that crossed the link as one frame stay one
// (UDP_GRO), so that taking them apart again, within the sender's own call, is not charged to the sender.
#include <netinet/udp.h>

#include "bare.h"

static constexpr int queue_bytes = 64 * 1048576;
static constexpr timespec sink_interval = {0, 500000};

int main(int argc, char** argv) {
  static reader from;
  from.socket_fd = open_socket(SOCK_DGRAM, IPPROTO_UDP, queue_bytes);
  switch_on(from.socket_fd, SOL_UDP, UDP_GRO);
  bind_to(from.socket_fd, number_argument(argc, argv, 1, "PORT"));
  run_until_told();
  while (told_to_end == 0) {
    if (read_messages(&from, MSG_DONTWAIT) < 0) nanosleep(&sink_interval, nullptr);
  }
}
