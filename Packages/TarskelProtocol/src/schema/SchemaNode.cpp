#include "tarskel/protocol/schema/SchemaNode.hpp"

#include <string>
#include <utility>

#include "base/UnicodeSpaces.hpp"

namespace tarskel {

std::string SchemaViolation::description() const {
  std::string text;
  text.reserve(path.size() + rule.size() + message.size() + 5);
  text.append(path).append(": [").append(rule).append("] ").append(message);
  return text;
}

SchemaBox::SchemaBox(SchemaNode node)
    : value_(std::make_shared<const SchemaNode>(std::move(node))) {}

bool operator==(const SchemaBox& a, const SchemaBox& b) {
  return a.value_ == b.value_ || *a.value_ == *b.value_;
}

JSONValue JSONCoding<SchemaBox>::encode(const SchemaBox& box) {
  return JSONCoding<SchemaNode>::encode(box.value());
}

SchemaBox JSONCoding<SchemaBox>::decode(const JSONValue& v, const CodingPath& at) {
  return SchemaBox(JSONCoding<SchemaNode>::decode(v, at));
}

void SchemaNode::encode(KeyedEncoder& e) const {
  e.optional("type", type);
  e.optional("description", description);
  e.optional("properties", properties);
  e.optional("required", required);
  e.optional("minimum", minimum);
  e.optional("maximum", maximum);
  e.optional("minLength", minLength);
  e.optional("maxLength", maxLength);
  e.optional("pattern", pattern);
  e.optional("items", items);
  e.optional("additionalProperties", additionalProperties);
  e.optional("x-risk", xRisk);
  e.optional("enum", enumValues);
  e.optional("default", defaultValue);
}

SchemaNode SchemaNode::decode(const KeyedDecoder& d) {
  SchemaNode node;
  node.type = d.optional<SchemaType>("type");
  node.description = d.optional<std::string>("description");
  node.xRisk = d.optional<RiskLevel>("x-risk");
  node.properties = d.optional<std::map<std::string, SchemaNode>>("properties");
  node.required = d.optional<std::vector<std::string>>("required");
  node.enumValues = d.optional<std::vector<JSONValue>>("enum");
  node.minimum = d.optional<double>("minimum");
  node.maximum = d.optional<double>("maximum");
  node.minLength = d.optional<std::int64_t>("minLength");
  node.maxLength = d.optional<std::int64_t>("maxLength");
  node.pattern = d.optional<std::string>("pattern");
  node.items = d.optional<SchemaBox>("items");
  node.defaultValue = d.optional<JSONValue>("default");
  node.additionalProperties = d.optional<bool>("additionalProperties");
  return node;
}

namespace {

void collectDocumentationViolations(const SchemaNode& node, const std::string& path,
                                    std::vector<SchemaViolation>& out) {
  if (node.properties) {
    for (const auto& [key, child] : *node.properties) {
      std::string childPath = path + "." + key;
      if (trimSpaceSeparators(child.description.value_or(std::string())).empty()) {
        out.push_back(
            {childPath, "doc.description", "todo campo de configuración exige description"});
      }
      if (!child.xRisk) {
        out.push_back({childPath, "doc.x-risk",
                       "todo campo de configuración exige x-risk (safe|disruptive|dangerous)"});
      }
      collectDocumentationViolations(child, childPath, out);
    }
  }
  // "[]" names every element at once: the schema has one node for them all.
  if (node.items) collectDocumentationViolations(node.items->value(), path + "[]", out);
}

}  // namespace

std::vector<SchemaViolation> SchemaNode::configDocumentationViolations(
    std::string_view path) const {
  std::vector<SchemaViolation> out;
  collectDocumentationViolations(*this, std::string(path), out);
  return out;
}

}  // namespace tarskel
