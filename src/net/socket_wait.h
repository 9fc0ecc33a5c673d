// Waiting, the one way this program waits to an exact time: select(2), cut short by the stop signals and by nothing
// else. It is also where SIGQUIT is answered, so that whoever waits needs no code for it. Only a long wait for a
// datagram begins elsewhere, in the read (net/receive_datagram.h).
#pragma once

#include <cstdint>

struct run_state;
struct test_settings;
struct test_stats;

enum class socket_event : std::uint8_t { readable, writable };

enum class wait_result : std::uint8_t {
  ready,    // the socket can be read or written
  elapsed,  // the time is over
  stopped,  // SIGINT, SIGTERM or SIGHUP was noted (base/signals.h); *left_usec says what is left
  failed,   // the wait itself failed
};

// Waits until `socket` is ready or *left_usec (usec, not negative) are over, and keeps *left_usec at what is left.
// With a descriptor that select cannot take (-1, or FD_SETSIZE and above) it waits for the time alone. Signals that
// nobody asked to note do not end it. Writes out what was printed before it waits.
[[nodiscard]] wait_result wait_on_socket(int socket, socket_event event, std::int64_t* left_usec);

// Lets others have the processor, without a wait. What was printed goes out all the same.
void yield_processor();

// Answers SIGQUIT if it has come since the last answer. For code that runs long without a wait.
void answer_progress_request();

// Prints how far a run is.
using progress_printer = void (*)(const test_settings* settings, const run_state* run, const test_stats* stats);

// From here on SIGQUIT is answered by `print` with these records, which must outlive the waits; null = not at all.
void answer_progress_with(progress_printer print, const test_settings* settings, const run_state* run,
                          const test_stats* stats);

// Asks the kernel to end every wait as close to its time as it can, instead of up to 50 usec later so that wake-ups can
// be shared (PR_SET_TIMERSLACK in prctl(2)). Needs no privilege.
void ask_for_exact_waits();
