#pragma once

#include <array>
#include <string>
#include <string_view>

namespace tarskel::Hashing {

// The SHA-256 digest of `data` as 64 lower-case hexadecimal characters.
// Safe to call from any thread.
std::string sha256Hex(std::string_view data);

// The same 64 characters without allocating, for hot loops.
std::array<char, 64> sha256HexDigits(std::string_view data);

}  // namespace tarskel::Hashing
