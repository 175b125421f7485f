// DaemonCore.handle for "daemon.info" on the worker pool, 64 requests in
// flight, with a real AuditStore on a temporary file, beside the raw SQLite
// insert rate of the same row shape (AuditRowReference.hpp) in the same run.
// Every request costs one audit row, so the raw insert is the floor the core
// is measured against (target >= 0.8).

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "AuditRowReference.hpp"
#include "RatioReporter.hpp"
#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace {

using namespace tarskel;
namespace fs = std::filesystem;

constexpr int kInFlight = 64;

// Removed, with everything in it, when the process ends.
const fs::path& workDir() {
  static const tarskel::testing::TempDirectory dir("tarskel-core-bench");
  return dir.path();
}

std::string freshDatabase(const char* name) {
  static int counter = 0;
  return (workDir() / (name + std::to_string(counter++) + ".db")).string();
}

void RawAuditInsert(benchmark::State& state) {
  sqlite3* db = bench::openWithAuditPragmas(freshDatabase("raw"));
  std::int64_t n = 0;
  for (auto _ : state) {
    if (!bench::insertAuditRowRaw(db, n++)) state.SkipWithError("insert failed");
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}

// The daemon's arrangement: one pool sized to the hardware threads, both
// stores serialising on strands of it.
struct Daemon {
  Daemon()
      : pool(std::max(1u, std::thread::hardware_concurrency())),
        audit(std::make_shared<AuditStore>(SQLiteDatabase::open(freshDatabase("core")),
                                           pool.get_executor())),
        grants(std::make_shared<GrantsStore>(workDir() / "grants.json", pool.get_executor())),
        core(std::nullopt, audit, grants) {}
  ~Daemon() { pool.join(); }

  boost::asio::thread_pool pool;
  std::shared_ptr<AuditStore> audit;
  std::shared_ptr<GrantsStore> grants;
  DaemonCore core;
};

void HandleInfo64(benchmark::State& state) {
  Daemon d;
  const DaemonPeerVerdict peer = DaemonPeerVerdict::trusted("TEAMID1234");
  std::int64_t n = 0;
  for (auto _ : state) {
    std::vector<std::future<DaemonResponse>> batch;
    batch.reserve(kInFlight);
    for (int i = 0; i < kInFlight; ++i) {
      DaemonRequest request{
          "daemon.info", {}, "7d3c1e52-0000-4000-8000-" + std::to_string(n++), std::nullopt};
      batch.push_back(boost::asio::co_spawn(d.pool, d.core.handle(std::move(request), peer),
                                            boost::asio::use_future));
    }
    for (auto& f : batch) {
      if (!f.get().ok) state.SkipWithError("daemon.info failed");
    }
  }
  state.SetItemsProcessed(state.iterations() * kInFlight);
}

void HandleEncodedInfo64(benchmark::State& state) {
  Daemon d;
  const DaemonPeerVerdict peer = DaemonPeerVerdict::trusted("TEAMID1234");
  std::int64_t n = 0;
  for (auto _ : state) {
    std::vector<std::future<std::string>> batch;
    batch.reserve(kInFlight);
    for (int i = 0; i < kInFlight; ++i) {
      std::string bytes = R"({"op":"daemon.info","args":{},"correlationId":"7d3c1e52-)" +
                          std::to_string(n++) + "\"}";
      batch.push_back(boost::asio::co_spawn(d.pool, d.core.handleEncoded(std::move(bytes), peer),
                                            boost::asio::use_future));
    }
    for (auto& f : batch) benchmark::DoNotOptimize(f.get());
  }
  state.SetItemsProcessed(state.iterations() * kInFlight);
}

BENCHMARK(RawAuditInsert)->UseRealTime();
BENCHMARK(HandleInfo64)->UseRealTime();
BENCHMARK(HandleEncodedInfo64)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return tarskel::bench::runWithRatios(
      argc, argv,
      {{"HandleInfo64/real_time", "RawAuditInsert/real_time", 0.8},
       {"HandleEncodedInfo64/real_time", "RawAuditInsert/real_time", 0.8}});
}
