#include "net/tcp_send.h"

#include <sys/socket.h>

#include <cerrno>

#include "app/signals.h"
#include "net/socket_wait.h"

namespace {

constexpr std::int64_t stall_slice_usec = 10000;  // how often input is thrown away while nothing can be sent
constexpr std::size_t discarded_at_once = 1 << 20;

// No more than a receive buffer holds: a peer that sends as fast as we discard must not keep us here. MSG_TRUNC throws
// bytes of a stream away without copying them (tcp(7)).
void discard_input_of(int socket) {
  std::size_t discarded = 0;
  while (discarded < discarded_at_once) {
    const ssize_t result = recv(socket, nullptr, discarded_at_once - discarded, MSG_DONTWAIT | MSG_TRUNC);
    if (result <= 0) return;
    discarded += static_cast<std::size_t>(result);
  }
}

// True when the socket can be written again.
bool wait_for_room(int socket, stall_rules rules) {
  std::int64_t waited = 0;
  while (stop_signal() == 0 && waited < rules.longest_usec) {
    if (rules.discard_input) discard_input_of(socket);
    std::int64_t left = stall_slice_usec;
    const wait_result result = wait_on_socket(socket, wait_for::writable, &left);
    if (result == wait_result::ready) return true;
    if (result == wait_result::failed) return false;
    waited += stall_slice_usec - left;
  }
  return false;
}

}  // namespace

stream_result send_all(int socket, std::span<const std::uint8_t> bytes, stall_rules rules) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t result = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT);
    if (result > 0) {
      sent += static_cast<std::size_t>(result);
    } else if (result == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      return {.sent = sent, .stalled = false};
    } else if (errno != EINTR && !wait_for_room(socket, rules)) {
      return {.sent = sent, .stalled = true};
    }
  }
  return {.sent = sent, .stalled = false};
}

bool has_room_to_send(int socket) {
  if (socket < 0) return true;
  wait_result result = wait_result::stopped;
  while (result == wait_result::stopped) {
    std::int64_t no_wait = 0;
    result = wait_on_socket(socket, wait_for::writable, &no_wait);
  }
  return result != wait_result::elapsed;
}
