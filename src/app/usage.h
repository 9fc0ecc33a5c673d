// The usage text.
#pragma once

// Writes the usage text to standard error, with the program named as it was invoked.
void print_usage(const char* program_name);
