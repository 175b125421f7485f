#include "tarskel/protocol/manifest/ServiceManifest.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/manifest/ServiceState.hpp"

namespace tarskel {
namespace {

const char* kBase = R"({"id":"net.example.notes","version":"1.0.0","displayName":"Notes",
                        "executables":{"darwin-arm64":"bin/notes"}})";

JSONValue json(const std::string& text) { return TarskelJSON::decoder().decode<JSONValue>(text); }

// The valid base manifest with a merge patch applied.
ServiceManifest manifest(const std::string& patch) {
  const std::string text = TarskelJSON::encoder().encode(MergePatch::apply(json(patch), json(kBase)));
  return TarskelJSON::decoder().decode<ServiceManifest>(text);
}

std::vector<std::string> findings(const ServiceManifest& m, bool full) {
  std::vector<std::string> out;
  for (const ManifestValidationError& e : m.validate()) {
    out.push_back(full ? e.description() : e.path + " " + e.code);
  }
  return out;
}

// Every rule once, in the order the rules run, with its exact text.
const char* kEveryRule = R"({"id":"Net.example","version":"1.2","displayName":" \t","platformApi":"~1",
  "executables":{"macos-arm64":"/usr/bin/x","darwin-x86_64":"bin/a..b","linux-arm64":"./bin/x"},
  "dependencies":[{"service":"notes","version":"1.2.3.4"}],"schedule":["daily@7:00"],
  "tools":[{"name":"create","description":"\t","inputSchema":{}},{"name":"create","description":"d","inputSchema":{}}],
  "toolAccess":["net.example.notes/a.b/c"],"configSchema":{"properties":{"b":{},"a":{"description":"d"}}},
  "migrations":[{"from":"banana"}],"restartPolicy":{"backoffSeconds":[],"maxFailures":0},
  "resources":{"memoryMaxMB":0,"cpuPercentMax":101},"activation":{"mode":"on-demand","idleStopMinutes":0}})";

const std::vector<std::string> kEveryRuleFindings = {
    "id: [id.invalid] 'Net.example' no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)",
    "version: [version.invalid] '1.2' no es semver (major.minor.patch)",
    "displayName: [displayName.empty] displayName no puede estar vacío",
    "platformApi: [platformApi.invalid] '~1' no es un constraint válido (exacta, >=, ^, N.x)",
    "executables.darwin-x86_64: [executables.badPath] la ruta debe ser relativa al bundle y sin '..'",
    "executables.macos-arm64: [executables.badKey] 'macos-arm64' no es <os>-<arch> válido "
    "(darwin|linux|windows - arm64|x86_64)",
    "executables.macos-arm64: [executables.badPath] la ruta debe ser relativa al bundle y sin '..'",
    "dependencies[0].service: [dependency.badService] 'notes' no es un id de servicio válido",
    "dependencies[0].version: [dependency.badConstraint] '1.2.3.4' no es un constraint válido",
    "schedule[0]: [schedule.badFormat] 'daily@7:00' no es 'daily@HH:MM'",
    "tools[0].name: [tool.badName] 'create' no es un nombre de tool válido (segmentos separados por punto)",
    "tools[0].description: [tool.noDescription] toda tool exige description (es el contrato que leen "
    "agentes y humanos)",
    "tools[1].name: [tool.badName] 'create' no es un nombre de tool válido (segmentos separados por punto)",
    "tools[1].name: [tool.duplicate] tool 'create' duplicada",
    "toolAccess[0]: [toolAccess.badEntry] 'net.example.notes/a.b/c' no es '<serviceId>/<tool>' ni "
    "'<serviceId>/*'",
    "configSchema.a: [configSchema.undocumented] todo campo de configuración exige x-risk "
    "(safe|disruptive|dangerous)",
    "configSchema.b: [configSchema.undocumented] todo campo de configuración exige description",
    "configSchema.b: [configSchema.undocumented] todo campo de configuración exige x-risk "
    "(safe|disruptive|dangerous)",
    "migrations[0].from: [migration.badFrom] 'banana' no es un rango de versión válido",
    "restartPolicy: [restartPolicy.invalid] maxFailures ≥ 1, window ≥ 1 y backoffSeconds no vacío y sin "
    "negativos",
    "resources.memoryMaxMB: [resources.invalid] memoryMaxMB debe ser ≥ 1",
    "resources.cpuPercentMax: [resources.invalid] cpuPercentMax debe estar entre 1 y 100",
    "activation.idleStopMinutes: [activation.invalid] idleStopMinutes debe ser ≥ 1",
};

