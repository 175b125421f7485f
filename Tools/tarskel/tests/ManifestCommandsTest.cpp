#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

namespace fs = std::filesystem;

class ManifestCommands : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(dir_ / "bundle/bin"); }
  void TearDown() override { fs::remove_all(dir_); }

  std::string file(const std::string& name, const std::string& content) {
    std::ofstream(dir_ / name, std::ios::binary) << content;
    return (dir_ / name).string();
  }

  const fs::path dir_ = fs::temp_directory_path() / ("tarskel-manifest-" + std::to_string(::getpid()));
};

const std::string kValid = R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{"linux-x86_64":"bin/x"}})";
const std::string kFaulty = R"({"id":"a","version":"1.0.0","displayName":"X","executables":{},"schedule":["7"]})";

TEST_F(ManifestCommands, LintReportsEachFindingAndTheWorstExitCode) {
  const std::string valid = file("valid.json", kValid);
  const std::string faulty = file("faulty.json", kFaulty);
  ToolRun run = runTool({"manifest", "lint", valid, faulty, "-"}, kFaulty);
  EXPECT_EQ(run.exitCode, 1) << run.err;
  const std::string id = ": id: [id.invalid] 'a' no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)\n";
  const std::string rest = ": executables: [executables.empty] se requiere al menos una variante <os>-<arch>\n";
  EXPECT_EQ(run.out, faulty + id + faulty + rest + faulty + ": schedule[0]: [schedule.badFormat] '7' no es 'daily@HH:MM'\n" +
                         "<stdin>" + id + "<stdin>" + rest + "<stdin>: schedule[0]: [schedule.badFormat] '7' no es 'daily@HH:MM'\n");

  ToolRun json = runTool({"manifest", "lint", "--json", valid, "-"}, R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{}})");
  EXPECT_EQ(json.exitCode, 1);
  EXPECT_EQ(json.out, "{\"file\":\"" + valid + "\",\"valid\":true,\"errors\":[]}\n" +
                          R"({"file":"<stdin>","valid":false,"errors":[{"code":"executables.empty","path":"executables",)"
                          R"("message":"se requiere al menos una variante <os>-<arch>"}]})" + "\n");
  EXPECT_EQ(runTool({"manifest", "lint", valid}).exitCode, 0);
}

TEST_F(ManifestCommands, UnusableInputIsExitTwoNamingFileAndKeyPath) {
  const std::string valid = file("valid.json", kValid);
  const std::string broken = file("broken.json", R"({"id":"a.b","version":"1","displayName":"X","executables":{},"energy":{}})");
  ToolRun run = runTool({"manifest", "lint", broken, valid});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find(broken + ": keyNotFound en energy"), std::string::npos) << run.err;
  ToolRun json = runTool({"manifest", "lint", "--json", dir_.string()});
  EXPECT_EQ(json.exitCode, 2);
  EXPECT_NE(json.out.find("\"valid\":false,\"errors\":[],\"error\":\"cannot read " + dir_.string() + ": Is a directory\"}"),
            std::string::npos) << json.out;
  EXPECT_EQ(runTool({"manifest", "show", broken}).exitCode, 2);
  EXPECT_EQ(runTool({"manifest", "lint", "/nonexistent/m.json"}).exitCode, 2);
}

TEST_F(ManifestCommands, ShowWritesEveryDefault) {
  ToolRun compact = runTool({"manifest", "show", "--compact", "-"}, kValid);
  EXPECT_EQ(compact.exitCode, 0) << compact.err;
  EXPECT_EQ(compact.out.substr(0, 63), R"({"activation":{"mode":"always"},"dependencies":[],"displayName")");
  EXPECT_EQ(compact.out.back(), '\n');
  ToolRun pretty = runTool({"manifest", "show", "-"}, kValid);
  EXPECT_NE(pretty.out.find("{\n  \"activation\": {\n    \"mode\": \"always\"\n  },\n  \"dependencies\": [],\n"),
            std::string::npos) << pretty.out;
  EXPECT_NE(pretty.out.find("  \"restartPolicy\": {\n    \"backoffSeconds\": [\n      1,\n      5,"), std::string::npos);
}

TEST_F(ManifestCommands, VerifyExecutablesGoesThroughTheGate) {
  const std::string manifest = file("m.json", kValid);
  const std::string teams = file("teams.json", R"({"revision":1,"teamIds":["T1"]})");
  const std::string bundle = (dir_ / "bundle").string();
  ToolRun absent = runTool({"manifest", "verify-executables", bundle, "--manifest", manifest, "--teams", teams});
  EXPECT_EQ(absent.exitCode, 0) << absent.err;
  EXPECT_EQ(absent.out, "executables ok\n");
  file("bundle/bin/x", "#!/bin/sh\n");
  ToolRun present = runTool({"manifest", "verify-executables", bundle, "--manifest", manifest, "--teams", teams});
  EXPECT_EQ(present.exitCode, 1);
  EXPECT_EQ(present.out, "gate SO: firma inválida o no anclada a Apple en " + bundle + "/bin/x (-67062)\n");
  const std::vector<std::vector<std::string>> unusable = {
      {"manifest", "verify-executables", bundle, "--manifest", manifest, "--root", dir_.string()},
      {"manifest", "verify-executables", bundle, "--manifest", manifest, "--teams", manifest},
      {"manifest", "verify-executables", bundle, "--manifest", manifest, "--teams", teams, "--root", "x"},
      {"manifest", "verify-executables", manifest, "--manifest", manifest, "--teams", teams},
  };
  for (const auto& args : unusable) {
    ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, 2) << args.back() << run.out;
  }
  for (const char* command : {"lint", "show", "verify-executables"}) {
    ToolRun help = runTool({"manifest", command, "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find(std::string("tarskel manifest ") + command), std::string::npos) << help.out;
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
