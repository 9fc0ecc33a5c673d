// The Internet checksum (RFC 1071).
#pragma once

#include <cstddef>
#include <cstdint>

// The 16-bit one's-complement sum of `length` bytes at any alignment, not complemented, in network byte order: stored
// as it lies in memory it is right on every processor. An odd last byte counts as the high half of a zero-padded word.
// A message with its checksum field in place is valid exactly when the result is 0xFFFF.
[[nodiscard]] std::uint16_t internet_checksum(const std::uint8_t* bytes, std::size_t length);
