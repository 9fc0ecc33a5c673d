// The remote command: a commander's settings on their way to a monitor and back into settings.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/settings.h"
#include "wire/messages.h"

// A byte image of a test_settings record, field for field, thirteen of its 32-bit fields in network byte order and all
// others as they lie in memory.
struct command_body {
  std::uint8_t bytes[sizeof(test_settings)];
};

// The "Operation" message as it lies on the wire.
struct operation_message {
  test_message header;
  command_body body;
};
static_assert(sizeof(operation_message) == 164 && alignof(operation_message) == 1);
static_assert(offsetof(operation_message, body) == test_header_bytes);

// Builds the command that asks a monitor for the stream that `settings` describes: `remote_echoes` packets of
// `ip_length`, one every `delay_usec`, sent to the commander's `local_port`.
void build_remote_command(const test_settings* settings, command_body* body);

// Reads a received command and bounds it, so that no datagram can make a monitor crash, nest or run for ever: a command
// that a commander can send stays as it is; what no commander sends is brought to the nearest value that one could.
// The stream goes to `source` (IPv4, network byte order) over the carrier of `own`, the monitor's settings.
void read_remote_command(const command_body* body, std::uint32_t source, const test_settings* own,
                         test_settings* command);
