#include "tarskel/protocol/json/TarskelJSON.hpp"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

namespace tarskel {
namespace {

namespace od = simdjson::ondemand;

// ---------------------------------------------------------------- writing

// 0: copy as is; 1: two-character escape in kShortEscape; 2: \u00xx.
constexpr std::array<std::uint8_t, 256> makeEscapeClass() {
  std::array<std::uint8_t, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<std::size_t>(c)] = 2;
  for (unsigned char c : {'"', '\\', '/', '\b', '\f', '\n', '\r', '\t'}) table[c] = 1;
  return table;
}
constexpr auto kEscapeClass = makeEscapeClass();

char shortEscape(char c) {
  switch (c) {
    case '"':
      return '"';
    case '\\':
      return '\\';
    case '/':
      return '/';
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    default:
      return 't';
  }
}

void appendDigits(std::string& out, std::uint64_t magnitude, bool negative) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, magnitude);
  if (negative) out += '-';
  out.append(buffer, result.ptr);
}

// Lays out the shortest round-trip digits of a finite, non-zero `value`.
// `keepFraction` adds ".0" to an integral value in positional form.
void appendLaidOut(std::string& out, double value, bool keepFraction) {
  char buffer[40];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  // text is [-]d[.ddd]e(+|-)xx
  const bool negative = text.front() == '-';
  if (negative) text.remove_prefix(1);
  const std::size_t ePos = text.find('e');
  std::string digits;
  digits.reserve(20);
  for (char c : text.substr(0, ePos)) {
    if (c != '.') digits += c;
  }
  int exponent = 0;  // of d1.d2...
  std::from_chars(text.data() + ePos + 2, text.data() + text.size(), exponent);
  if (text[ePos + 1] == '-') exponent = -exponent;

  if (negative) out += '-';
  const int e = exponent + 1;  // value = 0.d1d2... x 10^e
  if (e < -3 || std::fabs(value) > 9007199254740992.0) {
    out += digits[0];
    if (digits.size() > 1) {
      out += '.';
      out.append(digits, 1);
    }
    out += 'e';
    out += exponent < 0 ? '-' : '+';
    const int magnitude = exponent < 0 ? -exponent : exponent;
    if (magnitude < 10) out += '0';
    out += std::to_string(magnitude);
    return;
  }
  const auto n = static_cast<int>(digits.size());
  if (e <= 0) {
    out += "0.";
    out.append(static_cast<std::size_t>(-e), '0');
    out += digits;
  } else if (e >= n) {
    out += digits;
    out.append(static_cast<std::size_t>(e - n), '0');
    if (keepFraction) out += ".0";
  } else {
    out.append(digits, 0, static_cast<std::size_t>(e));
    out += '.';
    out.append(digits, static_cast<std::size_t>(e));
  }
}

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void write(const JSONValue& value) {
    switch (value.kind()) {
      case JSONValue::Kind::boolean:
        out_ += *value.boolValue() ? "true" : "false";
        break;
      case JSONValue::Kind::number:
        writeNumber(*value.numberPayload());
        break;
      case JSONValue::Kind::string:
        appendJSONString(out_, *value.stringValue());
        break;
      case JSONValue::Kind::array:
        writeArray(*value.arrayValue());
        break;
      case JSONValue::Kind::object:
        writeObject(*value.objectValue());
        break;
      case JSONValue::Kind::null:
        out_ += "null";
        break;
    }
  }

 private:
  void writeNumber(const JSONNumber& n) {
    if (n.writeExact && n.hasExact) {
      appendDigits(out_, n.magnitude, n.negative && n.magnitude != 0);
    } else {
      appendJSONNumber(out_, n.value);
    }
  }

  void writeArray(const JSONValue::Array& array) {
    out_ += '[';
    bool first = true;
    for (const JSONValue& element : array) {
      if (!first) out_ += ',';
      first = false;
      write(element);
    }
    out_ += ']';
  }

  // Members are held sorted by UTF-8 bytes, so both encoders write that order.
  void writeObject(const JSONObject& object) {
    out_ += '{';
    bool first = true;
    for (const auto& [key, element] : object) {
      if (!first) out_ += ',';
      first = false;
      appendJSONString(out_, key);
      out_ += ':';
      write(element);
    }
    out_ += '}';
  }

  std::string& out_;
};

