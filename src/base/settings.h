// The record of all options of one test run.
//
// The command-line parser fills it once; the test loop and the frame handlers derive a few fields while the test runs.
// Its byte image travels inside the remote command (wire/remote_command.h), so order and widths are fixed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr std::uint32_t unlimited_count = 0x7fffffff;   // -e without a number
inline constexpr std::uint32_t largest_remote_echoes = 65536;  // packets of one command

// Flags hold 0 or 1. Addresses and ports are in network byte order, everything else in host byte order.
struct test_settings {
  std::uint32_t max_outstanding;      // window: requests that may await an answer at once, 1 to 65534
  std::uint32_t total_requests;       // requests (command mode: commands) of the whole run; grows by 1 per bad batch
  std::uint32_t echo_count;           // requests per destination host (command mode: commands)
  std::uint32_t traceroute;           // flag: ICMP requests carry a rising TTL
  std::uint32_t delay_usec;           // between transmissions; at least 1
  std::uint32_t timeout_usec;         // age at which a request is timed out; includes delay_usec
  std::uint32_t start_host;           // address; the current destination while a sweep runs
  std::uint32_t end_host;             // address
  std::uint32_t ip_length;            // bytes of each test packet, IP header included
  std::uint32_t silent;               // flag: no reception lines
  std::uint32_t no_timeout_messages;  // flag: no time-out and unexpected-response lines
  std::uint32_t ignore_responses;     // flag: send only, never read
  std::uint32_t average_window;       // packets in the running average; 0 = none
  std::uint32_t debug;                // flag
  std::uint32_t unidirectional;       // flag: send what asks for no response
  std::uint32_t reserved;             // 36 by default; nothing reads it
  std::uint32_t report_host;          // address; stored only
  std::uint32_t report_enabled;       // flag; stored only
  std::uint32_t partner_mode;         // flag: works with a second copy of the program
  std::uint32_t remote_run;           // flag: this run executes a peer's command and prints nothing
  std::uint32_t udp;                  // flag
  std::uint32_t tcp;                  // flag; neither = ICMP
  std::uint16_t local_port;           // network byte order
  std::uint16_t remote_port;          // network byte order
  std::uint32_t process_id;           // identifier in every test packet; 0 = none yet
  std::uint32_t command_mode;         // flag: commands a monitor
  std::uint32_t remote_echoes;        // packets the monitor sends per command, at most 65536
  std::uint32_t option_i_value;       // stored only
  std::uint32_t command_period_usec;  // nominal length of one batch
  std::uint32_t tos;                  // TOS byte of the socket; 0 = untouched
  std::uint32_t payload_length;       // bytes; copy of run_state.payload_length
  std::uint32_t multicast_interface;  // address; 0 = any
  std::uint32_t verbose;              // flag: long batch lines with the rate graph
  std::uint32_t duration_sec;         // 0 = no limit
  std::uint32_t quiet;                // flag: only the last batch line
  std::uint32_t show_bandwidth;       // flag: bandwidth percentiles in batch lines
  std::uint32_t show_buffers;         // flag: buffer percentiles in batch lines
};

static_assert(sizeof(test_settings) == 144);
static_assert(std::is_trivially_copyable_v<test_settings>);
static_assert(offsetof(test_settings, delay_usec) == 16);
static_assert(offsetof(test_settings, start_host) == 24);
static_assert(offsetof(test_settings, ignore_responses) == 44);
static_assert(offsetof(test_settings, partner_mode) == 72);
static_assert(offsetof(test_settings, local_port) == 88);
static_assert(offsetof(test_settings, remote_port) == 90);
static_assert(offsetof(test_settings, process_id) == 92);
static_assert(offsetof(test_settings, command_period_usec) == 108);
static_assert(offsetof(test_settings, multicast_interface) == 120);
static_assert(offsetof(test_settings, show_buffers) == 140);

// The modes, each a question to the record. A partner is a monitor, which serves, or a commander, which measures what
// the monitor sends; an echo test is neither.
inline bool is_partner(const test_settings* settings) {
  return settings->partner_mode != 0;
}

inline bool is_commander(const test_settings* settings) {
  return settings->command_mode != 0;
}

inline bool is_monitor(const test_settings* settings) {
  return is_partner(settings) && !is_commander(settings);
}

inline bool is_echo_mode(const test_settings* settings) {
  return !is_partner(settings) && !is_commander(settings);
}

// The test that a monitor runs for a commander, within its own.
inline bool is_command_run(const test_settings* settings) {
  return settings->remote_run != 0;
}

// Whether the run may print: a command run is quiet.
inline bool speaks(const test_settings* settings) {
  return !is_command_run(settings);
}

// The carriers.
inline bool uses_udp(const test_settings* settings) {
  return settings->udp != 0;
}

inline bool uses_tcp(const test_settings* settings) {
  return settings->tcp != 0;
}

inline bool uses_icmp(const test_settings* settings) {
  return !uses_udp(settings) && !uses_tcp(settings);
}
