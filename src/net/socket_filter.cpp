#include "net/socket_filter.h"

#include <linux/filter.h>
#include <linux/icmp.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>

#include "base/run_records.h"
#include "base/settings.h"
#include "wire/icmp_echo.h"

namespace {

constexpr std::uint32_t no_frame = 0;
constexpr std::uint32_t all_types = 0xFFFFFFFF;

// A bit for each type; those from 32 on cannot be left out this way. The kernel looks before it copies a frame for the
// socket, which a classic filter would cost.
void leave_out_types(int socket, std::uint32_t types) {
  const icmp_filter filter = {.data = types};
  setsockopt(socket, SOL_RAW, ICMP_FILTER, &filter, sizeof filter);
}

void leave_out_everything(int socket) {
  std::array<sock_filter, 1> code = {{BPF_STMT(BPF_RET | BPF_K, no_frame)}};
  const sock_fprog program = {.len = code.size(), .filter = code.data()};
  setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

}  // namespace

void leave_out_own_traffic(const test_settings* settings, const run_state* run) {
  if (is_command_run(settings) || uses_tcp(settings)) return;
  if (settings->ignore_responses != 0) {
    leave_out_types(run->data_socket, all_types);  // a UDP socket has none
    leave_out_everything(run->data_socket);
  } else if (is_echo_mode(settings) && uses_icmp(settings)) {
    leave_out_types(run->data_socket, 1U << icmp_echo_request);
  }
}
