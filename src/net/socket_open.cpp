#include "net/socket_open.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "base/address_text.h"
#include "base/cleanup_exit.h"
#include "base/privileges.h"
#include "base/run_records.h"
#include "base/settings.h"
#include "net/kernel_stamps.h"
#include "net/receive_datagram.h"
#include "net/socket_connection.h"
#include "net/socket_options.h"

namespace {

constexpr int any_value_but_0 = 1048576;  // switches an option on

// Not for a monitor: whoever sends it a command or a request in the name of a broadcast address would make it stream to
// everybody.
void allow_broadcast(int socket) {
  const int result = set_socket_option(socket, SOL_SOCKET, SO_BROADCAST, any_value_but_0);
  if (result != 0) {
    std::fprintf(stdout, "err: Could not set so_broadcast to %d, err = %d, lasterr = %d\n", any_value_but_0, result,
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
  const int descriptor = open_socket(SOCK_DGRAM, IPPROTO_UDP);
  if (descriptor == -1) {
    std::fprintf(stderr, "Error- Could not allocate udp socket. (Permissions?)\n");
    cleanup_exit(1);
  }
  set_buffer_sizes(descriptor);
  if (!is_monitor(settings)) allow_broadcast(descriptor);
  if (!bind_socket(descriptor, settings->multicast_interface, settings->local_port)) {
    std::fprintf(stderr, "Error- Could not bind in socket.\n");
    cleanup_exit(1);
  }
  if (is_partner(settings) && IN_MULTICAST(ntohl(settings->start_host))) {
    join_multicast_group(descriptor, settings);
  }
  return descriptor;
}

int open_icmp_socket(const test_settings* settings) {
  raise_raw_socket_privilege();
  const int descriptor = open_socket(SOCK_RAW, IPPROTO_ICMP);
  lower_raw_socket_privilege();
  if (descriptor == -1) {
    std::fprintf(stderr, "Error- Could not allocate socket. (Permissions?)\n");
    cleanup_exit(1);
  }
  set_buffer_sizes(descriptor);
  if (!is_monitor(settings)) allow_broadcast(descriptor);
  return descriptor;
}

// Connections inherit the value from the listening socket of a TCP monitor.
void set_type_of_service(const test_settings* settings, const run_state* run) {
  if (settings->tos == 0) return;
  const int socket = run->data_socket == -1 ? run->listen_socket : run->data_socket;
  const int result = set_socket_option(socket, IPPROTO_IP, IP_TOS, static_cast<int>(settings->tos));
  if (result == 0 || socket == run->listen_socket) return;
  std::fprintf(stdout, "err: Could not set IP_TOS socket option. Administrator priviledges required? err = %d\n",
               result);
}

}  // namespace

void open_test_socket(const test_settings* settings, run_state* run) {
  if (run->data_socket != 0) return;
  if (uses_udp(settings)) {
    run->data_socket = open_udp_socket(settings);
  } else if (uses_tcp(settings)) {
    open_tcp_socket(settings, run);
  } else {
    run->data_socket = open_icmp_socket(settings);
  }
  if (!uses_tcp(settings) && settings->ignore_responses == 0) {
    ask_for_arrival_stamps(run->data_socket);
    let_reads_wait(run);
  }
  ask_for_send_stamps(settings, run);
  set_type_of_service(settings, run);
}
