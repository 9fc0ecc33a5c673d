// From the IP length that the user asks for to the bytes of each carrier.
#pragma once

#include <algorithm>
#include <cstdint>

inline constexpr std::uint32_t ipv4_header_bytes = 20;
inline constexpr std::uint32_t icmp_header_bytes = 8;
inline constexpr std::uint32_t udp_header_bytes = 8;
inline constexpr std::uint32_t tcp_header_bytes = 20;
inline constexpr std::uint32_t test_header_bytes = 20;

inline constexpr std::uint32_t largest_ip_length = 65535;  // RFC 791: the length field has 16 bits
inline constexpr std::uint32_t message_buffer_bytes = 65536;

struct packet_sizes {
  std::uint32_t ip_length;        // the length asked for, raised to the carrier's minimum, cut to the largest datagram
  std::uint32_t transmit_length;  // bytes handed to the socket
  std::uint32_t payload_length;   // of these, bytes behind the carrier's own headers
};

// The sizes of one test packet. UDP wins over TCP; neither is ICMP. The smallest ICMP frame is a bare echo header, the
// smallest UDP or TCP message a bare test header.
constexpr packet_sizes sizes_for_carrier(bool udp, bool tcp, std::uint32_t ip_length) {
  constexpr std::uint32_t udp_headers = ipv4_header_bytes + udp_header_bytes;
  constexpr std::uint32_t tcp_headers = ipv4_header_bytes + tcp_header_bytes;
  const std::uint32_t below_us = udp ? udp_headers : tcp ? tcp_headers : ipv4_header_bytes;
  const std::uint32_t ours = udp || tcp ? test_header_bytes : icmp_header_bytes;
  ip_length = std::clamp(ip_length, below_us + ours, largest_ip_length);
  const std::uint32_t transmit_length = ip_length - below_us;
  return {
      .ip_length = ip_length,
      .transmit_length = transmit_length,
      .payload_length = udp || tcp ? transmit_length : transmit_length - icmp_header_bytes,
  };
}
