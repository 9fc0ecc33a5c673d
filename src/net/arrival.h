// When a frame arrived. The one place that decides between the kernel's stamp and our own clock.
#pragma once

#include <cstdint>

struct msghdr;

// What is known of one frame's arrival. Times are ticks (base/clock.h).
struct frame_arrival {
  std::int64_t stamp;    // taken by the kernel when the frame came (SO_TIMESTAMP in socket(7)); 0 = none
  std::int64_t reading;  // of the clock, taken when the frame is handled: hours later on a stopped process
};

// Asks the kernel to stamp what comes in on `socket`. Where it refuses, the readings serve.
void ask_for_arrival_stamps(int socket);

// The stamp that came with a message (recvmsg(2)), in ticks; 0 when there is none.
[[nodiscard]] std::int64_t arrival_stamp_of(msghdr* message);

// The time of arrival in ticks: the stamp where it can be true, else the reading. A stamp cannot be true when it is
// later than the reading or earlier than `not_before` (ticks), the time of what the frame answers or follows: the clock
// was set in between, or is not the one that the kernel stamps by.
[[nodiscard]] std::int64_t arrival_time(const frame_arrival* arrival, std::int64_t not_before);
