// Sending on a TCP connection whose peer may be slow, stuck or gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// What to do while the connection takes no more bytes.
enum class when_stalled : std::uint8_t {
  wait,           // for as long as it takes
  discard_input,  // wait, and throw away what the peer sent: it may be stuck on sending to us, who never read
  give_up,        // after 10 seconds: a peer that does not read must not hold a monitor
};

// Sends `bytes` whole. Returns how many went out: fewer than given when the connection failed, was given up, or a stop
// signal came while it was stalled.
[[nodiscard]] std::size_t send_all(int socket, std::span<const std::uint8_t> bytes, when_stalled policy);

// True when the connection takes a whole message now: select calls a TCP socket writable when a third of its send
// buffer is free (tcp(7)). True as well for a closed socket, so that the send that follows reports it.
[[nodiscard]] bool has_room_to_send(int socket);
