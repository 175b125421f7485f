// tarskel audit verify|tail|show|export
//
// Reads the daemon's audit chain without ever writing to it: the database is
// opened read-only, so a wrong path never leaves a new file behind, and the
// daemon can keep recording while the tool reads. Listings stream row by row,
// so a million rows cost no more memory than ten.
//
// Exit codes: 0 ok; 1 the chain does not hold (broken, damaged, cut);
// 2 bad usage or a database that can't be read.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/AuditStore.hpp"

namespace tarskel::tool {
namespace {

using Entry = AuditStore::Entry;

struct AuditSource {
  std::string root;
  std::string db;

  // Without either, the installed daemon's database.
  std::string path() const {
    if (!db.empty()) return db;
    return (root.empty() ? std::string(TARSKEL_STATE_ROOT) : root) + "/daemon/audit.db";
  }
};

// Says why the file can't be read before SQLite does, in words: SQLite's
// own answer to a file the user may not read is "unable to open database
// file", and a read-only connection also needs the -wal and -shm.
void checkReadable(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string file = path + suffix;
    if (FileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC))) continue;
    int error = errno;
    if (error == ENOENT && *suffix != '\0') continue;  // no log: nothing to read there
    if (error == EACCES || error == EPERM) {
      throw ToolFailure(kExitUsage,
                        file + ": permission denied: the audit database is readable by " +
                            "its owner only (root); run this command as root, e.g. with sudo");
    }
    throw ToolFailure(kExitUsage, file + ": " + std::strerror(error));
  }
}

// A store attached read-only. It never records, so no strand is ever run.
struct ReadOnlyAudit {
  boost::asio::io_context io;
  std::unique_ptr<AuditStore> store;

  explicit ReadOnlyAudit(const std::string& path) {
    checkReadable(path);
    try {
      store = std::make_unique<AuditStore>(SQLiteDatabase::openReadOnly(path), io.get_executor());
    } catch (const SQLiteDatabase::DBError& e) {
      throw ToolFailure(kExitUsage, path + ": " + e.description());
    }
  }
};

// ---- Output for people ------------------------------------------------------

// Rows for people: aligned columns, the caller last since it is the longest.
// Streams in blocks; widths only ever grow, so a short listing comes out as
// one aligned table and a long one never holds more than a block.
class Table {
 public:
  static constexpr std::size_t kColumns = 8;
  static constexpr std::size_t kBlock = 256;
  using Line = std::array<std::string, kColumns>;

  Table() {
    lines_.push_back({"SEQ", "TIME", "OP", "OUTCOME", "ORIGIN", "CORRELATION", "MS", "CALLER"});
  }

  void add(const Entry& e) {
    lines_.push_back({std::to_string(e.seq), formatISO8601(e.ts), forTerminal(e.tool),
                      forTerminal(e.outcome), forTerminal(e.origin), forTerminal(e.correlationId),
                      fmt::format("{:.1f}", e.durationMs), forTerminal(e.caller)});
    if (lines_.size() >= kBlock) flush();
  }

  void flush() {
    for (const Line& line : lines_) {
      for (std::size_t i = 0; i < kColumns; ++i) widths_[i] = std::max(widths_[i], line[i].size());
    }
    std::string out;
    for (const Line& line : lines_) {
      for (std::size_t i = 0; i + 1 < kColumns; ++i)
        out += fmt::format("{:<{}}  ", line[i], widths_[i]);
      out += line[kColumns - 1] + '\n';
    }
    lines_.clear();
    if (!out.empty()) writeOutput(out);
  }

 private:
  std::vector<Line> lines_;
  std::array<std::size_t, kColumns> widths_{};
};

// ---- Output for machines ----------------------------------------------------

// `ts` in ISO 8601 to the millisecond, UTC.
std::string isoTime(Date ts) {
  double whole = std::floor(ts.secondsSinceReferenceDate);
  auto ms = static_cast<int>((ts.secondsSinceReferenceDate - whole) * 1000.0);
  UTCTime t = utcTime(Date{whole});
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", t.year, t.month, t.day, t.hour,
                     t.minute, t.second, ms);
}

// One row for machines: every column under its camelCase name, exactly as
// stored; `ts` as the stored number, so that the row's hash can be
// recomputed from the output, and `time` beside it for people.
std::string jsonLine(const Entry& e) {
  KeyedEncoder out;
  out.required("seq", e.seq);
  out.required("ts", e.ts.secondsSinceReferenceDate);
  out.required("time", isoTime(e.ts));
  out.required("caller", e.caller);
  out.required("tool", e.tool);
  out.required("origin", e.origin);
  out.required("outcome", e.outcome);
  out.required("durationMs", e.durationMs);
  out.required("correlationId", e.correlationId);
  out.required("prevHash", e.prevHash);
  out.required("hash", e.hash);
  return TarskelJSON::encoder().encode(JSONValue(std::move(out).finish())) + '\n';
}

