#include "tarskel/store/AuditStore.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/async_result.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

#include "tarskel/protocol/base/UTF8.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/Hashing.hpp"

namespace tarskel {
namespace {

using boost::asio::awaitable;
using boost::asio::use_awaitable;
using Value = SQLiteDatabase::Value;
using Row = SQLiteDatabase::Row;

constexpr const char* kHeadQuery = "SELECT hash FROM audit ORDER BY seq DESC LIMIT 1;";
constexpr const char* kInsert =
    "INSERT INTO audit (ts, caller, tool, origin, outcome, duration_ms, correlation_id, "
    "prev_hash, hash)\nVALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);";
constexpr const char* kRecentQuery = "SELECT * FROM audit ORDER BY seq DESC LIMIT ?;";
constexpr const char* kCorrelationQuery =
    "SELECT * FROM audit WHERE correlation_id = ? ORDER BY seq ASC;";
constexpr const char* kChainQuery = "SELECT * FROM audit ORDER BY seq ASC;";
constexpr const char* kChainFromQuery = "SELECT * FROM audit WHERE seq >= ? ORDER BY seq ASC;";
constexpr const char* kSequenceQuery = "SELECT seq FROM sqlite_sequence WHERE name = 'audit';";
#define TARSKEL_AUDIT_FILTER                                                       \
  "WHERE seq > ?1 AND (?2 IS NULL OR tool = ?2) AND (?3 IS NULL OR outcome = ?3) " \
  "AND (?4 IS NULL OR ts >= ?4) AND (?5 IS NULL OR ts <= ?5) "
constexpr const char* kFilteredQuery =
    "SELECT * FROM audit " TARSKEL_AUDIT_FILTER "ORDER BY seq ASC;";
constexpr const char* kStartOfLastQuery =
    "SELECT seq FROM audit " TARSKEL_AUDIT_FILTER "ORDER BY seq DESC LIMIT 1 OFFSET ?6;";
#undef TARSKEL_AUDIT_FILTER
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";     // U+2026

// The ten columns of a row, looked up once: elements of a Row never move.
struct Columns {
  static constexpr std::array<const char*, 10> kNames = {
      "seq",     "ts",          "caller",         "tool",      "origin",
      "outcome", "duration_ms", "correlation_id", "prev_hash", "hash"};
  std::array<const Value*, 10> at{};

  explicit Columns(const Row& row) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      auto it = row.find(kNames[i]);
      at[i] = it == row.end() ? nullptr : &it->second;
    }
  }
};

bool readText(const Value* v, std::string& out) {
  const std::string* text = v == nullptr ? nullptr : v->textPointer();
  if (text == nullptr) return false;
  out.assign(*text);  // assign, not move: a reused Entry keeps its capacity
  return true;
}

bool readNumber(const Value* v, double& out) {
  auto d = v == nullptr ? std::nullopt : v->doubleValue();
  if (d) out = *d;
  return d.has_value();
}

bool readInt(const Value* v, std::int64_t& out) {
  if (v == nullptr || v->kind() == Value::Kind::text || v->kind() == Value::Kind::null)
    return false;
  out = *v->intValue();
  return true;
}

// Fills `e` from the row; false unless every column is present and of an
// accepted case.
bool decodeInto(const Columns& c, AuditStore::Entry& e) {
  return readInt(c.at[0], e.seq) && readNumber(c.at[1], e.ts.secondsSinceReferenceDate) &&
         readText(c.at[2], e.caller) && readText(c.at[3], e.tool) && readText(c.at[4], e.origin) &&
         readText(c.at[5], e.outcome) && readNumber(c.at[6], e.durationMs) &&
         readText(c.at[7], e.correlationId) && readText(c.at[8], e.prevHash) &&
         readText(c.at[9], e.hash);
}

std::optional<AuditStore::Entry> decodeEntry(const Row& row) {
  AuditStore::Entry e;
  if (!decodeInto(Columns(row), e)) return std::nullopt;
  return e;
}

