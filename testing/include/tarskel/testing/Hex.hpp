#pragma once

// Test support, shipped nowhere: bytes written as hexadecimal digits.

#include <string>
#include <string_view>

namespace tarskel::testing {

inline std::string unhex(std::string_view digits) {
  std::string out;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

inline std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out.append({kDigits[c >> 4], kDigits[c & 15]});
  return out;
}

}  // namespace tarskel::testing
