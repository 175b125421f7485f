#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

std::string writeSchema(const std::string& content) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("tarskel-schema-" + std::to_string(::getpid()) + ".json");
  std::ofstream(path, std::ios::binary) << content;
  return path.string();
}

TEST(SchemaCommands, ValidatePrintsOneFindingPerLineAndExitsOne) {
  const std::string schema =
      writeSchema(R"({"required":["a"],"properties":{"n":{"type":"integer","minimum":1}}})");
  ToolRun run = runTool({"schema", "validate", schema, "-"}, R"({"n":0})");
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out, "$.a: [required] campo requerido ausente\n$.n: [minimum] 0.0 < mínimo 1.0\n");

  ToolRun at =
      runTool({"schema", "validate", schema, "-", "--at", "args"}, R"({"a":true,"n":"x"})");
  EXPECT_EQ(at.exitCode, 1) << at.err;
  EXPECT_EQ(at.out, "args.n: [type] se esperaba integer, llegó string\n");

  ToolRun valid = runTool({"schema", "validate", schema, "-"}, R"({"a":null,"n":3})");
  EXPECT_EQ(valid.exitCode, 0) << valid.err;
  EXPECT_EQ(valid.out, "");

  ToolRun json = runTool({"schema", "validate", schema, "-", "--json"}, R"({"a":1,"n":0})");
  EXPECT_EQ(json.exitCode, 1);
  EXPECT_EQ(json.out,
            "{\"findings\":[{\"message\":\"0.0 < mínimo 1.0\",\"path\":\"$.n\",\"rule\":"
            "\"minimum\"}],\"ok\":false}\n");
  std::filesystem::remove(schema);
}

TEST(SchemaCommands, DocCheckNamesUndocumentedFields) {
  ToolRun run = runTool(
      {"schema", "doc-check", "-"},
      R"({"properties":{"list":{"description":"d","x-risk":"safe","items":{"properties":{"x":{"description":"x"}}}}}})");
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out,
            "configSchema.list[].x: [doc.x-risk] todo campo de configuración exige x-risk "
            "(safe|disruptive|dangerous)\n");
  ToolRun clean = runTool({"schema", "doc-check", "-", "--at", "cfg"}, R"({"type":"object"})");
  EXPECT_EQ(clean.exitCode, 0) << clean.err;
}

TEST(SchemaCommands, BadInputIsExitTwoWithAReason) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"schema", "validate", "-", "/dev/null"}, R"({"type":"text"})"},  // unknown type
      {{"schema", "validate", "-", "/dev/null"}, "{}"},                  // empty value file
      {{"schema", "validate", "-", "-"}, "{}"},
      {{"schema", "doc-check", "/nonexistent/schema.json"}, ""},
      {{"schema", "validate", "-"}, "{}"},
  };
  for (const auto& [args, input] : cases) {
    SCOPED_TRACE(input);
    ToolRun run = runTool(args, input);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_FALSE(run.err.empty());
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
