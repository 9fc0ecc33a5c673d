// A release: the packets that the pacing let go at once, sent one by one or in bursts.
#pragma once

#include <cstdint>

struct command_body;
struct run_state;
struct test_settings;
struct test_stats;

enum class release_end : std::uint8_t {
  complete,            // all went out, or nothing more is to be sent
  connection_is_full,  // an echo test over TCP has to read before it can send the rest
};

// Sends the next `due` packets of the run; `command` is read in command mode only. Sets run->stop_requested when the
// duration is over in the meantime. After a failed send run->current_tx__packet stands at the end of the test.
[[nodiscard]] release_end release_packets(std::uint32_t due, test_settings* settings, run_state* run, test_stats* stats,
                                          const command_body* command);
