// Arbitrary bytes split at the first NUL (else the first newline) into a
// schema document and a value document. Whatever decodes is validated and
// checked for documentation; nothing may crash, hang or lose a field between
// encoding and decoding.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

using namespace tarskel;

namespace {

std::pair<std::string_view, std::string_view> split(std::string_view input) {
  std::size_t at = input.find('\0');
  if (at == std::string_view::npos) at = input.find('\n');
  if (at == std::string_view::npos) return {input, input};
  return {input.substr(0, at), input.substr(at + 1)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [schemaText, valueText] =
      split(std::string_view(reinterpret_cast<const char*>(data), size));

  SchemaNode schema;
  try {
    schema = TarskelJSON::decoder().decode<SchemaNode>(schemaText);
  } catch (const DecodingError&) {
    return 0;
  }

  // A value that is no JSON still exercises the string rules as text.
  JSONValue value;
  try {
    value = TarskelJSON::decoder().decode<JSONValue>(valueText);
  } catch (const DecodingError&) {
    value = JSONValue(std::string(valueText));
  }

  for (const SchemaViolation& v : schema.validate(value, "$")) (void)v.description();
  (void)schema.configDocumentationViolations("configSchema");

  const std::string encoded = TarskelJSON::canonicalEncoder().encode(schema);
  if (!(TarskelJSON::decoder().decode<SchemaNode>(encoded) == schema)) __builtin_trap();
  return 0;
}
