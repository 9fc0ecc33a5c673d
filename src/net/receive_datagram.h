// Reading datagrams: several in one call where several are queued, handed on one by one.
#pragma once

#include <cstdint>
#include <span>

#include "net/kernel_stamps.h"

struct run_state;

struct received_datagram {
  std::span<std::uint8_t> bytes;  // what was asked for; stays until the next read
  std::size_t length;             // of the whole
  bool failed;                    // the read failed: there are no bytes
  std::uint32_t source;           // IPv4, network byte order
  std::uint16_t source_port;      // network byte order
  frame_arrival arrival;
};

enum class read_result : std::uint8_t {
  datagram,       // one came, or could not be read: `failed` says so
  nothing_there,  // none is queued
  no_socket,      // the descriptor is none
};

// Copying what nobody looks at costs more than the rest of a read.
inline constexpr std::size_t datagram_front_bytes = 256;
enum class read_extent : std::uint8_t {
  front,  // at most datagram_front_bytes of each
  whole,
};

enum class read_patience : std::uint8_t {
  none,     // what is there
  ten_msec  // waits as long, or up to 30 ms, for the first, once let_reads_wait was called; a signal ends the wait
};

// The next datagram that came to `socket`. Of those queued up to `most` are taken in one call of recvmmsg(2); the
// others wait here for the next calls. The clocks are read once behind that call, for all that it brought.
[[nodiscard]] read_result read_datagram(int socket, std::uint32_t most, read_extent extent, read_patience patience,
                                        received_datagram* datagram);

// Lets reads of the datagram socket run->data_socket wait. Sets run->reads_can_wait where the kernel agreed.
void let_reads_wait(run_state* run);

// True when a datagram waits here, so that there is nothing to wait for at the socket.
[[nodiscard]] bool has_read_ahead();

// Throws away what waits here. Returns how many there were.
int discard_read_ahead();
