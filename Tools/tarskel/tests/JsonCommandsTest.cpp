#include <gtest/gtest.h>
#include <sys/resource.h>

#include "ToolRunner.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool::testing {
namespace {

TEST(JsonCommands, CanonicalPatchAndDiff) {
  ToolRun run = runTool({"json", "canonical", "-"}, R"({"b":[1.0,"a/b"],"a":{"d":null,"c":1e-5}})");
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, R"({"a":{"c":1e-05,"d":null},"b":[1,"a\/b"]})");

  namespace fs = std::filesystem;
  const fs::path from = fs::temp_directory_path() / ("tarskel-json-" + std::to_string(::getpid()));
  std::ofstream(from) << R"({"a":1,"b":{"c":2,"d":3},"e":[1]})";
  const std::string to = R"({"a":1,"b":{"c":2},"e":[2],"f":true})";
  ToolRun diff = runTool({"json", "diff", from.string(), "-"}, to);
  EXPECT_EQ(diff.out, R"({"b":{"d":null},"e":[2],"f":true})") << diff.err;
  ToolRun patch = runTool({"json", "patch", "-", from.string()}, diff.out);
  EXPECT_EQ(patch.out, R"({"a":1,"b":{"c":2},"e":[2],"f":true})") << patch.err;
  fs::remove(from);
}

// Regression: syntax errors had no position, and trailing garbage was
// reported in the decoder's words only.
TEST(JsonCommands, BadInputIsExitTwoWithLineAndColumn) {
  const struct {
    std::string input;
    std::string err;
  } cases[] = {
      {"{\"a\":1}}", "tarskel: standard input:1:8: unexpected content after the JSON document\n"},
      {"{\n  \"é\": tru }", "tarskel: standard input:2:8: unexpected 't'\n"},
      {"[1,", "tarskel: standard input:1:4: unexpected end of the document\n"},
      {"[\"a\x01\"]", "tarskel: standard input:1:4: control character in a string\n"},
      {"1e999", "tarskel: standard input: dataCorrupted en <raíz>: Valor JSON no reconocido\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    ToolRun run = runTool({"json", "canonical", "-"}, c.input);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, c.err);
  }
}

// Regression: json canonical of 124 MB took 1.1 GB, a tree ten times the
// text. Large documents are taken apart; the bytes must be the library's own.
TEST(JsonCommands, LargeDocumentsGiveTheLibrarysBytesInBoundedMemory) {
  std::string big = "[";
  for (int i = 0; i < 3000; ++i) {
    big += R"({"n":)" + std::to_string(i) +
           R"(.50,"s":"a/\u00e9","e\u0301":1,"\u00e9":2,"z":[1e2,)" +
           std::string(i % 7 == 0 ? R"({"x":null})" : "true") + "]},";
  }
  big.back() = ']';
  // Repeated and canonically equivalent keys across runs, both before and
  // after a member too large to be decoded with its neighbours.
  const std::string document = " {\"k\":1,\"\u00e9\":[" + big + "],\"b\":" + big +
                               ",\"e\\u0301\":3,\"k\":{\"k\":" + big + "},\"a\":-0.0}\n";
  const ToolRun run = runTool({"json", "canonical", "-"}, document);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(run.out == TarskelJSON::canonicalEncoder().encode(
                             TarskelJSON::decoder().decode<JSONValue>(document)));

  // And a larger one, whose peak is measured.
  const std::string file = (std::filesystem::temp_directory_path() / "tarskel-big.json").string();
  {
    std::ofstream out(file);
    out << "[" << big;
    for (int i = 0; i < 99; ++i) out << "," << big;
    out << "]";
  }
  const long size = static_cast<long>(std::filesystem::file_size(file));
  const ToolRun large = runTool({"json", "canonical", file}, "", file + ".out");
  EXPECT_EQ(large.exitCode, 0) << large.err;
  EXPECT_TRUE(readWhole(file + ".out") ==
              TarskelJSON::canonicalEncoder().encode(
                  TarskelJSON::decoder().decode<JSONValue>(readWhole(file))));
  std::filesystem::remove(file);
  std::filesystem::remove(file + ".out");
#ifndef __SANITIZE_ADDRESS__
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss * 1024, 3 * size + (16 << 20))
      << "bytes at the peak, " << size << " in";
#endif
}

}  // namespace
}  // namespace tarskel::tool::testing
