#include "app/options.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/host_address.h"
#include "app/live_output.h"
#include "app/presets.h"
#include "app/test_settings.h"
#include "net/address_text.h"
#include "report/results_files.h"
#include "wire/packet_sizes.h"

namespace {

constexpr std::uint32_t unlimited_count = 0x7fffffff;
constexpr std::uint32_t largest_window = 65534;
constexpr std::uint32_t largest_remote_echoes = 65536;
constexpr std::uint32_t largest_tos = 255;
constexpr std::uint16_t default_local_port = 8003;
constexpr std::uint16_t default_remote_port = 8004;

struct option_argument {
  const char* whole;     // the argument as given
  const char* text;      // what follows the option letter
  std::uint32_t number;  // of that, for options that take a number
};

// True when the option was taken; false after its message when it was not.
using option_action = bool (*)(const option_argument* argument, test_settings* settings);

enum class value_kind : std::uint8_t {
  none,
  number,           // must be there
  optional_number,  // the rule's default stands in for a missing one
};

struct option_rule {
  char letter;
  value_kind kind;
  std::uint32_t value_or_default;       // what a flag sets, or what stands in for a missing number
  std::uint32_t test_settings::*field;  // where the value or the number goes; null = the action does it
  option_action action;
};

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
  settings->delay_usec = 1000000 / argument->number;
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

constexpr value_kind none = value_kind::none;
constexpr value_kind number = value_kind::number;
constexpr value_kind optional_number = value_kind::optional_number;

constexpr std::array<option_rule, 31> option_rules = {{
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
    {'p', optional_number, 8000, nullptr, use_tcp},
    {'q', number, 0, nullptr, set_tos},
    {'Q', none, 1, &test_settings::quiet, nullptr},
    {'r', number, 0, nullptr, set_rate},
    {'R', none, 0, nullptr, set_report_host},
    {'s', none, 1, &test_settings::silent, nullptr},
    {'S', number, 0, nullptr, set_duration},
    {'t', none, 1, &test_settings::traceroute, nullptr},
    {'T', number, 0, &test_settings::timeout_usec, nullptr},
    {'u', optional_number, 8000, nullptr, use_udp},
    {'U', none, 1, &test_settings::unidirectional, nullptr},
    {'v', none, 1, &test_settings::verbose, nullptr},
    {'-', none, 0, nullptr, select_preset},
}};

const option_rule* rule_of(char letter) {
  if (letter == '\0') return nullptr;
  const auto* rule = std::find_if(option_rules.begin(), option_rules.end(),
                                  [letter](const option_rule& each) { return each.letter == letter; });
  return rule != option_rules.end() ? rule : nullptr;
}

// Decimal, hexadecimal after 0x, octal after 0; what follows the number is ignored. A number beyond 32 bits counts as
// the largest, on every processor. False when there is no digit.
bool read_number(const char* text, std::uint32_t* number_read) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 0);
  if (end == text) return false;
  *number_read = static_cast<std::uint32_t>(std::min<unsigned long long>(value, UINT32_MAX));
  return true;
}

bool apply_option(const char* whole, test_settings* settings) {
  const option_rule* rule = rule_of(whole[1]);
  if (rule == nullptr) return false;
  option_argument argument = {.whole = whole, .text = whole + 2, .number = rule->value_or_default};
  if (rule->kind != none && !read_number(argument.text, &argument.number) && rule->kind == number) {
    std::fprintf(stderr, "Error- could not parse <%s>\n", argument.whole);
    return false;
  }
  if (rule->action != nullptr) return rule->action(&argument, settings);
  settings->*rule->field = argument.number;
  return true;
}

bool take_host(const char* text, test_settings* settings) {
  std::uint32_t address = 0;
  if (!resolve_host(text, &address)) {
    std::fprintf(stderr, "Error- unresolved host <%s>\n", text);
    return false;
  }
  if (address == 0) {
    std::fprintf(stderr, "Error- could not interpret <%s>\n", text);
    return false;
  }
  if (settings->start_host == 0) {
    settings->start_host = address;
  } else if (settings->end_host == 0) {
    settings->end_host = address;
  } else {
    std::fprintf(stderr, "Error- unexpected argument <%s> \n", text);
    return false;
  }
  return true;
}

void set_defaults(test_settings* settings) {
  *settings = {};
  settings->max_outstanding = 1;
  settings->echo_count = 3;
  settings->delay_usec = 100000;
  settings->timeout_usec = 100000;
  settings->reserved = 36;
  settings->show_bandwidth = 1;
  settings->local_port = htons(default_local_port);
  settings->remote_port = htons(default_remote_port);
}

// What depends on more than one option. False after a message when the combination makes no test.
bool complete_settings(test_settings* settings) {
  if (settings->end_host == 0) settings->end_host = settings->start_host;
  if (settings->start_host == 0 && settings->partner_mode == 0) {
    std::fprintf(stderr, "Error- Expecting a host to send traffic to\n");
    return false;
  }
  if (settings->ignore_responses != 0 && settings->command_mode != 0) {
    std::fprintf(stderr, "-c and -i incompatible\n");
    return false;
  }
  settings->delay_usec = std::max(settings->delay_usec, 1U);
  settings->command_period_usec = settings->delay_usec;
  if (settings->command_mode != 0) settings->command_period_usec *= settings->remote_echoes + 1;
  settings->timeout_usec += settings->delay_usec;
  if (settings->udp != 0 && settings->tcp != 0) {
    std::fprintf(stderr, "-u and -p incompatible\n");
    return false;
  }
  return true;
}

}  // namespace

int parse_command_line(int argc, char** argv, test_settings* settings) {
  set_defaults(settings);
  for (int i = 1; i < argc; ++i) {
    const bool taken = argv[i][0] == '-' ? apply_option(argv[i], settings) : take_host(argv[i], settings);
    if (!taken) return 1;
  }
  return complete_settings(settings) ? 0 : 1;
}
