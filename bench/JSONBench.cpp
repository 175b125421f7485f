// Decoding and canonical encoding of a hash-manifest-shaped document of
// 10,000 file entries (about 1 MB), beside nlohmann::json on the same bytes.

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "RatioReporter.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace {

std::string manifestDocument() {
  std::string doc =
      R"({"artifactId":"net.hollowick.platform","artifactType":"platform","expires":"2027-01-01T00:00:00Z",)"
      R"("metadata":{"channel":"stable","build":"4711"},"monotonicVersion":42,"version":"1.2.3","files":[)";
  for (int i = 0; i < 10000; ++i) {
    char entry[160];
    std::snprintf(
        entry, sizeof entry,
        R"(%s{"path":"Contents/Resources/module-%03d/file-%05d.bin","sha256":"%016x%016x%016x%016x"})",
        i == 0 ? "" : ",", i % 97, i, i * 2654435761u, i ^ 0x5bd1e995u, i * 40503u, i + 7u);
    doc += entry;
  }
  doc += "]}";
  return doc;
}

const std::string& document() {
  static const std::string doc = manifestDocument();
  return doc;
}

void JSONDecode_Tarskel(benchmark::State& state) {
  const tarskel::JSONDecoder decoder = tarskel::TarskelJSON::decoder();
  for (auto _ : state) {
    tarskel::JSONValue v = decoder.decode<tarskel::JSONValue>(document());
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document().size()));
}

void JSONDecode_nlohmann(benchmark::State& state) {
  for (auto _ : state) {
    nlohmann::json v = nlohmann::json::parse(document());
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document().size()));
}

void JSONCanonicalEncode_Tarskel(benchmark::State& state) {
  const tarskel::JSONValue v =
      tarskel::TarskelJSON::decoder().decode<tarskel::JSONValue>(document());
  const tarskel::JSONEncoder encoder = tarskel::TarskelJSON::canonicalEncoder();
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out = encoder.encode(v);
    bytes = out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// nlohmann's objects are std::maps, so dump() writes sorted keys as well.
void JSONCanonicalEncode_nlohmann(benchmark::State& state) {
  const nlohmann::json v = nlohmann::json::parse(document());
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out = v.dump();
    bytes = out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

BENCHMARK(JSONDecode_Tarskel);
BENCHMARK(JSONDecode_nlohmann);
BENCHMARK(JSONCanonicalEncode_Tarskel);
BENCHMARK(JSONCanonicalEncode_nlohmann);

}  // namespace

int main(int argc, char** argv) {
  return tarskel::bench::runWithRatios(
      argc, argv,
      {{"JSONDecode_Tarskel", "JSONDecode_nlohmann", 2.0},
       {"JSONCanonicalEncode_Tarskel", "JSONCanonicalEncode_nlohmann", 3.0}});
}
