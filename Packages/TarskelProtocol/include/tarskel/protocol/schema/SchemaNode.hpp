#pragma once

// A small schema language in the JSON Schema manner: operation arguments are
// checked against one, and a service's configuration schema must document
// every field it declares.
//
// Nodes are plain values; a box is never changed after it is built, so nodes
// may be copied and read from any thread. Neither check throws.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel {

enum class SchemaType { string, number, integer, boolean, object, array };

template <>
struct JSONEnum<SchemaType> {
  static constexpr std::array<std::pair<SchemaType, std::string_view>, 6> cases{{
      {SchemaType::string, "string"},
      {SchemaType::number, "number"},
      {SchemaType::integer, "integer"},
      {SchemaType::boolean, "boolean"},
      {SchemaType::object, "object"},
      {SchemaType::array, "array"},
  }};
};

// How risky it is to change a configuration field. The levels carry no order.
enum class RiskLevel { safe, disruptive, dangerous };

template <>
struct JSONEnum<RiskLevel> {
  static constexpr std::array<std::pair<RiskLevel, std::string_view>, 3> cases{{
      {RiskLevel::safe, "safe"},
      {RiskLevel::disruptive, "disruptive"},
      {RiskLevel::dangerous, "dangerous"},
  }};
};

// One finding: where (a path such as "$.targets[2].name"), which rule, and
// the message for people.
struct SchemaViolation {
  std::string path;
  std::string rule;
  std::string message;

  // "<path>: [<rule>] <message>"
  std::string description() const;

  friend bool operator==(const SchemaViolation&, const SchemaViolation&) = default;
};

struct SchemaNode;

// Holds the node of `items`, so that a node can contain a node of its own
// type. The node is shared between copies and never changed after
// construction. Two boxes are equal when their nodes are. In JSON a box is
// the node itself, with no wrapping key.
class SchemaBox {
 public:
  explicit SchemaBox(SchemaNode node);

  const SchemaNode& value() const { return *value_; }

  friend bool operator==(const SchemaBox& a, const SchemaBox& b);

 private:
  std::shared_ptr<const SchemaNode> value_;
};

// Every field is optional; an empty node accepts every value.
struct SchemaNode {
  std::optional<SchemaType> type;
  std::optional<std::string> description;
  std::optional<RiskLevel> xRisk;                               // "x-risk"
  std::optional<std::map<std::string, SchemaNode>> properties;  // sorted by key bytes
  std::optional<std::vector<std::string>> required;
  std::optional<std::vector<JSONValue>> enumValues;  // "enum"
  std::optional<double> minimum;
  std::optional<double> maximum;
  std::optional<std::int64_t> minLength;  // in extended grapheme clusters
  std::optional<std::int64_t> maxLength;
  std::optional<std::string> pattern;  // ICU syntax, searched unanchored
  std::optional<SchemaBox> items;
  std::optional<JSONValue> defaultValue;  // "default"; kept, never applied
  std::optional<bool> additionalProperties;

  // The findings of `value` against this node, `path` naming the value
  // ("$" for operation arguments). Empty means valid. The order of findings
  // among the members of one object is not defined.
  std::vector<SchemaViolation> validate(const JSONValue& value, std::string_view path) const;

  // Fields declared below this node (not the node itself) that lack a
  // description or an x-risk, in ascending key order, depth first; the
  // elements of `items` are named "<path>[]".
  std::vector<SchemaViolation> configDocumentationViolations(std::string_view path) const;

  // JSON form through the coding layer. Decoding throws DecodingError for an
  // unknown "type" or "x-risk", a non-Boolean "additionalProperties", or a
  // non-integer "minLength"/"maxLength".
  void encode(KeyedEncoder& e) const;
  static SchemaNode decode(const KeyedDecoder& d);

  friend bool operator==(const SchemaNode&, const SchemaNode&) = default;
};

template <>
struct JSONCoding<SchemaBox> {
  static JSONValue encode(const SchemaBox& box);
  static SchemaBox decode(const JSONValue& v, const CodingPath& at);
};

}  // namespace tarskel
