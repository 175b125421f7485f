#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

// One finding per line and exit 1, or exit 2 with a reason and nothing on
// standard output when the schema or the value can't be used.
TEST(SchemaCommands, FindingsAreLinesOrJSONAndBadInputIsExitTwo) {
  const auto schema = std::filesystem::temp_directory_path() /
                      ("tarskel-schema-" + std::to_string(::getpid()) + ".json");
  std::ofstream(schema)
      << R"({"required":["a"],"properties":{"n":{"type":"integer","minimum":1}}})";
  const std::string s = schema.string();
  const struct {
    std::vector<std::string> args;
    std::string input;
    int exitCode;
    std::string out;
  } cases[] = {
      {{"validate", s, "-"},
       R"({"n":0})",
       1,
       "$.a: [required] campo requerido ausente\n$.n: [minimum] 0.0 < mínimo 1.0\n"},
      {{"validate", s, "-", "--at", "args"},
       R"({"a":true,"n":"x"})",
       1,
       "args.n: [type] se esperaba integer, llegó string\n"},
      {{"validate", s, "-"}, R"({"a":null,"n":3})", 0, ""},
      {{"validate", s, "-", "--json"},
       R"({"a":1,"n":0})",
       1,
       "{\"findings\":[{\"message\":\"0.0 < mínimo 1.0\",\"path\":\"$.n\",\"rule\":\"minimum\"}],"
       "\"ok\":false}\n"},
      {{"doc-check", "-", "--at", "cfg"},
       R"({"properties":{"x":{"description":"x"}}})",
       1,
       "cfg.x: [doc.x-risk] todo campo de configuración exige x-risk "
       "(safe|disruptive|dangerous)\n"},
      {{"validate", "-", "/dev/null"}, R"({"type":"text"})", 2, ""},  // unknown type
      {{"validate", "-", "/dev/null"}, "{}", 2, ""},                  // empty value file
      {{"validate", "-", "-"}, "{}", 2, ""},
      {{"validate", "-"}, "{}", 2, ""},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"schema"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(c.input);
    ToolRun run = runTool(args, c.input);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_EQ(run.out, c.out);
    EXPECT_EQ(run.err.empty(), c.exitCode != 2) << run.err;
  }
  std::filesystem::remove(schema);
}

}  // namespace
}  // namespace tarskel::tool::testing
