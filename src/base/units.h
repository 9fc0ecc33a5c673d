// The factors between what is counted and what is printed. Bits per microsecond need none: they are Mbit/s.
#pragma once

inline constexpr double bits_per_byte = 8.0;
inline constexpr double kilo = 1000.0;  // bytes of a KB, bits of a Kb, kbit of a Mbit
inline constexpr double usec_per_msec = 1000.0;
inline constexpr double percent = 100.0;
