// The option table: which letters there are, what each takes, and what it does to the settings.
#pragma once

#include <cstdint>

struct test_settings;

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
  std::uint32_t value_or_default;        // what a flag sets, or what stands in for a missing number
  std::uint32_t test_settings::* field;  // where the value or the number goes; null = the action does it
  option_action action;
};

// The rule of an option letter; '-' is the presets. Null for a letter that is none.
[[nodiscard]] const option_rule* find_option(char letter);
