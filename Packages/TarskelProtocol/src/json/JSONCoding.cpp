#include "tarskel/protocol/json/JSONCoding.hpp"

#include <algorithm>
#include <cmath>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

const char* kindName(DecodingError::Kind kind) {
  switch (kind) {
    case DecodingError::Kind::keyNotFound:
      return "keyNotFound";
    case DecodingError::Kind::valueNotFound:
      return "valueNotFound";
    case DecodingError::Kind::typeMismatch:
      return "typeMismatch";
    case DecodingError::Kind::dataCorrupted:
      return "dataCorrupted";
  }
  return "dataCorrupted";
}

std::string describe(DecodingError::Kind kind, const std::string& path, const std::string& text) {
  std::string out = kindName(kind);
  out += " en ";
  out += path.empty() ? "<raíz>" : path;
  out += ": ";
  out += text;
  return out;
}

bool holdsUnrepresentable(const JSONValue& v) {
  switch (v.kind()) {
    case JSONValue::Kind::number:
      return v.numberPayload()->unrepresentable;
    case JSONValue::Kind::array:
      for (const JSONValue& e : *v.arrayValue()) {
        if (holdsUnrepresentable(e)) return true;
      }
      return false;
    case JSONValue::Kind::object:
      for (const auto& m : *v.objectValue()) {
        if (holdsUnrepresentable(m.second)) return true;
      }
      return false;
    default:
      return false;
  }
}

}  // namespace

std::string CodingPath::toString() const {
  std::string out;
  appendTo(out);
  return out;
}

void CodingPath::appendTo(std::string& out) const {
  if (parent_ != nullptr) parent_->appendTo(out);
  switch (kind_) {
    case Kind::root:
      out.append(text_);
      break;
    case Kind::key:
      if (named_ || !out.empty()) out += '.';
      out.append(text_);
      break;
    case Kind::index:
      out.append("[").append(std::to_string(index_)).append("]");
      break;
  }
}

DecodingError::DecodingError(Kind kind, const CodingPath& path, std::string debugDescription,
                             std::optional<TextPosition> position)
    : Error(describe(kind, path.toString(), debugDescription)),
      kind_(kind),
      path_(path.toString()),
      debugDescription_(std::move(debugDescription)),
      position_(position) {}

DecodingError::TextPosition DecodingError::positionIn(std::string_view text, std::size_t offset) {
  TextPosition at{1, 1, std::min(offset, text.size())};
  for (std::size_t i = 0; i < at.offset; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      ++at.line;
      at.column = 1;
    } else if ((c & 0xC0) != 0x80) {  // a continuation byte is part of the character before
      ++at.column;
    }
  }
  return at;
}

EncodingError::EncodingError(std::string debugDescription)
    : Error("invalidValue: " + std::move(debugDescription)) {}

KeyedDecoder::KeyedDecoder(const JSONValue& value, const CodingPath& path)
    : object_(value.objectValue()), path_(path) {
  if (object_ == nullptr) coding_detail::typeMismatch("object", value, path);
}

void KeyedDecoder::throwKeyNotFound(std::string_view key) const {
  throw DecodingError(DecodingError::Kind::keyNotFound, path_,
                      "falta la clave \"" + std::string(key) + "\"");
}

void KeyedDecoder::throwValueNotFound(const CodingPath& at) {
  throw DecodingError(DecodingError::Kind::valueNotFound, at, "se esperaba un valor, llegó null");
}

namespace coding_detail {

void typeMismatch(const char* expected, const JSONValue& v, const CodingPath& at) {
  const char* found = v.kind() == JSONValue::Kind::number ? "number" : v.typeName();
  throw DecodingError(DecodingError::Kind::typeMismatch, at,
                      std::string("se esperaba ") + expected + ", llegó " + found);
}

void dataCorrupted(const CodingPath& at, std::string text) {
  throw DecodingError(DecodingError::Kind::dataCorrupted, at, std::move(text));
}

const JSONNumber& requireNumber(const JSONValue& v, const CodingPath& at) {
  const JSONNumber* n = v.numberPayload();
  if (n == nullptr) typeMismatch("number", v, at);
  if (n->unrepresentable) dataCorrupted(at, "número fuera del alcance de un binary64");
  return *n;
}

std::int64_t requireInt64(const JSONValue& v, const CodingPath& at) {
  const JSONNumber& n = requireNumber(v, at);
  if (n.hasExact) {
    if (!n.negative && n.magnitude <= static_cast<std::uint64_t>(INT64_MAX)) {
      return static_cast<std::int64_t>(n.magnitude);
    }
    if (n.negative && n.magnitude <= static_cast<std::uint64_t>(INT64_MAX) + 1) {
      return static_cast<std::int64_t>(0 - n.magnitude);
    }
    dataCorrupted(at, "número fuera de rango para un entero de 64 bits");
  }
  // Written as 1.0 or 1e2: accepted when it is an integer a double holds exactly.
  if (!isIntegral(n.value))
    dataCorrupted(at, "se esperaba un entero, llegó " + formatNumberWithFraction(n.value));
  return static_cast<std::int64_t>(n.value);
}

std::uint64_t requireUInt64(const JSONValue& v, const CodingPath& at) {
  const JSONNumber& n = requireNumber(v, at);
  if (n.hasExact) {
    if (n.negative && n.magnitude != 0) dataCorrupted(at, "se esperaba un entero sin signo");
    return n.magnitude;
  }
  if (!isIntegral(n.value) || n.value < 0) {
    dataCorrupted(at,
                  "se esperaba un entero sin signo, llegó " + formatNumberWithFraction(n.value));
  }
  return static_cast<std::uint64_t>(n.value);
}

void requireRepresentable(const JSONValue& v, const CodingPath& at) {
  if (holdsUnrepresentable(v)) dataCorrupted(at, "Valor JSON no reconocido");
}

}  // namespace coding_detail

JSONValue JSONCoding<Date>::encode(Date d) {
  if (!std::isfinite(d.secondsSinceReferenceDate)) throw EncodingError("fecha no finita");
  return JSONValue(formatISO8601(d));
}

Date JSONCoding<Date>::decode(const JSONValue& v, const CodingPath& at) {
  const std::string* s = v.stringValue();
  if (s == nullptr) coding_detail::typeMismatch("string", v, at);
  std::optional<Date> date = parseISO8601(*s);
  if (!date) coding_detail::dataCorrupted(at, "fecha no está en formato ISO 8601: " + *s);
  return *date;
}

JSONValue JSONCoding<Bytes>::encode(const Bytes& b) { return JSONValue(base64Encode(b.data)); }

Bytes JSONCoding<Bytes>::decode(const JSONValue& v, const CodingPath& at) {
  const std::string* s = v.stringValue();
  if (s == nullptr) coding_detail::typeMismatch("string", v, at);
  std::optional<std::string> data = base64Decode(*s);
  if (!data) coding_detail::dataCorrupted(at, "base64 inválido");
  return Bytes{std::move(*data)};
}

}  // namespace tarskel
