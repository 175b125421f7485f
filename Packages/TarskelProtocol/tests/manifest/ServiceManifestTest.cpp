#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"
#include "tarskel/protocol/manifest/ServiceState.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

const char* kBase = R"({"id":"net.example.notes","version":"1.0.0","displayName":"Notes",
                        "executables":{"darwin-arm64":"bin/notes"}})";

using testing::canonical;
using testing::decode;
using testing::json;

// The valid base manifest with a merge patch applied.
ServiceManifest manifest(const std::string& patch) {
  const std::string text =
      TarskelJSON::encoder().encode(MergePatch::apply(json(patch), json(kBase)));
  return decode<ServiceManifest>(text);
}

// Each finding as "<path> <code>", or as its whole text, one after another.
std::string findings(const ServiceManifest& m, bool full, const char* separator) {
  std::string out;
  for (const ManifestValidationError& e : m.validate()) {
    out += (out.empty() ? "" : separator) + (full ? e.description() : e.path + " " + e.code);
  }
  return out;
}

// Every rule once, in the order the rules run, with its exact text.
const char* kEveryRule =
    R"({"id":"Net.example","version":"1.2","displayName":" \t","platformApi":"~1",
  "executables":{"macos-arm64":"/usr/bin/x","darwin-x86_64":"bin/a..b","linux-arm64":"./bin/x"},
  "dependencies":[{"service":"notes","version":"1.2.3.4"}],"schedule":["daily@7:00"],
  "tools":[{"name":"create","description":"\t","inputSchema":{}},{"name":"create","description":"d","inputSchema":{}}],
  "toolAccess":["net.example.notes/a.b/c"],"configSchema":{"properties":{"a":{"description":"d"}}},
  "migrations":[{"from":"banana"}],"restartPolicy":{"backoffSeconds":[],"maxFailures":0},
  "resources":{"memoryMaxMB":0,"cpuPercentMax":101},"activation":{"mode":"on-demand","idleStopMinutes":0}})";

// One finding per line.
const char* kEveryRuleFindings =
    R"(id: [id.invalid] 'Net.example' no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)
version: [version.invalid] '1.2' no es semver (major.minor.patch)
displayName: [displayName.empty] displayName no puede estar vacío
platformApi: [platformApi.invalid] '~1' no es un constraint válido (exacta, >=, ^, N.x)
executables.darwin-x86_64: [executables.badPath] la ruta debe ser relativa al bundle y sin '..'
executables.macos-arm64: [executables.badKey] 'macos-arm64' no es <os>-<arch> válido (darwin|linux|windows - arm64|x86_64)
executables.macos-arm64: [executables.badPath] la ruta debe ser relativa al bundle y sin '..'
dependencies[0].service: [dependency.badService] 'notes' no es un id de servicio válido
dependencies[0].version: [dependency.badConstraint] '1.2.3.4' no es un constraint válido
schedule[0]: [schedule.badFormat] 'daily@7:00' no es 'daily@HH:MM'
tools[0].name: [tool.badName] 'create' no es un nombre de tool válido (segmentos separados por punto)
tools[0].description: [tool.noDescription] toda tool exige description (es el contrato que leen agentes y humanos)
tools[1].name: [tool.badName] 'create' no es un nombre de tool válido (segmentos separados por punto)
tools[1].name: [tool.duplicate] tool 'create' duplicada
toolAccess[0]: [toolAccess.badEntry] 'net.example.notes/a.b/c' no es '<serviceId>/<tool>' ni '<serviceId>/*'
configSchema.a: [configSchema.undocumented] todo campo de configuración exige x-risk (safe|disruptive|dangerous)
migrations[0].from: [migration.badFrom] 'banana' no es un rango de versión válido
restartPolicy: [restartPolicy.invalid] maxFailures ≥ 1, window ≥ 1 y backoffSeconds no vacío y sin negativos
resources.memoryMaxMB: [resources.invalid] memoryMaxMB debe ser ≥ 1
resources.cpuPercentMax: [resources.invalid] cpuPercentMax debe estar entre 1 y 100
activation.idleStopMinutes: [activation.invalid] idleStopMinutes debe ser ≥ 1)";

