#include "net/socket_options.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

namespace {

constexpr int buffer_bytes = 1048576;
constexpr int granted_bytes = 2 * buffer_bytes;  // how the kernel reports it: with its own overhead (socket(7))

// Where the system's limit grants less than was asked, a process that may force it does (socket(7)): a burst of replies
// must not be lost in our own buffer.
void force_buffer_size(int socket, int option, int forcing_option) {
  int granted = 0;
  socklen_t length = sizeof granted;
  if (getsockopt(socket, SOL_SOCKET, option, &granted, &length) != 0 || granted >= granted_bytes) return;
  set_socket_option(socket, SOL_SOCKET, forcing_option, buffer_bytes);
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
