#pragma once

#include <string>

namespace tarskel {

// A new random (version 4) UUID in its canonical upper-case text form,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F". Safe to call from any thread.
std::string randomUUIDString();

}  // namespace tarskel
