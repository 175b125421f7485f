#pragma once

// The record coding layer: how plain structs become JSON trees and back.
//
// A record type R opts in with two members:
//
//   void encode(KeyedEncoder& e) const;            // e.required("op", op); e.optional(...)
//   static R decode(const KeyedDecoder& d);        // R{d.required<std::string>("op"), ...}
//
// The rules every record follows: a required key must be present and non-null;
// an optional key may be absent or null (both read as nothing) and is left out
// when it holds nothing; unknown keys are ignored; integer fields are read
// exactly (never through a double) and written as plain digits. Decoding
// errors name the coding path of the value that failed.
//
// Enumerations held as strings specialise JSONEnum<E> with their spellings.

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel {

// Where a value stands in a document, for decoding errors and schema
// findings alike. Non-owning: a path refers to its parent and to the key's
// characters, and lives only on the stack of one decode or validation call;
// text is built only when something is reported.
class CodingPath {
 public:
  // The document's own root: members print bare ("args.items[2].name").
  CodingPath() = default;
  // A root with a caller's name ("$", "configSchema", or even ""): every
  // member follows a dot, so "$.name" and, for an empty name, ".name".
  static CodingPath named(std::string_view rootName) { return CodingPath(rootName); }

  CodingPath(const CodingPath& parent, std::string_view key)
      : parent_(&parent), text_(key), kind_(Kind::key), named_(parent.named_) {}
  CodingPath(const CodingPath& parent, std::size_t index)
      : parent_(&parent), index_(index), kind_(Kind::index), named_(parent.named_) {}

  std::string toString() const;

 private:
  enum class Kind { root, key, index };
  explicit CodingPath(std::string_view rootName) : text_(rootName), named_(true) {}
  void appendTo(std::string& out) const;

  const CodingPath* parent_ = nullptr;
  std::string_view text_;
  std::size_t index_ = 0;
  Kind kind_ = Kind::root;
  bool named_ = false;
};

// Decoding failed. The text names the kind, the path and what was wrong:
//   dataCorrupted en args.x: Valor JSON no reconocido
//
// A text that is not JSON also carries where it first broke (position()),
// for people; the text of the error stays the same without it.
class DecodingError : public Error {
 public:
  enum class Kind { keyNotFound, valueNotFound, typeMismatch, dataCorrupted };

  // Where in the text: line and column count from 1, columns in characters
  // (UTF-8 sequences), not bytes; `offset` is in bytes from 0.
  struct TextPosition {
    std::size_t line = 1;
    std::size_t column = 1;
    std::size_t offset = 0;
    friend bool operator==(const TextPosition&, const TextPosition&) = default;
  };

  DecodingError(Kind kind, const CodingPath& path, std::string debugDescription,
                std::optional<TextPosition> position = std::nullopt);

  Kind kind() const { return kind_; }
  const std::string& codingPath() const { return path_; }
  const std::string& debugDescription() const { return debugDescription_; }
  // Set for syntax errors of the decoder (dataCorrupted at the root), never
  // for the errors of a record's own decoding, which name a coding path.
  const std::optional<TextPosition>& position() const { return position_; }

  // The position of byte `offset` of `text` (at most text.size()).
  static TextPosition positionIn(std::string_view text, std::size_t offset);

 private:
  Kind kind_;
  std::string path_;
  std::string debugDescription_;
  std::optional<TextPosition> position_;
};

// Encoding failed: a value JSON can't hold (a NaN or an infinity). No bytes
// are produced.
class EncodingError : public Error {
 public:
  explicit EncodingError(std::string debugDescription);
};

// A byte string; written as standard base64 with padding.
struct Bytes {
  std::string data;
  friend bool operator==(const Bytes&, const Bytes&) = default;
};

template <class T, class Enable = void>
struct JSONCoding;  // static JSONValue encode(const T&); static T decode(const JSONValue&, const
                    // CodingPath&)

// Spellings of an enumeration held as a string:
//   template <> struct JSONEnum<SchemaType> {
//     static constexpr std::array<std::pair<SchemaType, std::string_view>, 6> cases{{...}};
//   };
template <class E>
struct JSONEnum;

template <class E>
concept JSONEnumeration = requires {
  JSONEnum<E>::cases;
};

class KeyedDecoder;
class KeyedEncoder;

template <class R>
concept JSONRecord = requires(const R& r, KeyedEncoder& e, const KeyedDecoder& d) {
  r.encode(e);
  { R::decode(d) } -> std::same_as<R>;
};

// Reads the members of one JSON object.
class KeyedDecoder {
 public:
  // Throws typeMismatch when `value` is not an object.
  KeyedDecoder(const JSONValue& value, const CodingPath& path);

  // keyNotFound when absent, valueNotFound when null (except for a JSONValue,
  // which holds null as a value of its own), or the value's own error.
  template <class T>
  T required(std::string_view key) const {
    CodingPath at(path_, key);
    const JSONValue* v = object_->find(key);
    if (v == nullptr) throwKeyNotFound(key);
    if constexpr (!std::is_same_v<T, JSONValue>) {
      if (v->isNull()) throwValueNotFound(at);
    }
    return JSONCoding<T>::decode(*v, at);
  }

  // Nothing when absent or null.
  template <class T>
  std::optional<T> optional(std::string_view key) const {
    const JSONValue* v = object_->find(key);
    if (v == nullptr || v->isNull()) return std::nullopt;
    CodingPath at(path_, key);
    return JSONCoding<T>::decode(*v, at);
  }

  const JSONObject& object() const { return *object_; }
  const CodingPath& path() const { return path_; }

 private:
  [[noreturn]] void throwKeyNotFound(std::string_view key) const;
  [[noreturn]] static void throwValueNotFound(const CodingPath& at);

  const JSONObject* object_;
  const CodingPath& path_;
};

// Collects the members of one JSON object.
class KeyedEncoder {
 public:
  template <class T>
  void required(std::string_view key, const T& value) {
    members_.emplace_back(std::string(key), JSONCoding<T>::encode(value));
  }
  // Leaves the key out when `value` holds nothing.
  template <class T>
  void optional(std::string_view key, const std::optional<T>& value) {
    if (value) required(key, *value);
  }
  JSONObject finish() && { return JSONObject::fromUnsorted(std::move(members_)); }

 private:
  std::vector<JSONObject::Member> members_;
};

namespace coding_detail {
[[noreturn]] void typeMismatch(const char* expected, const JSONValue& v, const CodingPath& at);
[[noreturn]] void dataCorrupted(const CodingPath& at, std::string text);
const JSONNumber& requireNumber(const JSONValue& v, const CodingPath& at);
std::int64_t requireInt64(const JSONValue& v, const CodingPath& at);
std::uint64_t requireUInt64(const JSONValue& v, const CodingPath& at);
// Throws "Valor JSON no reconocido" at `at` when the tree holds a number no
// binary64 can hold.
void requireRepresentable(const JSONValue& v, const CodingPath& at);
}  // namespace coding_detail

template <>
struct JSONCoding<bool> {
  static JSONValue encode(bool v) { return JSONValue(v); }
  static bool decode(const JSONValue& v, const CodingPath& at) {
    if (auto b = v.boolValue()) return *b;
    coding_detail::typeMismatch("boolean", v, at);
  }
};

template <>
struct JSONCoding<double> {
  static JSONValue encode(double v) { return JSONValue(v); }
  static double decode(const JSONValue& v, const CodingPath& at) {
    return coding_detail::requireNumber(v, at).value;
  }
};

template <class T>
struct JSONCoding<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static JSONValue encode(T v) {
    if constexpr (std::is_signed_v<T>) {
      return JSONValue::integer(static_cast<std::int64_t>(v));
    } else {
      return JSONValue::unsignedInteger(static_cast<std::uint64_t>(v));
    }
  }
  static T decode(const JSONValue& v, const CodingPath& at) {
    if constexpr (std::is_signed_v<T>) {
      std::int64_t i = coding_detail::requireInt64(v, at);
      if (i < std::numeric_limits<T>::min() || i > std::numeric_limits<T>::max()) {
        coding_detail::dataCorrupted(at, "número fuera de rango: " + std::to_string(i));
      }
      return static_cast<T>(i);
    } else {
      std::uint64_t u = coding_detail::requireUInt64(v, at);
      if (u > std::numeric_limits<T>::max()) {
        coding_detail::dataCorrupted(at, "número fuera de rango: " + std::to_string(u));
      }
      return static_cast<T>(u);
    }
  }
};

