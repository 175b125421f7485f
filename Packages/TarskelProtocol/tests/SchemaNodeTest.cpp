#include "tarskel/protocol/SchemaNode.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "tarskel/protocol/TarskelJSON.hpp"

namespace tarskel {
namespace {

SchemaNode schema(const std::string& text) {
  return TarskelJSON::decoder().decode<SchemaNode>(text);
}

JSONValue json(const std::string& text) { return TarskelJSON::decoder().decode<JSONValue>(text); }

std::vector<std::string> descriptions(const std::vector<SchemaViolation>& violations) {
  std::vector<std::string> out;
  for (const SchemaViolation& v : violations) out.push_back(v.description());
  return out;
}

std::vector<std::string> findings(const std::string& schemaText, const std::string& valueText) {
  return descriptions(schema(schemaText).validate(json(valueText), "$"));
}

struct RuleCase {
  const char* schema;
  const char* value;
  std::vector<std::string> expected;
};

void runRuleCases(const std::vector<RuleCase>& cases) {
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + " against " + c.value);
    EXPECT_EQ(findings(c.schema, c.value), c.expected);
  }
}

TEST(SchemaNodeTest, EmptyNodeAcceptsEverything) {
  for (const char* value : {"null", "true", "0", "-1.5", "\"\"", "[1,[2]]", R"({"a":{"b":null}})"}) {
    SCOPED_TRACE(value);
    EXPECT_TRUE(findings("{}", value).empty());
  }
}

TEST(SchemaNodeTest, TypeMismatchIsTheOnlyFindingForThatValue) {
  runRuleCases({
      {R"({"type":"object","required":["a"]})", "[]",
       {"$: [type] se esperaba object, llegó array"}},
      {R"({"type":"integer","minimum":1})", "1.5", {"$: [type] se esperaba integer, llegó number"}},
      {R"({"type":"integer"})", "1e300", {"$: [type] se esperaba integer, llegó number"}},
      {R"({"type":"integer"})", "9007199254740992", {"$: [type] se esperaba integer, llegó number"}},
      {R"({"type":"integer"})", "9007199254740991", {}},
      {R"({"type":"integer"})", "1.0", {}},
      {R"({"type":"integer"})", "-0.0", {}},
      {R"({"type":"number"})", "3", {}},
      {R"({"type":"string"})", "3", {"$: [type] se esperaba string, llegó integer"}},
      {R"({"type":"string","enum":["x"]})", "null", {"$: [type] se esperaba string, llegó null"}},
      {R"({"type":"boolean"})", "\"true\"", {"$: [type] se esperaba boolean, llegó string"}},
      {R"({"type":"array"})", "{}", {"$: [type] se esperaba array, llegó object"}},
      {R"({"type":"object"})", "false", {"$: [type] se esperaba object, llegó boolean"}},
  });
}

TEST(SchemaNodeTest, EnumComparesAsJSONValuesAndDoesNotStopTheCheck) {
  runRuleCases({
      {R"({"enum":[1,"a"]})", "1.0", {}},
      {R"({"enum":[1,"a"]})", "2", {"$: [enum] valor fuera del conjunto admitido (2 opciones)"}},
      {R"({"enum":[null]})", "null", {}},
      {R"({"enum":[]})", "null", {"$: [enum] valor fuera del conjunto admitido (0 opciones)"}},
      {R"({"enum":[{"a":[1]}]})", R"({"a":[1.0]})", {}},
      {"{\"enum\":[\"caf\xC3\xA9\"]}", "\"cafe\xCC\x81\"", {}},
      {R"({"type":"string","enum":["a"],"minLength":2})", "\"b\"",
       {"$: [enum] valor fuera del conjunto admitido (1 opciones)", "$: [minLength] largo 1 < mínimo 2"}},
  });
}

TEST(SchemaNodeTest, NumberBoundsAreInclusiveAndShowAFraction) {
  runRuleCases({
      {R"({"type":"integer","minimum":1})", "0", {"$: [minimum] 0.0 < mínimo 1.0"}},
      {R"({"minimum":1})", "1", {}},
      {R"({"maximum":10})", "12.5", {"$: [maximum] 12.5 > máximo 10.0"}},
      {R"({"maximum":10})", "10", {}},
      {R"({"minimum":0.5,"maximum":0.25})", "0.3",
       {"$: [minimum] 0.3 < mínimo 0.5", "$: [maximum] 0.3 > máximo 0.25"}},
      {R"({"minimum":0})", "-0.00001", {"$: [minimum] -1e-05 < mínimo 0.0"}},
      {R"({"minimum":1})", "\"0\"", {}},
  });
}

