// One field at one address, its byte order in the name.
//
// be = network byte order in the packet, host byte order in the value. raw = as it lies in memory, never converted:
// good for fields that are only copied and compared. Any alignment. The caller has checked the bounds.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

inline std::uint16_t read_raw16(const std::uint8_t* at) {
  std::uint16_t value = 0;
  std::memcpy(&value, at, sizeof value);
  return value;
}

inline std::uint32_t read_raw32(const std::uint8_t* at) {
  std::uint32_t value = 0;
  std::memcpy(&value, at, sizeof value);
  return value;
}

inline void write_raw16(std::uint8_t* at, std::uint16_t value) {
  std::memcpy(at, &value, sizeof value);
}

inline void write_raw32(std::uint8_t* at, std::uint32_t value) {
  std::memcpy(at, &value, sizeof value);
}

inline std::uint16_t read_be16(const std::uint8_t* at) {
  return ntohs(read_raw16(at));
}

inline std::uint32_t read_be32(const std::uint8_t* at) {
  return ntohl(read_raw32(at));
}

inline void write_be16(std::uint8_t* at, std::uint16_t value) {
  write_raw16(at, htons(value));
}

inline void write_be32(std::uint8_t* at, std::uint32_t value) {
  write_raw32(at, htonl(value));
}
