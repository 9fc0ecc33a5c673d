// The message that carries UDP and TCP test traffic: a 20-byte header and a body of zeros or of a remote command.
//
//      0        1        2        3
//      +--------+--------+--------+--------+
//    0 |               type                |  big-endian; what the message is: enum message_type
//      +--------+--------+--------+--------+
//    4 |            process_id             |  as it lies in the sender's memory: who sends
//      +--------+--------+--------+--------+
//    8 |               batch               |  big-endian; 0 in an echo test
//      +--------+--------+--------+--------+
//   12 |             sequence              |  big-endian; from 0 in every batch
//      +--------+--------+--------+--------+
//   16 |              length               |  big-endian; bytes of the whole message: on TCP the frame
//      +--------+--------+--------+--------+
//   20 |  zeros up to `length`; in an Operation the 144 bytes of a command (wire/remote_command.h)
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "wire/packet_sizes.h"

enum message_type : std::uint32_t {
  message_echo_request = 1,
  message_echo_reply = 2,
  message_data = 3,
  message_operation = 4,
};

// Display names, indexed by type.
extern const std::array<const char*, 5> message_type_names;

// The header as it lies on the wire: type, batch, sequence and length in network byte order, process_id as it lies in
// the sender's memory.
struct test_message {
  std::uint8_t type[4];
  std::uint8_t process_id[4];
  std::uint8_t batch[4];
  std::uint8_t sequence[4];
  std::uint8_t length[4];
};
static_assert(sizeof(test_message) == test_header_bytes && alignof(test_message) == 1);
static_assert(offsetof(test_message, process_id) == 4 && offsetof(test_message, batch) == 8);
static_assert(offsetof(test_message, sequence) == 12 && offsetof(test_message, length) == 16);

// The header's fields in host byte order, process_id as it lies in memory: compared and copied, never converted.
struct test_header {
  std::uint32_t type;
  std::uint32_t process_id;
  std::uint32_t batch;
  std::uint32_t sequence;
  std::uint32_t length;  // of the whole message in bytes, header included
};

// Writes the 20 header bytes to the start of `message`.
void write_test_header(const test_header* header, std::uint8_t* message);

// Reads the header of a received message. False, with *header untouched, when fewer than 20 bytes are there. The
// length field is what the sender claims; nothing here trusts it.
[[nodiscard]] bool read_test_header(std::span<const std::uint8_t> message, test_header* header);