TEST(SchemaNodeTest, ObjectRulesReportMissingAndUndeclaredMembers) {
  runRuleCases({
      {R"({"required":["a"]})", R"({"a":null})", {}},
      {R"({"required":["a","b","a"]})", R"({"b":1})",
       {"$.a: [required] campo requerido ausente", "$.a: [required] campo requerido ausente"}},
      {R"({"required":["a"]})", "5", {}},
      {R"({"additionalProperties":false})", R"({"a":1})", {}},
      {R"({"properties":{},"additionalProperties":false})", R"({"a":1})",
       {"$.a: [additionalProperties] campo no declarado en el schema"}},
      {R"({"properties":{"b":{}},"additionalProperties":true})", R"({"a":1})", {}},
      {R"({"properties":{"a b.c":{"type":"string"}}})", R"({"a b.c":1})",
       {"$.a b.c: [type] se esperaba string, llegó integer"}},
      {"{\"properties\":{\"caf\xC3\xA9\":{\"type\":\"string\"}},\"additionalProperties\":false}",
       "{\"cafe\xCC\x81\":1}", {"$.cafe\xCC\x81: [type] se esperaba string, llegó integer"}},
  });
}

TEST(SchemaNodeTest, PathsNameMembersAndElements) {
  runRuleCases({
      {R"({"properties":{"targets":{"items":{"properties":{"name":{"type":"string"}}}}}})",
       R"({"targets":[{"name":"a"},{"name":"b"},{"name":3}]})",
       {"$.targets[2].name: [type] se esperaba string, llegó integer"}},
      {R"({"items":{"items":{"maximum":1}}})", "[[0],[0,2]]", {"$[1][1]: [maximum] 2.0 > máximo 1.0"}},
      {R"({"items":{"type":"string"},"minimum":5})", "[1]", {"$[0]: [type] se esperaba string, llegó integer"}},
  });
}

TEST(SchemaNodeTest, ObjectMemberFindingsAreAllReported) {
  std::vector<SchemaViolation> found =
      schema(R"({"properties":{"a":{"type":"string"},"b":{"maximum":0}},"additionalProperties":false})")
          .validate(json(R"({"a":1,"b":2,"c":3})"), "$");
  std::vector<std::string> got = descriptions(found);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{
                     "$.a: [type] se esperaba string, llegó integer",
                     "$.b: [maximum] 2.0 > máximo 0.0",
                     "$.c: [additionalProperties] campo no declarado en el schema",
                 }));
}

TEST(SchemaNodeTest, StringLengthCountsUserPerceivedCharacters) {
  struct Case {
    const char* name;
    std::string text;
    int length;
  };
  const Case cases[] = {
      {"ascii", "abc", 3},
      {"precomposed e-acute", "\xC3\xA9", 1},
      {"e and combining acute", "e\xCC\x81", 1},
      {"flag of two regional indicators", "\xF0\x9F\x87\xAA\xF0\x9F\x87\xB8", 1},
      {"family joined by ZWJ",
       "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7", 1},
      {"CR LF is one character", "a\r\nb", 3},
      {"LF CR is two", "\n\r", 2},
      {"mixed", "x\xC3\xA9y\xF0\x9F\x98\x80", 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const SchemaNode node = schema(R"({"minLength":100,"maxLength":0})");
    std::vector<SchemaViolation> found = node.validate(JSONValue(c.text), "$");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].message, "largo " + std::to_string(c.length) + " < mínimo 100");
    EXPECT_EQ(found[1].message, "largo " + std::to_string(c.length) + " > máximo 0");
  }
}

