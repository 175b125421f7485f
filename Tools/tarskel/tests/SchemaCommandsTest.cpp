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
  const auto schema_ = [](std::vector<std::string> args) {
    args.insert(args.begin(), "schema");
    return args;
  };
  expectRuns({
      {schema_({"validate", s, "-"}), 1, "",
       "$.a: [required] campo requerido ausente\n$.n: [minimum] 0.0 < mínimo 1.0\n", R"({"n":0})"},
      {schema_({"validate", s, "-", "--at", "args"}), 1, "",
       "args.n: [type] se esperaba integer, llegó string\n", R"({"a":true,"n":"x"})"},
      {schema_({"validate", s, "-"}), 0, "", "", R"({"a":null,"n":3})"},
      {schema_({"validate", s, "-", "--json"}), 1, "",
       "{\"findings\":[{\"message\":\"0.0 < mínimo 1.0\",\"path\":\"$.n\",\"rule\":\"minimum\"}],"
       "\"ok\":false}\n",
       R"({"a":1,"n":0})"},
      {schema_({"doc-check", "-", "--at", "cfg"}), 1, "",
       "cfg.x: [doc.x-risk] todo campo de configuración exige x-risk (safe|disruptive|dangerous)\n",
       R"({"properties":{"x":{"description":"x"}}})"},
      {schema_({"validate", "-", "/dev/null"}), 2, "tarskel: ", "", R"({"type":"text"})"},
      {schema_({"validate", "-", "/dev/null"}), 2, "tarskel: ", "", "{}"},  // empty value file
      {schema_({"validate", "-", "-"}), 2, "tarskel: ", "", "{}"},
      {schema_({"validate", "-"}), 2, "tarskel: ", "", "{}"},
  });
  std::filesystem::remove(schema);
}

}  // namespace
}  // namespace tarskel::tool::testing