template <>
struct JSONCoding<std::string> {
  static JSONValue encode(const std::string& v) { return JSONValue(v); }
  static std::string decode(const JSONValue& v, const CodingPath& at) {
    if (const std::string* s = v.stringValue()) return *s;
    coding_detail::typeMismatch("string", v, at);
  }
};

template <>
struct JSONCoding<Date> {
  static JSONValue encode(Date d);  // throws EncodingError for a non-finite date
  static Date decode(const JSONValue& v, const CodingPath& at);
};

template <>
struct JSONCoding<Bytes> {
  static JSONValue encode(const Bytes& b);
  static Bytes decode(const JSONValue& v, const CodingPath& at);  // strict base64
};

template <>
struct JSONCoding<JSONValue> {
  static JSONValue encode(const JSONValue& v) { return v; }
  static JSONValue decode(const JSONValue& v, const CodingPath& at) {
    coding_detail::requireRepresentable(v, at);
    return v;
  }
};

// A map from string to JSONValue, such as a request's arguments.
template <>
struct JSONCoding<JSONObject> {
  static JSONValue encode(const JSONObject& v) { return JSONValue(v); }
  static JSONObject decode(const JSONValue& v, const CodingPath& at) {
    const JSONObject* o = v.objectValue();
    if (o == nullptr) coding_detail::typeMismatch("object", v, at);
    coding_detail::requireRepresentable(v, at);
    return *o;
  }
};

