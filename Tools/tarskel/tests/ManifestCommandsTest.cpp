#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

class ManifestCommands : public ToolFiles {
 protected:
  std::map<std::string, std::string> vars() const {
    return {{"$DIR", scratch.path().string()},
            {"$VALID", write("valid.json", R"({"id":"a.b","version":"1.0.0","displayName":"X",)"
                                           R"("executables":{"linux-x86_64":"bin/x"}})")},
            {"$FAULTY", write("faulty.json", kFaulty)},
            {"$TEXT", kFaulty},
            {"$TEAMS", write("teams.json", R"({"revision":1,"teamIds":["T1"]})")}};
  }
  static constexpr const char* kFaulty =
      R"({"id":"a","version":"1.0.0","displayName":"X","executables":{"linux-x86_64":"x"},"schedule":["7"]})";
};

TEST_F(ManifestCommands, LintAndShowReportEachFindingAndTheWorstExitCode) {
  write("broken.json",
        R"({"id":"a.b","version":"1","displayName":"X","executables":{},"energy":{}})");
  expectRuns(R"(
    manifest lint $VALID $FAULTY - | 1 |  | $FAULTY: id: [id.invalid] 'a' no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)\n$FAULTY: schedule[0]: [schedule.badFormat] '7' no es 'daily@HH:MM'\n<stdin>: id: [id.invalid] 'a' no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)\n<stdin>: schedule[0]: [schedule.badFormat] '7' no es 'daily@HH:MM'\n | $TEXT
    manifest lint $VALID | 0 |  | ''
    manifest lint --json $VALID - | 1 |  | {"file":"$VALID","valid":true,"errors":[]}\n{"file":"<stdin>","valid":false,"errors":[{"code":"executables.empty","path":"executables","message":"se requiere al menos una variante <os>-<arch>"}]}\n | {"id":"a.b","version":"1.0.0","displayName":"X","executables":{}}
    manifest lint $DIR/broken.json $VALID | 2 | $DIR/broken.json: keyNotFound en energy | ''
    manifest lint --json $DIR | 2 |  | {"file":"$DIR","valid":false,"errors":[],"error":"cannot read $DIR: Is a directory"}\n
    manifest show $DIR/broken.json | 2 |  | ''
    manifest show --compact $VALID | 0 |  | {"activation":{"mode":"always"},"dependencies":[],"displayName":"X","events":{"publishes":[],"subscribes":[]},"executables":{"linux-x86_64":"bin/x"},"id":"a.b","migrations":[],"permissions":{},"platformApi":"1.x","privileges":{"privilegedOps":[]},"restartPolicy":{"backoffSeconds":[1,5,30,120],"maxFailures":5,"mode":"always","window":600},"schedule":[],"scope":"user","toolAccess":[],"tools":[],"version":"1.0.0"}\n
  )",
             vars());
  EXPECT_EQ(runTool({"manifest", "show", path("valid.json")}).out.substr(0, 46),
            "{\n  \"activation\": {\n    \"mode\": \"always\"\n  },\n");
}

TEST_F(ManifestCommands, VerifyExecutablesGoesThroughTheGate) {
  fs::create_directories(scratch.file("bundle/bin"));
  auto vars = this->vars();
  vars["$VERIFY"] =
      "manifest verify-executables " + path("bundle") + " --manifest " + vars["$VALID"];
  expectRuns(R"(
    $VERIFY --teams $TEAMS | 0 |  | executables ok\n
    $VERIFY --root $DIR | 2 | no vendor/teams.json under $DIR
    $VERIFY --teams $VALID | 2 | keyNotFound en <raíz>: falta la clave "revision"
    $VERIFY --teams $TEAMS --root x | 2 | --teams excludes --root
    manifest verify-executables $VALID --manifest $VALID --teams $TEAMS | 2 | not a bundle directory
  )",
             vars);
  write("bundle/bin/x", "#!/bin/sh\n");
  expectRuns(
      "$VERIFY --teams $TEAMS | 1 |  | gate SO: firma inválida o no anclada a Apple en "
      "$DIR/bundle/bin/x (-67050): sin claves de código (vendor/code-keys.json)\\n",
      vars);
}

}  // namespace
}  // namespace tarskel::tool::testing
