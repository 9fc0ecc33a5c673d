#include "wire/checksum.h"

#include <cstring>

namespace {

std::uint16_t fold_to_16_bits(std::uint64_t sum) {
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16U);
  return static_cast<std::uint16_t>(sum);
}

}  // namespace

// The sum does not depend on the byte order in which the words are added (RFC 1071, section 2B), so it is taken in
// wider words as they lie in memory, whose carries gather above them; a short tail is padded with zeros, which add
// nothing.
std::uint16_t internet_checksum(const std::uint8_t* bytes, std::size_t length) {
  std::uint64_t sum = 0;
  std::uint32_t word = 0;
  for (; length >= sizeof word; length -= sizeof word, bytes += sizeof word) {
    std::memcpy(&word, bytes, sizeof word);
    sum += word;
  }
  if (length != 0) {
    word = 0;
    std::memcpy(&word, bytes, length);
    sum += word;
  }
  return fold_to_16_bits(sum);
}
