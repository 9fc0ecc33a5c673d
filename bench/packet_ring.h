// A ring that the kernel fills with the frames of one device, both ways, as packet(7) and its packet_mmap text have it:
// each with the kernel's own stamp. The kernel writes into it within the call that carries the frame; nobody has to
// run for that, so a ring that holds a whole run can be read when the run is over and disturbs nothing.
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

inline constexpr unsigned ring_block_bytes = 1U << 18U;

struct packet_ring {
  int socket_fd;
  std::uint8_t* memory;
  unsigned frame_bytes;  // of a slot; what does not fit behind its header is cut off
  unsigned frames_per_block;
  unsigned frames;
};

[[noreturn]] inline void fail_with(const char* what) {
  std::perror(what);
  std::exit(1);
}

// `frame_bytes` is a multiple of TPACKET_ALIGNMENT. At least `frames` slots.
inline packet_ring open_packet_ring(const char* device, unsigned frames, unsigned frame_bytes) {
  packet_ring ring = {};
  ring.frame_bytes = frame_bytes;
  ring.frames_per_block = ring_block_bytes / frame_bytes;
  const unsigned blocks = (frames + ring.frames_per_block - 1) / ring.frames_per_block;
  ring.frames = blocks * ring.frames_per_block;
  ring.socket_fd = socket(AF_PACKET, SOCK_RAW, 0);  // receives nothing before it is bound
  if (ring.socket_fd < 0) fail_with("socket");
  constexpr int version = TPACKET_V2;
  tpacket_req request = {ring_block_bytes, blocks, frame_bytes, ring.frames};
  if (setsockopt(ring.socket_fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0) fail_with("version");
  if (setsockopt(ring.socket_fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) != 0) fail_with("ring");
  const std::size_t bytes = std::size_t{blocks} * ring_block_bytes;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, ring.socket_fd, 0);
  if (memory == MAP_FAILED) fail_with("mmap");
  ring.memory = static_cast<std::uint8_t*>(memory);

  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(if_nametoindex(device));
  if (bind(ring.socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail_with("bind");
  return ring;
}

inline tpacket2_hdr* frame_header(const packet_ring& ring, unsigned index) {
  std::uint8_t* block = ring.memory + std::size_t{index / ring.frames_per_block} * ring_block_bytes;
  return reinterpret_cast<tpacket2_hdr*>(block + std::size_t{index % ring.frames_per_block} * ring.frame_bytes);
}

// True when the kernel has filled this slot and nobody has given it back.
inline bool frame_is_there(const tpacket2_hdr* header) {
  return (__atomic_load_n(&header->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
}

inline void give_back(tpacket2_hdr* header) {
  __atomic_store_n(&header->tp_status, std::uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
}

// From the Ethernet header on; header->tp_snaplen bytes.
inline const std::uint8_t* frame_bytes(const tpacket2_hdr* header) {
  return reinterpret_cast<const std::uint8_t*>(header) + header->tp_mac;
}

inline bool frame_was_sent(const tpacket2_hdr* header) {
  const std::uint8_t* address = reinterpret_cast<const std::uint8_t*>(header) + TPACKET_ALIGN(sizeof *header);
  return reinterpret_cast<const sockaddr_ll*>(address)->sll_pkttype == PACKET_OUTGOING;
}

// Frames that found the ring full.
inline unsigned ring_drops(const packet_ring& ring) {
  tpacket_stats stats = {};
  socklen_t size = sizeof stats;
  if (getsockopt(ring.socket_fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) fail_with("statistics");
  return stats.tp_drops;
}