TEST(SchemaNodeTest, PatternsAreSearchedUnanchoredWithICUSyntax) {
  runRuleCases({
      {R"({"pattern":"b"})", R"("abc")", {}},
      {R"({"pattern":"^b$"})", R"("abc")", {"$: [pattern] no coincide con /^b$/"}},
      {R"({"pattern":"("})", R"("abc")", {"$: [pattern] el pattern del schema es inválido: /(/"}},
      {R"({"pattern":"("})", "5", {}},
      {R"({"pattern":"^\\p{Lu}\\w+$"})", "\"\xC3\x81rbol\"", {}},
      // ICU's $ also matches before one final line terminator.
      {R"({"pattern":"^b$"})", R"("b\n")", {}},
      {R"({"pattern":"^b$"})", R"("b\r\n")", {}},
      {R"({"pattern":"^b$"})", R"("b\n\n")", {"$: [pattern] no coincide con /^b$/"}},
      {R"({"pattern":"^b$"})", R"("b\nc")", {"$: [pattern] no coincide con /^b$/"}},
      {R"({"minLength":5,"maxLength":1,"pattern":"z"})", R"("abc")",
       {"$: [minLength] largo 3 < mínimo 5", "$: [maxLength] largo 3 > máximo 1",
        "$: [pattern] no coincide con /z/"}},
  });
}

TEST(SchemaNodeTest, CatastrophicPatternGivesUpInsteadOfHanging) {
  const SchemaNode node = schema(R"({"pattern":"(a+)+$"})");
  const JSONValue value(std::string(64, 'a') + "!");
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::string> got = descriptions(node.validate(value, "$"));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(got, std::vector<std::string>{"$: [pattern] no coincide con /(a+)+$/"});
  // Without a limit this search would outlive the test run by years.
  EXPECT_LT(elapsed, std::chrono::seconds(20));
}

TEST(SchemaNodeTest, LongHonestInputStillMatchesWithinTheTimeLimit) {
  const SchemaNode node = schema(R"({"pattern":"^(?:[a-z]+,)*[a-z]+$"})");
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "word,";
  text += "end";
  EXPECT_TRUE(node.validate(JSONValue(text), "$").empty());
}

TEST(SchemaNodeTest, DecodingRefusesMalformedSchemas) {
  const char* bad[] = {
      R"({"type":"str"})",
      R"({"type":"Integer"})",
      R"({"x-risk":"low"})",
      R"({"additionalProperties":{}})",
      R"({"additionalProperties":"false"})",
      R"({"minLength":1.5})",
      R"({"maxLength":"3"})",
      R"({"properties":{"a":{"type":"nope"}}})",
      R"({"items":{"x-risk":"SAFE"}})",
      R"({"properties":[]})",
      R"({"required":"a"})",
      R"([])",
  };
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
  EXPECT_EQ(node.xRisk, RiskLevel::disruptive);
  ASSERT_TRUE(node.items);
  EXPECT_EQ(node.items->value().type, SchemaType::string);
  ASSERT_TRUE(node.enumValues);
  EXPECT_EQ(node.enumValues->size(), 3u);
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(node), text);
  EXPECT_EQ(schema(TarskelJSON::encoder().encode(node)), node);
}

TEST(SchemaNodeTest, NullAndUnknownKeysReadAsAbsent) {
  const SchemaNode node = schema(R"({"type":null,"items":null,"$comment":"x","format":"uri"})");
  EXPECT_EQ(node, SchemaNode{});
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(node), "{}");
}

TEST(SchemaNodeTest, BoxesCompareByTheirNodes) {
  SchemaNode a = schema(R"({"items":{"type":"string"}})");
  SchemaNode b = schema(R"({"items":{"type":"string"}})");
  SchemaNode c = schema(R"({"items":{"type":"number"}})");
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
}

TEST(SchemaNodeTest, DocumentationCheckCoversEveryDeclaredFieldInKeyOrder) {
  struct Case {
    const char* schema;
    std::vector<std::string> expected;
  };
  const std::string needsDescription = "[doc.description] todo campo de configuración exige description";
  const std::string needsRisk = "[doc.x-risk] todo campo de configuración exige x-risk (safe|disruptive|dangerous)";
  const Case cases[] = {
      {"{}", {}},
      {R"({"description":"","items":{}})", {}},
      {R"({"properties":{"a":{"description":"ok","x-risk":"safe"}}})", {}},
      {R"({"properties":{"a":{"description":" \t ","x-risk":"safe"}}})",
       {"configSchema.a: " + needsDescription}},
      {"{\"properties\":{\"a\":{\"description\":\"\xE3\x80\x80\xC2\xA0\",\"x-risk\":\"safe\"}}}",
       {"configSchema.a: " + needsDescription}},
      {R"({"properties":{"a":{"description":"\n","x-risk":"safe"}}})", {}},
      {R"({"properties":{"a":{"description":"x"}}})", {"configSchema.a: " + needsRisk}},
      {R"({"properties":{"b":{"description":"x","x-risk":"safe","properties":{"c":{"x-risk":"safe"}}},"a":{}}})",
       {"configSchema.a: " + needsDescription, "configSchema.a: " + needsRisk,
        "configSchema.b.c: " + needsDescription}},
      {R"({"properties":{"list":{"description":"d","x-risk":"safe","items":{"properties":{"x":{}}}}}})",
       {"configSchema.list[].x: " + needsDescription, "configSchema.list[].x: " + needsRisk}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.schema);
    EXPECT_EQ(descriptions(schema(c.schema).configDocumentationViolations("configSchema")),
              c.expected);
  }
}

}  // namespace
}  // namespace tarskel