TEST(ServiceManifestTest, ValidationGivesEveryFaultInRuleOrder) {
  EXPECT_EQ(findings(TarskelJSON::decoder().decode<ServiceManifest>(kEveryRule), true), kEveryRuleFindings);
}

TEST(ServiceManifestTest, ValidationTable) {
  struct Case {
    const char* patch;
    std::vector<std::string> expected;  // "<path> <code>"
  };
  const Case cases[] = {
      {"{}", {}},
      {R"({"id":"a","version":"x","executables":{"darwin-arm64":null}})",
       {"id id.invalid", "version version.invalid", "executables executables.empty"}},
      {R"({"id":"a.b","version":"01.2.3","platformApi":"1.2"})", {}},
      {R"({"id":"1.2\n","displayName":"\n","platformApi":null})", {}},  // ICU's $ before a final break
      {R"({"id":"A.b"})", {"id id.invalid"}},
      {R"({"id":"a-.b"})", {"id id.invalid"}},
      {R"({"id":"-a.b"})", {"id id.invalid"}},
      {R"({"id":"a..b"})", {"id id.invalid"}},
      {R"({"id":"a.b\n\n"})", {"id id.invalid"}},
      {R"({"displayName":"\u3000"})", {"displayName displayName.empty"}},
      {R"({"executables":{"darwin-amd64":"x","Darwin-arm64":"x","linux-x86_64":"."}})",
       {"executables.Darwin-arm64 executables.badKey", "executables.darwin-amd64 executables.badKey"}},
      {R"({"executables":{"darwin-arm64":""}})", {"executables.darwin-arm64 executables.badPath"}},
      {R"({"schedule":["daily@23:59","daily@24:00","daily@00:00\n"]})", {"schedule[1] schedule.badFormat"}},
      {R"({"tools":[{"name":"a.b","description":"x","inputSchema":{"properties":{"u":{}}}},
                    {"name":"b_c.d-e","description":"x","inputSchema":{}},
                    {"name":"c.d","description":"x","inputSchema":{}},
                    {"name":"a.b","description":"x","inputSchema":{}}]})",
       {"tools[3].name tool.duplicate"}},
      {R"({"tools":[{"name":"caf\u00e9.x","description":"x","inputSchema":{}},
                    {"name":"cafe\u0301.x","description":"x","inputSchema":{}}]})",
       {"tools[0].name tool.badName", "tools[1].name tool.badName", "tools[1].name tool.duplicate"}},
      {R"({"toolAccess":["net.example.notes/notes.create","net.example.notes/*","/net.example.notes/a.b",
                         "notes/notes.create","net.example.notes/create","net.example.notes/","",
                         "net.example.notes//a.b","//"]})",
       {"toolAccess[3] toolAccess.badEntry", "toolAccess[4] toolAccess.badEntry",
        "toolAccess[5] toolAccess.badEntry", "toolAccess[6] toolAccess.badEntry",
        "toolAccess[7] toolAccess.badEntry", "toolAccess[8] toolAccess.badEntry"}},
      {R"({"configSchema":{"pattern":"(","properties":{"a":{"description":"d","x-risk":"safe"}}}})", {}},
      {R"({"restartPolicy":{"backoffSeconds":[0]}})", {}},
      {R"({"restartPolicy":{"backoffSeconds":[1,-1]}})", {"restartPolicy restartPolicy.invalid"}},
      {R"({"restartPolicy":{"window":0}})", {"restartPolicy restartPolicy.invalid"}},
      {R"({"resources":{"memoryMaxMB":1,"cpuPercentMax":100}})", {}},
      {R"({"resources":{"cpuPercentMax":0}})", {"resources.cpuPercentMax resources.invalid"}},
      {R"({"activation":{"mode":"always","idleStopMinutes":0}})", {}},
      {R"({"activation":{"mode":"on-demand"}})", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.patch);
    EXPECT_EQ(findings(manifest(c.patch), false), c.expected);
  }
}

TEST(ServiceManifestTest, ValidationRunsOnSeveralThreadsAtOnce) {
  const ServiceManifest m = TarskelJSON::decoder().decode<ServiceManifest>(kEveryRule);
  std::vector<std::thread> threads;
  std::vector<bool> same(4);
  for (std::size_t t = 0; t < same.size(); ++t) {
    threads.emplace_back([&, t] {
      bool ok = true;
      for (int i = 0; i < 50; ++i) ok = ok && findings(m, true) == kEveryRuleFindings;
      same[t] = ok;
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (bool ok : same) EXPECT_TRUE(ok);
}

TEST(ServiceManifestTest, WritingFillsEveryDefaultAndLeavesOutOnlyTheOptionalRecords) {
  const std::string minimal = R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{}})";
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<ServiceManifest>(minimal)),
            R"({"activation":{"mode":"always"},"dependencies":[],"displayName":"X",)"
            R"("events":{"publishes":[],"subscribes":[]},"executables":{},"id":"a.b","migrations":[],)"
            R"("permissions":{},"platformApi":"1.x","privileges":{"privilegedOps":[]},)"
            R"("restartPolicy":{"backoffSeconds":[1,5,30,120],"maxFailures":5,"mode":"always","window":600},)"
            R"("schedule":[],"scope":"user","toolAccess":[],"tools":[],"version":"1.0.0"})");
  // Defaults hold field by field inside a present record, and a null is absent.
  const ServiceManifest m = manifest(
      R"({"restartPolicy":{"mode":"never"},"activation":{"mode":"on-demand"},"dependencies":[{"service":"a.b","version":"1"}],
          "resources":{},"tray":{"section":[{"type":"status","bind":"s","title":"ignored"},
          {"type":"action","title":"a","tool":"t"},{"type":"action","title":"a","tool":"t","args":{"n":1}},
          {"type":"panel","title":"p","panel":"main"}]},"energy":{"deferrable":true}})");
  EXPECT_EQ(m.restartPolicy, (RestartPolicy{RestartPolicy::Mode::never, {1, 5, 30, 120}, 5, 600}));
  EXPECT_EQ(m.tray->section[0].item.index(), 0u);
  EXPECT_EQ(std::get<TrayItem::Action>(m.tray->section[1].item).args, std::nullopt);
  const std::string written = TarskelJSON::canonicalEncoder().encode(m);
  for (const char* part : {R"("activation":{"mode":"on-demand"})", R"("resources":{})",
                           R"({"optional":false,"service":"a.b","version":"1"})",
                           R"({"bind":"s","type":"status"},{"title":"a","tool":"t","type":"action"})",
                           R"("args":{"n":1})", R"({"panel":"main","title":"p","type":"panel"})",
                           R"("tray":{"ownTrayIcon":false,"section")"}) {
    EXPECT_NE(written.find(part), std::string::npos) << part << " in " << written;
  }
  EXPECT_EQ(TarskelJSON::decoder().decode<ServiceManifest>(written), m);
  const auto nulls = TarskelJSON::decoder().decode<ServiceManifest>(
      R"({"id":"a.b","version":"1.0.0","displayName":"X","executables":{},"scope":null,"platformApi":null,
          "restartPolicy":null,"tray":null,"activation":{"mode":null,"idleStopMinutes":null},
          "tools":null,"x-unknown":[1]})");
  EXPECT_EQ(TarskelJSON::canonicalEncoder().encode(nulls), TarskelJSON::canonicalEncoder().encode(
      TarskelJSON::decoder().decode<ServiceManifest>(minimal)));
  const auto scoped = manifest(R"({"scope":"machine","tray":{"section":[{"type":"action","title":"a","tool":"t","args":null}]}})");
  EXPECT_EQ(scoped.scope, ServiceScope::machine);
  EXPECT_EQ(std::get<TrayItem::Action>(scoped.tray->section[0].item).args, std::nullopt);
}

TEST(ServiceManifestTest, ReadingFailsWholeAndNamesTheKeyPath) {
  using K = DecodingError::Kind;
  struct Case {
    const char* patch;
    K kind;
    const char* path;
  };
  const Case cases[] = {
      {R"({"executables":null})", K::keyNotFound, ""},
      {R"({"energy":{}})", K::keyNotFound, "energy"},
      {R"({"tools":[{"name":"x","description":"y"}]})", K::keyNotFound, "tools[0]"},
      {R"({"dependencies":[{"service":"a.b"}]})", K::keyNotFound, "dependencies[0]"},
      {R"({"migrations":[{}]})", K::keyNotFound, "migrations[0]"},
      {R"({"tray":{"section":[{"bind":"x"}]}})", K::keyNotFound, "tray.section[0]"},
      {R"({"tray":{"section":[{"type":"action","title":"a"}]}})", K::keyNotFound, "tray.section[0]"},
      {R"({"tray":{"section":[{"type":"separator"}]}})", K::dataCorrupted, "tray.section[0].type"},
      {R"({"scope":"global"})", K::dataCorrupted, "scope"},
      {R"({"activation":{"mode":"sometimes"}})", K::dataCorrupted, "activation.mode"},
      {R"({"restartPolicy":{"mode":"on_failure"}})", K::dataCorrupted, "restartPolicy.mode"},
      {R"({"restartPolicy":{"maxFailures":1.5}})", K::dataCorrupted, "restartPolicy.maxFailures"},
      {R"({"configSchema":{"type":"text"}})", K::dataCorrupted, "configSchema.type"},
      {R"({"executables":{"darwin-arm64":1}})", K::typeMismatch, "executables.darwin-arm64"},
      {R"({"permissions":{"files":"x"}})", K::typeMismatch, "permissions.files"},
      {R"({"privileges":{"privilegedOps":[true]}})", K::typeMismatch, "privileges.privilegedOps[0]"},
      {R"({"restartPolicy":[]})", K::typeMismatch, "restartPolicy"},
      {R"({"resources":{"memoryMaxMB":"1"}})", K::typeMismatch, "resources.memoryMaxMB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.patch);
    try {
      manifest(c.patch);
      ADD_FAILURE() << "read";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.kind(), c.kind) << e.what();
      EXPECT_EQ(e.codingPath(), c.path);
    }
  }
  try {
    manifest(R"({"tray":{"section":[{"type":"separator"}]}})");
  } catch (const DecodingError& e) {
    EXPECT_EQ(e.debugDescription(), "Tipo de tray item desconocido: separator");
  }
  EXPECT_THROW(TarskelJSON::decoder().decode<ServiceManifest>(R"({"id":null,"version":"1","displayName":"X",
      "executables":{}})"), DecodingError);
}

TEST(ServiceStateTest, ElevenExactCasesInOrder) {
  const auto all = allServiceStates();
  ASSERT_EQ(all.size(), 11u);
  EXPECT_EQ(all.front(), ServiceState::discovered);
  EXPECT_EQ(all.back(), ServiceState::quarantined);
  for (ServiceState s : all) {
    EXPECT_EQ(serviceStateFromRawValue(rawValue(s)), s);
    const std::string text = TarskelJSON::encoder().encode(s);
    EXPECT_EQ(text, "\"" + std::string(rawValue(s)) + "\"");
    EXPECT_EQ(TarskelJSON::decoder().decode<ServiceState>(text), s);
  }
  for (const char* text : {"Running", " running", "running ", ""}) {
    EXPECT_EQ(serviceStateFromRawValue(text), std::nullopt) << text;
  }
  EXPECT_THROW(TarskelJSON::decoder().decode<ServiceState>("\"Running\""), DecodingError);
}

}  // namespace
}  // namespace tarskel
