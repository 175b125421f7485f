// Schema validation of one object of 1,000 members, in members per second,
// beside a plain walk over the same members that only checks their JSON
// kinds: the ratio validate/walk is what the schema machinery costs on top of
// visiting the tree.

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tarskel/protocol/schema/SchemaNode.hpp"

using namespace tarskel;

namespace {

constexpr int kMembers = 1000;

struct Fixture {
  SchemaNode schema;
  JSONValue value;
  std::map<std::string, JSONValue::Kind> kinds;  // what the walk checks against
};

std::string memberName(int i) { return "field" + std::to_string(i); }

Fixture makeFixture() {
  Fixture f;
  std::map<std::string, SchemaNode> properties;
  std::vector<JSONObject::Member> members;
  for (int i = 0; i < kMembers; ++i) {
    SchemaNode node;
    JSONValue member;
    switch (i % 4) {
      case 0:
        node.type = SchemaType::integer;
        node.minimum = 0;
        node.maximum = 1e6;
        member = JSONValue(i * 7);
        break;
      case 1:
        node.type = SchemaType::number;
        node.minimum = -1;
        node.maximum = 1;
        member = JSONValue(0.5);
        break;
      case 2:
        node.type = SchemaType::string;
        node.minLength = 1;
        node.maxLength = 64;
        // One string member in five also carries a pattern.
        if (i % 20 == 2) node.pattern = "^[a-z]+-[0-9]+$";
        member = JSONValue("item-" + std::to_string(i));
        break;
      default:
        node.type = SchemaType::boolean;
        member = JSONValue(i % 8 == 3);
        break;
    }
    f.kinds.emplace(memberName(i), member.kind());
    properties.emplace(memberName(i), std::move(node));
    members.emplace_back(memberName(i), std::move(member));
  }
  f.schema.type = SchemaType::object;
  f.schema.properties = std::move(properties);
  f.schema.additionalProperties = false;
  f.value = JSONValue(JSONObject::fromUnsorted(std::move(members)));
  return f;
}

// The reference: visit every member, find what it should be, compare kinds.
std::size_t walk(const Fixture& f) {
  std::size_t mismatches = 0;
  for (const auto& [key, member] : *f.value.objectValue()) {
    auto expected = f.kinds.find(key);
    if (expected == f.kinds.end() || expected->second != member.kind()) ++mismatches;
  }
  return mismatches;
}

// Thread CPU time, so that other processes on a shared machine do not blur
// the two figures differently.
double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void BM_SchemaValidateVersusWalk(benchmark::State& state) {
  const Fixture f = makeFixture();
  double validateSeconds = 0;
  double walkSeconds = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    std::vector<SchemaViolation> found = f.schema.validate(f.value, "$");
    const double t1 = threadSeconds();
    std::size_t mismatches = walk(f);
    const double t2 = threadSeconds();
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(mismatches);
    if (!found.empty() || mismatches != 0) state.SkipWithError("the fixture should be valid");
    validateSeconds += t1 - t0;
    walkSeconds += t2 - t1;
  }
  const double visited = static_cast<double>(state.iterations()) * kMembers;
  state.counters["validate_members_per_s"] = visited / validateSeconds;
  state.counters["walk_members_per_s"] = visited / walkSeconds;
  state.counters["ratio_validate_over_walk"] = validateSeconds / walkSeconds;
}
BENCHMARK(BM_SchemaValidateVersusWalk)->Unit(benchmark::kMicrosecond);

}  // namespace
