#include <gtest/gtest.h>
#include <sys/resource.h>

#include "ToolRunner.hpp"
#include "tarskel/testing/JSONTesting.hpp"

namespace tarskel::tool::testing {
namespace {

using JsonCommands = ToolFiles;

// Regression (for the errors): syntax errors had no position. Where the text
// breaks is the decoder's to say (its tests hold the positions); the tool
// puts it in front of the decoder's words.
TEST_F(JsonCommands, CanonicalPatchDiffAndBadInputWithLineAndColumn) {
  expectRuns(
      R"(
    json canonical - | 0 |  | {"a":{"c":1e-05,"d":null},"b":[1,"a\/b"]} | {"b":[1.0,"a/b"],"a":{"d":null,"c":1e-5}}
    json diff $FROM - | 0 |  | {"b":{"d":null},"e":[2],"f":true} | {"a":1,"b":{"c":2},"e":[2],"f":true}
    json patch - $FROM | 0 |  | {"a":1,"b":{"c":2},"e":[2],"f":true} | {"b":{"d":null},"e":[2],"f":true}
    json canonical - | 2 | tarskel: standard input:2:8: el texto no es JSON válido | '' | {\n  "é": tru }
    json canonical - | 2 | tarskel: standard input: dataCorrupted en <raíz>: Valor JSON no reconocido\n | '' | 1e999
  )",
      {{"$FROM", write("from.json", R"({"a":1,"b":{"c":2,"d":3},"e":[1]})")}});
}

// Regression: json canonical of 124 MB took 1.1 GB, a tree ten times the
// text. Large documents are taken apart; the bytes must be the library's own.
TEST_F(JsonCommands, LargeDocumentsGiveTheLibrarysBytesInBoundedMemory) {
  std::string big = "[";
  for (int i = 0; i < 3000; ++i) {
    big += R"({"n":)" + std::to_string(i) +
           R"(.50,"s":"a/\u00e9","e\u0301":1,"\u00e9":2,"z":[1e2,)" +
           std::string(i % 7 == 0 ? R"({"x":null})" : "true") + "]},";
  }
  big.back() = ']';
  std::string many = big;
  for (int i = 0; i < 99; ++i) many += "," + big;
  // Repeated and canonically equivalent keys across runs, both before and
  // after a member too large to be decoded with its neighbours.
  const std::string file = write("big.json", " {\"k\":1,\"\u00e9\":[" + big + "],\"b\":" + big +
                                                 ",\"e\\u0301\":3,\"k\":{\"k\":" + big +
                                                 "},\"a\":-0.0,\"z\":[" + many + "]}\n");
  const ToolRun run = runTool({"json", "canonical", file}, "", path("out"));
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(readFile(path("out")) ==
              tarskel::testing::canonical(tarskel::testing::json(readFile(file))));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  // The text, then its checked reading (a padded copy and the reader's index),
  // then the output: never the tree, which is ten times the text.
  EXPECT_LT(usage.ru_maxrss * 1024, 4 * fs::file_size(file) + (16 << 20)) << "bytes at the peak";
#endif
}

}  // namespace
}  // namespace tarskel::tool::testing
