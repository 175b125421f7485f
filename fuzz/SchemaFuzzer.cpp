// Arbitrary bytes split at the first NUL (else the first newline) into a
// schema document and a value document. Whatever decodes is validated and
// checked for documentation; nothing may crash, hang or lose a field between
// encoding and decoding.

#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::string_view input = fuzz::text(data, size);
  std::size_t at = input.find('\0');
  if (at == std::string_view::npos) at = input.find('\n');
  const std::string_view schemaText = input.substr(0, at);
  const std::string_view valueText = at == std::string_view::npos ? input : input.substr(at + 1);

  const auto schema = fuzz::tryDecode<SchemaNode>(schemaText);
  if (!schema) return 0;
  // A value that is no JSON still exercises the string rules as text.
  const JSONValue value =
      fuzz::tryDecode<JSONValue>(valueText).value_or(JSONValue(std::string(valueText)));
  for (const SchemaViolation& v : schema->validate(value, "$")) (void)v.description();
  (void)schema->configDocumentationViolations("configSchema");
  fuzz::requireRoundTrip(*schema);
  return 0;
}
