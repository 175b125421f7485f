#include "base/UnicodeSpaces.hpp"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <limits>

namespace tarskel {
namespace {

bool isBlank(UChar32 c) { return c == 0x09 || (c >= 0 && u_charType(c) == U_SPACE_SEPARATOR); }

}  // namespace

std::string_view trimSpaceSeparators(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    return text;  // beyond what ICU's index type reaches; nothing this large is a version or a
                  // label
  }
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());

  std::int32_t begin = 0;
  while (begin < length) {
    std::int32_t next = begin;
    UChar32 c = 0;
    U8_NEXT(bytes, next, length, c);
    if (!isBlank(c)) break;
    begin = next;
  }
  std::int32_t end = length;
  while (end > begin) {
    std::int32_t previous = end;
    UChar32 c = 0;
// ICU's macro casts in the C manner.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
    U8_PREV(bytes, begin, previous, c);
#pragma GCC diagnostic pop
    if (!isBlank(c)) break;
    end = previous;
  }
  return text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin));
}

}  // namespace tarskel
