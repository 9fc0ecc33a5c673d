// What the tests compare.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/workbench.h"

using list = std::vector<std::int64_t>;
using pairs = std::vector<std::pair<std::int64_t, std::int64_t>>;

template <typename... integer>
list numbers(integer... each) {
  return {static_cast<std::int64_t>(each)...};
}

// All that `code` prints: standard output, then behind "[err] " standard error.
template <typename function>
std::string said(function&& code) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  code();
  const std::string err = testing::internal::GetCapturedStderr();
  return testing::internal::GetCapturedStdout() + (err.empty() ? "" : "[err] " + err);
}

// The same, and what the code returns where that is not `result`.
template <typename function>
std::string said(int result, function&& code) {
  int got = 0;
  const std::string text = said([&] { got = code(); });
  return got == result ? text : text + "result " + std::to_string(got);
}

// Runs the code in a process of its own, since a stop signal stays noted; what it prints on standard error holds
// `said`.
template <typename function>
void apart(function&& code, const char* said = "") {
  EXPECT_EXIT((code(), std::_Exit(testing::Test::HasFailure() ? 1 : 0)), testing::ExitedWithCode(0), said);
}
