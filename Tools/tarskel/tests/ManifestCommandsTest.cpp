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

const std::string kValid =
    R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{"linux-x86_64":"bin/x"}})";
const std::string kFaulty =
    R"({"id":"a","version":"1.0.0","displayName":"X","executables":{"linux-x86_64":"x"},"schedule":["7"]})";

class ManifestCommands : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(dir_ / "bundle/bin"); }
  void TearDown() override { fs::remove_all(dir_); }

  std::string file(const std::string& name, const std::string& content) {
    std::ofstream(dir_ / name, std::ios::binary) << content;
    return (dir_ / name).string();
  }

  const fs::path dir_ =
      fs::temp_directory_path() / ("tarskel-manifest-" + std::to_string(::getpid()));
};

TEST_F(ManifestCommands, LintReportsEachFindingAndTheWorstExitCode) {
  const std::string valid = file("valid.json", kValid);
  const std::string faulty = file("faulty.json", kFaulty);
  const std::string findings =
      ": id: [id.invalid] 'a' no es un identificador reverse-DNS válido (minúsculas, ≥2 "
      "segmentos)\n"
      "F: schedule[0]: [schedule.badFormat] '7' no es 'daily@HH:MM'\n";
  const auto named = [&](const std::string& name) {
    return name + std::string(findings).replace(findings.find("F:"), 1, name);
  };
  ToolRun run = runTool({"manifest", "lint", valid, faulty, "-"}, kFaulty);
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_EQ(run.out, named(faulty) + named("<stdin>"));
  EXPECT_EQ(runTool({"manifest", "lint", valid}).exitCode, 0);

  ToolRun json = runTool({"manifest", "lint", "--json", valid, "-"},
                         R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{}})");
  EXPECT_EQ(json.exitCode, 1);
  EXPECT_EQ(
      json.out,
      "{\"file\":\"" + valid + "\",\"valid\":true,\"errors\":[]}\n" +
          R"({"file":"<stdin>","valid":false,"errors":[{"code":"executables.empty",)"
          R"("path":"executables","message":"se requiere al menos una variante <os>-<arch>"}]})"
          "\n");
}

TEST_F(ManifestCommands, UnusableInputIsExitTwoNamingFileAndKeyPath) {
  const std::string broken =
      file("broken.json",
           R"({"id":"a.b","version":"1","displayName":"X","executables":{},"energy":{}})");
  ToolRun run = runTool({"manifest", "lint", broken, file("valid.json", kValid)});
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find(broken + ": keyNotFound en energy"), std::string::npos) << run.err;
  ToolRun json = runTool({"manifest", "lint", "--json", dir_.string()});
  EXPECT_EQ(json.exitCode, 2);
  EXPECT_NE(json.out.find("\"valid\":false,\"errors\":[],\"error\":\"cannot read " + dir_.string() +
                          ": Is a directory\"}"),
            std::string::npos)
      << json.out;
  EXPECT_EQ(runTool({"manifest", "show", broken}).exitCode, 2);
}

TEST_F(ManifestCommands, ShowWritesEveryDefault) {
  ToolRun compact = runTool({"manifest", "show", "--compact", "-"}, kValid);
  EXPECT_EQ(compact.exitCode, 0) << compact.err;
  EXPECT_EQ(compact.out.substr(0, 63),
            R"({"activation":{"mode":"always"},"dependencies":[],"displayName")");
  EXPECT_NE(compact.out.find(R"("executables":{"linux-x86_64":"bin/x"})"), std::string::npos);
  EXPECT_EQ(runTool({"manifest", "show", "-"}, kValid).out.substr(0, 46),
            "{\n  \"activation\": {\n    \"mode\": \"always\"\n  },\n");
}

TEST_F(ManifestCommands, VerifyExecutablesGoesThroughTheGate) {
  const std::string bundle = (dir_ / "bundle").string();
  const std::vector<std::string> verify = {
      "manifest",
      "verify-executables",
      bundle,
      "--manifest",
      file("m.json", kValid),
      "--teams",
      file("teams.json", R"({"revision":1,"teamIds":["T1"]})")};
  ToolRun absent = runTool(verify);
  EXPECT_EQ(absent.exitCode, 0) << absent.err;
  EXPECT_EQ(absent.out, "executables ok\n");
  file("bundle/bin/x", "#!/bin/sh\n");
  ToolRun present = runTool(verify);
  EXPECT_EQ(present.exitCode, 1);
  EXPECT_EQ(present.out,
            "gate SO: firma inválida o no anclada a Apple en " + bundle + "/bin/x (-67062)\n");
  const std::string& m = verify[4];
  const std::string& teams = verify[6];
  const std::vector<std::vector<std::string>> unusable = {
      {bundle, "--manifest", m, "--root", dir_.string()},          // no vendor/teams.json there
      {bundle, "--manifest", m, "--teams", m},                     // not a teams file
      {bundle, "--manifest", m, "--teams", teams, "--root", "x"},  // both
      {m, "--manifest", m, "--teams", teams},                      // no bundle directory
  };
  for (std::vector<std::string> args : unusable) {
    args.insert(args.begin(), {"manifest", "verify-executables"});
    EXPECT_EQ(runTool(args).exitCode, 2) << args[2] << " " << args.back();
  }
}

}  // namespace
}  // namespace tarskel::tool::testing