template <class T>
struct JSONCoding<std::vector<T>> {
  static JSONValue encode(const std::vector<T>& v) {
    JSONValue::Array out;
    out.reserve(v.size());
    for (const T& e : v) out.push_back(JSONCoding<T>::encode(e));
    return JSONValue(std::move(out));
  }
  static std::vector<T> decode(const JSONValue& v, const CodingPath& at) {
    const JSONValue::Array* a = v.arrayValue();
    if (a == nullptr) coding_detail::typeMismatch("array", v, at);
    std::vector<T> out;
    out.reserve(a->size());
    for (std::size_t i = 0; i < a->size(); ++i) {
      CodingPath element(at, i);
      out.push_back(JSONCoding<T>::decode((*a)[i], element));
    }
    return out;
  }
};

template <class T>
struct JSONCoding<std::map<std::string, T>> {
  static JSONValue encode(const std::map<std::string, T>& m) {
    std::vector<JSONObject::Member> members;
    members.reserve(m.size());
    for (const auto& [k, v] : m) members.emplace_back(k, JSONCoding<T>::encode(v));
    return JSONValue(JSONObject::fromUnsorted(std::move(members)));
  }
  static std::map<std::string, T> decode(const JSONValue& v, const CodingPath& at) {
    const JSONObject* o = v.objectValue();
    if (o == nullptr) coding_detail::typeMismatch("object", v, at);
    std::map<std::string, T> out;
    for (const auto& [k, e] : *o) {
      CodingPath member(at, k);
      out.emplace(k, JSONCoding<T>::decode(e, member));
    }
    return out;
  }
};

template <JSONEnumeration E>
struct JSONCoding<E> {
  static JSONValue encode(E v) {
    for (const auto& [value, name] : JSONEnum<E>::cases) {
      if (value == v) return JSONValue(std::string(name));
    }
    throw EncodingError("valor de enumeración sin nombre");
  }
  static E decode(const JSONValue& v, const CodingPath& at) {
    const std::string* s = v.stringValue();
    if (s == nullptr) coding_detail::typeMismatch("string", v, at);
    for (const auto& [value, name] : JSONEnum<E>::cases) {
      if (name == *s) return value;
    }
    coding_detail::dataCorrupted(at, "valor desconocido: \"" + *s + "\"");
  }
};

template <JSONRecord R>
struct JSONCoding<R> {
  static JSONValue encode(const R& r) {
    KeyedEncoder e;
    r.encode(e);
    return JSONValue(std::move(e).finish());
  }
  static R decode(const JSONValue& v, const CodingPath& at) {
    KeyedDecoder d(v, at);
    return R::decode(d);
  }
};

// The name of an enumeration case, for messages.
template <JSONEnumeration E>
std::string_view enumName(E v) {
  for (const auto& [value, name] : JSONEnum<E>::cases) {
    if (value == v) return name;
  }
  return {};
}

// The case with this spelling, or nothing.
template <JSONEnumeration E>
std::optional<E> enumFromName(std::string_view text) {
  for (const auto& [value, name] : JSONEnum<E>::cases) {
    if (name == text) return value;
  }
  return std::nullopt;
}

}  // namespace tarskel
