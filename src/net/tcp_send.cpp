#include "net/tcp_send.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "app/signals.h"
#include "net/socket_wait.h"

namespace {

constexpr std::int64_t stall_limit_usec = 10000000;
constexpr std::int64_t stall_slice_usec = 10000;  // how often input is thrown away while nothing can be sent

void discard_input_of(int socket) {
  std::array<std::uint8_t, 4096> scratch;
  while (recv(socket, scratch.data(), scratch.size(), MSG_DONTWAIT) > 0) {
  }
}

// True when the socket can be written again.
bool wait_for_room(int socket, when_stalled policy) {
  std::int64_t waited = 0;
  for (;;) {
    if (stop_signal() != 0) return false;
    if (policy == when_stalled::give_up && waited >= stall_limit_usec) return false;
    if (policy == when_stalled::discard_input) discard_input_of(socket);
    std::int64_t left = stall_slice_usec;
    const wait_result result = wait_on_socket(socket, wait_for::writable, &left);
    if (result == wait_result::ready) return true;
    if (result == wait_result::failed) return false;
    waited += stall_slice_usec - left;
  }
}

}  // namespace

std::size_t send_all(int socket, std::span<const std::uint8_t> bytes, when_stalled policy) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t result = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT);
    if (result > 0) {
      sent += static_cast<std::size_t>(result);
    } else if (result < 0 && errno == EINTR) {
      continue;
    } else if (result == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) || !wait_for_room(socket, policy)) {
      break;
    }
  }
  return sent;
}

bool has_room_to_send(int socket) {
  if (socket < 0) return true;
  std::int64_t no_wait = 0;
  return wait_on_socket(socket, wait_for::writable, &no_wait) != wait_result::elapsed;
}
