#include "wire/icmp_echo.h"

#include <netinet/in.h>

#include <cstring>

#include "wire/bytes.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::size_t checksum_offset = 2;
constexpr std::size_t identifier_offset = 4;
constexpr std::size_t sequence_offset = 6;

constexpr std::size_t ipv4_protocol_offset = 9;
constexpr std::size_t ipv4_source_offset = 12;
constexpr std::uint8_t ipv4_without_options = 0x45;

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

const std::array<const char*, 19> icmp_type_names = {
    " Echo Reply ",  // 0
    "Invalid",       // 1
    "Invalid",       // 2
    "Destination Unreachable",
    "Source Quench",
    "Redirect",  // 5
    "Invalid",
    "Invalid",
    "Echo Request",  // 8
    "Router Advertisement",
    "Router Solicitation",  // 10
    "TTL Exceeded",
    "Parameter Problem",
    "Timestamp Request",
    "Timestamp Reply",
    "Information Request",  // 15
    "Information Reply",
    "Address Mask Request",
    "Address MAsk Reply",  // 18
};

void write_icmp_echo(const icmp_echo* echo, std::uint8_t* frame) {
  frame[0] = echo->type;
  frame[1] = 0;
  write_raw16(frame + checksum_offset, 0);
  write_raw16(frame + identifier_offset, echo->identifier);
  write_be16(frame + sequence_offset, echo->sequence);
  const auto sum = internet_checksum(frame, icmp_header_bytes);
  write_raw16(frame + checksum_offset, static_cast<std::uint16_t>(~sum));
}

bool locate_icmp(std::span<const std::uint8_t> datagram, icmp_datagram* parts) {
  if (datagram.size() < ipv4_header_bytes) return false;
  const auto header_bytes = std::size_t{4} * (datagram[0] & 0x0FU);
  if (header_bytes < ipv4_header_bytes || datagram.size() < header_bytes + icmp_header_bytes) return false;
  parts->source = read_raw32(datagram.data() + ipv4_source_offset);
  parts->icmp = datagram.subspan(header_bytes);
  return true;
}

icmp_echo read_icmp_echo(std::span<const std::uint8_t> icmp) {
  return {
      .type = icmp[0],
      .identifier = read_raw16(icmp.data() + identifier_offset),
      .sequence = read_be16(icmp.data() + sequence_offset),
  };
}

bool read_quoted_echo(std::span<const std::uint8_t> icmp, icmp_echo* echo) {
  if (icmp.size() < icmp_header_bytes + ipv4_header_bytes + icmp_header_bytes) return false;
  const std::span<const std::uint8_t> quoted_ip = icmp.subspan(icmp_header_bytes);
  if (quoted_ip[ipv4_protocol_offset] != IPPROTO_ICMP) return false;
  if (quoted_ip[0] != ipv4_without_options) return false;
  *echo = read_icmp_echo(quoted_ip.subspan(ipv4_header_bytes));
  return true;
}
