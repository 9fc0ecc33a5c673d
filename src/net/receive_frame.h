// Wait for one frame, read it, hand it on. The only place where the test loop waits for the network.
#pragma once

#include <cstdint>

#include "base/run_records.h"

struct test_settings;

// Waits up to `wait_usec` (usec, not negative) for a datagram or a whole TCP test message on run->data_socket and hands
// it to the ICMP or the UDP/TCP handler. At most one frame a call. Returns
//   frame_none    nothing came in time, a datagram could not be read, or a stop signal ended the wait;
//   frame_failed  the wait failed, a datagram of no bytes came, or a TCP message could not be read whole: the position
//                 in the stream is lost and the caller closes the connection;
//   otherwise what the handler returned.
// With data_socket -1 the wait passes and the result is frame_none. A wait of 0 still takes a frame that is there.
[[nodiscard]] frame_result receive_one_frame(test_settings* settings, run_state* run, test_stats* stats,
                                             std::int64_t wait_usec);

// Gathers `count` bytes of a TCP stream; a count of 0 or less reads nothing. Returns how many came before the stream
// ended, failed or paused for more than 10 seconds; after a stop signal it waits a moment more, so that a message under
// way arrives whole.
[[nodiscard]] int receive_all(int socket, std::uint8_t* destination, int count);

// Throws away what is queued on the socket until 20 ms pass in silence; a line on standard error counts it. A TCP
// stream is thrown away regardless of message boundaries. Ends as well when a stream has ended, at an error, at a stop
// signal, and after 10 seconds, so that a flood of foreign frames cannot hold it.
void flush_pending_frames(int socket);
