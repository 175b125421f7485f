#pragma once

// TARSKEL_CHECK(condition, message): a programming fault or a broken
// installation, never bad input. When `condition` is false the process
// writes one line to standard error (the condition, the message, the file
// and line) and aborts. Bad input of any kind gets a typed error instead.

namespace tarskel::detail {
[[noreturn]] void checkFailed(const char* condition, const char* message, const char* file,
                              int line) noexcept;
}  // namespace tarskel::detail

#define TARSKEL_CHECK(condition, message) \
  ((condition) ? static_cast<void>(0)     \
               : ::tarskel::detail::checkFailed(#condition, (message), __FILE__, __LINE__))
