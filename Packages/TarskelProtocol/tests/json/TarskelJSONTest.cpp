#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

using testing::canonical;
using testing::decode;
using testing::decodingError;
using testing::json;

// value | canonical bytes (every layout reads back exactly) | with a fraction
TEST(JSONNumberLayout, MatchesTheTable) {
  for (const testing::Row& row : testing::rows(R"(
0 | 0 | 0.0
-0.0 | -0 | -0.0
1.5 | 1.5 | 1.5
0.0001 | 0.0001 | 0.0001
0.00001 | 1e-05 | 1e-05
1234567890123 | 1234567890123 | 1234567890123.0
9007199254740992 | 9007199254740992 | 9007199254740992.0
9007199254740994 | 9.007199254740994e+15 | 9.007199254740994e+15
1e16 | 1e+16 | 1e+16
5e-324 | 5e-324 | 5e-324
1.7976931348623157e308 | 1.7976931348623157e+308 | 1.7976931348623157e+308
)")) {
    SCOPED_TRACE(row.line);
    const double value = std::strtod(row[0].c_str(), nullptr);
    EXPECT_EQ(canonical(JSONValue(value)), row[1]);
    EXPECT_EQ(decode(row[1]).numberValue(), value);
    EXPECT_EQ(formatNumberWithFraction(value), row[2]);
  }
}

// Regression: string bytes were copied unchecked, so a file name that is not
// UTF-8 sealed into a manifest no reader takes.
TEST(JSONEncoding, NonFiniteNumbersAndInvalidUTF8FailUnderEveryEncoder) {
  const double inf = std::numeric_limits<double>::infinity();
  for (const JSONValue& bad :
       {JSONValue(inf), JSONValue(-inf), JSONValue(std::nan("")), JSONValue("a\xff"),
        JSONValue("\xed\xa0\x80"), JSONValue(JSONObject{{"\xc0\xaf", JSONValue(1)}})}) {
    JSONValue nested(JSONValue::Array{JSONValue(1), JSONValue(JSONObject{{"x", bad}})});
    EXPECT_THROW(TarskelJSON::canonicalEncoder().encode(nested), EncodingError);
    EXPECT_THROW(TarskelJSON::encoder().encode(nested), EncodingError);
  }
  EXPECT_EQ(escapedBytes("a\xff"
                         "b\\\n\xc3\xa9"),
            "a\\xffb\\x5c\\x0a\xc3\xa9");
}

TEST(JSONEncoding, StringEscapes) {
  struct Case {
    std::string text;
    const char* bytes;
  } cases[] = {{"a/b\"c", R"("a\/b\"c")"},
               {"back\\slash", R"("back\\slash")"},
               {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
               {std::string("\x00\x01\x1f", 3), R"("\u0000\u0001\u001f")"},
               {"\x7f", "\"\x7f\""},
               {"\xe2\x80\xa8\xe2\x80\xa9", "\"\xe2\x80\xa8\xe2\x80\xa9\""},  // U+2028, U+2029 pass
               {"e\xcc\x81", "\"e\xcc\x81\""},  // no normalisation on writing
               {"", R"("")"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(canonical(JSONValue(c.text)), c.bytes);
    EXPECT_EQ(*decode(c.bytes).stringValue(), c.text);
  }
}

// input | canonical bytes
TEST(JSONEncoding, CanonicalBytes) {
  for (const testing::Row& row : testing::rows(R"(
[1,1.0,1e0] | [1,1,1]
{"b":1,"a":{"d":null,"c":[]}} | {"a":{"c":[],"d":null},"b":1}
 { }  | {}
{"B":1,"a":2,"_":3,"1":4,"é":5,"z":6} | {"1":4,"B":1,"_":3,"a":2,"z":6,"é":5}
123456789012345678901234567890 | 1.2345678901234568e+29
-9223372036854775808 | -9.223372036854776e+18
"\u00e9\ud83d\ude00" | "é😀"
{"a":1,"d":"2026-01-02","z":[-0,0],"a":2} | {"a":2,"d":"2026-01-02","z":[-0,0]}
)")) {
    EXPECT_EQ(canonical(decode(row[0])), row[1]) << row.line;
  }
}

// text | where it first breaks, line:column ("-": no position, the record
// layer refuses it by its coding path). The check without a tree agrees.
TEST(JSONDecoding, RefusesWhatIsNotOneDocumentSayingWhere) {
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"", "1:1"}, {"[1,]", "1:4"}, {"[1,", "1:4"}, {"{", "1:2"}, {"{\"a\":1}}", "1:8"},
      {"01", "1:1"}, {"+1", "1:1"}, {"tru", "1:1"}, {"{a:1}", "1:2"}, {"\"abc", "1:5"},
      {"{\"a\" 1}", "1:6"}, {"\"\\x\"", "1:5"}, {"\"\\ud800\"", "1:9"}, {"\"\\udc00\"", "1:9"},
      {"\"\xc3\x28\"", "1:2"}, {"\xef\xbb\xbf{}", "1:1"}, {"[\n \"\xc3\xa9\x01\"]", "2:4"},
      {"{\"k\":[\"\\udc00\"]}", "1:15"}, {"1e999", "-"}};
  // clang-format on
  for (const auto& [text, where] : cases) {
    SCOPED_TRACE(text);
    try {
      decode(text);
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted) << e.what();
      const auto& at = e.position();
      EXPECT_EQ(at ? std::to_string(at->line) + ":" + std::to_string(at->column) : "-", where);
    }
    EXPECT_EQ(TarskelJSON::decoder().isWellFormed(text), std::string_view(text) == "1e999");
  }
}

