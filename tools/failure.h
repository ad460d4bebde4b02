// SPDX-License-Identifier: Apache-2.0
// Failures as the user reads them: one line that says what is wrong, with which file or value, and what to do.
#ifndef KESCONVERT_FAILURE_H
#define KESCONVERT_FAILURE_H

#include <fmt/format.h>

#include <stdexcept>

namespace kesconvert {

enum ExitCode { kExitFailure = 1, kExitUsage = 2 };

struct Failure : std::runtime_error {
  explicit Failure(const std::string& text, ExitCode code = kExitFailure) : runtime_error(text), exitCode(code) {}
  ExitCode exitCode;
};

template <class... Args>
[[noreturn]] void fail(fmt::format_string<const Args&...> text, const Args&... args) {
  throw Failure(fmt::format(text, args...));
}

// The command line itself is wrong.
template <class... Args>
[[noreturn]] void failUsage(fmt::format_string<const Args&...> text, const Args&... args) {
  throw Failure(fmt::format(text, args...), kExitUsage);
}

}  // namespace kesconvert

#endif
