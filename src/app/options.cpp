#include "app/options.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/option_table.h"
#include "base/address_text.h"
#include "base/settings.h"

namespace {

constexpr std::uint32_t default_echo_count = 3;
constexpr std::uint32_t default_delay_usec = 100000;
constexpr std::uint32_t default_timeout_usec = 100000;
constexpr std::uint32_t value_of_reserved = 36;  // travels in every command, though nothing reads it

constexpr std::uint16_t default_local_port = 8003;
constexpr std::uint16_t default_remote_port = 8004;

// A C library of C23 takes 0b for the prefix of a binary number; here 0b11 is a 0 with something behind it, everywhere.
bool looks_binary(const char* text) {
  text += std::strspn(text, " \t\n\v\f\r");
  if (*text == '+' || *text == '-') ++text;
  return text[0] == '0' && (text[1] == 'b' || text[1] == 'B');
}

// Decimal, hexadecimal after 0x, octal after 0; what follows the number is ignored. A number beyond 32 bits counts as
// the largest, on every processor. False when there is no digit.
bool read_number(const char* text, std::uint32_t* number_read) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, looks_binary(text) ? 10 : 0);
  if (end == text) return false;
  *number_read = static_cast<std::uint32_t>(std::min<unsigned long long>(value, UINT32_MAX));
  return true;
}

bool apply_option(const char* whole, test_settings* settings) {
  const option_rule* rule = find_option(whole[1]);
  if (rule == nullptr) return false;
  option_argument argument = {.whole = whole, .text = whole + 2, .number = rule->value_or_default};
  if (rule->kind != value_kind::none && !read_number(argument.text, &argument.number) &&
      rule->kind == value_kind::number) {
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
  settings->echo_count = default_echo_count;
  settings->delay_usec = default_delay_usec;
  settings->timeout_usec = default_timeout_usec;
  settings->reserved = value_of_reserved;
  settings->show_bandwidth = 1;
  settings->local_port = htons(default_local_port);
  settings->remote_port = htons(default_remote_port);
}

// What depends on more than one option. False after a message when the combination makes no test.
bool complete_settings(test_settings* settings) {
  if (settings->end_host == 0) settings->end_host = settings->start_host;
  if (settings->start_host == 0 && !is_partner(settings)) {
    std::fprintf(stderr, "Error- Expecting a host to send traffic to\n");
    return false;
  }
  if (settings->ignore_responses != 0 && is_commander(settings)) {
    std::fprintf(stderr, "-c and -i incompatible\n");
    return false;
  }
  settings->delay_usec = std::max(settings->delay_usec, 1U);
  settings->command_period_usec = settings->delay_usec;
  if (is_commander(settings)) settings->command_period_usec *= settings->remote_echoes + 1;
  settings->timeout_usec += std::min(settings->delay_usec, UINT32_MAX - settings->timeout_usec);
  if (uses_udp(settings) && uses_tcp(settings)) {
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