// ---------------------------------------------------------------- reading

[[noreturn]] void corrupted(std::string text) {
  throw DecodingError(DecodingError::Kind::dataCorrupted, CodingPath(), std::move(text));
}

// The reader's last error on this thread, so that parseTree can tell a
// document that ended early (whose break is at its end) from the rest.
thread_local simdjson::error_code tReaderError = simdjson::SUCCESS;

[[noreturn]] void syntaxError(simdjson::error_code error) {
  tReaderError = error;
  switch (error) {
    case simdjson::UTF8_ERROR:
      corrupted("el texto no es UTF-8 válido");
    case simdjson::EMPTY:
      corrupted("el texto no es JSON válido: documento vacío");
    case simdjson::TRAILING_CONTENT:
      corrupted("el texto no es JSON válido: contenido tras el documento");
    case simdjson::DEPTH_ERROR:
      corrupted("el texto no es JSON válido: anidamiento demasiado profundo");
    default:
      corrupted(std::string("el texto no es JSON válido: ") + simdjson::error_message(error));
  }
}

template <class T>
T take(simdjson::simdjson_result<T>&& result) {
  T value;
  if (auto error = std::move(result).get(value)) syntaxError(error);
  return value;
}

// Values give their raw token as is, documents wrapped in a result.
std::string_view take(std::string_view token) { return token; }

// RFC 8259 number grammar: -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
bool isNumberGrammar(std::string_view t) {
  std::size_t i = 0;
  auto digits = [&] {
    const std::size_t start = i;
    while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
    return i > start;
  };
  if (i < t.size() && t[i] == '-') ++i;
  if (i < t.size() && t[i] == '0') {
    ++i;
  } else if (!digits()) {
    return false;
  }
  if (i < t.size() && t[i] == '.') {
    ++i;
    if (!digits()) return false;
  }
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == t.size();
}

std::string_view trimTrailingSpace(std::string_view t) {
  while (!t.empty() &&
         (t.back() == ' ' || t.back() == '\t' || t.back() == '\n' || t.back() == '\r')) {
    t.remove_suffix(1);
  }
  return t;
}

// Numbers go int64, then uint64, then binary64, so that integers keep their
// exact value for 64-bit record fields. A number in the grammar that no
// binary64 holds (1e999) is kept flagged for the record layer to judge.
template <class Source>
JSONValue readNumber(Source& source) {
  const std::string_view token = trimTrailingSpace(take(source.raw_json_token()));
  JSONNumber n;
  std::int64_t i;
  std::uint64_t u;
  double d;
  if (source.get_int64().get(i) == simdjson::SUCCESS) {
    n.hasExact = true;
    n.negative = i < 0 || (i == 0 && token.front() == '-');
    n.magnitude = i < 0 ? 0 - static_cast<std::uint64_t>(i) : static_cast<std::uint64_t>(i);
    n.value = n.negative && i == 0 ? -0.0 : static_cast<double>(i);
  } else if (source.get_uint64().get(u) == simdjson::SUCCESS) {
    n.hasExact = true;
    n.magnitude = u;
    n.value = static_cast<double>(u);
  } else if (source.get_double().get(d) == simdjson::SUCCESS) {
    n.value = d;
  } else if (isNumberGrammar(token)) {
    n.value = token.front() == '-' ? -HUGE_VAL : HUGE_VAL;
    n.unrepresentable = true;
  } else {
    corrupted("el texto no es JSON válido: número mal formado");
  }
  return JSONValue(n);
}

// A string from the reader; escapes such as an unpaired \udc00 must not
// smuggle ill-formed UTF-8 into the tree.
std::string readString(std::string_view s) {
  if (!isValidUTF8(s)) corrupted("el texto no es UTF-8 válido");
  return std::string(s);
}

class TreeBuilder {
 public:
  // Without `keep`, arrays and objects are read and checked, and dropped.
  explicit TreeBuilder(bool keep) : keep_(keep) {}

