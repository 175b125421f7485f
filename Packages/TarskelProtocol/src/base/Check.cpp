#include "tarskel/protocol/base/Check.hpp"

#include <cstdio>
#include <cstdlib>

namespace tarskel::detail {

void checkFailed(const char* condition, const char* message, const char* file, int line) noexcept {
  std::fprintf(stderr, "%s:%d: comprobación fallida (%s): %s\n", file, line, condition, message);
  std::abort();
}

}  // namespace tarskel::detail
