#include "net/socket_connection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "base/address_text.h"
#include "base/cleanup_exit.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "base/signals.h"
#include "net/socket_options.h"
#include "net/socket_wait.h"

namespace {

constexpr int listen_backlog = 5;
constexpr std::int64_t connection_slice_usec = 1000000;

// A vanished peer is found out within about two minutes of silence.
constexpr int keepalive_idle_sec = 60;
constexpr int keepalive_interval_sec = 10;
constexpr int keepalive_probes = 6;

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
    const wait_result result = wait_on_socket(socket, socket_event::writable, &left);
    if (result == wait_result::ready) return true;
    if (result == wait_result::failed) return false;
    waited += stall_slice_usec - left;
  }
  return false;
}

// Connects without blocking, so that a stop signal ends the wait for a silent host.
bool connect_to(int socket, std::uint32_t address, std::uint16_t port) {
  const sockaddr_in remote = socket_address(address, port);
  if (fcntl(socket, F_SETFL, O_NONBLOCK) != 0) return false;
  if (connect(socket, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) == 0) return true;
  if (errno != EINPROGRESS && errno != EINTR) return false;
  wait_result result = wait_result::elapsed;
  while (result == wait_result::elapsed || result == wait_result::stopped) {
    if (stop_signal() != 0) cleanup_exit(0);
    std::int64_t slice_usec = connection_slice_usec;
    result = wait_on_socket(socket, socket_event::writable, &slice_usec);
  }
  int error = 0;
  socklen_t length = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

void connect_as_client(int socket, const test_settings* settings, run_state* run) {
  run->data_socket = socket;
  if (!connect_to(socket, settings->start_host, settings->remote_port)) {
    std::fprintf(stderr, "Error- could not connect to %s\n", address_text(settings->start_host));
    cleanup_exit(1);
  }
  set_buffer_sizes(socket);
  const int result = set_socket_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  if (result != 0) std::fprintf(stdout, "err: Could not set TCP_NODELAY on socket. Err = %d\n", result);
}

void listen_as_monitor(int socket, const test_settings* settings, run_state* run) {
  run->listen_socket = socket;
  set_socket_option(socket, SOL_SOCKET, SO_REUSEADDR, 1);  // a monitor must be able to start again at once
  if (!bind_socket(socket, INADDR_ANY, settings->local_port)) {
    std::fprintf(stderr, "Error- could not bind TCP socket\n");
    cleanup_exit(1);
  }
  // Without blocking: a connection that select announced may be gone before accept takes it (accept(2)).
  if (fcntl(socket, F_SETFL, O_NONBLOCK) != 0 || listen(socket, listen_backlog) != 0) {
    std::fprintf(stderr, "Error- could not listen on TCP socket\n");
    cleanup_exit(1);
  }
  run->data_socket = -1;
}

void watch_for_vanished_peer(int socket) {
  set_socket_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_socket_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, keepalive_idle_sec);
  set_socket_option(socket, IPPROTO_TCP, TCP_KEEPINTVL, keepalive_interval_sec);
  set_socket_option(socket, IPPROTO_TCP, TCP_KEEPCNT, keepalive_probes);
}

}  // namespace

void open_tcp_socket(const test_settings* settings, run_state* run) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that is gone makes send fail, which is reported
  const int descriptor = open_socket(SOCK_STREAM, IPPROTO_TCP);
  if (descriptor == -1) {
    std::fprintf(stderr, "Error- Could not allocate udp socket. (Permissions?)\n");
    cleanup_exit(1);
  }
  if (is_monitor(settings)) {
    listen_as_monitor(descriptor, settings, run);
  } else {
    connect_as_client(descriptor, settings, run);
  }
}

void accept_test_connection(run_state* run) {
  while (stop_signal() == 0) {
    std::int64_t slice_usec = connection_slice_usec;
    const wait_result result = wait_on_socket(run->listen_socket, socket_event::readable, &slice_usec);
    if (result == wait_result::failed) end_without_connection();
    if (result != wait_result::ready) continue;
    const int connection = accept4(run->listen_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection == -1 && (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN)) continue;
    if (connection == -1 || connection >= FD_SETSIZE) end_without_connection();
    watch_for_vanished_peer(connection);
    run->data_socket = connection;
    return;
  }
}

void end_without_connection() {
  std::fprintf(stderr, "Err: Could not accept connection\n");
  cleanup_exit(1);
}

void close_data_socket(run_state* run) {
  if (run->data_socket >= 0) close(run->data_socket);
  run->data_socket = -1;
}

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
    result = wait_on_socket(socket, socket_event::writable, &no_wait);
  }
  return result != wait_result::elapsed;
}
