#pragma once

// The one place where this system's JSON encoders and decoder are made.
//
// canonicalEncoder() writes the bytes that are hashed and signed: keys sorted
// by UTF-8 bytes at every depth, no white space, `/` escaped as `\/`, numbers
// in the shortest round-trip digits laid out as described in
// docs/json-canonical.md, dates as "yyyy-MM-ddTHH:mm:ssZ", bytes as base64.
// encoder() writes the same forms without promising any order of keys; its
// output must never be hashed or signed. decoder() reads UTF-8 JSON text.
//
// Encoder and decoder objects hold no shared state; build one per use. Each
// is used by one thread at a time.

#include <cstddef>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/UTF8.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel {

class JSONEncoder {
 public:
  explicit JSONEncoder(bool sortedKeys) : sortedKeys_(sortedKeys) {}

  // Throws EncodingError for a NaN or an infinity anywhere in the value, or
  // for a string or key that is not valid UTF-8.
  std::string encode(const JSONValue& value) const;

  template <class T>
  std::string encode(const T& value) const {
    return encode(JSONCoding<T>::encode(value));
  }

  bool sortedKeys() const { return sortedKeys_; }

 private:
  bool sortedKeys_;
};

class JSONDecoder {
 public:
  // Deepest nesting of arrays and objects a document may have.
  static constexpr std::size_t kMaxDepth = 512;

  // Reads one JSON document as a T. Throws DecodingError: dataCorrupted for
  // text that is not exactly one JSON document in UTF-8 (syntax, invalid
  // UTF-8, trailing content, nesting beyond kMaxDepth), with the position()
  // where the text first broke, or the error of the record's own decoding.
  template <class T>
  T decode(std::string_view bytes) const {
    JSONValue tree = parse(bytes);
    return JSONCoding<T>::decode(tree, CodingPath());
  }

  // The JSON text as a tree. Numbers no binary64 can hold are kept flagged as
  // unrepresentable for the record layer to judge: prefer decode<JSONValue>.
  JSONValue parse(std::string_view bytes) const;

  // Whether parse() would take `bytes`, building no tree: the memory it
  // needs is about the size of the text.
  bool isWellFormed(std::string_view bytes) const;
};

// decode<JSONValue> moves the tree out instead of copying it.
template <>
JSONValue JSONDecoder::decode<JSONValue>(std::string_view bytes) const;

namespace TarskelJSON {
JSONEncoder canonicalEncoder();
JSONEncoder encoder();
JSONDecoder decoder();
}  // namespace TarskelJSON

// Number text as the encoders write it: 1, -0, 0.0001, 1e-05, 1e+16.
// Throws EncodingError for a NaN or an infinity.
std::string formatJSONNumber(double value);
void appendJSONNumber(std::string& out, double value);

// The same digits, but an integral value in positional form keeps ".0":
// 1.0, 12.5, 784926483.0, 1e-05, 1e+16. "nan", "inf" and "-inf" otherwise.
std::string formatNumberWithFraction(double value);

// A JSON string literal for `text`, with the canonical escapes. Throws
// EncodingError, appending nothing, when `text` is not valid UTF-8.
void appendJSONString(std::string& out, std::string_view text);

// `text` for people: well-formed UTF-8 as it is, every other byte, control
// characters and the backslash as \xhh. "a\xffb" for the bytes 61 ff 62.
std::string escapedBytes(std::string_view text);

}  // namespace tarskel
