#include "tarskel/protocol/base/Base64.hpp"

#include <array>
#include <cstdint>

namespace tarskel {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeReverse() {
  std::array<std::int8_t, 256> table{};
  for (auto& v : table) v = -1;
  for (int i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return table;
}
constexpr auto kReverse = makeReverse();

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  auto at = [&](std::size_t k) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[k]));
  };
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t n = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
    out += kAlphabet[n >> 18 & 63];
    out += kAlphabet[n >> 12 & 63];
    out += kAlphabet[n >> 6 & 63];
    out += kAlphabet[n & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 1) {
    const std::uint32_t n = at(i) << 16;
    out += kAlphabet[n >> 18 & 63];
    out += kAlphabet[n >> 12 & 63];
    out += "==";
  } else if (rest == 2) {
    const std::uint32_t n = at(i) << 16 | at(i + 1) << 8;
    out += kAlphabet[n >> 18 & 63];
    out += kAlphabet[n >> 12 & 63];
    out += kAlphabet[n >> 6 & 63];
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    std::size_t padding = 0;
    if (last) {
      if (text[i + 3] == '=') padding = text[i + 2] == '=' ? 2 : 1;
    }
    std::uint32_t n = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      if (k >= 4 - padding) {
        n <<= 6;
        continue;
      }
      const std::int8_t v = kReverse[static_cast<unsigned char>(text[i + k])];
      if (v < 0) return std::nullopt;  // also '=' in the wrong place
      n = n << 6 | static_cast<std::uint32_t>(v);
    }
    // Unused bits of the last symbol are dropped, whatever they hold: a
    // signature spelled with non-zero pad bits is still that signature.
    out += static_cast<char>(n >> 16 & 0xFF);
    if (padding < 2) out += static_cast<char>(n >> 8 & 0xFF);
    if (padding < 1) out += static_cast<char>(n & 0xFF);
  }
  return out;
}

}  // namespace tarskel
