// SchemaNode::validate: checking a value against a node.

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

namespace tarskel {
namespace {

// A pattern search may not run away on a catastrophic pattern such as
// "(a+)+$": past this many steps of ICU's match engine (each ten thousand
// backtracking operations, some 0.2 ms on the machines we measured) the
// search gives up. That is a finding of its own, never "no coincide": the
// string may well match. Honest patterns backtrack little and stay far below
// it even on long strings.
constexpr std::int32_t kPatternTimeLimit = 100;

using Violations = std::vector<SchemaViolation>;

bool hasType(const JSONValue& value, SchemaType type) {
  switch (type) {
    case SchemaType::string:
      return value.kind() == JSONValue::Kind::string;
    case SchemaType::number:
      return value.kind() == JSONValue::Kind::number;
    case SchemaType::integer: {
      std::optional<double> number = value.numberValue();
      return number && isIntegral(*number);
    }
    case SchemaType::boolean:
      return value.kind() == JSONValue::Kind::boolean;
    case SchemaType::object:
      return value.kind() == JSONValue::Kind::object;
    case SchemaType::array:
      return value.kind() == JSONValue::Kind::array;
  }
  return false;
}

bool fitsICU(std::string_view text) {
  return text.size() <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
}

icu::UnicodeString toUnicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// One character iterator per thread: building one is costly, and an iterator
// is not safe to share between threads.
icu::BreakIterator* characterIterator() {
  thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> made(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) made.reset();
    return made;
  }();
  return iterator.get();
}

// The number of extended grapheme clusters in `text`.
std::int64_t graphemeLength(std::string_view text) {
  if (isASCII(text)) {
    // Among ASCII characters only CR LF forms a cluster of more than one.
    std::int64_t pairs = 0;
    for (std::size_t i = 1; i < text.size(); ++i) {
      if (text[i - 1] == '\r' && text[i] == '\n') ++pairs;
    }
    return static_cast<std::int64_t>(text.size()) - pairs;
  }
  icu::UnicodeString unicode = toUnicode(text);
  icu::BreakIterator* iterator = characterIterator();
  if (iterator == nullptr) return unicode.countChar32();
  iterator->setText(unicode);
  std::int64_t count = 0;
  for (std::int32_t at = iterator->next(); at != icu::BreakIterator::DONE; at = iterator->next()) {
    ++count;
  }
  return count;
}

enum class PatternOutcome { match, noMatch, invalidPattern, tooSlow };

// Compiled on every use, with no flags: patterns are few and checks rare.
PatternOutcome searchPattern(std::string_view pattern, std::string_view text) {
  if (!fitsICU(pattern)) return PatternOutcome::invalidPattern;
  if (!fitsICU(text)) return PatternOutcome::noMatch;
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError{};
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(toUnicode(pattern), 0, parseError, status));
  if (U_FAILURE(status) || !compiled) return PatternOutcome::invalidPattern;

  const icu::UnicodeString input = toUnicode(text);  // outlives the matcher, which refers to it
  std::unique_ptr<icu::RegexMatcher> matcher(compiled->matcher(input, status));
  if (U_FAILURE(status) || !matcher) return PatternOutcome::noMatch;
  matcher->setTimeLimit(kPatternTimeLimit, status);
  const bool found = matcher->find(status);
  // A search that timed out or ran out of stack decided nothing.
  if (status == U_REGEX_TIME_OUT || status == U_REGEX_STACK_OVERFLOW)
    return PatternOutcome::tooSlow;
  return U_SUCCESS(status) && found ? PatternOutcome::match : PatternOutcome::noMatch;
}

// The node declared for `key`: by bytes first, then by canonical equivalence,
// which is how the object itself tells keys apart.
const SchemaNode* declaredProperty(const std::map<std::string, SchemaNode>& properties,
                                   const std::string& key) {
  auto exact = properties.find(key);
  if (exact != properties.end()) return &exact->second;
  for (const auto& [name, node] : properties) {
    if (canonicallyEquivalent(name, key)) return &node;
  }
  return nullptr;
}

void check(const SchemaNode& node, const JSONValue& value, const CodingPath& path, Violations& out);