  JSONValue build(od::value value, std::size_t depth) {
    switch (take(value.type())) {
      case od::json_type::array:
        return readArray(take(value.get_array()), depth);
      case od::json_type::object:
        return readObject(take(value.get_object()), depth);
      case od::json_type::number:
        return readNumber(value);
      case od::json_type::string:
        return JSONValue(readString(take(value.get_string())));
      case od::json_type::boolean:
        return JSONValue(take(value.get_bool()));
      case od::json_type::null:
        if (!take(value.is_null())) corrupted("el texto no es JSON válido: literal mal formado");
        return JSONValue(nullptr);
    }
    corrupted("el texto no es JSON válido");
  }

  // `input` is the padded text the document was made from.
  JSONValue buildRoot(od::document& doc, std::string_view input, bool& checkedEnd) {
    switch (take(doc.type())) {
      case od::json_type::array:
        return readArray(take(doc.get_array()), 0);
      case od::json_type::object:
        return readObject(take(doc.get_object()), 0);
      case od::json_type::number:
        return readRootNumber(doc, input, checkedEnd);
      case od::json_type::string:
        return JSONValue(readString(take(doc.get_string())));
      case od::json_type::boolean:
        return JSONValue(take(doc.get_bool()));
      case od::json_type::null:
        if (!take(doc.is_null())) corrupted("el texto no es JSON válido: literal mal formado");
        return JSONValue(nullptr);
    }
    corrupted("el texto no es JSON válido");
  }

 private:
  // The reader checks what trails a root scalar only when it can read the
  // scalar; behind a number no binary64 holds, the check is made here.
  static JSONValue readRootNumber(od::document& doc, std::string_view input, bool& checkedEnd) {
    const std::string_view token = take(doc.raw_json_token());
    JSONValue number = readNumber(doc);
    if (number.numberPayload()->unrepresentable) {
      const auto start = static_cast<std::size_t>(token.data() - input.data());
      const std::size_t end = input.find_first_of(" \t\n\r", start);
      if (end != std::string_view::npos &&
          input.find_first_not_of(" \t\n\r", end) != std::string_view::npos) {
        syntaxError(simdjson::TRAILING_CONTENT);
      }
      checkedEnd = true;
    }
    return number;
  }

  static void enter(std::size_t depth) {
    // The reader keeps no limit of its own and recursion would end in a
    // stack overflow, so depth is counted here.
    if (depth >= JSONDecoder::kMaxDepth) {
      corrupted("el texto no es JSON válido: anidamiento de más de " +
                std::to_string(JSONDecoder::kMaxDepth) + " niveles");
    }
  }

  // Elements and members gather on one stack per builder and move into a
  // container of the exact size once their count is known, which spares the
  // many small reallocations of growing each container on its own.
  JSONValue readArray(od::array array, std::size_t depth) {
    enter(depth);
    const std::size_t base = elements_.size();
    for (auto element : array) {
      JSONValue value = build(take(std::move(element)), depth + 1);
      if (keep_) elements_.push_back(std::move(value));
    }
    JSONValue::Array out(
        std::make_move_iterator(elements_.begin() + static_cast<std::ptrdiff_t>(base)),
        std::make_move_iterator(elements_.end()));
    elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(base), elements_.end());
    return JSONValue(std::move(out));
  }

  JSONValue readObject(od::object object, std::size_t depth) {
    enter(depth);
    const std::size_t base = members_.size();
    for (auto result : object) {
      od::field field = take(std::move(result));
      std::string key = readString(take(field.unescaped_key()));
      JSONValue value = build(field.value(), depth + 1);
      if (keep_) members_.emplace_back(std::move(key), std::move(value));
    }
    std::vector<JSONObject::Member> members(
        std::make_move_iterator(members_.begin() + static_cast<std::ptrdiff_t>(base)),
        std::make_move_iterator(members_.end()));
    members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(base), members_.end());
    return JSONValue(JSONObject::fromUnsorted(std::move(members)));
  }

  bool keep_;
  std::vector<JSONValue> elements_;
  std::vector<JSONObject::Member> members_;
};

void refuseControlBytesIn(std::string_view bytes, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    const auto u = static_cast<unsigned char>(bytes[i]);
    if (u < 0x20 && u != '\t' && u != '\n' && u != '\r') {
      throw DecodingError(DecodingError::Kind::dataCorrupted, CodingPath(),
                          "el texto no es JSON válido: carácter de control sin escapar",
                          DecodingError::positionIn(bytes, i));
    }
  }
}

