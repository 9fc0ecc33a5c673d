// Looks at every UDP packet for PORT that DEVICE receives, until it is told to end (SIGTERM): whether each sequence
// number from 0 to COUNT - 1 came once, whether what follows the message header is zero, and whether the checksums of
// IP and UDP are right, so its sender must have finished them. Prints how many it checked, how many found no room in
// the ring ("unchecked", which are not called missing), and how many sequence numbers are missing, repeated, damaged.
//
// The kernel fills the ring with the frames of the device, as packet(7) and its packet_mmap text have it, within the
// call that carries the frame.
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>

#include <vector>

#include "bare.h"
#include "wire/bytes.h"
#include "wire/icmp_echo.h"

static constexpr const char* usage = "DEVICE PORT COUNT";
static constexpr unsigned block_bytes = 1U << 18U;
static constexpr unsigned slot_bytes = 2048;
static constexpr unsigned slots = 1U << 17U;
static constexpr std::size_t ethernet_bytes = 14;
static constexpr std::size_t headers_bytes = ipv4_header_bytes + udp_header_bytes + test_header_bytes;
static constexpr std::size_t ip_source_offset = 12;
static constexpr std::uint8_t ipv4_without_options = 0x45;
static constexpr std::uint16_t right_sum = 0xffff;

struct ring {
  int socket_fd;
  std::uint8_t* memory;
};

struct findings {
  std::vector<bool> seen;
  std::uint64_t checked;
  std::uint64_t repeated;
  std::uint64_t damaged;
};

static ring open_ring(const char* device) {
  constexpr int version = TPACKET_V2;
  constexpr std::size_t bytes = std::size_t{slots} * slot_bytes;
  tpacket_req request = {block_bytes, bytes / block_bytes, slot_bytes, slots};
  const int socket_fd = socket(AF_PACKET, SOCK_RAW, 0);  // receives nothing before it is bound
  if (setsockopt(socket_fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) fail("packet socket");
  if (setsockopt(socket_fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) != 0) fail("ring");
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, socket_fd, 0);
  if (memory == MAP_FAILED) fail("mmap");
  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_IP);  // so none that this end sends
  address.sll_ifindex = static_cast<int>(if_nametoindex(device));
  if (bind(socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
  return {socket_fd, static_cast<std::uint8_t*>(memory)};
}

// Of RFC 768, with the pseudo header in front: both addresses, the protocol and the length.
static std::uint16_t udp_sum(std::span<const std::uint8_t> ip) {
  static std::array<std::uint8_t, slot_bytes> summed = {};
  constexpr std::size_t pseudo_bytes = 12;
  const std::size_t length = ip.size() - ipv4_header_bytes;
  std::memcpy(summed.data(), &ip[ip_source_offset], 8);
  summed[9] = IPPROTO_UDP;
  write_be16(&summed[10], static_cast<std::uint16_t>(length));
  std::memcpy(&summed[pseudo_bytes], &ip[ipv4_header_bytes], length);
  return internet_checksum(summed.data(), pseudo_bytes + length);
}

static bool is_all_zero(std::span<const std::uint8_t> bytes) {
  return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

// A UDP checksum of 0 would mean that there is none.
static bool is_sound(std::span<const std::uint8_t> ip) {
  const std::uint8_t* udp = ip.data() + ipv4_header_bytes;
  if (read_be16(&ip[2]) != ip.size() || read_be16(udp + 4) != ip.size() - ipv4_header_bytes) return false;
  if (read_be16(udp + 6) == 0 || udp_sum(ip) != right_sum) return false;
  return internet_checksum(ip.data(), ipv4_header_bytes) == right_sum && is_all_zero(ip.subspan(headers_bytes));
}

static void look_at(std::span<const std::uint8_t> ip, findings* found) {
  test_header header = {};
  const bool sound = read_test_header(ip.subspan(ipv4_header_bytes + udp_header_bytes), &header) && is_sound(ip);
  ++found->checked;
  if (!sound || header.sequence >= found->seen.size()) {
    ++found->damaged;
  } else if (found->seen[header.sequence]) {
    ++found->repeated;
  } else {
    found->seen[header.sequence] = true;
  }
}

// A UDP packet for the port, as long as a test message at least.
static bool is_wanted(std::span<const std::uint8_t> frame, std::uint32_t port) {
  const std::uint8_t* ip = frame.data() + ethernet_bytes;
  return frame.size() >= ethernet_bytes + headers_bytes && ip[0] == ipv4_without_options && ip[9] == IPPROTO_UDP &&
         read_be16(ip + ipv4_header_bytes + 2) == port;
}

// Goes through what is in the ring from `*next` on, and gives it back.
static void look_at_all(const ring& frames, unsigned* next, std::uint32_t port, findings* found) {
  for (;; *next = (*next + 1) % slots) {
    std::uint8_t* slot = frames.memory + std::size_t{*next} * slot_bytes;
    auto* header = reinterpret_cast<tpacket2_hdr*>(slot);
    if ((__atomic_load_n(&header->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) return;
    const std::span<const std::uint8_t> frame = {slot + header->tp_mac, header->tp_snaplen};
    if (header->tp_snaplen == header->tp_len && is_wanted(frame, port)) {
      look_at(frame.subspan(ethernet_bytes), found);
    }
    __atomic_store_n(&header->tp_status, std::uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
  }
}

int main(int argc, char** argv) {
  findings found = {};
  found.seen.resize(number_argument(argc, argv, 3, usage));
  const std::uint32_t port = number_argument(argc, argv, 2, usage);
  const ring frames = open_ring(argv[1]);
  run_until_told();
  unsigned next = 0;
  while (told_to_end == 0) {
    look_at_all(frames, &next, port, &found);
    const timespec interval = {0, 200000};
    nanosleep(&interval, nullptr);
  }
  look_at_all(frames, &next, port, &found);
  tpacket_stats stats = {};
  socklen_t size = sizeof stats;
  if (getsockopt(frames.socket_fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) fail("statistics");
  const auto absent = static_cast<std::uint64_t>(std::count(found.seen.begin(), found.seen.end(), false));
  const std::uint64_t missing = absent > stats.tp_drops ? absent - stats.tp_drops : 0;
  std::printf("checked %llu unchecked %u missing %llu repeated %llu damaged %llu\n",
              static_cast<unsigned long long>(found.checked), stats.tp_drops, static_cast<unsigned long long>(missing),
              static_cast<unsigned long long>(found.repeated), static_cast<unsigned long long>(found.damaged));
}
