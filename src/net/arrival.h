// When a frame arrived. The one place that decides between the kernel's stamp and our own clock.
#pragma once

#include <cstdint>

struct clock_reading;
struct msghdr;

// What is known of one frame's arrival. Times are ticks (base/clock.h).
struct frame_arrival {
  std::int64_t stamp;    // taken by the kernel when the frame came (SO_TIMESTAMPNS in socket(7)); 0 = none
  std::int64_t reading;  // of our clock, behind the call that read the frame: late on a busy processor
};

// Asks the kernel to stamp what comes in on `socket`. Where it refuses, the readings serve.
void ask_for_arrival_stamps(int socket);

// The stamp that came with a message (recvmsg(2)) that was read just before `reading`, in ticks; 0 when there is none.
[[nodiscard]] std::int64_t stamp_of(msghdr* message, const clock_reading* reading);

// The time of arrival, in ticks, of the answer to what was sent at `sent_at` (ticks): the stamp where it can be true,
// else the reading. A stamp cannot be true when it is later than the reading or earlier than the send: the date was set
// in between, or is not the one that the kernel stamps by.
[[nodiscard]] std::int64_t arrival_of_answer(const frame_arrival* arrival, std::int64_t sent_at);

// The same for the next packet of a stream, whose last one came at `last` (ticks). Two queues of one device hand on
// their packets out of order: a stamp up to 1 ms early is taken for the same moment, `last`, since a reading instead
// would make every packet behind it early too.
[[nodiscard]] std::int64_t arrival_in_stream(const frame_arrival* arrival, std::int64_t last);
