#pragma once

// The clock that time-dependent rules take as an argument, so that tests can
// stop it. Whoever stores one requires it to be callable from any thread.

#include <functional>

#include "tarskel/protocol/base/Date.hpp"

namespace tarskel {

using Clock = std::function<Date()>;

// The system's wall clock, Date::now.
inline Clock systemClock() { return &Date::now; }

}  // namespace tarskel
