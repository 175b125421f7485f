// Sealing and verifying a large tree, beside `openssl dgst -sha256` over the
// same files in the same iteration. The tree (2,000 files, 512 MiB) is made
// once under /tmp and reused; every pass reads it from the page cache.
//
// Counters: ours_MBps and openssl_MBps (wall clock), vs_openssl (their
// ratio), and cpu_vs_openssl, the ratio of CPU seconds spent (openssl's over
// ours, all threads counted), which stays meaningful on a busy machine.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/VendorHashing.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tarskel;

constexpr std::size_t kFiles = 2000;
constexpr std::uint64_t kTotalBytes = 512ull << 20;
const fs::path kBase = "/tmp/tarskel-sealbench";
const fs::path kTree = kBase / "tree";
const fs::path kReady = kBase / "ready-2000-512M";  // outside the tree, so it is not content

// Sizes from a few bytes to about 0.5 MiB, summing to kTotalBytes exactly.
std::vector<std::uint64_t> fileSizes() {
  std::vector<std::uint64_t> weights(kFiles);
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < kFiles; ++i) sum += weights[i] = 1 + (i * 7919) % 97;
  std::vector<std::uint64_t> sizes(kFiles);
  std::uint64_t given = 0;
  for (std::size_t i = 0; i + 1 < kFiles; ++i) given += sizes[i] = kTotalBytes * weights[i] / sum;
  sizes.back() = kTotalBytes - given;
  return sizes;
}

std::string relativePath(std::size_t i) {
  std::string path = "d";
  path.append(std::to_string(i % 20)).append("/s").append(std::to_string(i % 7));
  return path.append("/f").append(std::to_string(i));
}

void makeTree() {
  if (fs::exists(kReady)) return;
  fs::remove_all(kTree);
  std::uint64_t state = 0x9e3779b97f4a7c15ull;
  std::vector<std::uint64_t> buffer;
  const auto sizes = fileSizes();
  for (std::size_t i = 0; i < kFiles; ++i) {
    const fs::path path = kTree / relativePath(i);
    fs::create_directories(path.parent_path());
    buffer.resize(sizes[i] / 8 + 1);
    for (auto& word : buffer) {  // xorshift64: incompressible, cheap
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(buffer.data()),
               static_cast<std::streamsize>(sizes[i]));
  }
  std::ofstream(kReady) << "ok\n";
}

// The same files, in one command line, written to nowhere.
std::string opensslCommand() {
  std::string command = "cd " + kTree.string() + " && openssl dgst -sha256 -r";
  for (std::size_t i = 0; i < kFiles; ++i) command.append(" ").append(relativePath(i));
  return command + " >/dev/null";
}

double cpuSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double secondsOf(const auto& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Fixture {
  Fixture() {
    makeTree();
    BundleSeal::seal(kTree, "bench", ArtifactType::platform, "1", 1, Date{1e9}, pair, std::nullopt);
    // Warm the page cache.
    for (std::size_t i = 0; i < kFiles; ++i)
      VendorHashing::sha256HexOfFile(kTree / relativePath(i));
  }
  Ed25519KeyPair pair{"bench"};
  VendorAllowlist allowlist{1, {pair.vendorKey()}};
  VendorVerification verification{std::make_shared<Ed25519Algorithm>(), [] { return Date{0}; }};
  std::string openssl = opensslCommand();
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

template <class Body>
void compareWithOpenSSL(benchmark::State& state, const Body& ours) {
  Fixture& f = fixture();
  double oursSeconds = 0;
  double opensslSeconds = 0;
  const double selfCpuBefore = cpuSeconds(RUSAGE_SELF);
  const double childCpuBefore = cpuSeconds(RUSAGE_CHILDREN);
  for (auto _ : state) {
    opensslSeconds += secondsOf([&] {
      if (std::system(f.openssl.c_str()) != 0) state.SkipWithError("openssl dgst failed");
    });
    const double seconds = secondsOf(ours);
    oursSeconds += seconds;
    state.SetIterationTime(seconds);
  }
  // The benchmark's own bookkeeping is noise beside 512 MiB of hashing.
  const double oursCpu = cpuSeconds(RUSAGE_SELF) - selfCpuBefore;
  const double opensslCpu = cpuSeconds(RUSAGE_CHILDREN) - childCpuBefore;
  state.counters["cpu_vs_openssl"] = opensslCpu / oursCpu;
  const double megabytes =
      static_cast<double>(kTotalBytes) / 1e6 * static_cast<double>(state.iterations());
  state.counters["ours_MBps"] = megabytes / oursSeconds;
  state.counters["openssl_MBps"] = megabytes / opensslSeconds;
  state.counters["vs_openssl"] = opensslSeconds / oursSeconds;
  state.SetBytesProcessed(static_cast<std::int64_t>(kTotalBytes) * state.iterations());
}

void BM_Verify(benchmark::State& state) {
  Fixture& f = fixture();
  const SealHashing hashing{static_cast<unsigned>(state.range(0)), {}};
  compareWithOpenSSL(state, [&] {
    benchmark::DoNotOptimize(
        BundleSeal::verify(kTree, f.verification, f.allowlist, std::nullopt, false, hashing));
  });
}

void BM_Seal(benchmark::State& state) {
  Fixture& f = fixture();
  const SealHashing hashing{static_cast<unsigned>(state.range(0)), {}};
  compareWithOpenSSL(state, [&] {
    benchmark::DoNotOptimize(BundleSeal::seal(kTree, "bench", ArtifactType::platform, "1", 1,
                                              Date{1e9}, f.pair, std::nullopt, hashing));
  });
}

BENCHMARK(BM_Verify)->ArgName("threads")->Arg(1)->Arg(2)->UseManualTime()->Iterations(4)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_Seal)->ArgName("threads")->Arg(1)->Arg(2)->UseManualTime()->Iterations(4)->Unit(
    benchmark::kMillisecond);

}  // namespace