TEST(ServiceManifestTest, ValidationTable) {
  const std::pair<const char*, const char*> cases[] = {
      // patch, "<path> <code>, ..."
      {R"({"id":"a","version":"x","executables":{"darwin-arm64":null}})",
       "id id.invalid, version version.invalid, executables executables.empty"},
      // Each bound inclusive; a line break is not blank; nothing else of the schema is judged.
      {R"({"id":"1.2","version":"01.2.3","platformApi":"1.2","displayName":"\n","restartPolicy":{"backoffSeconds":[0]},
          "resources":{"memoryMaxMB":1,"cpuPercentMax":100},"activation":{"mode":"always","idleStopMinutes":0},
          "configSchema":{"pattern":"(","properties":{"a":{"description":"d","x-risk":"safe"}}}})",
       ""},
      {R"({"displayName":"\u3000","executables":{"darwin-arm64":""},"restartPolicy":{"window":0},
          "resources":{"cpuPercentMax":0}})",
       "displayName displayName.empty, executables.darwin-arm64 executables.badPath, "
       "restartPolicy restartPolicy.invalid, resources.cpuPercentMax resources.invalid"},
      {R"({"restartPolicy":{"backoffSeconds":[1,-1]},"activation":{"mode":"on-demand"}})",
       "restartPolicy restartPolicy.invalid"},
      {R"({"tools":[{"name":"a.b","description":"x","inputSchema":{"properties":{"u":{}}}},
                    {"name":"b_c.d-e","description":"x","inputSchema":{}},
                    {"name":"a.b","description":"x","inputSchema":{}}]})",
       "tools[2].name tool.duplicate"},
      {R"({"tools":[{"name":"caf\u00e9.x","description":"x","inputSchema":{}},
                    {"name":"cafe\u0301.x","description":"x","inputSchema":{}}]})",
       "tools[0].name tool.badName, tools[1].name tool.badName, tools[1].name tool.duplicate"}};
  for (const auto& [patch, expected] : cases) {
    EXPECT_EQ(findings(manifest(patch), false, ", "), expected) << patch;
  }
}

// What each pattern takes and refuses; ICU's $ matches ahead of one final
// line break, not two.
TEST(ServiceManifestTest, PatternsAndToolAccessForms) {
  using Set = void (*)(ServiceManifest&, const char*);
  const Set id = [](ServiceManifest& m, const char* v) { m.id = v; };
  const Set target = [](ServiceManifest& m, const char* v) { m.executables = {{v, "bin/x"}}; };
  const Set when = [](ServiceManifest& m, const char* v) { m.schedule = {v}; };
  const Set access = [](ServiceManifest& m, const char* v) { m.toolAccess = {v}; };
  const std::tuple<Set, std::vector<const char*>, std::vector<const char*>> cases[] = {
      {id, {"a.b\n"}, {"a.b\n\n", "a-.b", "-a.b", "a..b"}},
      {target, {"windows-x86_64"}, {"Darwin-arm64"}},
      {when, {"daily@00:00\n"}, {"daily@24:00"}},
      {access,
       {"net.example.notes/notes.create", "net.example.notes/*", "/net.example.notes/a.b"},
       {"notes/notes.create", "net.example.notes/create", "net.example.notes/", "",
        "net.example.notes//a.b"}}};
  for (const auto& [set, valid, invalid] : cases) {
    for (const auto& [values, expected] : {std::pair{valid, true}, {invalid, false}}) {
      for (const char* value : values) {
        ServiceManifest m = manifest("{}");
        set(m, value);
        EXPECT_EQ(m.validate().empty(), expected) << value;
      }
    }
  }
}

// The same list on any thread, several at once: each thread has its own matchers.
TEST(ServiceManifestTest, ValidationGivesEveryFaultInRuleOrderOnAnyThread) {
  const ServiceManifest m = decode<ServiceManifest>(kEveryRule);
  EXPECT_EQ(findings(m, true, "\n"), kEveryRuleFindings);
  std::vector<int> wrong(4);
  std::vector<std::thread> threads;
  for (int& w : wrong) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) w += findings(m, true, "\n") != kEveryRuleFindings;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

