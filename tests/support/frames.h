// Frames as they lie on the wire, built without the code under test. Numbers that are too wide lose their high bits.
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

using byte_vector = std::vector<std::uint8_t>;

inline byte_vector operator+(byte_vector front, const byte_vector& back) {
  front.insert(front.end(), back.begin(), back.end());
  return {front.begin(), front.end()};  // exact size: the sanitizer sees one byte too far
}

inline byte_vector prefix(const byte_vector& bytes, std::size_t length) {
  return {bytes.data(), bytes.data() + length};
}

inline byte_vector patched(byte_vector bytes, std::size_t offset, const byte_vector& patch) {
  for (std::size_t i = 0; i < patch.size(); ++i) bytes.at(offset + i) = patch[i];
  return bytes;
}

template <typename integer>
byte_vector raw(integer value) {  // as it lies in memory
  byte_vector bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

inline byte_vector be16(std::int64_t value) {
  return raw(htons(static_cast<std::uint16_t>(value)));
}
inline byte_vector be32(std::int64_t value) {
  return raw(htonl(static_cast<std::uint32_t>(value)));
}

// The one's-complement sum by the book, byte by byte, not complemented.
inline std::uint16_t plain_checksum(const byte_vector& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) sum += static_cast<std::uint32_t>(bytes[i]) << (i % 2 == 0 ? 8U : 0U);
  while (sum > 0xFFFF) sum = (sum & 0xFFFFU) + (sum >> 16U);
  return static_cast<std::uint16_t>(sum);
}

inline byte_vector with_checksum(const byte_vector& icmp) {
  const byte_vector bare = patched(icmp, 2, {0, 0});
  return patched(bare, 2, be16(0xFFFF - plain_checksum(bare)));
}

inline byte_vector icmp_message(int type, int identifier, std::int64_t sequence, const byte_vector& payload = {}) {
  const byte_vector id = raw(static_cast<std::uint16_t>(identifier));
  return with_checksum(byte_vector{static_cast<std::uint8_t>(type), 0, 0, 0} + id + be16(sequence) + payload);
}

// A Time Exceeded or Destination Unreachable that quotes an echo request.
inline byte_vector icmp_error(int type, int identifier, std::int64_t sequence) {
  const byte_vector quoted_ip = patched(patched(byte_vector(20), 0, {0x45}), 9, {1});
  return icmp_message(type, 0, 0, quoted_ip + icmp_message(8, identifier, sequence));
}

// As a raw socket delivers it.
inline byte_vector datagram(const byte_vector& icmp, const char* source = "10.0.0.1", std::size_t option_bytes = 0) {
  const byte_vector header = {static_cast<std::uint8_t>(0x45 + option_bytes / 4), 0, 0, 0, 0, 0, 0, 0, 64, 1, 0, 0};
  return header + raw(inet_addr(source)) + byte_vector(4 + option_bytes) + icmp;
}

inline byte_vector message(std::int64_t type, std::int64_t process_id, std::int64_t batch, std::int64_t sequence,
                           std::uint32_t length = 20) {
  return be32(type) + raw(static_cast<std::uint32_t>(process_id)) + be32(batch) + be32(sequence) + be32(length) +
         byte_vector(length - 20);
}