void checkArray(const SchemaNode& node, const JSONValue::Array& elements, const CodingPath& path,
                Violations& out) {
  if (!node.items) return;
  const SchemaNode& itemNode = node.items->value();
  for (std::size_t i = 0; i < elements.size(); ++i) {
    CodingPath elementPath(path, i);
    check(itemNode, elements[i], elementPath, out);
  }
}

void checkObject(const SchemaNode& node, const JSONObject& members, const CodingPath& path,
                 Violations& out) {
  if (node.required) {
    for (const std::string& name : *node.required) {
      if (!members.contains(name)) {
        out.push_back({CodingPath(path, name).toString(), "required", "campo requerido ausente"});
      }
    }
  }
  // Undeclared members are judged only against a declared list.
  if (!node.properties) return;
  const bool closed = node.additionalProperties == false;
  for (const auto& [key, member] : members) {
    if (const SchemaNode* declared = declaredProperty(*node.properties, key)) {
      CodingPath memberPath(path, key);
      check(*declared, member, memberPath, out);
    } else if (closed) {
      out.push_back({CodingPath(path, key).toString(), "additionalProperties",
                     "campo no declarado en el schema"});
    }
  }
}

void checkNumber(const SchemaNode& node, double number, const CodingPath& path, Violations& out) {
  if (node.minimum && number < *node.minimum) {
    out.push_back({path.toString(), "minimum",
                   formatNumberWithFraction(number) + " < mínimo " +
                       formatNumberWithFraction(*node.minimum)});
  }
  if (node.maximum && number > *node.maximum) {
    out.push_back({path.toString(), "maximum",
                   formatNumberWithFraction(number) + " > máximo " +
                       formatNumberWithFraction(*node.maximum)});
  }
}

void checkString(const SchemaNode& node, const std::string& text, const CodingPath& path,
                 Violations& out) {
  if (node.minLength || node.maxLength) {
    const std::int64_t length = graphemeLength(text);
    if (node.minLength && length < *node.minLength) {
      out.push_back(
          {path.toString(), "minLength",
           "largo " + std::to_string(length) + " < mínimo " + std::to_string(*node.minLength)});
    }
    if (node.maxLength && length > *node.maxLength) {
      out.push_back(
          {path.toString(), "maxLength",
           "largo " + std::to_string(length) + " > máximo " + std::to_string(*node.maxLength)});
    }
  }
  if (node.pattern) {
    switch (searchPattern(*node.pattern, text)) {
      case PatternOutcome::match:
        break;
      case PatternOutcome::noMatch:
        out.push_back({path.toString(), "pattern", "no coincide con /" + *node.pattern + "/"});
        break;
      case PatternOutcome::invalidPattern:
        out.push_back({path.toString(), "pattern",
                       "el pattern del schema es inválido: /" + *node.pattern + "/"});
        break;
      case PatternOutcome::tooSlow:
        out.push_back({path.toString(), "pattern",
                       "el pattern del schema tardó demasiado: /" + *node.pattern + "/"});
        break;
    }
  }
}

void check(const SchemaNode& node, const JSONValue& value, const CodingPath& path,
           Violations& out) {
  if (node.type && !hasType(value, *node.type)) {
    out.push_back(
        {path.toString(), "type",
         "se esperaba " + std::string(enumName(*node.type)) + ", llegó " + value.typeName()});
    return;
  }
  if (node.enumValues && std::find(node.enumValues->begin(), node.enumValues->end(), value) ==
                             node.enumValues->end()) {
    out.push_back({path.toString(), "enum",
                   "valor fuera del conjunto admitido (" + std::to_string(node.enumValues->size()) +
                       " opciones)"});
  }
  if (const JSONValue::Array* elements = value.arrayValue()) {
    checkArray(node, *elements, path, out);
  } else if (const JSONObject* members = value.objectValue()) {
    checkObject(node, *members, path, out);
  } else if (std::optional<double> number = value.numberValue()) {
    checkNumber(node, *number, path, out);
  } else if (const std::string* text = value.stringValue()) {
    checkString(node, *text, path, out);
  }
}

}  // namespace

std::vector<SchemaViolation> SchemaNode::validate(const JSONValue& value,
                                                  std::string_view path) const {
  Violations out;
  const CodingPath root = CodingPath::named(path);
  check(*this, value, root, out);
  return out;
}

}  // namespace tarskel
