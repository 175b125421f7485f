// Arbitrary bytes through decode -> canonical encode -> decode. Whatever
// decodes must encode, and the canonical bytes must be a fixed point; the
// check without a tree agrees with the decoder, and the streaming canonical
// writer, whenever it takes a text, writes the encoder's bytes.

#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/protocol/json/LeanCanonical.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::string_view text = fuzz::text(data, size);
  const std::optional<JSONValue> value = fuzz::tryDecode<JSONValue>(text);
  const std::optional<std::vector<std::string>> pieces = leanCanonical(text);
  if (!value) {
    fuzz::require(!pieces);  // what the decoder refuses, the writer never takes
    return 0;
  }
  fuzz::require(TarskelJSON::decoder().isWellFormed(text));
  const std::string once = TarskelJSON::canonicalEncoder().encode(*value);
  if (pieces) {
    std::string joined;
    for (const std::string& piece : *pieces) joined += piece;
    fuzz::require(joined == once);
  }
  const JSONValue again = TarskelJSON::decoder().decode<JSONValue>(once);
  fuzz::require(TarskelJSON::canonicalEncoder().encode(again) == once);
  // A NaN can't come out of a document, so a value always equals its reading.
  fuzz::require(again == *value);
  return 0;
}
