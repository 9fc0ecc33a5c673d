#include "wire/messages.h"

#include <cstring>

#include "wire/bytes.h"

const std::array<const char*, 5> message_type_names = {"INVALID", "Echo Request", " Echo Reply ", "Data", "Operation"};

// Copied as a whole: the message may lie at any address, and only the identifier keeps the order it has in memory.
void write_test_header(const test_header* header, std::uint8_t* message) {
  test_message wire = {};
  write_be32(wire.type, header->type);
  write_raw32(wire.process_id, header->process_id);
  write_be32(wire.batch, header->batch);
  write_be32(wire.sequence, header->sequence);
  write_be32(wire.length, header->length);
  std::memcpy(message, &wire, sizeof wire);
}

bool read_test_header(std::span<const std::uint8_t> message, test_header* header) {
  test_message wire = {};
  if (message.size() < sizeof wire) return false;
  std::memcpy(&wire, message.data(), sizeof wire);
  *header = {
      .type = read_be32(wire.type),
      .process_id = read_raw32(wire.process_id),
      .batch = read_be32(wire.batch),
      .sequence = read_be32(wire.sequence),
      .length = read_be32(wire.length),
  };
  return true;
}
