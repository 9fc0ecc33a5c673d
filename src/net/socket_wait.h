// Waiting, the one way this program waits: select(2), cut short by the stop signals and by nothing else.
#pragma once

#include <cstdint>

enum class wait_for : std::uint8_t { readable, writable };

enum class wait_result : std::uint8_t {
  ready,      // the socket can be read or written
  elapsed,    // the time is over
  signalled,  // SIGINT, SIGTERM, SIGHUP or SIGQUIT was noted (app/signals.h); *left_usec says what is left
  failed,     // the wait itself failed
};

// Waits until `socket` is ready or *left_usec (usec, not negative) are over, and keeps *left_usec at what is left.
// With a descriptor that select cannot take (-1, or FD_SETSIZE and above) it waits for the time alone. Signals that
// nobody asked to note do not end it. Writes out what was printed before it waits.
[[nodiscard]] wait_result wait_on_socket(int socket, wait_for event, std::int64_t* left_usec);

// Asks the kernel to end every wait as close to its time as it can, instead of up to 50 usec later so that wake-ups can
// be shared (PR_SET_TIMERSLACK in prctl(2)). Needs no privilege.
void ask_for_exact_waits();