// Where rows go: a table for people, or JSON lines written in blocks.
class Printer {
 public:
  explicit Printer(bool json) : json_(json) {}
  ~Printer() = default;

  void add(const Entry& e) {
    if (!json_) return table_.add(e);
    pending_ += jsonLine(e);
    if (pending_.size() >= 64 * 1024) flush();
  }
  void flush() {
    if (!json_) return table_.flush();
    if (!pending_.empty()) writeOutput(pending_);
    pending_.clear();
  }

 private:
  bool json_;
  Table table_;
  std::string pending_;
};

// ---- Commands ---------------------------------------------------------------

struct Listing {
  AuditSource source;
  std::int64_t count = 20;  // tail only; negative: all
  bool json = false;
  bool follow = false;
  std::string op, outcome, since, until;
  std::string correlation;  // show only
  std::int64_t from = 1;    // export and verify
  bool reverse = false;     // tail only: newest first
  std::string expectHead;   // verify only: SEQ:HASH
};

// "now", "today" and "yesterday" (from midnight UTC), or "-<n><unit>" back
// from now, the unit s, m, h, d or w.
std::optional<Date> parseRelativeTime(const std::string& text, Date now) {
  constexpr double kDay = 86400;
  const double midnight = std::floor(now.unixTime() / kDay) * kDay;
  if (text == "now") return now;
  if (text == "today") return Date::fromUnixTime(midnight);
  if (text == "yesterday") return Date::fromUnixTime(midnight - kDay);
  static const std::map<char, double> kUnits{
      {'s', 1}, {'m', 60}, {'h', 3600}, {'d', kDay}, {'w', 7 * kDay}};
  if (text.size() < 3 || text.front() != '-' || !kUnits.contains(text.back())) return std::nullopt;
  std::int64_t count = 0;
  const char* last = text.data() + text.size() - 1;
  auto [end, error] = std::from_chars(text.data() + 1, last, count);
  if (error != std::errc() || end != last || count < 0) return std::nullopt;
  return Date{now.secondsSinceReferenceDate - static_cast<double>(count) * kUnits.at(text.back())};
}

std::optional<Date> parseTime(const std::string& option, const std::string& text) {
  if (text.empty()) return std::nullopt;
  if (auto d = parseISO8601(text)) return d;
  if (auto d = parseISO8601(text + "T00:00:00Z")) return d;
  if (auto d = parseRelativeTime(text, Date::now())) return d;
  throw ToolFailure(kExitUsage, option + ": not a time: " + text +
                                    " (write 2025-11-15T19:08:04Z, in UTC, 2025-11-15, -1h, "
                                    "-30m, -2d, today or yesterday)");
}

AuditStore::Filter filterOf(const Listing& l) {
  AuditStore::Filter f;
  if (!l.op.empty()) f.tool = l.op;
  if (!l.outcome.empty()) f.outcome = l.outcome;
  f.since = parseTime("--since", l.since);
  f.until = parseTime("--until", l.until);
  return f;
}

