#pragma once

// Test support, shipped nowhere: reading and writing JSON in one call.

#include <string>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::testing {

inline JSONValue json(std::string_view text) {
  return TarskelJSON::decoder().decode<JSONValue>(text);
}

template <class T = JSONValue>
T decode(std::string_view text) {
  return TarskelJSON::decoder().decode<T>(text);
}

template <class T>
std::string canonical(const T& value) {
  return TarskelJSON::canonicalEncoder().encode(value);
}

// The text of the DecodingError that reading `text` as a T throws, or
// "decoded" when it reads.
template <class T = JSONValue>
std::string decodingError(std::string_view text) {
  try {
    TarskelJSON::decoder().decode<T>(text);
  } catch (const DecodingError& e) {
    return e.what();
  }
  return "decoded";
}

// The canonical encoding of `text` read as a T, or the text of the
// DecodingError that reading throws.
template <class T>
std::string reread(std::string_view text) {
  try {
    return canonical(decode<T>(text));
  } catch (const DecodingError& e) {
    return e.what();
  }
}

}  // namespace tarskel::testing