TEST(JSONDecoding, NestingBeyondTheLimitIsAnError) {
  const std::size_t limit = JSONDecoder::kMaxDepth;
  std::string ok = std::string(limit, '[') + std::string(limit, ']');
  EXPECT_NO_THROW(decode(ok));
  std::string deep = std::string(limit + 1, '[') + std::string(limit + 1, ']');
  EXPECT_NE(decodingError(deep).find("anidamiento"), std::string::npos);
  EXPECT_NE(decodingError(std::string(1 << 20, '[')), "decoded");  // no stack overflow, no hang
}

struct Probe {
  std::string name;
  JSONValue payload;
  std::optional<std::int64_t> count;

  void encode(KeyedEncoder& e) const {
    e.required("name", name);
    e.required("payload", payload);
    e.optional("count", count);
  }
  static Probe decode(const KeyedDecoder& d) {
    return Probe{d.required<std::string>("name"), d.required<JSONValue>("payload"),
                 d.optional<std::int64_t>("count")};
  }
};

// a | b | "=" when equal: numbers by value, strings and keys by canonical
// equivalence (é precomposed and decomposed), objects in any key order.
TEST(JSONValueRules, EqualityTypeNamesAndSubscript) {
  for (const testing::Row& row : testing::rows(R"(
1 | 1.0 | =
0.0 | -0.0 | =
1 | true | ≠
"\u00e9" | "e\u0301" | =
{"a":1,"b":[true,null]} | {"b":[true,null],"a":1.0} | =
[1,2] | [2,1] | ≠
[1] | [1,1] | ≠
{"a":1} | {"a":1,"b":1} | ≠
{"caf\u00e9":1} | {"cafe\u0301":1} | =
)")) {
    EXPECT_EQ(decode(row[0]) == decode(row[1]), row[2] == "=") << row.line;
  }
  EXPECT_FALSE(JSONValue(std::nan("")) == JSONValue(std::nan("")));
  EXPECT_EQ(JSONValue(nullptr), JSONValue());
  // Keys are told apart by canonical equivalence, in lookups too.
  EXPECT_NE(decode("{\"caf\xc3\xa9\":1}")["cafe\xcc\x81"], nullptr);
  EXPECT_NE(decode("{\"\xe2\x84\xaa\":1}")["K"], nullptr);  // KELVIN SIGN decomposes to K
  EXPECT_EQ(decode("{\"K\":1,\"\xe2\x84\xaa\":2}").objectValue()->size(), 1u);

  for (const testing::Row& row : testing::rows(R"(
0.5 | number
3 | integer
-0.0 | integer
9007199254740992 | number
9007199254740991 | integer
)")) {
    EXPECT_EQ(decode(row[0]).typeName(), row[1]) << row.line;
  }
  EXPECT_STREQ(JSONValue(std::numeric_limits<double>::infinity()).typeName(), "number");
  JSONValue object = decode(R"({"a":null})");
  ASSERT_NE(object["a"], nullptr);
  EXPECT_TRUE(object["a"]->isNull());
  EXPECT_EQ(object["b"], nullptr);
  for (const char* other : {"null", "\"a\"", "[\"a\"]", "1", "true"})
    EXPECT_EQ(decode(other)["a"], nullptr) << other;
  EXPECT_TRUE(decode("true").boolValue().value());
  EXPECT_FALSE(decode("\"1\"").numberValue());
}

TEST(JSONRecordCoding, RequiredOptionalNullAndUnknownKeys) {
  const JSONDecoder decoder = TarskelJSON::decoder();
  Probe p = decoder.decode<Probe>(R"({"name":"n","payload":null,"count":null,"extra":[1]})");
  EXPECT_EQ(canonical(p), R"({"name":"n","payload":null})");

  const std::pair<const char*, const char*> failures[] = {
      {R"({"payload":1})", "keyNotFound en <raíz>: "},
      {R"({"name":null,"payload":1})", "valueNotFound en name: "},
      {R"({"name":1,"payload":1})", "typeMismatch en name: "},
      {R"({"name":"n","payload":1,"count":1.5})", "dataCorrupted en count: "},
      {R"({"name":"n","payload":1,"count":9223372036854775808})", "dataCorrupted en count: "},
      {R"([1])", "typeMismatch en <raíz>: "},
      {R"({"name":"n","payload":{"deep":[1e999]}})",
       "dataCorrupted en payload: Valor JSON no reconocido"}};
  for (const auto& [text, start] : failures)
    EXPECT_TRUE(decodingError<Probe>(text).starts_with(start)) << decodingError<Probe>(text);
}

