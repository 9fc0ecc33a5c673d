// Keeps the head of every frame of DEVICE, with the kernel's stamp, until it is told to end (SIGTERM). Then it writes
// one capture_record for each to FILE and prints how many there were and how many found no room: read only when the
// run is over, it takes no processor time from what it watches.
#include <csignal>
#include <cstring>

#include "packet_ring.h"

static constexpr std::size_t kept_bytes = 64;
static constexpr unsigned slot_bytes = 144;

struct capture_record {
  std::int64_t stamp_nsec;
  std::uint32_t frame_bytes;  // on the wire, Ethernet header included
  std::uint32_t sent;         // 1 when this end sent it, 0 when it received it
  std::uint8_t bytes[kept_bytes];
};

static capture_record record_of(const tpacket2_hdr* header) {
  capture_record record = {};
  record.stamp_nsec = std::int64_t{header->tp_sec} * 1000000000 + header->tp_nsec;
  record.frame_bytes = header->tp_len;
  record.sent = frame_was_sent(header) ? 1 : 0;
  std::memcpy(record.bytes, frame_bytes(header), header->tp_snaplen < kept_bytes ? header->tp_snaplen : kept_bytes);
  return record;
}

static unsigned write_records(const packet_ring& ring, const char* path) {
  std::FILE* file = std::fopen(path, "wb");
  if (file == nullptr) fail_with(path);
  unsigned count = 0;
  while (count < ring.frames && frame_is_there(frame_header(ring, count))) {
    const capture_record record = record_of(frame_header(ring, count));
    if (std::fwrite(&record, sizeof record, 1, file) != 1) fail_with(path);
    ++count;
  }
  if (std::fclose(file) != 0) fail_with(path);
  return count;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DEVICE FRAMES FILE\n", argv[0]);
    return 2;
  }
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  const packet_ring ring =
      open_packet_ring(argv[1], static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)), slot_bytes);
  std::printf("ready\n");
  std::fflush(stdout);

  int signal = 0;
  sigwait(&ending, &signal);
  const unsigned count = write_records(ring, argv[3]);
  std::printf("captured %u missed %u\n", count, ring_drops(ring));
}