// Nonzero when one of the eight bytes at `p` is below 0x20.
std::uint64_t controlBytesIn(const char* p) {
  constexpr std::uint64_t kSpaces = 0x2020202020202020;
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return (word - kSpaces) & ~word & kHighBits;
}

// Outside strings JSON allows only four control bytes, and inside strings
// none; the reader checks neither, so the raw text is screened once here,
// 32 bytes at a time, byte by byte only in a block that holds any.
void refuseControlBytes(std::string_view bytes) {
  std::size_t i = 0;
  for (; i + 32 <= bytes.size(); i += 32) {
    const char* p = bytes.data() + i;
    if ((controlBytesIn(p) | controlBytesIn(p + 8) | controlBytesIn(p + 16) |
         controlBytesIn(p + 24)) != 0) {
      refuseControlBytesIn(bytes, i, i + 32);
    }
  }
  refuseControlBytesIn(bytes, i, bytes.size());
}

// Where the reading of `bytes` broke: its end for a document that ended
// early, else the reader's place in the document when it has one (`doc` is
// null when the text could not even be indexed), else the first ill-formed
// UTF-8, else the end, where something was missing.
std::size_t failureOffset(std::string_view bytes, const simdjson::padded_string& padded,
                          od::document* doc) {
  if (tReaderError == simdjson::INCOMPLETE_ARRAY_OR_OBJECT) return bytes.size();
  const char* location = nullptr;
  if (doc != nullptr && doc->current_location().get(location) == simdjson::SUCCESS) {
    return std::min(static_cast<std::size_t>(location - padded.data()), bytes.size());
  }
  return validUTF8Prefix(bytes);
}

JSONValue readTree(od::document& doc, const simdjson::padded_string& padded, bool keep) {
  TreeBuilder builder(keep);
  bool checkedEnd = false;
  JSONValue root =
      builder.buildRoot(doc, std::string_view(padded.data(), padded.size()), checkedEnd);
  if (checkedEnd) return root;
  // The reader accepts `{"a":1}}` silently: whatever follows the root is refused here.
  const char* location = nullptr;
  if (doc.current_location().get(location) != simdjson::OUT_OF_BOUNDS) {
    syntaxError(simdjson::TRAILING_CONTENT);
  }
  return root;
}

// ---------------------------------------------------------------- fast reading

// Most documents are well formed, and for them the reader's DOM parse, whose
// tape knows each container's size, builds the tree in one pass with every
// container allocated once at its final size. The pass gives up (Undecided)
// on anything it can't vouch for: a reader error, nesting beyond the limit, a
// string that escapes produced outside UTF-8, a zero that may have been
// written -0. The streaming builder above then reads the document again, and
// its results and error texts are the ones callers see.
struct Undecided {};

class DOMTreeBuilder {
 public:
  explicit DOMTreeBuilder(std::string_view input)
      : input_(input),
        mayHoldMinusZero_(mayHoldMinusZero(input)),
        mayHoldEscapedUnicode_(input.find("\\u") != std::string_view::npos) {}

  JSONValue build(simdjson::dom::element value, std::size_t depth) {
    using Type = simdjson::dom::element_type;
    switch (value.type()) {
      case Type::ARRAY:
        return readArray(value.get_array().value_unsafe(), depth);
      case Type::OBJECT:
        return readObject(value.get_object().value_unsafe(), depth);
      case Type::INT64:
        return integer(value.get_int64().value_unsafe());
      case Type::UINT64: {
        if (mayHoldLongDigitRun()) throw Undecided{};
        JSONNumber n;
        n.hasExact = true;
        n.magnitude = value.get_uint64().value_unsafe();
        n.value = static_cast<double>(n.magnitude);
        return JSONValue(n);
      }
      case Type::DOUBLE: {
        const double d = value.get_double().value_unsafe();
        if ((d == 0 && mayHoldMinusZero_) || mayHoldLongDigitRun()) throw Undecided{};
        return JSONValue(d);
      }
      case Type::STRING:
        return JSONValue(string(value.get_string().value_unsafe()));
      case Type::BOOL:
        return JSONValue(value.get_bool().value_unsafe());
      case Type::NULL_VALUE:
        return JSONValue(nullptr);
    }
    throw Undecided{};
  }

