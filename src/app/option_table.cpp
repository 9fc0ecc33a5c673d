#include "app/option_table.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "app/presets.h"
#include "base/address_text.h"
#include "base/clock.h"
#include "base/live_output.h"
#include "base/settings.h"
#include "report/results_files.h"
#include "report/results_table.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::uint32_t largest_window = 65534;
constexpr std::uint32_t largest_tos = 255;

bool set_window(const option_argument* argument, test_settings* settings) {
  settings->max_outstanding = std::max(argument->number, 1U);
  if (argument->number > largest_window) {
    std::fprintf(stderr, "-a# capped at %d\n", static_cast<int>(largest_window));
    settings->max_outstanding = largest_window;
  }
  return true;
}

bool enter_command_mode(const option_argument* /*argument*/, test_settings* settings) {
  settings->command_mode = 1;
  settings->udp = 1;
  settings->partner_mode = 1;
  return true;
}

bool set_echo_count(const option_argument* argument, test_settings* settings) {
  settings->echo_count = argument->number != 0 ? argument->number : unlimited_count;
  return true;
}

bool set_remote_echoes(const option_argument* argument, test_settings* settings) {
  if (argument->number > largest_remote_echoes) {
    std::fprintf(stderr, "ERROR: Max -E is 65536\n");
    return false;
  }
  settings->remote_echoes = argument->number;
  return true;
}

bool name_results_file(const option_argument* argument, test_settings* /*settings*/) {
  if (argument->text[0] == '\0') {
    std::fprintf(stderr, "Error: Expecting filename for -f\n");
    return false;
  }
  if (results_file != nullptr) std::fclose(results_file);  // of an earlier -f: the file stays
  results_filename = argument->text;
  results_file = open_results_table(results_filename, &results_file_is_new);
  if (results_file != nullptr) return true;
  std::fprintf(stderr, "Error: Bad filename? Permissions?\n");
  return false;
}

bool name_results_tag(const option_argument* argument, test_settings* /*settings*/) {
  if (argument->text[0] == '\0') {
    std::fprintf(stderr, "Error: Expecting tag for -F\n");
    return false;
  }
  results_tag = argument->text;
  return true;
}

bool set_ip_length(const option_argument* argument, test_settings* settings) {
  settings->ip_length = std::min(argument->number, largest_ip_length);
  if (argument->number > largest_ip_length) std::fprintf(stderr, "-l# capped at 65535\n");
  return true;
}

// From here on the process is a daemon(3): its working directory is the root, its streams are the null device.
bool detach_as_monitor(const option_argument* /*argument*/, test_settings* settings) {
  flush_output();
  if (daemon(0, 0) != 0) {
    std::fprintf(stderr, "Error: Could not detach\n");
    return false;
  }
  settings->partner_mode = 1;
  settings->echo_count = unlimited_count;
  return true;
}

bool set_multicast_interface(const option_argument* argument, test_settings* settings) {
  const in_addr_t address = inet_addr(argument->text);
  settings->multicast_interface = address == INADDR_NONE ? 0 : address;
  return true;
}

bool use_tcp(const option_argument* /*argument*/, test_settings* settings) {
  settings->udp = 0;
  settings->tcp = 1;
  return true;
}

bool use_udp(const option_argument* /*argument*/, test_settings* settings) {
  settings->udp = 1;
  return true;
}

bool set_tos(const option_argument* argument, test_settings* settings) {
  if (argument->number > largest_tos) {
    std::fprintf(stderr, "ERROR: Max TOS is 255\n");
    return false;
  }
  settings->tos = argument->number;
  return true;
}

bool set_rate(const option_argument* argument, test_settings* settings) {
  if (argument->number == 0) {
    std::fprintf(stderr, "ERROR: Min -r is 1\n");
    return false;
  }
  settings->delay_usec = static_cast<std::uint32_t>(usec_per_second) / argument->number;
  return true;
}

bool set_report_host(const option_argument* argument, test_settings* settings) {
  std::uint32_t address = 0;
  if (!resolve_host(argument->text, &address)) address = htonl(INADDR_LOOPBACK);
  settings->report_host = address;
  settings->report_enabled = 1;
  std::fprintf(stdout, "Sending reporting to %s\n", address_text(address));
  return true;
}

bool set_duration(const option_argument* argument, test_settings* settings) {
  settings->duration_sec = argument->number;
  settings->echo_count = unlimited_count;
  return true;
}

bool select_preset(const option_argument* argument, test_settings* settings) {
  return apply_preset(argument->text, settings);
}

constexpr std::uint32_t default_port = 8000;  // of -u and -p without a number

constexpr value_kind none = value_kind::none;
constexpr value_kind number = value_kind::number;
constexpr value_kind optional_number = value_kind::optional_number;

constexpr std::array<option_rule, 30> option_rules = {{
    {'a', number, 0, nullptr, set_window},
    {'A', number, 0, &test_settings::average_window, nullptr},
    {'b', none, 1, &test_settings::show_buffers, nullptr},
    {'B', none, 0, &test_settings::show_bandwidth, nullptr},
    {'c', none, 0, nullptr, enter_command_mode},
    {'d', number, 0, &test_settings::delay_usec, nullptr},
    {'D', none, 1, &test_settings::debug, nullptr},
    {'e', optional_number, 0, nullptr, set_echo_count},
    {'E', number, 0, nullptr, set_remote_echoes},
    {'f', none, 0, nullptr, name_results_file},
    {'F', none, 0, nullptr, name_results_tag},
    {'i', none, 1, &test_settings::ignore_responses, nullptr},
    {'I', number, 0, &test_settings::option_i_value, nullptr},
    {'l', number, 0, nullptr, set_ip_length},
    {'m', none, 1, &test_settings::no_timeout_messages, nullptr},
    {'M', none, 0, nullptr, detach_as_monitor},
    {'n', none, 0, nullptr, set_multicast_interface},
    {'p', optional_number, default_port, nullptr, use_tcp},
    {'q', number, 0, nullptr, set_tos},
    {'Q', none, 1, &test_settings::quiet, nullptr},
    {'r', number, 0, nullptr, set_rate},
    {'R', none, 0, nullptr, set_report_host},
    {'s', none, 1, &test_settings::silent, nullptr},
    {'S', number, 0, nullptr, set_duration},
    {'t', none, 1, &test_settings::traceroute, nullptr},
    {'T', number, 0, &test_settings::timeout_usec, nullptr},
    {'u', optional_number, default_port, nullptr, use_udp},
    {'U', none, 1, &test_settings::unidirectional, nullptr},
    {'v', none, 1, &test_settings::verbose, nullptr},
    {'-', none, 0, nullptr, select_preset},
}};

}  // namespace

const option_rule* find_option(char letter) {
  const auto* rule = std::find_if(option_rules.begin(), option_rules.end(),
                                  [letter](const option_rule& each) { return each.letter == letter; });
  return rule != option_rules.end() ? rule : nullptr;
}