TEST(ServiceManifestTest, WritingFillsEveryDefaultAndLeavesOutOnlyTheOptionalRecords) {
  const std::string minimal =
      R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{}})";
  EXPECT_EQ(
      canonical(decode<ServiceManifest>(minimal)),
      R"({"activation":{"mode":"always"},"dependencies":[],"displayName":"X",)"
      R"("events":{"publishes":[],"subscribes":[]},"executables":{},"id":"a.b","migrations":[],)"
      R"("permissions":{},"platformApi":"1.x","privileges":{"privilegedOps":[]},)"
      R"("restartPolicy":{"backoffSeconds":[1,5,30,120],"maxFailures":5,"mode":"always","window":600},)"
      R"("schedule":[],"scope":"user","toolAccess":[],"tools":[],"version":"1.0.0"})");
  // Defaults hold field by field inside a present record; keys of another case are ignored.
  const ServiceManifest m = manifest(
      R"({"restartPolicy":{"mode":"never"},"activation":{"mode":"on-demand"},"scope":"machine",
          "dependencies":[{"service":"a.b","version":"1"}],"resources":{},"energy":{"deferrable":true},
          "tray":{"section":[{"type":"status","bind":"s","title":"ignored"},{"type":"action","title":"a","tool":"t"},
          {"type":"action","title":"a","tool":"t","args":{"n":1}},{"type":"panel","title":"p","panel":"main"}]}})");
  EXPECT_EQ(m.restartPolicy, (RestartPolicy{RestartPolicy::Mode::never, {1, 5, 30, 120}, 5, 600}));
  const std::string written = canonical(m);
  for (const char* part :
       {R"("activation":{"mode":"on-demand"})", R"("resources":{})", R"("scope":"machine")",
        R"({"optional":false,"service":"a.b","version":"1"})",
        R"({"bind":"s","type":"status"},{"title":"a","tool":"t","type":"action"})",
        R"("args":{"n":1})", R"({"panel":"main","title":"p","type":"panel"})",
        R"("tray":{"ownTrayIcon":false,"section")"}) {
    EXPECT_NE(written.find(part), std::string::npos) << part << " in " << written;
  }
  EXPECT_EQ(decode<ServiceManifest>(written), m);
}

// A fragment completes a minimal manifest (the last of two equal keys wins);
// a whole document stands as it is.
std::string readError(const std::string& fragment) {
  return testing::decodingError<ServiceManifest>(
      fragment[0] == '{' ? fragment
                         : R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{},)" +
                               fragment + "}");
}

// fragment or whole document | the error
TEST(ServiceManifestTest, ReadingFailsWholeAndNamesTheKeyPath) {
  for (const testing::Row& row : testing::rows(R"(
{"id":"a.b","version":"1","displayName":"X"} | keyNotFound en <raíz>: falta la clave "executables"
"tools":[{"name":"x","description":"y"}] | keyNotFound en tools[0]: falta la clave "inputSchema"
"tray":{"section":[{"bind":"x"}]} | keyNotFound en tray.section[0]: falta la clave "type"
"tray":{"section":[{"type":"separator"}]} | dataCorrupted en tray.section[0].type: Tipo de tray item desconocido: separator
"activation":{"mode":"sometimes"} | dataCorrupted en activation.mode: valor desconocido: "sometimes"
"configSchema":{"type":"text"} | dataCorrupted en configSchema.type: valor desconocido: "text"
"executables":{"darwin-arm64":1} | typeMismatch en executables.darwin-arm64: se esperaba string, llegó number
)")) {
    EXPECT_EQ(readError(row[0]), row[1]) << row[0];
  }
}

// No two states share a name; the names themselves are pinned where reports are read.
TEST(ServiceStateTest, EveryCaseReadsBackFromItsName) {
  for (ServiceState s : allServiceStates()) EXPECT_EQ(decode<ServiceState>(canonical(s)), s);
}

}  // namespace
}  // namespace tarskel
