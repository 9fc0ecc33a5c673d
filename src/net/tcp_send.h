// Sending on a TCP connection whose peer may be slow, stuck or gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// What holds while the connection takes no more bytes.
struct stall_rules {
  std::int64_t longest_usec;  // how long that may last
  bool discard_input;         // throw away what the peer sent: it may be stuck on sending to us, who never read
};

// For a monitor: a peer that does not read must not hold it.
inline constexpr stall_rules give_up_on_stuck_peer = {.longest_usec = 10000000, .discard_input = false};

struct stream_result {
  std::size_t sent;  // bytes that went out
  bool stalled;      // that they are not all is for a stall that was given up, not for a connection that failed
};

// Sends `bytes` whole. Fewer go out when the connection fails, stalls for too long, or a stop signal comes while it is
// stalled.
[[nodiscard]] stream_result send_all(int socket, std::span<const std::uint8_t> bytes, stall_rules rules);

// True when the connection takes a whole message now: Linux calls a TCP socket writable while at least a third of its
// send buffer is free. True as well for a closed socket, so that the send that follows reports it.
[[nodiscard]] bool has_room_to_send(int socket);
