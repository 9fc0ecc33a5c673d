#include "wire/remote_command.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::array<std::uint32_t test_settings::*, 13> network_order_fields = {
    &test_settings::max_outstanding,
    &test_settings::total_requests,
    &test_settings::echo_count,
    &test_settings::delay_usec,
    &test_settings::timeout_usec,
    &test_settings::ip_length,
    &test_settings::ignore_responses,
    &test_settings::unidirectional,
    &test_settings::remote_run,
    &test_settings::udp,
    &test_settings::tcp,
    &test_settings::command_period_usec,
    &test_settings::tos,
};

// What a monitor runs for a peer only sends, over its own carrier, a bounded number of packets, and tells nobody.
void bound_command(test_settings* command, const test_settings* own) {
  command->partner_mode = 0;
  command->command_mode = 0;
  command->ignore_responses = 1;
  command->unidirectional = 1;
  command->remote_run = 1;
  command->udp = own->udp;
  command->tcp = own->tcp;
  command->delay_usec = std::max(command->delay_usec, 1U);
  command->echo_count = std::min(command->echo_count, largest_remote_echoes);
  command->duration_sec = 0;
}

}  // namespace

void build_remote_command(const test_settings* settings, command_body* body) {
  test_settings command = {};
  command.max_outstanding = 1;
  command.total_requests = settings->remote_echoes;
  command.echo_count = settings->remote_echoes;
  command.delay_usec = settings->delay_usec;
  command.timeout_usec = settings->timeout_usec;
  command.ip_length = settings->ip_length;
  command.ignore_responses = 1;
  command.unidirectional = 1;
  command.remote_run = 1;
  command.udp = settings->udp;
  command.tcp = settings->tcp;
  command.local_port = settings->remote_port;
  command.remote_port = settings->local_port;
  command.command_period_usec = settings->delay_usec;
  command.tos = settings->tos;
  for (auto field : network_order_fields) command.*field = htonl(command.*field);
  std::memcpy(body->bytes, &command, sizeof command);
}

void read_remote_command(const command_body* body, std::uint32_t source, const test_settings* own,
                         test_settings* command) {
  std::memcpy(command, body->bytes, sizeof *command);
  for (auto field : network_order_fields) command->*field = ntohl(command->*field);
  command->start_host = source;
  command->end_host = source;
  command->debug = own->debug;
  bound_command(command, own);
}
