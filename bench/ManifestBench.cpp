// Reading and validating a realistic service manifest (20 executables, 30
// tools, a configuration schema of 50 fields), in manifests per second,
// beside reading the same bytes into a plain JSONValue tree. The ratio
// read+validate over parse is what the model and its rules cost on top of
// the JSON parse; the target is at most 4.
//
//   cmake --preset bench && cmake --build build/bench --target ManifestBench
//   build/bench/bench/ManifestBench

#include <benchmark/benchmark.h>
#include <time.h>

#include <string>
#include <vector>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"

using namespace tarskel;

namespace {

std::string makeManifest() {
  std::string m =
      R"({"id":"net.example.notes","version":"2.4.1","displayName":"Notes","scope":"user",)"
      R"("platformApi":"^1.2","executables":{)";
  const char* os[] = {"darwin", "linux", "windows"};
  const char* arch[] = {"arm64", "x86_64"};
  // Six real targets, then variants a packager keeps beside them.
  for (int i = 0; i < 20; ++i) {
    const std::string key =
        std::string(os[i % 3]) + "-" + arch[(i / 3) % 2] + (i < 6 ? "" : "-v" + std::to_string(i));
    if (i) m += ',';
    m += ("\"" + key + "\":\"bin/" + key + "/notes\"");
  }
  m +=
      R"(},"dependencies":[{"service":"net.example.sync","version":">=1.4"},{"service":"net.example.search","version":"2.x","optional":true}],)"
      R"("privileges":{"privilegedOps":["fs.readProtectedPath"]},"permissions":{"files":["~/Documents"]},)"
      R"("activation":{"mode":"on-demand","idleStopMinutes":15},"schedule":["daily@03:30","daily@12:00"],)"
      R"("resources":{"memoryMaxMB":256,"cpuPercentMax":40},"energy":{"deferrable":true},"tools":[)";
  for (int i = 0; i < 30; ++i) {
    if (i) m += ',';
    m += ("{\"name\":\"notes.tool" + std::to_string(i) +
          "\",\"description\":\"Does the thing number " + std::to_string(i) +
          " to a note\",\"inputSchema\":{\"type\":\"object\",\"required\":[\"noteId\"],"
          "\"properties\":{\"noteId\":{\"type\":\"string\",\"pattern\":\"^[a-f0-9]{8}$\"},"
          "\"limit\":{\"type\":\"integer\",\"minimum\":1,\"maximum\":100}}}}");
  }
  m +=
      R"(],"toolAccess":["net.example.sync/sync.push","net.example.search/*"],"configSchema":{"type":"object","properties":{)";
  for (int i = 0; i < 50; ++i) {
    if (i) m += ',';
    m += ("\"field" + std::to_string(i) + "\":{\"type\":\"" + (i % 2 ? "string" : "integer") +
          "\",\"description\":\"Setting " + std::to_string(i) +
          "\",\"x-risk\":\"safe\",\"default\":" + (i % 2 ? "\"x\"" : "1") + "}");
  }
  m +=
      R"(}},"migrations":[{"from":"1.x"}],"events":{"publishes":["notes.changed"],"subscribes":["sync.done"]},)"
      R"("tray":{"section":[{"type":"status","bind":"notes.count"},{"type":"action","title":"Nueva","tool":"notes.tool1"}]},)"
      R"("restartPolicy":{"mode":"on-failure","backoffSeconds":[1,5,30],"maxFailures":3,"window":300}})";
  return m;
}

// Thread CPU time, so that other processes on a shared machine do not blur
// the two figures differently.
double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void BM_ManifestReadValidateVersusParse(benchmark::State& state) {
  const std::string bytes = makeManifest();
  const JSONDecoder decoder = TarskelJSON::decoder();
  double decodeSeconds = 0;
  double validateSeconds = 0;
  double parseSeconds = 0;
  std::size_t findings = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    const ServiceManifest manifest = decoder.decode<ServiceManifest>(bytes);
    const double t1 = threadSeconds();
    const std::vector<ManifestValidationError> errors = manifest.validate();
    const double t2 = threadSeconds();
    const JSONValue tree = decoder.decode<JSONValue>(bytes);
    const double t3 = threadSeconds();
    benchmark::DoNotOptimize(tree);
    findings = errors.size();
    decodeSeconds += t1 - t0;
    validateSeconds += t2 - t1;
    parseSeconds += t3 - t2;
  }
  // The fourteen extra targets are the only faults.
  if (findings != 14) state.SkipWithError("the fixture should give 14 findings");
  const double n = static_cast<double>(state.iterations());
  state.counters["bytes"] = static_cast<double>(bytes.size());
  state.counters["read_validate_per_s"] = n / (decodeSeconds + validateSeconds);
  state.counters["parse_per_s"] = n / parseSeconds;
  state.counters["validate_share"] = validateSeconds / (decodeSeconds + validateSeconds);
  state.counters["ratio_read_validate_over_parse"] =
      (decodeSeconds + validateSeconds) / parseSeconds;
}
BENCHMARK(BM_ManifestReadValidateVersusParse)->Unit(benchmark::kMicrosecond);

}  // namespace
