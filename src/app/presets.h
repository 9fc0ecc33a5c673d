// The --OPT presets: several options under one name.
#pragma once

struct test_settings;

// Applies the first preset whose name begins with `name` (the text after --), so a name may be cut short. Prints the
// preset's line on standard output. False, after a message on standard error, when `name` is empty or begins none.
[[nodiscard]] bool apply_preset(const char* name, test_settings* settings);
