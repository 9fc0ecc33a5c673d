// Sending datagrams: no send ever blocks, what does not fit is waited for, what is refused is reported.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <span>

struct run_state;
struct test_settings;
struct test_stats;

enum class send_outcome : std::uint8_t {
  taken,    // the kernel took it
  refused,  // and always will
  full,     // the send buffer has no room now
};

// What the result of a send that must not block means; errno (send(2)) is still that of the call.
[[nodiscard]] send_outcome outcome_of(ssize_t result);

// The run's current host as a socket address; its port is the remote one, over ICMP 0.
[[nodiscard]] sockaddr_in current_destination(const test_settings* settings);

// True for a multicast group when a monitor, or a command run of one, would send to it: a forged source must not make
// it flood a group. Sets errno then as the kernel does for a broadcast address, which such a socket may not send to
// either.
[[nodiscard]] bool refuses_destination(const test_settings* settings, const sockaddr_in* destination);

// Waits a moment for room in the send buffer of run->data_socket, as a wait of the run: the end of the duration and a
// stop signal end it. True when it is worth trying again, false when the test is over.
[[nodiscard]] bool wait_for_buffer(const test_settings* settings, const run_state* run, const test_stats* stats);

// What became of a datagram.
struct datagram_sent {
  ssize_t result;        // of the last call of sendto(2)
  std::int64_t sent_at;  // ticks, just before that call, with nothing between the two
  bool at_once;          // the first call took it
};

// Sends one datagram and waits while there is no room for it. The outcome of the result is `full` only when the test is
// over.
[[nodiscard]] datagram_sent send_datagram(const test_settings* settings, const run_state* run, const test_stats* stats,
                                          const sockaddr_in* destination, std::span<const std::uint8_t> bytes);

// The error line, on standard output, of a packet of `length` bytes whose send came to `result`. A command run prints
// it once, a monitor and its command runs never for a destination that they may not send to.
void report_refused_packet(const test_settings* settings, run_state* run, std::uint32_t length, ssize_t result);
