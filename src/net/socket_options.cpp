#include "net/socket_options.h"

#include <linux/filter.h>
#include <linux/icmp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

#include "base/run_records.h"
#include "base/settings.h"
#include "wire/icmp_echo.h"

namespace {

constexpr int buffer_bytes = 1048576;
constexpr int granted_bytes = 2 * buffer_bytes;  // how the kernel reports it: with its own overhead (socket(7))
constexpr std::uint32_t no_frame = 0;
constexpr std::uint32_t all_types = 0xFFFFFFFF;

// Where the system's limit grants less than was asked, a process that may force it does (socket(7)): a burst of replies
// must not be lost in our own buffer.
void force_buffer_size(int socket, int option, int forcing_option) {
  int granted = 0;
  socklen_t length = sizeof granted;
  if (getsockopt(socket, SOL_SOCKET, option, &granted, &length) != 0 || granted >= granted_bytes) return;
  set_socket_option(socket, SOL_SOCKET, forcing_option, buffer_bytes);
}

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

int set_socket_option(int socket, int level, int option, int value) {
  return setsockopt(socket, level, option, &value, sizeof value);
}

int open_socket(int type, int protocol) {
  const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
  if (descriptor < FD_SETSIZE) return descriptor;
  close(descriptor);
  return -1;
}

sockaddr_in socket_address(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = address;
  result.sin_port = port;
  return result;
}

bool bind_socket(int socket, std::uint32_t address, std::uint16_t port) {
  const sockaddr_in local = socket_address(address, port);
  return bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

void set_buffer_sizes(int socket) {
  int result = set_socket_option(socket, SOL_SOCKET, SO_SNDBUF, buffer_bytes);
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_sndbuf to %d, err = %d, lasterr = %d\n", buffer_bytes, result, result);
  }
  force_buffer_size(socket, SO_SNDBUF, SO_SNDBUFFORCE);
  result = set_socket_option(socket, SOL_SOCKET, SO_RCVBUF, buffer_bytes);
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_rcvbuf to %d, err = %d, lasterr = %d\n", buffer_bytes, result, result);
  }
  force_buffer_size(socket, SO_RCVBUF, SO_RCVBUFFORCE);
}

void leave_out_own_traffic(const test_settings* settings, const run_state* run) {
  if (is_command_run(settings) || uses_tcp(settings)) return;
  if (settings->ignore_responses != 0) {
    leave_out_types(run->data_socket, all_types);  // a UDP socket has none
    leave_out_everything(run->data_socket);
  } else if (is_echo_mode(settings) && uses_icmp(settings)) {
    leave_out_types(run->data_socket, 1U << icmp_echo_request);
  }
}
