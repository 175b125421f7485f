#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

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

// schema | value | each finding, in order. JSON escapes spell the characters
// that matter: é precomposed (\u00e9) or combining (e\u0301), a ZWJ pair;
// a path names a key as the value spells it ("café" below ends in U+0301).
TEST(SchemaNodeTest, ValidateRules) {
  for (const testing::Row& row : testing::rows(R"(
{} | null
# A type mismatch is the only finding for its value.
{"type":"object","required":["a"]} | [] | $: [type] se esperaba object, llegó array
{"type":"integer","minimum":1} | 1.5 | $: [type] se esperaba integer, llegó number
{"type":"integer"} | 9007199254740992 | $: [type] se esperaba integer, llegó number
{"type":"integer"} | 1.0
{"type":"number"} | 3
{"type":"string","enum":["x"]} | null | $: [type] se esperaba string, llegó null
# Enum compares JSON values and does not stop the check.
{"enum":[1,"a"]} | 1.0
{"enum":[1,"a"]} | 2 | $: [enum] valor fuera del conjunto admitido (2 opciones)
{"enum":["caf\u00e9"]} | "cafe\u0301"
{"type":"string","enum":["a"],"minLength":2} | "b" | $: [enum] valor fuera del conjunto admitido (1 opciones) | $: [minLength] largo 1 < mínimo 2
# Inclusive bounds, numbers shown with a fraction.
{"type":"integer","minimum":1} | 0 | $: [minimum] 0.0 < mínimo 1.0
{"minimum":1,"maximum":1} | 1
{"maximum":10} | 12.5 | $: [maximum] 12.5 > máximo 10.0
{"minimum":0.5,"maximum":0.25} | 0.3 | $: [minimum] 0.3 < mínimo 0.5 | $: [maximum] 0.3 > máximo 0.25
# Objects: missing and undeclared members.
{"required":["a"]} | {"a":null}
{"required":["a","b","a"]} | {"b":1} | $.a: [required] campo requerido ausente | $.a: [required] campo requerido ausente
{"required":["a"]} | 5
{"additionalProperties":false} | {"a":1}
{"properties":{},"additionalProperties":false} | {"a":1} | $.a: [additionalProperties] campo no declarado en el schema
{"properties":{"caf\u00e9":{"type":"string"}},"additionalProperties":false} | {"cafe\u0301":1} | $.café: [type] se esperaba string, llegó integer
# Paths of members and elements.
{"properties":{"t":{"items":{"properties":{"name":{"type":"string"}}}}}} | {"t":[{"name":"a"},{"name":3}]} | $.t[1].name: [type] se esperaba string, llegó integer
{"items":{"items":{"maximum":1}}} | [[0],[0,2]] | $[1][1]: [maximum] 2.0 > máximo 1.0
# Patterns: ICU syntax, unanchored search, and ICU's $ before one final line terminator.
{"pattern":"b"} | "abc"
{"pattern":"^b$"} | "abc" | $: [pattern] no coincide con /^b$/
{"pattern":"("} | "abc" | $: [pattern] el pattern del schema es inválido: /(/
{"pattern":"("} | 5
{"pattern":"^\\p{Lu}\\w+$"} | "\u00c1rbol"
{"pattern":"^b$"} | "b\n"
{"pattern":"^b$"} | "b\n\n" | $: [pattern] no coincide con /^b$/
# Lengths in user-perceived characters.
{"maxLength":0} | "e\u0301" | $: [maxLength] largo 1 > máximo 0
{"maxLength":0} | "\ud83d\udc68\u200d\ud83d\udc69" | $: [maxLength] largo 1 > máximo 0
{"maxLength":0} | "a\r\nb" | $: [maxLength] largo 3 > máximo 0
{"maxLength":0} | "\n\r" | $: [maxLength] largo 2 > máximo 0
{"minLength":5,"maxLength":1,"pattern":"z"} | "abc" | $: [minLength] largo 3 < mínimo 5 | $: [maxLength] largo 3 > máximo 1 | $: [pattern] no coincide con /z/
)")) {
    EXPECT_EQ(findings(row[0], row[1]),
              std::vector<std::string>(row.cells.begin() + 2, row.cells.end()))
        << row.line;
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

// schema | the error that reading it gives
TEST(SchemaNodeTest, DecodingRefusesMalformedSchemas) {
  for (const testing::Row& row : testing::rows(R"(
{"type":"str"} | dataCorrupted en type: valor desconocido: "str"
{"x-risk":"low"} | dataCorrupted en x-risk: valor desconocido: "low"
{"additionalProperties":{}} | typeMismatch en additionalProperties: se esperaba boolean, llegó object
{"minLength":1.5} | dataCorrupted en minLength: se esperaba un entero, llegó 1.5
{"properties":[]} | typeMismatch en properties: se esperaba object, llegó array
{"properties":{"a":{"type":"nope"}}} | dataCorrupted en properties.a.type: valor desconocido: "nope"
[] | typeMismatch en <raíz>: se esperaba object, llegó array
)")) {
    EXPECT_EQ(testing::decodingError<SchemaNode>(row[0]), row[1]) << row[0];
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

// schema | each finding, in order ("d" and "r": description and x-risk missing)
TEST(SchemaNodeTest, DocumentationCheckCoversEveryDeclaredFieldInKeyOrder) {
  const std::string d = ": [doc.description] todo campo de configuración exige description";
  const std::string r =
      ": [doc.x-risk] todo campo de configuración exige x-risk (safe|disruptive|dangerous)";
  for (const testing::Row& row : testing::rows(R"(
{}
{"description":"","items":{}}
{"properties":{"a":{"description":"\u3000\u00a0","x-risk":"safe"}}} | configSchema.a d
{"properties":{"a":{"description":"\n","x-risk":"safe"}}}
{"properties":{"b":{"description":"x","x-risk":"safe","properties":{"c":{"x-risk":"safe"}}},"a":{}}} | configSchema.a d | configSchema.a r | configSchema.b.c d
{"properties":{"list":{"description":"d","x-risk":"safe","items":{"properties":{"x":{}}}}}} | configSchema.list[].x d | configSchema.list[].x r
)")) {
    SCOPED_TRACE(row.line);
    std::vector<std::string> expected;
    for (auto cell = row.cells.begin() + 1; cell != row.cells.end(); ++cell)
      expected.push_back(cell->substr(0, cell->size() - 2) + (cell->ends_with(" d") ? d : r));
    EXPECT_EQ(descriptions(schema(row[0]).configDocumentationViolations("configSchema")), expected);
  }
}

}  // namespace
}  // namespace tarskel
