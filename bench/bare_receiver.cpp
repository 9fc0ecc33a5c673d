// The far end. Reads everything that arrives until it is told to end (SIGTERM), then prints how many packets it read
// and how many the kernel dropped because its queue was full.
//   sink CARRIER PORT          reads in bulk every half millisecond, so that no arrival has to wake it
//   stamps CARRIER PORT FILE   reads in bulk too, and writes the kernel's receive stamps (64-bit nanoseconds) to FILE
//   answer CARRIER PORT FILE   stamps, and answers each UDP echo request at once
#include <array>
#include <csignal>
#include <vector>

#include "bare_common.h"

static constexpr const char* usage = "sink|stamps|answer udp|icmp PORT [FILE]";
static constexpr int queue_bytes = 64 * 1048576;
static constexpr long sink_interval_nsec = 500000;
static constexpr long stamp_interval_nsec = 20000000;  // paced streams are slow, and must not be disturbed
static constexpr unsigned packets_per_read = 64;
static constexpr std::size_t kept_bytes = 64;  // of each packet: the headers are all we look at
static constexpr std::size_t control_bytes = 128;

struct read_slots {
  std::array<mmsghdr, packets_per_read> headers;
  std::array<iovec, packets_per_read> pieces;
  std::array<sockaddr_in, packets_per_read> senders;
  std::array<std::array<std::uint8_t, kept_bytes>, packets_per_read> bytes;
  std::array<std::array<std::uint8_t, control_bytes>, packets_per_read> control;
};

struct far_end {
  int socket_fd;
  bool stamps;
  bool answers;
  std::uint64_t received;
  std::uint32_t dropped;  // as the kernel counts it for this socket
  std::vector<std::int64_t> stamps_nsec;
};

static volatile std::sig_atomic_t told_to_end = 0;

static void end_soon(int /*signal*/) {
  told_to_end = 1;
}

static void prepare_slots(read_slots* slots) {
  for (unsigned i = 0; i < packets_per_read; ++i) {
    slots->pieces[i] = {slots->bytes[i].data(), kept_bytes};
    msghdr& header = slots->headers[i].msg_hdr;
    header = {};
    header.msg_name = &slots->senders[i];
    header.msg_namelen = sizeof slots->senders[i];
    header.msg_iov = &slots->pieces[i];
    header.msg_iovlen = 1;
    header.msg_control = slots->control[i].data();
    header.msg_controllen = control_bytes;
  }
}

static void note_control_data(far_end* end, msghdr* header) {
  for (cmsghdr* item = CMSG_FIRSTHDR(header); item != nullptr; item = CMSG_NXTHDR(header, item)) {
    if (item->cmsg_level != SOL_SOCKET) continue;
    if (item->cmsg_type == SO_RXQ_OVFL) std::memcpy(&end->dropped, CMSG_DATA(item), sizeof end->dropped);
    if (item->cmsg_type == SCM_TIMESTAMPNS && end->stamps) {
      timespec stamp = {};
      std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
      end->stamps_nsec.push_back(std::int64_t{stamp.tv_sec} * 1000000000 + stamp.tv_nsec);
    }
  }
}

static void answer(const far_end& end, const msghdr& header, std::uint8_t* message, std::size_t length) {
  if (length < message_header_bytes || read_be32(message + type_offset) != echo_request) return;
  write_be32(message + type_offset, echo_reply);
  sendto(end.socket_fd, message, message_header_bytes, 0, static_cast<const sockaddr*>(header.msg_name),
         header.msg_namelen);
}

// Reads what is queued, up to packets_per_read. False when nothing was there.
static bool read_some(far_end* end, read_slots* slots, int flags) {
  prepare_slots(slots);
  const int count = recvmmsg(end->socket_fd, slots->headers.data(), packets_per_read, flags, nullptr);
  for (int i = 0; i < count; ++i) {
    const auto slot = static_cast<std::size_t>(i);
    note_control_data(end, &slots->headers[slot].msg_hdr);
    if (end->answers) {
      answer(*end, slots->headers[slot].msg_hdr, slots->bytes[slot].data(), slots->headers[slot].msg_len);
    }
    ++end->received;
  }
  return count > 0;
}

static far_end open_far_end(int argc, char** argv) {
  const auto port = static_cast<std::uint16_t>(number_argument(argc, argv, 3, usage));
  const bool udp = std::strcmp(argv[2], "udp") == 0;
  constexpr int on = 1;
  far_end end = {};
  end.answers = std::strcmp(argv[1], "answer") == 0;
  end.stamps = argc > 4;
  end.socket_fd = udp ? open_udp_socket(port) : open_icmp_socket((1U << ICMP_ECHO) | (1U << ICMP_ECHOREPLY));
  setsockopt(end.socket_fd, SOL_SOCKET, SO_RCVBUFFORCE, &queue_bytes, sizeof queue_bytes);
  setsockopt(end.socket_fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
  if (end.stamps) setsockopt(end.socket_fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
  return end;
}

static void write_stamps(const far_end& end, const char* path) {
  std::FILE* file = std::fopen(path, "wb");
  if (file == nullptr) fail(path);
  std::fwrite(end.stamps_nsec.data(), sizeof end.stamps_nsec[0], end.stamps_nsec.size(), file);
  std::fclose(file);
}

int main(int argc, char** argv) {
  far_end end = open_far_end(argc, argv);
  static read_slots slots;
  struct sigaction ending = {};
  ending.sa_handler = end_soon;  // no SA_RESTART: a blocked read must return
  sigaction(SIGTERM, &ending, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);

  while (told_to_end == 0) {
    if (end.answers) {
      read_some(&end, &slots, MSG_WAITFORONE);
    } else if (!read_some(&end, &slots, MSG_DONTWAIT)) {
      const timespec interval = {0, end.stamps ? stamp_interval_nsec : sink_interval_nsec};
      nanosleep(&interval, nullptr);
    }
  }
  if (end.stamps) write_stamps(end, argv[4]);
  std::printf("received %llu dropped %u\n", static_cast<unsigned long long>(end.received), end.dropped);
}
