// Arbitrary bytes through decode -> canonical encode -> decode. Whatever
// decodes must encode, and the canonical bytes must be a fixed point.

#include <string>

#include "FuzzSupport.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::optional<JSONValue> value = fuzz::tryDecode<JSONValue>(fuzz::text(data, size));
  if (!value) return 0;
  const std::string once = TarskelJSON::canonicalEncoder().encode(*value);
  const JSONValue again = TarskelJSON::decoder().decode<JSONValue>(once);
  fuzz::require(TarskelJSON::canonicalEncoder().encode(again) == once);
  // A NaN can't come out of a document, so a value always equals its reading.
  fuzz::require(again == *value);
  return 0;
}
