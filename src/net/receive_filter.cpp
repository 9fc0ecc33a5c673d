#include "net/receive_filter.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <span>

#include "base/run_records.h"
#include "base/settings.h"
#include "wire/icmp_echo.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::uint32_t whole_frame = 0xFFFFFFFF;
constexpr std::uint32_t no_frame = 0;

void attach(int socket, std::span<sock_filter> code) {
  const sock_fprog program = {.len = static_cast<unsigned short>(code.size()), .filter = code.data()};
  setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

void take_nothing(int socket) {
  std::array<sock_filter, 1> code = {{BPF_STMT(BPF_RET | BPF_K, no_frame)}};
  attach(socket, code);
}

// A load beyond the end of a frame would refuse it, so its length is looked at first. Loads are in network byte order.
void leave_out_own_requests(int socket, std::uint16_t identifier) {
  std::array<sock_filter, 10> code = {{
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),  // X = length of the IPv4 header
      BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
      BPF_STMT(BPF_ALU | BPF_SUB | BPF_X, 0),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, icmp_header_bytes, 0, 5),
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, icmp_echo_request, 0, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, icmp_identifier_offset),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ntohs(identifier), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, no_frame),
      BPF_STMT(BPF_RET | BPF_K, whole_frame),
  }};
  attach(socket, code);
}

}  // namespace

void leave_out_own_traffic(const test_settings* settings, const run_state* run) {
  if (settings->remote_run != 0 || settings->tcp != 0) return;
  if (settings->ignore_responses != 0) {
    take_nothing(run->data_socket);
  } else if (is_echo_mode(settings) && uses_icmp(settings)) {
    leave_out_own_requests(run->data_socket, static_cast<std::uint16_t>(settings->process_id));
  }
}