// The preimage of a row, written into a buffer the caller reuses.
void writePreimage(std::string& out, std::string_view prevHash, Date ts, std::string_view caller,
                   std::string_view tool, std::string_view origin, std::string_view outcome,
                   std::string_view correlationId) {
  std::string rendered = AuditStore::renderTimestamp(ts);
  out.clear();
  for (std::string_view part :
       {prevHash, std::string_view(rendered), caller, tool, origin, outcome}) {
    out.append(part);
    out.push_back('|');
  }
  out.append(correlationId);
}

std::vector<AuditStore::Entry> decodeAll(std::vector<Row>& rows) {
  std::vector<AuditStore::Entry> out;
  out.reserve(rows.size());
  for (const Row& row : rows) {
    if (auto e = decodeEntry(row)) out.push_back(std::move(*e));
  }
  return out;
}

// The seq of a row that failed to decode, when it has a readable one.
std::optional<std::int64_t> seqOf(const Row& row) {
  auto it = row.find("seq");
  if (it == row.end() || it->second.kind() != Value::Kind::integer) return std::nullopt;
  return it->second.intValue();
}

}  // namespace

AuditStore::AuditStore(std::shared_ptr<SQLiteDatabase> db, boost::asio::any_io_executor executor,
                       Clock now)
    : db_(std::move(db)),
      strand_(boost::asio::make_strand(executor)),
      now_(now ? std::move(now) : Clock(&Date::now)),
      writer_(std::make_shared<Writer>(Writer{db_, {}, false})) {
  db_->exec(std::string(kSchema));  // an existing table is fine; a real failure shows below
  auto rows = db_->query(kHeadQuery);
  lastHash_ = kGenesisHash;
  if (!rows.empty()) {
    auto it = rows.front().find("hash");
    if (it != rows.front().end() && it->second.kind() == Value::Kind::text) {
      lastHash_ = *std::move(it->second).stringValue();
    }
  }
}