 private:
  // Whether a number of `input` may begin "-0": a "-0" where a value may
  // start (at the beginning, or after "[", "," or ":" and spaces). Dates and
  // other text inside strings rarely look like that.
  static bool mayHoldMinusZero(std::string_view input) {
    for (std::size_t i = input.find("-0"); i != std::string_view::npos;
         i = input.find("-0", i + 2)) {
      const std::size_t before = input.find_last_not_of(" \t\n\r", i == 0 ? 0 : i - 1);
      if (i == 0 || before == std::string_view::npos || input[before] == '[' ||
          input[before] == ',' || input[before] == ':') {
        return true;
      }
    }
    return false;
  }

  // The two readers part ways on a number with a run of 19 or more digits
  // (a long fraction or exponent), which the DOM parse reads as a double or
  // an unsigned integer. Looked for once, on the first such number.
  bool mayHoldLongDigitRun() {
    if (!longDigitRun_) longDigitRun_ = holdsDigitRun(input_, 19);
    return *longDigitRun_;
  }

  // Any run of `length` or more holds one of every (length-1)-th byte, so
  // only those are looked at, and the runs through them measured.
  static bool holdsDigitRun(std::string_view text, std::size_t length) {
    const auto digit = [&text](std::size_t i) { return text[i] >= '0' && text[i] <= '9'; };
    for (std::size_t i = length - 1; i < text.size(); i += length - 1) {
      if (!digit(i)) continue;
      std::size_t start = i;
      std::size_t end = i + 1;
      while (start > 0 && digit(start - 1)) --start;
      while (end < text.size() && digit(end)) ++end;
      if (end - start >= length) return true;
    }
    return false;
  }

  JSONValue integer(std::int64_t i) const {
    if (i == 0 && mayHoldMinusZero_) throw Undecided{};
    JSONNumber n;
    n.hasExact = true;
    n.negative = i < 0;
    n.magnitude = i < 0 ? 0 - static_cast<std::uint64_t>(i) : static_cast<std::uint64_t>(i);
    n.value = static_cast<double>(i);
    return JSONValue(n);
  }

  // The reader checked the text's UTF-8; only a \u escape can make a string
  // that isn't.
  std::string string(std::string_view s) const {
    if (mayHoldEscapedUnicode_ && !isValidUTF8(s)) throw Undecided{};
    return std::string(s);
  }

  JSONValue readArray(simdjson::dom::array array, std::size_t depth) {
    if (depth >= JSONDecoder::kMaxDepth) throw Undecided{};
    JSONValue::Array out;
    out.reserve(array.size());
    for (simdjson::dom::element element : array) out.push_back(build(element, depth + 1));
    return JSONValue(std::move(out));
  }

  JSONValue readObject(simdjson::dom::object object, std::size_t depth) {
    if (depth >= JSONDecoder::kMaxDepth) throw Undecided{};
    std::vector<JSONObject::Member> members;
    members.reserve(object.size());
    for (simdjson::dom::key_value_pair field : object) {
      std::string key = string(field.key);
      members.emplace_back(std::move(key), build(field.value, depth + 1));
    }
    return JSONValue(JSONObject::fromUnsorted(std::move(members)));
  }

  std::string_view input_;
  bool mayHoldMinusZero_;
  bool mayHoldEscapedUnicode_;
  std::optional<bool> longDigitRun_;
};

// The tree of `bytes` by the DOM parse, or nothing when the streaming
// builder must decide.
std::optional<JSONValue> fastTree(std::string_view bytes) {
  // A parser keeps buffers sized to the largest document it has read (of
  // which only what a document fills is touched); one per thread serves the
  // many small documents, while a large one gets its own.
  constexpr std::size_t kReusedParserLimit = 4 << 20;
  thread_local simdjson::dom::parser shared;
  std::optional<simdjson::dom::parser> local;
  simdjson::dom::parser& parser = bytes.size() <= kReusedParserLimit ? shared : local.emplace();
  simdjson::dom::element root;
  if (parser.parse(bytes.data(), bytes.size()).get(root) != simdjson::SUCCESS) return std::nullopt;
  // The streaming reader has its own ways with a bare scalar, which the
  // documents worth hurrying for never are.
  if (!root.is_array() && !root.is_object()) return std::nullopt;
  try {
    return DOMTreeBuilder(bytes).build(root, 0);
  } catch (const Undecided&) {
    return std::nullopt;
  }
}

