#pragma once

// Test support, shipped nowhere: an error's text as a value to compare.

#include <exception>
#include <string>
#include <utility>

namespace tarskel::testing {

// The text of the E that `fn` throws, or "no error" when it returns.
template <class E = std::exception, class Fn>
std::string thrownText(Fn&& fn) {
  try {
    std::forward<Fn>(fn)();
  } catch (const E& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace tarskel::testing
