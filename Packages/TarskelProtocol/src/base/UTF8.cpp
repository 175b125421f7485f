#include "tarskel/protocol/base/UTF8.hpp"

#include <simdjson.h>

#include <cstdint>
#include <cstring>

namespace tarskel {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// Length of the leading ASCII run, eight bytes at a time.
std::size_t asciiPrefix(std::string_view text) {
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    if ((word & 0x8080808080808080ull) != 0) break;
  }
  while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80) ++i;
  return i;
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  std::size_t need = 0;
  std::uint32_t cp = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    need = 1, cp = c & 0x1Fu;
  } else if (c >= 0xE0 && c <= 0xEF) {
    need = 2, cp = c & 0x0Fu;
  } else if (c >= 0xF0 && c <= 0xF4) {
    need = 3, cp = c & 0x07u;
  }
  if (need == 0 || need >= text.size()) return 0;
  for (std::size_t k = 1; k <= need; ++k) {
    if ((p[k] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[k] & 0x3Fu);
  }
  const bool overlong = (need == 2 && cp < 0x800) || (need == 3 && cp < 0x10000);
  const bool invalid = (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF;
  return overlong || invalid ? 0 : need + 1;
}

std::size_t validUTF8Prefix(std::string_view text) {
  std::size_t i = asciiPrefix(text);
  while (i < text.size()) {
    const std::size_t n = utf8SequenceLength(text.substr(i));
    if (n == 0) return i;
    i += n;
  }
  return i;
}

bool isValidUTF8(std::string_view text) {
  // The vectorised check for the common case; the same rules as above.
  return simdjson::validate_utf8(text.data(), text.size());
}

std::string sanitizedUTF8(std::string_view text) {
  std::size_t i = validUTF8Prefix(text);
  if (i == text.size()) return std::string(text);
  std::string out(text.substr(0, i));
  while (i < text.size()) {
    const std::size_t n = utf8SequenceLength(text.substr(i));
    if (n == 0) {
      out += kReplacement;
      ++i;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

}  // namespace tarskel