// The tree of `bytes`; with `keep` false, only the same checks, and a null
// for a tree. A syntax error carries its position.
JSONValue parseTree(std::string_view bytes, bool keep = true) {
  refuseControlBytes(bytes);
  if (keep) {
    if (std::optional<JSONValue> tree = fastTree(bytes)) return std::move(*tree);
  }
  tReaderError = simdjson::SUCCESS;
  simdjson::padded_string padded(bytes);
  // A parser keeps buffers sized to the largest document it has read; one per
  // thread serves the many small documents, while a large one gets its own.
  constexpr std::size_t kReusedParserLimit = 4 << 20;
  thread_local od::parser shared;
  od::parser local;
  od::parser& parser = bytes.size() <= kReusedParserLimit ? shared : local;
  od::document doc;
  bool indexed = false;
  try {
    doc = take(parser.iterate(padded));
    indexed = true;
    return readTree(doc, padded, keep);
  } catch (const DecodingError& e) {
    throw DecodingError(
        e.kind(), CodingPath(), e.debugDescription(),
        DecodingError::positionIn(bytes, failureOffset(bytes, padded, indexed ? &doc : nullptr)));
  }
}

}  // namespace

// ---------------------------------------------------------------- public

std::string escapedBytes(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const std::size_t n = utf8SequenceLength(text.substr(i));
    const bool printable = n > 1 || (n == 1 && c >= 0x20 && c != 0x7F && c != '\\');
    if (printable) {
      out.append(text, i, n);
      i += n;
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
      ++i;
    }
  }
  return out;
}

void appendJSONString(std::string& out, std::string_view text) {
  // Strings reach the encoder from anywhere (file names, say), not only from
  // the decoder: bytes that are not UTF-8 would make output no reader takes.
  if (!isValidUTF8(text)) {
    throw EncodingError("texto que no es UTF-8 válido: " + escapedBytes(text));
  }
  out += '"';
  std::size_t runStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const std::uint8_t cls = kEscapeClass[c];
    if (cls == 0) continue;
    out.append(text, runStart, i - runStart);
    runStart = i + 1;
    if (cls == 1) {
      out += '\\';
      out += shortEscape(text[i]);
    } else {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  out.append(text, runStart, text.size() - runStart);
  out += '"';
}

void appendJSONNumber(std::string& out, double value) {
  if (!std::isfinite(value))
    throw EncodingError("número no finito: " + formatNumberWithFraction(value));
  if (value == 0) {
    out += std::signbit(value) ? "-0" : "0";
    return;
  }
  if (isIntegral(value)) {
    const auto i = static_cast<std::int64_t>(value);
    appendDigits(out, i < 0 ? 0 - static_cast<std::uint64_t>(i) : static_cast<std::uint64_t>(i),
                 i < 0);
    return;
  }
  appendLaidOut(out, value, false);
}

std::string formatJSONNumber(double value) {
  std::string out;
  appendJSONNumber(out, value);
  return out;
}

std::string formatNumberWithFraction(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";
  std::string out;
  appendLaidOut(out, value, true);
  return out;
}

std::string JSONEncoder::encode(const JSONValue& value) const {
  std::string out;
  Writer(out).write(value);
  return out;
}

JSONValue JSONDecoder::parse(std::string_view bytes) const { return parseTree(bytes); }

bool JSONDecoder::isWellFormed(std::string_view bytes) const {
  try {
    parseTree(bytes, false);
    return true;
  } catch (const DecodingError&) {
    return false;
  }
}

template <>
JSONValue JSONDecoder::decode<JSONValue>(std::string_view bytes) const {
  JSONValue tree = parseTree(bytes);
  coding_detail::requireRepresentable(tree, CodingPath());
  return tree;
}

namespace TarskelJSON {
JSONEncoder canonicalEncoder() { return JSONEncoder(true); }
JSONEncoder encoder() { return JSONEncoder(false); }
JSONDecoder decoder() { return JSONDecoder(); }
}  // namespace TarskelJSON

}  // namespace tarskel
