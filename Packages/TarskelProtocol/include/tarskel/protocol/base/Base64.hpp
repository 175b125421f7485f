#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarskel {

// Standard base64 (RFC 4648 alphabet) with '=' padding and no line breaks.
std::string base64Encode(std::string_view bytes);

// Strict: the length is a multiple of four, padding is present where due and
// only at the end, no white space and no foreign characters. Anything else
// yields nothing. The unused bits of the last symbol are ignored.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace tarskel
