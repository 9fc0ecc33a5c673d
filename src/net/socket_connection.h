// The TCP connection of a run, from connecting or listening to its close, and sending on it to a peer that may be slow,
// stuck or gone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct run_state;
struct test_settings;

// Opens the socket of a run over TCP (tcp(7)): connected to the first host as run->data_socket, or for a monitor
// listening as run->listen_socket, with data_socket -1. What cannot be had is fatal: one line on standard error, then
// cleanup_exit(1). A stop signal ends the wait for a silent host, and the program.
void open_tcp_socket(const test_settings* settings, run_state* run);

// Takes the next connection of a monitor into run->data_socket; waits for it as long as it takes and leaves it at -1
// when a stop signal comes. Fatal when accept(2) fails for good.
void accept_test_connection(run_state* run);

// The end of a run that has no connection and can get none: a line on standard error, then cleanup_exit(1).
[[noreturn]] void end_without_connection();

// Closes run->data_socket, if it is open, and marks it as closed.
void close_data_socket(run_state* run);

// What holds while the connection takes no more bytes.
struct stall_rules {
  std::int64_t longest_usec;  // how long that may last
  bool discard_input;         // throw away what the peer sent: it may be stuck on sending to us, who never read
};

// A peer that does not read must not hold a monitor.
inline constexpr stall_rules patience_of_a_monitor = {.longest_usec = 10000000, .discard_input = false};

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
