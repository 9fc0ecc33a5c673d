#include "app/presets.h"

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/settings.h"

namespace {

constexpr std::uint16_t server_local_port = 8004;
constexpr std::uint16_t server_remote_port = 8003;

struct preset {
  const char* name;
  const char* line;
  void (*apply)(test_settings* settings);
};

// -p may stand before a partner's preset, which alone means UDP.
void use_udp_unless_tcp(test_settings* settings) {
  if (!uses_tcp(settings)) settings->udp = 1;
}

void set_client(test_settings* settings) {
  use_udp_unless_tcp(settings);
  settings->command_mode = 1;
  settings->partner_mode = 1;
  settings->echo_count = 1000;
  settings->remote_echoes = 50;
  settings->delay_usec = 0;
  settings->ip_length = 1500;
  settings->silent = 1;
}

void set_server(test_settings* settings) {
  use_udp_unless_tcp(settings);
  settings->silent = 1;
  settings->partner_mode = 1;
  settings->local_port = htons(server_local_port);
  settings->remote_port = htons(server_remote_port);
}

void set_blast(test_settings* settings) {
  settings->unidirectional = 1;
  settings->ignore_responses = 1;
  settings->echo_count = unlimited_count;
  settings->ip_length = 1500;
  settings->delay_usec = 0;
}

void set_discover(test_settings* settings) {
  settings->echo_count = 1;
  settings->delay_usec = 0;
  settings->max_outstanding = 500;
  settings->timeout_usec = 1000000;
  settings->no_timeout_messages = 1;
}

void set_trace(test_settings* settings) {
  settings->echo_count = 20;
  settings->traceroute = 1;
  settings->delay_usec = 0;
}

void set_lots(test_settings* settings) {
  settings->echo_count = unlimited_count;
  settings->max_outstanding = 10;
  settings->ip_length = 1500;
  settings->delay_usec = 0;
  settings->average_window = 50;
  settings->silent = 1;
  settings->timeout_usec = 200000;
}

void set_voice(test_settings* settings) {
  settings->echo_count = 3000;
  settings->max_outstanding = 1;
  settings->ip_length = 250;
  settings->delay_usec = 20000;
  settings->timeout_usec = 20000;
  settings->silent = 1;
  settings->average_window = 50;
  settings->no_timeout_messages = 1;
}

constexpr std::array<preset, 7> presets = {{
    {"client", "Engaging options: -c -u -s -d0 -l1500 -E50 -e1000\n", set_client},
    {"server", "Engaging options: -M -u -s\n", set_server},
    {"blast", "Engaging options: -U -i -e -l1500 -d0\n", set_blast},
    {"discover", "Engaging options: -m -e1 -d0 -a500 -T1000000 -s\n", set_discover},
    {"trace", "Engaging options: -e20 -t -d0\n", set_trace},
    {"lots", "Engaging options: -e -a10 -l1500 -d0 -A50 -s -T200000\n", set_lots},
    {"voice", "Engaging options: -e3000 -a1 -l250 -r50 -A50 -s -T20000 -m\n", set_voice},
}};

}  // namespace

bool apply_preset(const char* name, test_settings* settings) {
  const std::size_t length = std::strlen(name);
  if (length == 0) {
    std::fprintf(stderr, "Error: Expecting more than just --\n");
    return false;
  }
  for (const preset& each : presets) {
    if (std::strncmp(each.name, name, length) != 0) continue;
    std::fputs(each.line, stdout);
    each.apply(settings);
    return true;
  }
  std::fprintf(stderr, "Error: unexpected -- option received\n");
  return false;
}
