// tarskel audit verify|tail|show
//
// Reads the daemon's audit chain without ever writing to it: the database is
// opened read-only, so a wrong path never leaves a new file behind, and the
// daemon can keep recording while the tool reads.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/AuditStore.hpp"

namespace tarskel::tool {
namespace {

using Entry = AuditStore::Entry;

struct AuditSource {
  std::string root;
  std::string db;

  std::string path() const {
    if (!db.empty()) return db;
    if (!root.empty()) return root + "/daemon/audit.db";
    throw ToolFailure(kExitUsage, "indique --root o --db");
  }
};

// A store attached read-only. It never records, so no strand is ever run.
struct ReadOnlyAudit {
  boost::asio::io_context io;
  std::unique_ptr<AuditStore> store;

  explicit ReadOnlyAudit(const AuditSource& source) {
    const std::string path = source.path();
    try {
      store = std::make_unique<AuditStore>(SQLiteDatabase::openReadOnly(path), io.get_executor());
    } catch (const SQLiteDatabase::DBError& e) {
      throw ToolFailure(kExitUsage, path + ": " + e.description());
    }
  }
};

// One row for machines: every column under its own name, `ts` as the stored
// number so that the row's hash can be recomputed from the output.
struct AuditRowJSON {
  const Entry& e;
  void encode(KeyedEncoder& out) const {
    out.required("seq", e.seq);
    out.required("ts", e.ts.secondsSinceReferenceDate);
    out.required("caller", e.caller);
    out.required("tool", e.tool);
    out.required("origin", e.origin);
    out.required("outcome", e.outcome);
    out.required("duration_ms", e.durationMs);
    out.required("correlation_id", e.correlationId);
    out.required("prev_hash", e.prevHash);
    out.required("hash", e.hash);
  }
};

std::string jsonLines(const std::vector<Entry>& entries) {
  const JSONEncoder encoder = TarskelJSON::encoder();
  std::string out;
  for (const Entry& e : entries) {
    KeyedEncoder keyed;
    AuditRowJSON{e}.encode(keyed);
    out += encoder.encode(JSONValue(std::move(keyed).finish()));
    out += '\n';
  }
  return out;
}

// Rows for people: aligned columns, the caller last since it is the longest.
std::string table(const std::vector<Entry>& entries) {
  constexpr std::size_t kColumns = 8;
  using Line = std::array<std::string, kColumns>;
  std::vector<Line> lines{{"SEQ", "TIME", "OP", "OUTCOME", "ORIGIN", "CORRELATION", "MS", "CALLER"}};
  for (const Entry& e : entries) {
    lines.push_back({std::to_string(e.seq), formatISO8601(e.ts), e.tool, e.outcome, e.origin,
                     e.correlationId, fmt::format("{:.1f}", e.durationMs), e.caller});
  }
  std::array<std::size_t, kColumns> widths{};
  for (const Line& line : lines) {
    for (std::size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  std::string out;
  for (const Line& line : lines) {
    for (std::size_t i = 0; i + 1 < kColumns; ++i) out += fmt::format("{:<{}}  ", line[i], widths[i]);
    out += line[kColumns - 1] + '\n';
  }
  return out;
}

int printEntries(const std::vector<Entry>& entries, bool json) {
  writeOutput(json ? jsonLines(entries) : table(entries));
  return kExitSuccess;
}

int verify(const AuditSource& source) {
  ReadOnlyAudit audit(source);
  AuditStore::ChainReport report;
  try {
    report = audit.store->inspectChain();
  } catch (const SQLiteDatabase::DBError& e) {
    throw ToolFailure(kExitUsage, source.path() + ": " + e.description());
  }
  if (report.holds()) {
    writeOutput(fmt::format("chain ok: {} rows\n", report.rowsChecked));
    return kExitSuccess;
  }
  const auto& broken = *report.firstBreak;
  writeOutput(fmt::format("chain broken at seq {}: {}\n",
                          broken.seq ? std::to_string(*broken.seq) : std::string("?"), broken.reason));
  return kExitFinding;
}

template <class Read>
int list(const AuditSource& source, bool json, Read read) {
  ReadOnlyAudit audit(source);
  try {
    return printEntries(read(*audit.store), json);
  } catch (const SQLiteDatabase::DBError& e) {
    throw ToolFailure(kExitUsage, source.path() + ": " + e.description());
  }
}

void addSource(CLI::App* command, AuditSource& source) {
  auto* root = command->add_option("--root", source.root, "state root; reads ROOT/daemon/audit.db");
  auto* db = command->add_option("--db", source.db, "the audit database file itself");
  root->excludes(db);
  db->excludes(root);
}

void install(CLI::App& app, ToolContext& ctx) {
  CLI::App* audit = app.add_subcommand("audit", "Read and check the daemon's audit chain");
  audit->require_subcommand(1);

  auto source = std::make_shared<AuditSource>();
  auto json = std::make_shared<bool>(false);

  CLI::App* verifyCommand = audit->add_subcommand(
      "verify", "Check the chain; exit 1 naming the first row where it breaks");
  addSource(verifyCommand, *source);
  verifyCommand->callback([&ctx, source] { ctx.action = [source] { return verify(*source); }; });

  auto count = std::make_shared<std::int64_t>(20);
  CLI::App* tail = audit->add_subcommand("tail", "The newest rows, oldest first");
  addSource(tail, *source);
  tail->add_option("-n", *count, "how many rows (default 20; negative for all)");
  tail->add_flag("--json", *json, "one JSON object per row and line");
  tail->callback([&ctx, source, count, json] {
    ctx.action = [source, count, json] {
      return list(*source, *json, [&](const AuditStore& s) { return s.recentSync(*count); });
    };
  });

  auto correlation = std::make_shared<std::string>();
  CLI::App* show = audit->add_subcommand("show", "The rows of one correlation id");
  addSource(show, *source);
  show->add_option("--correlation", *correlation, "correlation id")->required();
  show->add_flag("--json", *json, "one JSON object per row and line");
  show->callback([&ctx, source, correlation, json] {
    ctx.action = [source, correlation, json] {
      return list(*source, *json, [&](const AuditStore& s) { return s.entriesSync(*correlation); });
    };
  });
}

const CommandRegistration kAudit(40, install);

}  // namespace
}  // namespace tarskel::tool