std::string AuditStore::storedText(std::string_view text) {
  // Short ASCII without a NUL, the common case, is stored as it stands.
  if (text.size() <= kMaxTextBytes && std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte != 0 && byte < 0x80;
      })) {
    return std::string(text);
  }
  std::string out;
  out.reserve(std::min(text.size(), kMaxTextBytes));
  std::size_t i = 0;
  while (i < text.size() && out.size() <= kMaxTextBytes) {
    // A NUL counts as ill-formed: a stored text can't hold one.
    const std::size_t n = text[i] == '\0' ? 0 : utf8SequenceLength(text.substr(i));
    if (n == 0) {
      out.append(kReplacement);
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  if (out.size() <= kMaxTextBytes && i == text.size()) return out;
  // Cut so that the mark still fits, never inside a character.
  std::size_t keep = kMaxTextBytes - kEllipsis.size();
  while (keep > 0 && (static_cast<unsigned char>(out[keep]) & 0xC0) == 0x80) --keep;
  out.resize(keep);
  out.append(kEllipsis);
  return out;
}

std::string AuditStore::renderTimestamp(Date ts) {
  return formatNumberWithFraction(ts.secondsSinceReferenceDate);
}

std::string AuditStore::chainHash(std::string_view prevHash, Date ts, std::string_view caller,
                                  std::string_view tool, std::string_view origin,
                                  std::string_view outcome, std::string_view correlationId) {
  std::string preimage;
  writePreimage(preimage, prevHash, ts, caller, tool, origin, outcome, correlationId);
  return Hashing::sha256Hex(preimage);
}

// ---- Writing ---------------------------------------------------------------

namespace {

// Through the connection's statement cache, so that each is compiled once.
const std::string kInsertText(kInsert);
const std::string kBegin("BEGIN");
const std::string kCommit("COMMIT");
const std::string kRollback("ROLLBACK");

// Writes the rows in their order: a lone row on its own, more in one
// transaction. All or nothing: false when any row failed, and then none of
// them is in the file.
template <typename Rows>
bool writeRows(SQLiteDatabase& db, const Rows& rows) {
  try {
    if (rows.size() == 1) {
      db.execute(kInsertText, rows.front().params);
      return true;
    }
    db.execute(kBegin);
    for (const auto& row : rows) db.execute(kInsertText, row.params);
    db.execute(kCommit);
    return true;
  } catch (const SQLiteDatabase::DBError&) {
  }
  try {
    // SQLite may have rolled back on its own already (a full disk does).
    db.execute(kRollback);
  } catch (const SQLiteDatabase::DBError&) {
  }
  return false;
}

}  // namespace

AuditStore::QueuedRow AuditStore::nextRow(const std::string& callerText,
                                          const std::string& toolText,
                                          const std::string& originText,
                                          const std::string& outcomeText, double durationMs,
                                          const std::string& correlationText) {
  // The texts as the row will hold them, so that the hash covers what is
  // stored: SQLite would cut a text at a NUL, and a client's bytes may be
  // anything, of any length.
  std::string caller = storedText(callerText);
  std::string tool = storedText(toolText);
  std::string origin = storedText(originText);
  std::string outcome = storedText(outcomeText);
  std::string correlationId = storedText(correlationText);
  Date ts = now_();  // one reading serves the preimage and the column
  QueuedRow row;
  row.hash = chainHash(lastHash_, ts, caller, tool, origin, outcome, correlationId);
  // Built in place: an initializer list would copy every text once more.
  row.params.reserve(9);
  row.params.push_back(Value::real(ts.secondsSinceReferenceDate));
  row.params.push_back(Value::text(std::move(caller)));
  row.params.push_back(Value::text(std::move(tool)));
  row.params.push_back(Value::text(std::move(origin)));
  row.params.push_back(Value::text(std::move(outcome)));
  row.params.push_back(Value::real(durationMs));
  row.params.push_back(Value::text(std::move(correlationId)));
  row.params.push_back(Value::text(lastHash_));
  row.params.push_back(Value::text(row.hash));
  // The head moves whatever becomes of the insert: a lost row shows as a
  // break in the chain instead of vanishing unseen.
  lastHash_ = row.hash;
  return row;
}

std::string AuditStore::recordSync(const std::string& caller, const std::string& tool,
                                   const std::string& origin, const std::string& outcome,
                                   double durationMs, const std::string& correlationId) {
  std::array<QueuedRow, 1> rows{nextRow(caller, tool, origin, outcome, durationMs, correlationId)};
  writeRows(*db_, rows);  // recording never fails its caller
  return rows.front().hash;
}

void AuditStore::enqueue(QueuedRow row) {
  writer_->queued.push_back(std::move(row));
  if (writer_->commitPosted) return;
  // Behind whatever is queued on the strand's executor now, then on the
  // strand: the rows of the requests handled in this turn join this commit.
  // (Posted to the strand itself from a handler of the strand, it would run
  // as soon as that handler returns.)
  writer_->commitPosted = true;
  boost::asio::post(strand_.get_inner_executor(), [strand = strand_, writer = writer_] {
    boost::asio::dispatch(strand, [writer] { commitQueued(writer); });
  });
}

void AuditStore::commitQueued(const std::shared_ptr<Writer>& writer) {
  std::vector<QueuedRow> group;
  group.swap(writer->queued);
  writer->commitPosted = false;
  writeRows(*writer->db, group);
  // Completing a record may resume its caller here, which may queue the
  // next row: that one goes to the next commit.
  for (QueuedRow& row : group) {
    auto done = std::move(*row.done);
    auto executor = boost::asio::get_associated_executor(done);
    boost::asio::dispatch(executor, [done = std::move(done), hash = std::move(row.hash)]() mutable {
      std::move(done)(std::move(hash));
    });
  }
}

awaitable<std::string> AuditStore::record(std::string caller, std::string tool, std::string origin,
                                          std::string outcome, double durationMs,
                                          std::string correlationId) {
  // Runs once this coroutine is suspended; the texts live in its frame until
  // the record completes.
  auto initiate = [&](auto handler) {
    auto place = [this, &caller, &tool, &origin, &outcome, durationMs, &correlationId,
                  handler = std::move(handler)]() mutable {
      QueuedRow row = nextRow(caller, tool, origin, outcome, durationMs, correlationId);
      row.done.emplace(std::move(handler));
      enqueue(std::move(row));
    };
    if (owner_ == std::this_thread::get_id()) {
      place();
    } else {
      boost::asio::dispatch(strand_, std::move(place));
    }
  };
  auto stored =
      boost::asio::async_initiate<const boost::asio::use_awaitable_t<>, void(std::string)>(
          initiate, use_awaitable);
  std::string hash = co_await std::move(stored);
  co_return hash;
}

// ---- Reading ---------------------------------------------------------------

std::vector<AuditStore::Entry> AuditStore::recentSync(std::int64_t limit) const {
  auto rows = db_->query(kRecentQuery, {Value::integer(limit)});
  auto entries = decodeAll(rows);
  std::reverse(entries.begin(), entries.end());
  return entries;
}

std::vector<AuditStore::Entry> AuditStore::entriesSync(const std::string& correlationId) const {
  auto rows = db_->query(kCorrelationQuery, {Value::text(correlationId)});
  return decodeAll(rows);
}

AuditStore::ChainReport AuditStore::inspectChain(std::int64_t fromSeq) const {
  using Kind = ChainBreak::Kind;
  ChainReport report;
  const bool whole = fromSeq <= 1;
  // Nothing until the first row when starting inside the chain: its
  // prev_hash is the anchor then.
  std::optional<std::string> expected;
  if (whole) expected.emplace(kGenesisHash);
  report.headSeq = whole ? 0 : fromSeq - 1;
  report.headHash = expected.value_or(std::string());
  std::string preimage;
  std::optional<Columns> columns;
  // Streamed rather than gathered, and read in place rather than decoded into
  // copies: the judgement is the same as decoding every row of the whole
  // result, without holding the table in memory.
  auto visit = [&](Row& row) {
    if (!columns) columns.emplace(row);  // the same Row object for every row
    const auto& c = columns->at;
    std::array<const std::string*, 10> text{};
    for (std::size_t i : {2, 3, 4, 5, 7, 8, 9})
      text[i] = c[i] == nullptr ? nullptr : c[i]->textPointer();
    std::int64_t seq = 0;
    double ts = 0;
    double duration = 0;
    bool decodes = readInt(c[0], seq) && readNumber(c[1], ts) && readNumber(c[6], duration);
    for (std::size_t i : {2, 3, 4, 5, 7, 8, 9}) decodes = decodes && text[i] != nullptr;
    if (!decodes) {
      report.firstBreak = ChainBreak{Kind::broken, seqOf(row), "row does not decode"};
      return false;
    }
    if (!expected) {
      if (seq != fromSeq) {
        report.firstBreak = ChainBreak{Kind::broken, fromSeq, "no row has this seq"};
        return false;
      }
      expected.emplace(*text[8]);
      report.headHash = *text[8];
    }
    if (*text[8] != *expected) {
      report.firstBreak =
          ChainBreak{Kind::broken, seq, "prev_hash differs from the hash of the row before"};
      return false;
    }
    writePreimage(preimage, *text[8], Date{ts}, *text[2], *text[3], *text[4], *text[5], *text[7]);
    std::array<char, 64> hash = Hashing::sha256HexDigits(preimage);
    if (std::string_view(hash.data(), hash.size()) != *text[9]) {
      report.firstBreak = ChainBreak{Kind::broken, seq, "hash does not match the row's contents"};
      return false;
    }
    expected->assign(*text[9]);
    ++report.rowsChecked;
    report.headSeq = seq;
    report.headHash = *text[9];
    return true;
  };
  SQLiteDatabase::ScanEnd end =
      whole ? db_->forEachRow(kChainQuery, {}, visit)
            : db_->forEachRow(kChainFromQuery, {Value::integer(fromSeq)}, visit);
  if (report.firstBreak) return report;
  // A read that stops early is not the end of the chain: the rows beyond
  // were never judged.
  if (!end.complete) {
    report.firstBreak = ChainBreak{Kind::damaged, report.headSeq, end.message};
    return report;
  }
  if (!whole && !expected) {
    // Nothing at or after fromSeq: the chain holds if nothing was issued
    // there either (checkTail), and its head is the row before.
    for (Row& row :
         db_->query("SELECT hash FROM audit WHERE seq = ?;", {Value::integer(fromSeq - 1)})) {
      if (const std::string* hash = row["hash"].textPointer()) report.headHash = *hash;
    }
  }
  checkTail(report);
  return report;
}

// Rows deleted from the end leave a chain that holds; SQLite's own sequence
// of the table still remembers the last seq it issued.
void AuditStore::checkTail(ChainReport& report) const {
  using Kind = ChainBreak::Kind;
  std::optional<std::int64_t> issued;
  SQLiteDatabase::ScanEnd end;
  try {
    end = db_->forEachRow(kSequenceQuery, {}, [&](Row& row) {
      auto it = row.find("seq");
      if (it != row.end() && it->second.kind() == Value::Kind::integer)
        issued = it->second.intValue();
      return false;
    });
  } catch (const SQLiteDatabase::DBError& e) {
    end = SQLiteDatabase::ScanEnd{false, e.code(), e.message()};
  }
  if (!end.complete) {
    report.firstBreak = ChainBreak{Kind::damaged, report.headSeq, end.message};
  } else if (!issued && report.headSeq > 0) {
    report.firstBreak =
        ChainBreak{Kind::cut, report.headSeq, "the table's sequence has no record of it"};
  } else if (issued && *issued != report.headSeq) {
    report.firstBreak = ChainBreak{Kind::cut, report.headSeq,
                                   "the table's sequence stands at " + std::to_string(*issued)};
  }
}

namespace {

std::vector<Value> filterParams(const AuditStore::Filter& f) {
  auto text = [](const std::optional<std::string>& s) {
    return s ? Value::text(*s) : Value::null();
  };
  auto time = [](const std::optional<Date>& d) {
    return d ? Value::real(d->secondsSinceReferenceDate) : Value::null();
  };
  return {Value::integer(f.afterSeq), text(f.tool), text(f.outcome), time(f.since), time(f.until)};
}

}  // namespace

void AuditStore::forEachEntry(const Filter& filter,
                              const std::function<bool(const Entry&)>& visit) const {
  std::optional<Columns> columns;
  Entry entry;  // reused: its strings keep their capacity from row to row
  db_->forEachRow(kFilteredQuery, filterParams(filter), [&](Row& row) {
    if (!columns) columns.emplace(row);
    return !decodeInto(*columns, entry) || visit(entry);
  });
}

std::optional<std::int64_t> AuditStore::startOfLast(const Filter& filter,
                                                    std::int64_t count) const {
  std::vector<Value> params = filterParams(filter);
  params.push_back(Value::integer(count - 1));
  std::optional<std::int64_t> seq;
  for (Row& row : db_->query(kStartOfLastQuery, params)) seq = row["seq"].intValue();
  return seq;
}

bool AuditStore::verifyChainSync() const { return inspectChain().holds(); }

// The bodies that run on the strand. Plain functions with by-value
// parameters: GCC 12 mishandles by-value parameters of lambda coroutines.
namespace {

awaitable<std::vector<AuditStore::Entry>> recentOnStrand(const AuditStore& store,
                                                         std::int64_t limit) {
  co_return store.recentSync(limit);
}

awaitable<std::vector<AuditStore::Entry>> entriesOnStrand(const AuditStore& store,
                                                          std::string correlationId) {
  co_return store.entriesSync(correlationId);
}

awaitable<bool> verifyOnStrand(const AuditStore& store) { co_return store.verifyChainSync(); }

}  // namespace

awaitable<std::vector<AuditStore::Entry>> AuditStore::recent(std::int64_t limit) {
  auto found = co_await boost::asio::co_spawn(strand_, recentOnStrand(*this, limit), use_awaitable);
  co_return found;
}

awaitable<std::vector<AuditStore::Entry>> AuditStore::entries(std::string correlationId) {
  auto found = co_await boost::asio::co_spawn(
      strand_, entriesOnStrand(*this, std::move(correlationId)), use_awaitable);
  co_return found;
}

awaitable<bool> AuditStore::verifyChain() {
  bool holds = co_await boost::asio::co_spawn(strand_, verifyOnStrand(*this), use_awaitable);
  co_return holds;
}

}  // namespace tarskel
