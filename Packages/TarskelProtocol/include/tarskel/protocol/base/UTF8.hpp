#pragma once

// The one reading of UTF-8 in the tree: well-formed means no surrogates, no
// overlong forms, nothing beyond U+10FFFF (RFC 3629). Stateless; any thread.

#include <cstddef>
#include <string>
#include <string_view>

namespace tarskel {

// The length (1 to 4) of the well-formed sequence `text` starts with, or 0
// when it starts with an ill-formed one or is empty. NUL is well-formed.
std::size_t utf8SequenceLength(std::string_view text);

// The length of the longest well-formed prefix of `text`: text.size() when
// all of it is well-formed, else the offset of the first ill-formed byte.
std::size_t validUTF8Prefix(std::string_view text);

// Whether all of `text` is well-formed UTF-8.
bool isValidUTF8(std::string_view text);

// `text` with each byte that starts no well-formed sequence replaced by
// U+FFFD; never refuses.
std::string sanitizedUTF8(std::string_view text);

}  // namespace tarskel
