// Arbitrary bytes through decode -> canonical encode -> decode. Whatever
// decodes must encode, and the canonical bytes must be a fixed point.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  JSONValue value;
  try {
    value = TarskelJSON::decoder().decode<JSONValue>(input);
  } catch (const DecodingError&) {
    return 0;
  }
  const std::string once = TarskelJSON::canonicalEncoder().encode(value);
  const JSONValue again = TarskelJSON::decoder().decode<JSONValue>(once);
  const std::string twice = TarskelJSON::canonicalEncoder().encode(again);
  if (once != twice) std::abort();
  // A NaN can't come out of a document, so a value always equals its reading.
  if (!(again == value)) std::abort();
  return 0;
}
