#include "tarskel/store/Hashing.hpp"

#include "tarskel/protocol/base/SHA256.hpp"

namespace tarskel::Hashing {

std::array<char, 64> sha256HexDigits(std::string_view data) {
  return tarskel::sha256HexDigits(data);
}

std::string sha256Hex(std::string_view data) { return tarskel::sha256Hex(data); }

}  // namespace tarskel::Hashing
