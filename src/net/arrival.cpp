#include "net/arrival.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

#include "base/clock.h"

void ask_for_arrival_stamps(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
}

std::int64_t arrival_stamp_of(msghdr* message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    timeval stamp = {};
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SO_TIMESTAMP) continue;
    if (part->cmsg_len < CMSG_LEN(sizeof stamp)) continue;
    std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
    return timeval_to_ticks(&stamp);
  }
  return 0;
}

std::int64_t arrival_time(const frame_arrival* arrival, std::int64_t not_before) {
  const bool can_be_true = arrival->stamp != 0 && arrival->stamp <= arrival->reading && arrival->stamp >= not_before;
  return can_be_true ? arrival->stamp : arrival->reading;
}