template <class Body>
auto readingDatabase(const std::string& path, Body body) {
  try {
    return body();
  } catch (const SQLiteDatabase::DBError& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

int list(const Listing& l, bool tail) {
  const std::string path = l.source.path();
  AuditStore::Filter filter = filterOf(l);
  ReadOnlyAudit audit(path);
  Printer printer(l.json);
  return readingDatabase(path, [&] {
    if (tail && l.count >= 0) {
      // The last `count` rows: find where they start, then stream from there.
      // None at all: start after the last, which --follow then waits beyond.
      if (l.count == 0) {
        filter.afterSeq = audit.store->startOfLast(filter, 1).value_or(0);
      } else {
        std::optional<std::int64_t> start = audit.store->startOfLast(filter, l.count);
        filter.afterSeq = start ? *start - 1 : 0;
      }
    } else if (!tail) {
      filter.afterSeq = std::max<std::int64_t>(l.from, 1) - 1;
    }
    std::vector<Entry> held;  // -r: read oldest first, held, printed backwards
    auto print = [&](const Entry& e) {
      if (l.reverse) {
        held.push_back(e);
      } else {
        printer.add(e);
      }
      filter.afterSeq = e.seq;
      return true;
    };
    audit.store->forEachEntry(filter, print);
    for (auto e = held.rbegin(); e != held.rend(); ++e) printer.add(*e);
    printer.flush();
    while (l.follow) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      audit.store->forEachEntry(filter, print);
      printer.flush();
    }
    return static_cast<int>(kExitSuccess);
  });
}

int show(const Listing& l) {
  const std::string path = l.source.path();
  ReadOnlyAudit audit(path);
  Printer printer(l.json);
  readingDatabase(path, [&] {
    for (const Entry& e : audit.store->entriesSync(l.correlation)) printer.add(e);
  });
  printer.flush();
  return kExitSuccess;
}

const char* problemOf(AuditStore::ChainBreak::Kind kind) {
  switch (kind) {
    case AuditStore::ChainBreak::Kind::broken:
      return "broken";
    case AuditStore::ChainBreak::Kind::damaged:
      return "damaged";
    case AuditStore::ChainBreak::Kind::cut:
      return "cut";
  }
  return "broken";
}

// The report in words: the head on success, so that it can be anchored
// elsewhere; the first fault otherwise.
std::string verdictText(const AuditStore::ChainReport& r, std::int64_t from) {
  using Kind = AuditStore::ChainBreak::Kind;
  if (r.holds()) {
    std::string scope = from > 1 ? fmt::format(" from seq {}", from) : "";
    return fmt::format("chain ok{}: {} rows, head seq {} hash {}\n", scope, r.rowsChecked,
                       r.headSeq,
                       r.headHash.empty() ? std::string(AuditStore::kGenesisHash) : r.headHash);
  }
  const AuditStore::ChainBreak& b = *r.firstBreak;
  std::string seq = b.seq ? std::to_string(*b.seq) : std::string("?");
  switch (b.kind) {
    case Kind::damaged:
      return fmt::format("database damaged after seq {}: {}\n", seq, b.reason);
    case Kind::cut:
      return fmt::format("chain cut after seq {}: {}\n", seq, b.reason);
    case Kind::broken:
      break;
  }
  return fmt::format("chain broken at seq {}: {}\n", seq, b.reason);
}

std::string verdictJSON(const AuditStore::ChainReport& r, std::int64_t from,
                        const std::string& anchorFault) {
  KeyedEncoder out;
  out.required("ok", r.holds() && anchorFault.empty());
  if (!anchorFault.empty()) out.required("anchorFault", anchorFault);
  out.required("fromSeq", std::max<std::int64_t>(from, 1));
  out.required("rowsChecked", r.rowsChecked);
  out.required("headSeq", r.headSeq);
  out.required("headHash", r.headHash);
  if (r.firstBreak) {
    out.required("problem", std::string(problemOf(r.firstBreak->kind)));
    if (r.firstBreak->seq) out.required("seq", *r.firstBreak->seq);
    out.required("reason", r.firstBreak->reason);
  }
  return TarskelJSON::encoder().encode(JSONValue(std::move(out).finish())) + '\n';
}

struct Anchor {
  std::int64_t seq = 0;
  std::string hash;
};

// SEQ:HASH, as verify prints a head.
Anchor parseAnchor(const std::string& text) {
  Anchor anchor;
  const std::size_t colon = text.find(':');
  const std::string seq = text.substr(0, colon);
  auto [end, error] = std::from_chars(seq.data(), seq.data() + seq.size(), anchor.seq);
  if (colon != std::string::npos) anchor.hash = text.substr(colon + 1);
  const bool hex = anchor.hash.size() == 64 &&
                   anchor.hash.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (error != std::errc() || end != seq.data() + seq.size() || anchor.seq < 1 || !hex) {
    throw ToolFailure(kExitUsage,
                      "--expect-head takes SEQ:HASH (a seq and 64 lower-case hex "
                      "digits, as verify prints the head): " +
                          text);
  }
  return anchor;
}

// "" when the chain holds `anchor`'s hash at its seq; otherwise why not.
std::string anchorFault(const ReadOnlyAudit& audit, const Anchor& anchor) {
  std::optional<Entry> row;
  AuditStore::Filter filter;
  filter.afterSeq = anchor.seq - 1;
  audit.store->forEachEntry(filter, [&](const Entry& e) {
    if (e.seq == anchor.seq) row = e;
    return false;
  });
  if (!row) return fmt::format("the chain holds no row at seq {}", anchor.seq);
  if (row->hash != anchor.hash) {
    return fmt::format("seq {} has hash {}, not the kept {}", anchor.seq, row->hash, anchor.hash);
  }
  return {};
}

int verify(const Listing& l) {
  const std::optional<Anchor> anchor =
      l.expectHead.empty() ? std::nullopt : std::optional(parseAnchor(l.expectHead));
  const std::string path = l.source.path();
  ReadOnlyAudit audit(path);
  AuditStore::ChainReport report;
  try {
    report = audit.store->inspectChain(l.from);
  } catch (const SQLiteDatabase::DBError& e) {
    // A file SQLite can't read as a database at all never verifies.
    if (e.code() != 11 /* SQLITE_CORRUPT */ && e.code() != 26 /* SQLITE_NOTADB */) {
      throw ToolFailure(kExitUsage, path + ": " + e.description());
    }
    report.firstBreak =
        AuditStore::ChainBreak{AuditStore::ChainBreak::Kind::damaged, 0, e.message()};
  }
  std::string fault;
  if (report.holds() && anchor) {
    fault = readingDatabase(path, [&] { return anchorFault(audit, *anchor); });
  }
  if (l.json) {
    writeOutput(verdictJSON(report, l.from, fault));
  } else {
    writeOutput(verdictText(report, l.from));
    if (!fault.empty()) writeOutput("anchor not held: " + fault + "\n");
  }
  return report.holds() && fault.empty() ? kExitSuccess : kExitFailure;
}

void addSource(CLI::App* command, Listing& l) {
  auto* root = command->add_option(
      "--root", l.source.root,
      "state root; reads ROOT/daemon/audit.db (default " TARSKEL_STATE_ROOT ")");
  auto* db = command->add_option("--db", l.source.db, "the audit database file itself");
  root->excludes(db);
  db->excludes(root);
}

void addFilters(CLI::App* command, Listing& l) {
  command->add_option("--op", l.op, "only rows of this operation");
  command->add_option("--outcome", l.outcome, "only rows with this outcome")
      ->check(CLI::IsMember({"ok", "denied", "error"}));
  command->add_option("--since", l.since,
                      "only rows at or after this UTC time (2025-11-15T19:08:04Z, 2025-11-15, "
                      "-1h, -2d, today, yesterday)");
  command->add_option("--until", l.until, "only rows at or before this UTC time");
}

}  // namespace

void installAuditCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* audit = app.add_subcommand("audit", "Read and check the daemon's audit chain");
  audit->require_subcommand(1);
  auto l = std::make_shared<Listing>();

  CLI::App* verifyCommand = audit->add_subcommand(
      "verify", "Check the chain: print its head, or exit 1 naming where it breaks");
  addSource(verifyCommand, *l);
  verifyCommand->add_option("--from", l->from, "start at this seq, taking its prev_hash as given");
  verifyCommand->add_flag("--json", l->json, "the verdict as one JSON object");
  verifyCommand->add_option("--expect-head", l->expectHead,
                            "SEQ:HASH kept from an earlier verify: exit 1 unless the chain "
                            "holds that hash at that seq");
  verifyCommand->callback([&ctx, l] { ctx.action = [l] { return verify(*l); }; });

  CLI::App* tail = audit->add_subcommand("tail", "The newest rows, oldest first");
  addSource(tail, *l);
  tail->add_option("-n", l->count, "how many rows (default 20; negative for all)");
  tail->add_flag("--json", l->json, "one JSON object per row and line");
  auto* follow =
      tail->add_flag("-f,--follow", l->follow, "keep printing rows as they are recorded");
  tail->add_flag("-r,--reverse", l->reverse, "newest first")->excludes(follow);
  addFilters(tail, *l);
  tail->callback([&ctx, l] { ctx.action = [l] { return list(*l, true); }; });

  CLI::App* exportCommand =
      audit->add_subcommand("export", "Every row as JSON lines, oldest first");
  addSource(exportCommand, *l);
  exportCommand->add_option("--from", l->from, "start at this seq");
  addFilters(exportCommand, *l);
  exportCommand->callback([&ctx, l] {
    l->json = true;
    ctx.action = [l] { return list(*l, false); };
  });

  CLI::App* showCommand = audit->add_subcommand("show", "The rows of one correlation id");
  addSource(showCommand, *l);
  showCommand->add_option("--correlation", l->correlation, "correlation id")->required();
  showCommand->add_flag("--json", l->json, "one JSON object per row and line");
  showCommand->callback([&ctx, l] { ctx.action = [l] { return show(*l); }; });
}

}  // namespace tarskel::tool
