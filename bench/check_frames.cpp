// Looks at every UDP packet for PORT that DEVICE receives, until it is told to end (SIGTERM): whether each sequence
// number from 0 to COUNT - 1 came once, whether what follows the message header is zero, and whether the checksums of
// IP and UDP are right, so its sender must have finished them. Prints how many it checked, how many found no room in
// the ring ("unchecked", which are not called missing), and how many sequence numbers are missing, repeated, damaged.
#include <csignal>
#include <cstring>
#include <ctime>
#include <vector>

#include "packet_ring.h"

static constexpr unsigned slot_bytes = 2048;
static constexpr unsigned slots = 1U << 17U;
static constexpr std::size_t ethernet_bytes = 14;
static constexpr std::size_t ip_bytes = 20;
static constexpr std::size_t udp_bytes = 8;
static constexpr std::size_t message_header_bytes = 20;
static constexpr std::size_t message_sequence_offset = 12;
static constexpr std::uint8_t ipv4_without_options = 0x45;
static constexpr std::uint8_t udp_protocol = 17;
static constexpr std::uint16_t right_sum = 0xffff;

static volatile std::sig_atomic_t told_to_end = 0;

static void end_soon(int /*signal*/) {
  told_to_end = 1;
}

struct findings {
  std::vector<bool> seen;
  std::uint64_t checked;
  std::uint64_t repeated;
  std::uint64_t damaged;
};

static std::uint32_t read_be(const std::uint8_t* bytes, unsigned count) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < count; ++i) value = (value << 8U) | bytes[i];
  return value;
}

// The one's complement sum of RFC 1071, in whatever byte order the words lie: right sums are all ones in either.
static std::uint16_t sum_of(const std::uint8_t* bytes, std::size_t length, std::uint64_t sum) {
  std::size_t at = 0;
  for (; at + 4 <= length; at += 4) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes + at, sizeof word);
    sum += word;
  }
  std::uint32_t rest = 0;
  std::memcpy(&rest, bytes + at, length - at);
  sum += rest;
  while ((sum >> 16U) != 0) sum = (sum & 0xffffU) + (sum >> 16U);
  return static_cast<std::uint16_t>(sum);
}

// The pseudo header of RFC 768: both addresses, the protocol and the length.
static std::uint64_t pseudo_header_sum(const std::uint8_t* ip, std::uint16_t udp_length) {
  return std::uint64_t{sum_of(ip + 12, 8, 0)} + htons(udp_protocol) + htons(udp_length);
}

static bool is_all_zero(const std::uint8_t* bytes, std::size_t length) {
  return length == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}

// `length` is the whole IP packet; a UDP checksum of 0 would mean that there is none.
static bool is_sound(const std::uint8_t* ip, std::size_t length) {
  const std::uint8_t* udp = ip + ip_bytes;
  const std::size_t udp_length = length - ip_bytes;
  if (read_be(ip + 2, 2) != length || read_be(udp + 4, 2) != udp_length || read_be(udp + 6, 2) == 0) return false;
  if (sum_of(ip, ip_bytes, 0) != right_sum) return false;
  if (sum_of(udp, udp_length, pseudo_header_sum(ip, static_cast<std::uint16_t>(udp_length))) != right_sum) return false;
  return is_all_zero(udp + udp_bytes + message_header_bytes, udp_length - udp_bytes - message_header_bytes);
}

static void look_at(const std::uint8_t* ip, std::size_t length, findings* found) {
  const std::uint32_t sequence = read_be(ip + ip_bytes + udp_bytes + message_sequence_offset, 4);
  ++found->checked;
  if (sequence >= found->seen.size() || !is_sound(ip, length)) {
    ++found->damaged;
  } else if (found->seen[sequence]) {
    ++found->repeated;
  } else {
    found->seen[sequence] = true;
  }
}

static bool is_wanted(const tpacket2_hdr* header, std::uint16_t port) {
  const std::uint8_t* frame = frame_bytes(header);
  return header->tp_snaplen == header->tp_len && !frame_was_sent(header) &&
         header->tp_len >= ethernet_bytes + ip_bytes + udp_bytes + message_header_bytes &&
         read_be(frame + 12, 2) == ETH_P_IP && frame[ethernet_bytes] == ipv4_without_options &&
         frame[ethernet_bytes + 9] == udp_protocol && read_be(frame + ethernet_bytes + ip_bytes + 2, 2) == port;
}

// Goes through what is in the ring from `*next` on.
static void look_at_all(const packet_ring& ring, unsigned* next, std::uint16_t port, findings* found) {
  for (tpacket2_hdr* header = frame_header(ring, *next); frame_is_there(header); header = frame_header(ring, *next)) {
    if (is_wanted(header, port)) {
      look_at(frame_bytes(header) + ethernet_bytes, header->tp_len - ethernet_bytes, found);
    }
    give_back(header);
    *next = (*next + 1) % ring.frames;
  }
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DEVICE PORT COUNT\n", argv[0]);
    return 2;
  }
  struct sigaction ending = {};
  ending.sa_handler = end_soon;
  sigaction(SIGTERM, &ending, nullptr);
  const auto port = static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10));
  findings found = {};
  found.seen.resize(std::strtoul(argv[3], nullptr, 10));
  const packet_ring ring = open_packet_ring(argv[1], slots, slot_bytes);
  std::printf("ready\n");
  std::fflush(stdout);

  unsigned next = 0;
  while (told_to_end == 0) {
    look_at_all(ring, &next, port, &found);
    const timespec interval = {0, 200000};
    nanosleep(&interval, nullptr);
  }
  look_at_all(ring, &next, port, &found);
  const std::uint64_t unchecked = ring_drops(ring);
  std::uint64_t absent = 0;
  for (const bool seen : found.seen) absent += seen ? 0 : 1;
  const std::uint64_t missing = absent > unchecked ? absent - unchecked : 0;
  std::printf("checked %llu unchecked %llu missing %llu repeated %llu damaged %llu\n",
              static_cast<unsigned long long>(found.checked), static_cast<unsigned long long>(unchecked),
              static_cast<unsigned long long>(missing), static_cast<unsigned long long>(found.repeated),
              static_cast<unsigned long long>(found.damaged));
}
