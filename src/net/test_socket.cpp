#include "net/test_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include "app/cleanup_exit.h"
#include "app/privileges.h"
#include "app/signals.h"
#include "app/test_settings.h"
#include "engine/run_records.h"
#include "net/address_text.h"
#include "net/arrival.h"
#include "net/socket_wait.h"

namespace {

constexpr int buffer_bytes = 1048576;
constexpr int listen_backlog = 5;
constexpr std::int64_t connection_slice_usec = 1000000;

// A vanished peer is found out within about two minutes of silence.
constexpr int keepalive_idle_sec = 60;
constexpr int keepalive_interval_sec = 10;
constexpr int keepalive_probes = 6;

int set_option(int socket, int level, int option, int value) {
  return setsockopt(socket, level, option, &value, sizeof value);
}

// A descriptor that select cannot watch is as good as none.
int socket_for_select(int type, int protocol) {
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

bool bind_to(int socket, std::uint32_t address, std::uint16_t port) {
  const sockaddr_in local = socket_address(address, port);
  return bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

// Where the system's limit grants less than was asked, a process that may force it does (socket(7)): a burst of replies
// must not be lost in our own buffer. The kernel reports twice what it was asked for.
void force_buffer_size(int socket, int option, int forcing_option) {
  int granted = 0;
  socklen_t length = sizeof granted;
  if (getsockopt(socket, SOL_SOCKET, option, &granted, &length) != 0 || granted >= 2 * buffer_bytes) return;
  set_option(socket, SOL_SOCKET, forcing_option, buffer_bytes);
}

void set_buffer_sizes(int socket) {
  int result = set_option(socket, SOL_SOCKET, SO_SNDBUF, buffer_bytes);
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_sndbuf to %d, err = %d, lasterr = %d\n", buffer_bytes, result, result);
  }
  force_buffer_size(socket, SO_SNDBUF, SO_SNDBUFFORCE);
  result = set_option(socket, SOL_SOCKET, SO_RCVBUF, buffer_bytes);
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_rcvbuf to %d, err = %d, lasterr = %d\n", buffer_bytes, result, result);
  }
  force_buffer_size(socket, SO_RCVBUF, SO_RCVBUFFORCE);
}

void allow_broadcast(int socket) {
  const int result = set_option(socket, SOL_SOCKET, SO_BROADCAST, buffer_bytes);  // any value but 0 switches it on
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_broadcast to %d, err = %d, lasterr = %d\n", buffer_bytes, result,
                 result);
  }
}

void join_multicast_group(int socket, const test_settings* settings) {
  std::fprintf(stdout, "Joining multicast group on interface %s\n", address_text(settings->multicast_interface));
  ip_mreq request = {};
  request.imr_multiaddr.s_addr = settings->start_host;
  request.imr_interface.s_addr = settings->multicast_interface;
  const int result = setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
  if (result != 0) {
    std::fprintf(stderr, "Error: Could not join multicast group, err = %d, lasterr = %d\n", result, 0);
  }
}

int open_udp_socket(const test_settings* settings) {
  const int descriptor = socket_for_select(SOCK_DGRAM, IPPROTO_UDP);
  if (descriptor == -1) {
    std::fprintf(stderr, "Error- Could not allocate udp socket. (Permissions?)\n");
    cleanup_exit(1);
  }
  set_buffer_sizes(descriptor);
  allow_broadcast(descriptor);
  if (!bind_to(descriptor, settings->multicast_interface, settings->local_port)) {
    std::fprintf(stderr, "Error- Could not bind in socket.\n");
    cleanup_exit(1);
  }
  if (settings->partner_mode != 0 && IN_MULTICAST(ntohl(settings->start_host))) {
    join_multicast_group(descriptor, settings);
  }
  return descriptor;
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
    result = wait_on_socket(socket, wait_for::writable, &slice_usec);
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
  const int result = set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  if (result != 0) std::fprintf(stdout, "err: Could not set TCP_NODELAY on socket. Err = %d\n", result);
}

void listen_as_monitor(int socket, const test_settings* settings, run_state* run) {
  run->listen_socket = socket;
  set_option(socket, SOL_SOCKET, SO_REUSEADDR, 1);  // a monitor must be able to start again at once
  if (!bind_to(socket, INADDR_ANY, settings->local_port)) {
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

void open_tcp_socket(const test_settings* settings, run_state* run) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that is gone makes send fail, which is reported
  const int descriptor = socket_for_select(SOCK_STREAM, IPPROTO_TCP);
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

int open_icmp_socket() {
  raise_raw_socket_privilege();
  const int descriptor = socket_for_select(SOCK_RAW, IPPROTO_ICMP);
  lower_raw_socket_privilege();
  if (descriptor == -1) {
    std::fprintf(stderr, "Error- Could not allocate socket. (Permissions?)\n");
    cleanup_exit(1);
  }
  set_buffer_sizes(descriptor);
  allow_broadcast(descriptor);
  return descriptor;
}

// Connections inherit the value from the listening socket of a TCP monitor.
void set_type_of_service(const test_settings* settings, const run_state* run) {
  if (settings->tos == 0) return;
  const int socket = run->data_socket == -1 ? run->listen_socket : run->data_socket;
  const int result = set_option(socket, IPPROTO_IP, IP_TOS, static_cast<int>(settings->tos));
  if (result == 0 || socket == run->listen_socket) return;
  std::fprintf(stdout, "err: Could not set IP_TOS socket option. Administrator priviledges required? err = %d\n",
               result);
}

[[noreturn]] void end_without_connection() {
  std::fprintf(stderr, "Err: Could not accept connection\n");
  cleanup_exit(1);
}

void watch_for_vanished_peer(int socket) {
  set_option(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(socket, IPPROTO_TCP, TCP_KEEPIDLE, keepalive_idle_sec);
  set_option(socket, IPPROTO_TCP, TCP_KEEPINTVL, keepalive_interval_sec);
  set_option(socket, IPPROTO_TCP, TCP_KEEPCNT, keepalive_probes);
}

}  // namespace

void open_test_socket(const test_settings* settings, run_state* run) {
  if (run->data_socket != 0) return;
  if (settings->udp != 0) {
    run->data_socket = open_udp_socket(settings);
  } else if (settings->tcp != 0) {
    open_tcp_socket(settings, run);
  } else {
    run->data_socket = open_icmp_socket();
  }
  if (settings->tcp == 0 && settings->ignore_responses == 0) ask_for_arrival_stamps(run->data_socket);
  set_type_of_service(settings, run);
}

void accept_test_connection(run_state* run) {
  if (run->listen_socket <= 0) end_without_connection();
  while (stop_signal() == 0) {
    std::int64_t slice_usec = connection_slice_usec;
    if (wait_on_socket(run->listen_socket, wait_for::readable, &slice_usec) != wait_result::ready) continue;
    const int connection = accept4(run->listen_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection == -1 && (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN)) continue;
    if (connection == -1 || connection >= FD_SETSIZE) end_without_connection();
    watch_for_vanished_peer(connection);
    run->data_socket = connection;
    return;
  }
}

void close_data_socket(run_state* run) {
  if (run->data_socket >= 0) close(run->data_socket);
  run->data_socket = -1;
}
