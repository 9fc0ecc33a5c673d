// When a frame came and when one left: the stamps that the kernel takes, and the one place that decides between them
// and our own clock. A frame that came is stamped as it enters the kernel; one that leaves as it is handed to the
// driver (SO_TIMESTAMPING in socket(7), timestamping.rst in the kernel's documentation). Our own readings are late and
// early by the way through the kernel, and on a busy processor by all the time that it is taken away from us.
#pragma once

#include <cstdint>

struct clock_reading;
struct msghdr;
struct run_state;
struct test_settings;

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

// Asks for stamps where they are worth a call for each packet: in an echo test over datagrams that reads and sends at
// most 5000 packets a second. Sets run->stamps_sends where the kernel agreed; such a run must take its stamps, since
// unread ones fill the receive buffer. Elsewhere the readings serve.
void ask_for_send_stamps(const test_settings* settings, run_state* run);

// Takes the stamps that are there, without waiting, and notes each in the slot of its packet (packet_slot's
// stamp_lag_usec). Nothing in a run that asked for none. To be called behind every send, behind every read
// before what that brought is settled, since a device that queues stamps late, and before every wait: a stamp makes the
// socket readable and writable to select(2).
void take_send_stamps(const run_state* run);

// Has the stamps counted anew, so that number 0 is that of packet `sequence`. To be called after a send that failed:
// kernels differ in whether it takes a number.
void renumber_send_stamps(std::uint32_t sequence, run_state* run);
