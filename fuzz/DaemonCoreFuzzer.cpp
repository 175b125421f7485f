// Arbitrary bytes as a request: DaemonCore.handleEncoded must answer every
// input with bytes that decode as a DaemonResponse, and must never crash.

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/daemon/DaemonCore.hpp"

namespace {

using namespace tarskel;

struct Daemon {
  Daemon() {
    db = SQLiteDatabase::open((dir.path / "audit.db").string());
    audit = std::make_shared<AuditStore>(db, io.get_executor());
    grants = std::make_shared<GrantsStore>(dir.path / "grants.json", io.get_executor());
    grants->replaceSync({{"svc", {"fs.readProtectedPath"}}});
    core = std::make_unique<DaemonCore>(std::nullopt, audit, grants);
  }

  std::string answer(std::string bytes, DaemonPeerVerdict peer) {
    std::string out;
    bool done = false;
    boost::asio::co_spawn(io, core->handleEncoded(std::move(bytes), std::move(peer)),
                          [&](std::exception_ptr error, std::string reply) {
                            fuzz::require(!error);  // handleEncoded never throws
                            out = std::move(reply);
                            done = true;
                          });
    io.restart();
    io.run();
    fuzz::require(done);
    return out;
  }

  // Keeps the table small so that a long run measures the core, not the disk.
  void trimAudit() {
    if (++calls % 20000 == 0) db->exec("DELETE FROM audit;");
  }

  // Declared first, so that it is removed after everything that uses it.
  fuzz::ScratchDirectory dir;
  boost::asio::io_context io;
  std::shared_ptr<SQLiteDatabase> db;
  std::shared_ptr<AuditStore> audit;
  std::shared_ptr<GrantsStore> grants;
  std::unique_ptr<DaemonCore> core;
  std::uint64_t calls = 0;
};

Daemon& daemon() {
  static Daemon instance;  // outlives every input; removed at exit
  return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Daemon& d = daemon();
  // The input's length picks the verdict, so the refusals are fuzzed too
  // without taking bytes away from the request.
  DaemonPeerVerdict peer = size % 3 == 0   ? DaemonPeerVerdict::rejected("fuzz")
                           : size % 3 == 1 ? DaemonPeerVerdict::unverified("fuzz")
                                           : DaemonPeerVerdict::trusted("FUZZTEAM");
  const std::string reply = d.answer(std::string(fuzz::text(data, size)), std::move(peer));
  fuzz::require(!reply.empty());  // none of the built-in operations yields a non-finite number
  // An answer that doesn't read throws out of the target, and so ends the run.
  const auto response = TarskelJSON::decoder().decode<DaemonResponse>(reply);
  fuzz::require(response.ok != response.error.has_value());
  d.trimAudit();
  return 0;
}
