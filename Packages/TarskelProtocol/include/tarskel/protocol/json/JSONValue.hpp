#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tarskel {

class JSONValue;

// True when `a` and `b` are canonically equivalent Unicode strings (ICU
// normalisation); byte-equal strings and differing pure-ASCII strings are
// decided without ICU.
bool canonicallyEquivalent(std::string_view a, std::string_view b);

// The members of a JSON object: a map from string to JSONValue with no order
// of its own. Keys are kept as spelled and stored sorted by their UTF-8 bytes
// (which is the canonical encoder's order); two keys that are canonically
// equivalent are the same key, so lookups and replacement honour equivalence.
class JSONObject {
 public:
  using Member = std::pair<std::string, JSONValue>;
  using const_iterator = std::vector<Member>::const_iterator;

  JSONObject() = default;
  JSONObject(std::initializer_list<Member> members);

  // The value under `key`, or nullptr when absent.
  const JSONValue* find(std::string_view key) const;
  JSONValue* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Sets `key` to `value`, replacing any member with an equivalent key.
  void set(std::string key, JSONValue value);
  // Removes the member with an equivalent key; false when there was none.
  bool erase(std::string_view key);

  std::size_t size() const;
  bool empty() const;
  const_iterator begin() const;
  const_iterator end() const;

  // Builds an object from members in any order. For keys that are the same
  // (equivalent), the last one wins, as when reading a document.
  static JSONObject fromUnsorted(std::vector<Member> members);

  friend bool operator==(const JSONObject& a, const JSONObject& b);

 private:
  std::vector<Member>::iterator lowerBound(std::string_view key);
  std::ptrdiff_t indexOf(std::string_view key) const;

  std::vector<Member> members_;  // sorted by key bytes, keys unique by equivalence
  // False while every key is ASCII, which spares lookups the Unicode work.
  bool mayHoldNonASCII_ = false;
};

// A number as the coding layer carries it. JSON has one number type, a
// binary64; `exact` additionally keeps an integer read from text or written
// by a record's integer field, so that 64-bit fields survive without passing
// through a double. Equality, typeName and every JSONValue rule look at
// `value` only.
struct JSONNumber {
  double value = 0;
  // Set when the text was an integer that fits int64 or uint64.
  bool hasExact = false;
  bool negative = false;  // sign of the exact integer
  std::uint64_t magnitude = 0;
  // Set only by record integer fields: write the exact digits, not `value`.
  bool writeExact = false;
  // Set by the reader for a number that no binary64 holds (1e999).
  bool unrepresentable = false;
};

// The dynamically typed JSON tree: a closed union of six cases, with value
// semantics. Safe to read from any thread; not synchronised for mutation.
class JSONValue {
 public:
  using Array = std::vector<JSONValue>;
  using Object = JSONObject;
  enum class Kind { boolean, number, string, array, object, null };

  JSONValue() : storage_(std::nullptr_t{}) {}
  JSONValue(std::nullptr_t) : storage_(std::nullptr_t{}) {}
  JSONValue(bool b) : storage_(b) {}
  JSONValue(double d) : storage_(JSONNumber{d}) {}
  JSONValue(int i) : storage_(JSONNumber{static_cast<double>(i)}) {}
  JSONValue(JSONNumber n) : storage_(n) {}
  JSONValue(std::string s) : storage_(std::move(s)) {}
  JSONValue(std::string_view s) : storage_(std::string(s)) {}
  JSONValue(const char* s) : storage_(std::string(s)) {}
  JSONValue(Array a) : storage_(std::move(a)) {}
  JSONValue(Object o) : storage_(std::move(o)) {}

  // A number carrying an exact integer, written as plain digits by the
  // encoders: what a record's integer field becomes.
  static JSONValue integer(std::int64_t v);
  static JSONValue unsignedInteger(std::uint64_t v);

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  bool isNull() const { return kind() == Kind::null; }

  // Accessors: the payload of the matching case, else nothing (nullptr).
  const Object* objectValue() const { return std::get_if<Object>(&storage_); }
  Object* objectValue() { return std::get_if<Object>(&storage_); }
  const Array* arrayValue() const { return std::get_if<Array>(&storage_); }
  Array* arrayValue() { return std::get_if<Array>(&storage_); }
  const std::string* stringValue() const { return std::get_if<std::string>(&storage_); }
  std::optional<double> numberValue() const;
  std::optional<bool> boolValue() const;
  const JSONNumber* numberPayload() const { return std::get_if<JSONNumber>(&storage_); }

  // On an object, the value under `key` (a key holding null yields a null
  // value); on any other case, or for an absent key, nothing.
  const JSONValue* operator[](std::string_view key) const;

  // "boolean", "integer", "number", "string", "array", "object" or "null".
  const char* typeName() const;

  friend bool operator==(const JSONValue& a, const JSONValue& b);

 private:
  std::variant<bool, JSONNumber, std::string, Array, Object, std::nullptr_t> storage_;
};

// Finite, |v| < 2^53 and without fraction. -0.0 is integral; 2^53 is not.
bool isIntegral(double v);

// JSONValue is complete from here on, so the object's container can be used.
inline std::size_t JSONObject::size() const { return members_.size(); }
inline bool JSONObject::empty() const { return members_.empty(); }
inline JSONObject::const_iterator JSONObject::begin() const { return members_.begin(); }
inline JSONObject::const_iterator JSONObject::end() const { return members_.end(); }

namespace TarskelProtocolInfo {
inline constexpr std::string_view protocolVersion = "1.1.0";
}  // namespace TarskelProtocolInfo

}  // namespace tarskel
