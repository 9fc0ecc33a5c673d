// ICMP echo frames, the ICMP errors that quote them (RFC 792), and the Internet checksum of both (RFC 1071).
//
//      0        1        2        3
//      +--------+--------+--------+--------+
//    0 |  type  |  code  |    checksum     |  big-endian, as everything in RFC 792; the code of an echo is 0
//      +--------+--------+--------+--------+
//    4 |   identifier    |    sequence     |  identifier: as it lies in our memory; sequence: big-endian
//      +--------+--------+--------+--------+
//    8 |  zeros, up to the length of the packet
//
// An error has 8 bytes of header of its own, of which only the type is of use; behind them the IPv4 header and the
// first 8 bytes of our request come back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// The types that the code names, as the ICMP type field carries them.
enum icmp_type : std::uint8_t {
  icmp_echo_reply = 0,
  icmp_destination_unreachable = 3,
  icmp_source_quench = 4,
  icmp_redirect = 5,
  icmp_echo_request = 8,
  icmp_time_exceeded = 11,
  icmp_address_mask_reply = 18,
};

// Display names, indexed by type.
extern const std::array<const char*, 19> icmp_type_names;

struct icmp_echo {
  std::uint8_t type;
  std::uint16_t identifier;  // as it lies in memory: compared, never converted
  std::uint16_t sequence;    // host byte order
};

// Writes the 8-byte echo header with its checksum to `frame`. The payload behind it must be zero: zero bytes add
// nothing to the sum, so the checksum over the header is the checksum of the whole message, whatever its length.
void write_icmp_echo(const icmp_echo* echo, std::uint8_t* frame);

// A received IPv4 datagram, taken apart.
struct icmp_datagram {
  std::uint32_t source;                // IPv4, network byte order
  std::span<const std::uint8_t> icmp;  // the ICMP message, at least its 8-byte header
};

// Finds the ICMP message behind the IPv4 header of a datagram as a raw socket delivers it. False, with *parts
// untouched, when the header length is below 20 or beyond what was received, or fewer than 8 bytes of ICMP follow.
[[nodiscard]] bool locate_icmp(std::span<const std::uint8_t> datagram, icmp_datagram* parts);

// The type, identifier and sequence of an echo message. `icmp` holds at least 8 bytes.
[[nodiscard]] icmp_echo read_icmp_echo(std::span<const std::uint8_t> icmp);

// The echo request that an ICMP error quotes (RFC 792: its IPv4 header and first 8 bytes). False, with *echo
// untouched, when `icmp` is too short to hold it or quotes anything but ICMP behind a 20-byte IPv4 header.
[[nodiscard]] bool read_quoted_echo(std::span<const std::uint8_t> icmp, icmp_echo* echo);

// The 16-bit one's-complement sum of `length` bytes at any alignment, not complemented, in network byte order: stored
// as it lies in memory it is right on every processor. An odd last byte counts as the high half of a zero-padded word.
// A message with its checksum field in place is valid exactly when the result is 0xFFFF.
[[nodiscard]] std::uint16_t internet_checksum(const std::uint8_t* bytes, std::size_t length);
