#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

namespace tarskel {
namespace {

SchemaNode schema(const std::string& text) {
  return TarskelJSON::decoder().decode<SchemaNode>(text);
}

std::vector<std::string> descriptions(const std::vector<SchemaViolation>& violations) {
  std::vector<std::string> out;
  for (const SchemaViolation& v : violations) out.push_back(v.description());
  return out;
}

std::vector<std::string> findings(const std::string& schemaText, const std::string& valueText) {
  return descriptions(
      schema(schemaText).validate(TarskelJSON::decoder().decode<JSONValue>(valueText), "$"));
}

TEST(SchemaNodeTest, ValidateRules) {
  const std::string typeInteger = "$: [type] se esperaba integer, llegó number";
  const std::string noMatch = "$: [pattern] no coincide con /^b$/";
  struct Case {
    const char* schema;
    const char* value;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"{}", "null", {}},
      // A type mismatch is the only finding for its value.
      {R"({"type":"object","required":["a"]})",
       "[]",
       {"$: [type] se esperaba object, llegó array"}},
      {R"({"type":"integer","minimum":1})", "1.5", {typeInteger}},
      {R"({"type":"integer"})", "1e300", {typeInteger}},
      {R"({"type":"integer"})", "9007199254740992", {typeInteger}},
      {R"({"type":"integer"})", "1.0", {}},
      {R"({"type":"number"})", "3", {}},
      {R"({"type":"string","enum":["x"]})", "null", {"$: [type] se esperaba string, llegó null"}},
      {R"({"type":"object"})", "3", {"$: [type] se esperaba object, llegó integer"}},
      // Enum compares JSON values and does not stop the check.
      {R"({"enum":[1,"a"]})", "1.0", {}},
      {R"({"enum":[1,"a"]})", "2", {"$: [enum] valor fuera del conjunto admitido (2 opciones)"}},
      {"{\"enum\":[\"caf\xC3\xA9\"]}", "\"cafe\xCC\x81\"", {}},
      {R"({"type":"string","enum":["a"],"minLength":2})",
       "\"b\"",
       {"$: [enum] valor fuera del conjunto admitido (1 opciones)",
        "$: [minLength] largo 1 < mínimo 2"}},
      // Inclusive bounds, numbers shown with a fraction.
      {R"({"type":"integer","minimum":1})", "0", {"$: [minimum] 0.0 < mínimo 1.0"}},
      {R"({"minimum":1,"maximum":1})", "1", {}},
      {R"({"maximum":10})", "12.5", {"$: [maximum] 12.5 > máximo 10.0"}},
      {R"({"minimum":0.5,"maximum":0.25})",
       "0.3",
       {"$: [minimum] 0.3 < mínimo 0.5", "$: [maximum] 0.3 > máximo 0.25"}},
      // Objects: missing and undeclared members.
      {R"({"required":["a"]})", R"({"a":null})", {}},
      {R"({"required":["a","b","a"]})",
       R"({"b":1})",
       {"$.a: [required] campo requerido ausente", "$.a: [required] campo requerido ausente"}},
      {R"({"required":["a"]})", "5", {}},
      {R"({"additionalProperties":false})", R"({"a":1})", {}},
      {R"({"properties":{},"additionalProperties":false})",
       R"({"a":1})",
       {"$.a: [additionalProperties] campo no declarado en el schema"}},
      {"{\"properties\":{\"caf\xC3\xA9\":{\"type\":\"string\"}},\"additionalProperties\":false}",
       "{\"cafe\xCC\x81\":1}",
       {"$.cafe\xCC\x81: [type] se esperaba string, llegó integer"}},
      // Paths of members and elements.
      {R"({"properties":{"t":{"items":{"properties":{"name":{"type":"string"}}}}}})",
       R"({"t":[{"name":"a"},{"name":3}]})",
       {"$.t[1].name: [type] se esperaba string, llegó integer"}},
      {R"({"items":{"items":{"maximum":1}}})",
       "[[0],[0,2]]",
       {"$[1][1]: [maximum] 2.0 > máximo 1.0"}},
      // Patterns: ICU syntax, unanchored search, and ICU's $ before one final line terminator.
      {R"({"pattern":"b"})", R"("abc")", {}},
      {R"({"pattern":"^b$"})", R"("abc")", {noMatch}},
      {R"({"pattern":"("})", R"("abc")", {"$: [pattern] el pattern del schema es inválido: /(/"}},
      {R"({"pattern":"("})", "5", {}},
      {R"({"pattern":"^\\p{Lu}\\w+$"})", "\"\xC3\x81rbol\"", {}},
      {R"({"pattern":"^b$"})", R"("b\n")", {}},
      {R"({"pattern":"^b$"})", R"("b\n\n")", {noMatch}},
      // Lengths in user-perceived characters: precomposed or combining, a flag, a ZWJ pair, CR LF.
      {R"({"maxLength":0})", "\"\xC3\xA9\"", {"$: [maxLength] largo 1 > máximo 0"}},
      {R"({"maxLength":0})", "\"e\xCC\x81\"", {"$: [maxLength] largo 1 > máximo 0"}},
      {R"({"maxLength":0})",
       "\"\xF0\x9F\x87\xAA\xF0\x9F\x87\xB8\"",
       {"$: [maxLength] largo 1 > máximo 0"}},
      {R"({"maxLength":0})",
       "\"\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\"",
       {"$: [maxLength] largo 1 > máximo 0"}},
      {R"({"maxLength":0})", R"("a\r\nb")", {"$: [maxLength] largo 3 > máximo 0"}},
      {R"({"maxLength":0})", R"("\n\r")", {"$: [maxLength] largo 2 > máximo 0"}},
      {R"({"minLength":5,"maxLength":1,"pattern":"z"})",
       R"("abc")",
       {"$: [minLength] largo 3 < mínimo 5", "$: [maxLength] largo 3 > máximo 1",
        "$: [pattern] no coincide con /z/"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + " against " + c.value);
    EXPECT_EQ(findings(c.schema, c.value), c.expected);
  }
}

// A search that runs past its time limit is a finding of its own, never a
// silent "no coincide" (here the string does match, by "!"); an honest pattern
// over a long string stays under the limit. Threads share the character
// iterator machinery and must not disturb one another.
TEST(SchemaNodeTest, PatternSearchIsBoundedAndValidationRunsOnSeveralThreads) {
  EXPECT_EQ(
      findings(R"({"pattern":"(a+)+b|!"})", "\"" + std::string(64, 'a') + "!\""),
      std::vector<std::string>{"$: [pattern] el pattern del schema tardó demasiado: /(a+)+b|!/"});
  std::string longList = "\"";
  for (int i = 0; i < 20000; ++i) longList += "word,";
  EXPECT_TRUE(findings(R"({"pattern":"^(?:[a-z]+,)*[a-z]+$"})", longList + "end\"").empty());

  const SchemaNode node =
      schema(R"({"items":{"type":"string","maxLength":1,"pattern":"^\\p{L}"}})");
  const JSONValue value(JSONValue::Array(200, JSONValue("\xC3\xA9x")));
  std::vector<std::size_t> counts(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < counts.size(); ++t) {
    threads.emplace_back([&, t] { counts[t] = node.validate(value, "$").size(); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t count : counts) EXPECT_EQ(count, 200u);
}

TEST(SchemaNodeTest, DecodingRefusesMalformedSchemas) {
  const char* bad[] = {R"({"type":"str"})",
                       R"({"x-risk":"low"})",
                       R"({"additionalProperties":{}})",
                       R"({"minLength":1.5})",
                       R"({"maxLength":"3"})",
                       R"({"properties":[]})",
                       R"({"properties":{"a":{"type":"nope"}}})",
                       R"({"items":{"x-risk":"SAFE"}})",
                       "[]"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    EXPECT_THROW(schema(text), DecodingError);
  }
}

TEST(SchemaNodeTest, JSONFormRoundTripsWithItsOwnKeys) {
  const std::string text =
      R"({"additionalProperties":false,"default":{"n":1},"description":"d","enum":[1,"a",null],)"
      R"("items":{"type":"string"},"maxLength":9,"maximum":2.5,"minLength":1,"minimum":-1,)"
      R"("pattern":"^a","properties":{"n":{"x-risk":"dangerous"}},"required":["n"],)"
      R"("type":"object","x-risk":"disruptive"})";
  const SchemaNode node = schema(text);
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(node), text);
  EXPECT_EQ(schema(TarskelJSON::encoder().encode(node)), node);
  // A null reads as absent, and keys of fuller schema languages are ignored.
  EXPECT_EQ(schema(R"({"type":null,"items":null,"format":"uri"})"), SchemaNode{});
}

TEST(SchemaNodeTest, DocumentationCheckCoversEveryDeclaredFieldInKeyOrder) {
  struct Case {
    const char* schema;
    std::vector<std::string> expected;
  };
  const std::string needsDescription =
      "[doc.description] todo campo de configuración exige description";
  const std::string needsRisk =
      "[doc.x-risk] todo campo de configuración exige x-risk (safe|disruptive|dangerous)";
  const Case cases[] = {
      {"{}", {}},
      {R"({"description":"","items":{}})", {}},
      {R"({"properties":{"a":{"description":" \t ","x-risk":"safe"}}})",
       {"configSchema.a: " + needsDescription}},
      {"{\"properties\":{\"a\":{\"description\":\"\xE3\x80\x80\xC2\xA0\",\"x-risk\":\"safe\"}}}",
       {"configSchema.a: " + needsDescription}},
      {R"({"properties":{"a":{"description":"\n","x-risk":"safe"}}})", {}},
      {R"({"properties":{"b":{"description":"x","x-risk":"safe","properties":{"c":{"x-risk":"safe"}}},"a":{}}})",
       {"configSchema.a: " + needsDescription, "configSchema.a: " + needsRisk,
        "configSchema.b.c: " + needsDescription}},
      {R"({"properties":{"list":{"description":"d","x-risk":"safe","items":{"properties":{"x":{}}}}}})",
       {"configSchema.list[].x: " + needsDescription, "configSchema.list[].x: " + needsRisk}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.schema);
    EXPECT_EQ(descriptions(schema(c.schema).configDocumentationViolations("configSchema")),
              c.expected);
  }
}

}  // namespace
}  // namespace tarskel
