// The version of the program: in the banner, the usage text and every results row. CMake reads it here, for packages.
#pragma once

inline constexpr int version_major = 5;
inline constexpr int version_minor = 2;