TEST(JSONRecordCoding, SixtyFourBitIntegersAreExact) {
  const JSONDecoder decoder = TarskelJSON::decoder();
  for (const char* text :
       {"9223372036854775807", "-9223372036854775808", "9007199254740993", "-1", "0"}) {
    EXPECT_EQ(canonical(decoder.decode<std::int64_t>(text)), text);
  }
  EXPECT_EQ(decoder.decode<Probe>(R"({"name":"n","payload":0,"count":1e2})").count, 100);
  EXPECT_EQ(decoder.decode<std::uint64_t>("18446744073709551615"), UINT64_MAX);
  EXPECT_THROW(decoder.decode<std::uint64_t>("-1"), DecodingError);
  EXPECT_THROW(decoder.decode<std::int32_t>("2147483648"), DecodingError);
}

TEST(JSONRecordCoding, DatesAndBytes) {
  const JSONDecoder decoder = TarskelJSON::decoder();
  // 2026-11-15T20:19:34Z is 1794773974 in Unix time.
  EXPECT_EQ(canonical(Date::fromUnixTime(1794773974.75)), "\"2026-11-15T20:19:34Z\"");
  EXPECT_EQ(decoder.decode<Date>("\"2026-11-15T20:19:34Z\"").unixTime(), 1794773974.0);
  EXPECT_EQ(canonical(Date{0}), "\"2001-01-01T00:00:00Z\"");
  EXPECT_EQ(canonical(Date{-0.5}), "\"2000-12-31T23:59:59Z\"");
  for (const char* bad : {"\"2026-11-15T20:19:34.5Z\"", "\"2026-11-15T20:19:34+00:00\"",
                          "\"2026-02-30T00:00:00Z\"", "1794773974"}) {
    EXPECT_THROW(decoder.decode<Date>(bad), DecodingError) << bad;
  }
  EXPECT_EQ(decoder.decode<Date>("\"2024-02-29T23:59:59Z\"").unixTime(), 1709251199.0);

  EXPECT_EQ(canonical(Bytes{"hi?"}), "\"aGk\\/\"");
  EXPECT_EQ(decoder.decode<Bytes>("\"aGk\\/\"").data, "hi?");
}

// target | patch | result
TEST(MergePatchTest, ApplyFollowsTheRFCExamplesAndOurEdgeCases) {
  for (const testing::Row& row : testing::rows(R"(
# The worked examples of RFC 7386, appendix A.
{"a":"b"} | {"a":"c"} | {"a":"c"}
{"a":"b"} | {"b":"c"} | {"a":"b","b":"c"}
{"a":"b"} | {"a":null} | {}
{"a":{"b":"c"}} | {"a":{"b":"d","c":null}} | {"a":{"b":"d"}}
{"a":"b"} | ["c"] | ["c"]
{"a":"foo"} | null | null
{"e":null} | {"a":1} | {"a":1,"e":null}
[1,2] | {"a":"b","c":null} | {"a":"b"}
{} | {"a":{"bb":{"ccc":null}}} | {"a":{"bb":{}}}
# Removing an absent key is no change.
{"a":1} | {"z":null} | {"a":1}
)")) {
    EXPECT_EQ(canonical(MergePatch::apply(json(row[1]), json(row[0]))), row[2]) << row.line;
  }
}

// from | to | the smallest patch the format can say
TEST(MergePatchTest, DiffGivesTheSmallestPatchTheFormatCanSay) {
  for (const testing::Row& row : testing::rows(R"(
{"a":[1,2]} | {"a":[1,3]} | {"a":[1,3]}
{"a":1,"b":2} | {"a":1} | {"b":null}
{"x":{"y":1,"z":2}} | {"x":{"y":1}} | {"x":{"z":null}}
1 | 1 | {}
{"a":1} | null | null
{"a":0} | {"a":-0.0} | {}
{"a":1} | {"a":null} | {"a":null}
{"a":1} | {"a":{"b":null}} | {"a":{"b":null}}
{"a":{"b":1}} | {"a":{"b":1},"c":{}} | {"c":{}}
{"caf\u00e9":1} | {"cafe\u0301":1} | {}
)")) {
    EXPECT_EQ(canonical(MergePatch::diff(json(row[0]), json(row[1]))), row[2]) << row.line;
  }
}

TEST(MergePatchTest, AffectedPathsAreDepthFirstInKeyOrder) {
  const struct {
    const char *patch, *prefix;
    std::vector<std::string> expected;
  } cases[] = {{R"({"b":1,"a":{"d":null,"c":[1]}})", "cfg", {"cfg.a.c", "cfg.a.d", "cfg.b"}},
               {"3", "cfg", {"cfg"}},
               {R"({"a":{"b":{}},"c":null})", "cfg", {"cfg.c"}},
               {R"({"a":1})", "", {".a"}},
               {R"({"x.y":1,"B":2,"a":3})", "r", {"r.B", "r.a", "r.x.y"}}};
  for (const auto& c : cases)
    EXPECT_EQ(MergePatch::affectedPaths(json(c.patch), c.prefix), c.expected) << c.patch;
}

}  // namespace
}  // namespace tarskel
