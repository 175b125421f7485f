#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

class SchemaCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("tarskel-schema-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string file(const std::string& name, const std::string& content) {
    const std::filesystem::path path = dir_ / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

 private:
  std::filesystem::path dir_;
};

TEST_F(SchemaCommands, ValidatePrintsOneFindingPerLineAndExitsOne) {
  const std::string schema = file("s.json", R"({"required":["a"],"properties":{"n":{"type":"integer","minimum":1}}})");
  ToolRun run = runTool({"schema", "validate", schema, "-"}, R"({"n":0})");
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out, "$.a: [required] campo requerido ausente\n$.n: [minimum] 0.0 < mínimo 1.0\n");

  ToolRun at = runTool({"schema", "validate", schema, "-", "--at", "args"}, R"({"a":true,"n":"x"})");
  EXPECT_EQ(at.exitCode, 1) << at.err;
  EXPECT_EQ(at.out, "args.n: [type] se esperaba integer, llegó string\n");

  ToolRun valid = runTool({"schema", "validate", schema, "-"}, R"({"a":null,"n":3})");
  EXPECT_EQ(valid.exitCode, 0) << valid.err;
  EXPECT_EQ(valid.out, "");
}

TEST_F(SchemaCommands, DocCheckNamesUndocumentedFields) {
  ToolRun run = runTool({"schema", "doc-check", "-"},
                        R"({"properties":{"list":{"description":"d","x-risk":"safe","items":{"properties":{"x":{"description":"x"}}}}}})");
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out,
            "configSchema.list[].x: [doc.x-risk] todo campo de configuración exige x-risk "
            "(safe|disruptive|dangerous)\n");

  ToolRun clean = runTool({"schema", "doc-check", "-", "--at", "cfg"}, R"({"type":"object"})");
  EXPECT_EQ(clean.exitCode, 0) << clean.err;
  EXPECT_EQ(clean.out, "");
}

TEST_F(SchemaCommands, BadInputIsExitTwoWithAReason) {
  const std::string schema = file("s.json", "{}");
  const std::string badSchema = file("bad.json", R"({"type":"text"})");
  const std::vector<std::vector<std::string>> cases = {
      {"schema", "validate", badSchema, "-"},
      {"schema", "validate", schema, "-"},  // standard input holds no JSON
      {"schema", "validate", "-", "-"},
      {"schema", "validate", "/nonexistent/schema.json", schema},
      {"schema", "doc-check", badSchema},
      {"schema", "validate", schema},
      {"schema"},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(args.back());
    ToolRun run = runTool(args, "{not json");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_FALSE(run.err.empty());
  }
}

TEST_F(SchemaCommands, HelpAtEveryLevel) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"schema", "--help"}, {"schema", "validate", "--help"}, {"schema", "doc-check", "--help"}}) {
    SCOPED_TRACE(args[args.size() - 2]);
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.out.find(args[args.size() - 2]), std::string::npos) << run.out;
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
