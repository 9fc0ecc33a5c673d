#include "net/arrival.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "base/clock.h"

namespace {

constexpr std::int64_t same_moment_usec = 1000;

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
  return can_be_true ? arrival->stamp : arrival->reading;
}

std::int64_t arrival_in_stream(const frame_arrival* arrival, std::int64_t last) {
  const std::int64_t arrived = arrival_of_answer(arrival, last - usec_to_ticks(same_moment_usec));
  return std::max(arrived, last);
}
