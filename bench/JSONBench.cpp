// Decoding of documents of about 100 B, 1 KB, 10 KB and 1 MB beside
// nlohmann::json and simdjson's own DOM parse of the same bytes (the floor
// under any tree), and canonical encoding of the 1 MB document beside
// nlohmann's dump.
//
//   make bench && build/bench/bench/JSONBench [--benchmark_repetitions=N]

#include <simdjson.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "RatioReporter.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace {

// A hash-manifest-shaped document with `files` file entries.
std::string manifestDocument(int files) {
  std::string doc =
      R"({"artifactId":"net.hollowick.platform","artifactType":"platform","expires":"2027-01-01T00:00:00Z",)"
      R"("metadata":{"channel":"stable","build":"4711"},"monotonicVersion":42,"version":"1.2.3","files":[)";
  for (int i = 0; i < files; ++i) {
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

enum Size { k100B, k1KB, k10KB, k1MB };

const std::string& document(Size size) {
  static const std::array<std::string, 4> docs = {
      R"({"jsonrpc":"2.0","id":17,"method":"config.get","params":{"keys":["interval","paths"],"n":-1.5}})",
      manifestDocument(6), manifestDocument(80), manifestDocument(8500)};
  return docs[size];
}

void JSONDecode_Tarskel(benchmark::State& state, Size size) {
  const std::string& doc = document(size);
  const tarskel::JSONDecoder decoder = tarskel::TarskelJSON::decoder();
  for (auto _ : state) {
    tarskel::JSONValue v = decoder.decode<tarskel::JSONValue>(doc);
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
}

void JSONDecode_nlohmann(benchmark::State& state, Size size) {
  const std::string& doc = document(size);
  for (auto _ : state) {
    nlohmann::json v = nlohmann::json::parse(doc);
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
}

// simdjson as its authors use it: one parser reused, the DOM kept in it.
void JSONDecode_simdjson(benchmark::State& state, Size size) {
  const std::string& doc = document(size);
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element root;
    if (parser.parse(doc).get(root) != simdjson::SUCCESS) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * doc.size()));
}

void JSONCanonicalEncode_Tarskel(benchmark::State& state) {
  const tarskel::JSONValue v =
      tarskel::TarskelJSON::decoder().decode<tarskel::JSONValue>(document(k1MB));
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
  const nlohmann::json v = nlohmann::json::parse(document(k1MB));
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out = v.dump();
    bytes = out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

#define JSON_DECODE_SIZES(fn)         \
  BENCHMARK_CAPTURE(fn, 100B, k100B); \
  BENCHMARK_CAPTURE(fn, 1KB, k1KB);   \
  BENCHMARK_CAPTURE(fn, 10KB, k10KB); \
  BENCHMARK_CAPTURE(fn, 1MB, k1MB)

JSON_DECODE_SIZES(JSONDecode_Tarskel);
JSON_DECODE_SIZES(JSONDecode_nlohmann);
JSON_DECODE_SIZES(JSONDecode_simdjson);
BENCHMARK(JSONCanonicalEncode_Tarskel);
BENCHMARK(JSONCanonicalEncode_nlohmann);

}  // namespace

int main(int argc, char** argv) {
  std::vector<tarskel::bench::Goal> goals;
  for (const char* size : {"100B", "1KB", "10KB", "1MB"}) {
    const std::string s(size);
    goals.push_back({"json-decode-" + s + "-vs-nlohmann", "JSONDecode_Tarskel/" + s,
                     "JSONDecode_nlohmann/" + s, ">=", 2});
    goals.push_back({"json-decode-" + s + "-vs-simdjson", "JSONDecode_Tarskel/" + s,
                     "JSONDecode_simdjson/" + s, "<=", 2});
  }
  goals.push_back({"json-canonical-encode-vs-nlohmann", "JSONCanonicalEncode_Tarskel",
                   "JSONCanonicalEncode_nlohmann", ">=", 3});
  return tarskel::bench::runWithRatios(argc, argv, {}, std::move(goals));
}
