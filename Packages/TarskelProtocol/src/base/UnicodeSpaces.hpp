#pragma once

#include <string_view>

namespace tarskel {

// `text` without the Unicode space separators (General_Category Zs) and tabs
// at either end. Line breaks are not blanks here and stay. Decoding stops at
// the first ill-formed UTF-8 sequence from either side.
std::string_view trimSpaceSeparators(std::string_view text);

}  // namespace tarskel
