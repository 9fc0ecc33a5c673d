// Reading datagrams: several in one call where several are queued, handed on one by one.
#pragma once

#include <cstdint>
#include <span>

#include "net/kernel_stamps.h"

struct received_datagram {
  std::span<std::uint8_t> bytes;  // stays until the next read
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

// The next datagram that came to `socket`, without waiting. Of those queued up to `most` are taken in one call of
// recvmmsg(2); the others wait here for the next calls. The clocks are read once behind that call, for all that it
// brought.
[[nodiscard]] read_result read_datagram(int socket, std::uint32_t most, received_datagram* datagram);

// True when a datagram waits here, so that there is nothing to wait for at the socket.
[[nodiscard]] bool has_read_ahead();

// Throws away what waits here. Returns how many there were.
int discard_read_ahead();
