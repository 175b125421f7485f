// tarskel cc payload|sign|verify|decode|outbox|acks
//
// The control-centre link by hand: what a command's signature covers, signing
// and checking commands with vendor keys, reading wire messages, and looking
// into (and repairing) a link store. A key file is the one `tarskel vendor
// keygen` writes: {"keyId":"ID","privateKey":"<base64 of 32 raw bytes>"}.
//
// Exit codes: 0 done; 1 a refusal (a command that doesn't verify, a message
// that doesn't decode, nothing stored under an id); 2 input that can't be
// used (unreadable files, a command file that isn't one, a bad date).

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/CCLinkStore.hpp"
#include "tarskel/vendor/CCCommandSignature.hpp"

namespace tarskel::tool {
namespace {

template <class T>
T decodeFile(const std::string& path) {
  const std::string bytes = readInput(path);
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const Error& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

struct KeyFile {
  std::string keyId;
  std::string privateKey;

  static KeyFile decode(const KeyedDecoder& d) {
    return {d.required<std::string>("keyId"), d.required<std::string>("privateKey")};
  }
  void encode(KeyedEncoder& e) const {
    e.required("keyId", keyId);
    e.required("privateKey", privateKey);
  }
};

Ed25519KeyPair loadKeyPair(const std::string& path) {
  const KeyFile file = decodeFile<KeyFile>(path);
  const std::optional<std::string> raw = base64Decode(file.privateKey);
  if (!raw) throw ToolFailure(kExitUsage, path + ": privateKey is not valid base64");
  try {
    return Ed25519KeyPair(*raw, file.keyId);
  } catch (const Ed25519Error& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

std::string jsonString(std::string_view text) {
  std::string out;
  appendJSONString(out, text);
  return out;
}

std::string canonicalLine(const auto& record) {
  return TarskelJSON::canonicalEncoder().encode(record) + "\n";
}

// --- payload, sign, verify ---------------------------------------------------

struct CommandOptions {
  std::string file;
  std::string key;
  std::string allowlist;
  std::optional<std::string> now;
};

// A draft needs no sig: everything but the signature is read, as a verifier would.
CCCommand commandWithoutSig(const std::string& path) {
  CCCommand::SigningBody body = decodeFile<CCCommand::SigningBody>(path);
  return CCCommand(std::move(body.cmdId), std::move(body.target), std::move(body.method),
                   std::move(body.params), body.deadline, std::move(body.issuedBy),
                   std::move(body.dualControl), "");
}

int payload(const CommandOptions& o) {
  const std::string bytes = commandWithoutSig(o.file).signingPayload();
  writeOutput(::isatty(STDOUT_FILENO) != 0 ? bytes + "\n" : bytes);
  return kExitSuccess;
}

int sign(const CommandOptions& o) {
  CCCommand command = commandWithoutSig(o.file);
  command.sig = CCCommandSignature::sign(command, loadKeyPair(o.key));
  writeOutput(canonicalLine(command));
  return kExitSuccess;
}

int verify(const CommandOptions& o) {
  const auto command = decodeFile<CCCommand>(o.file);
  const auto allowlist = decodeFile<VendorAllowlist>(o.allowlist);
  Date now = Date::now();
  if (o.now) {
    const std::optional<Date> parsed = parseISO8601(*o.now);
    if (!parsed) throw ToolFailure(kExitUsage, "--now expects YYYY-MM-DDTHH:MM:SSZ: " + *o.now);
    now = *parsed;
  }
  try {
    const VendorKey key = CCCommandSignature::verify(command, allowlist, now);
    writeOutput(fmt::format("verified: {} ({} → {}), key {}, deadline {}\n", command.cmdId,
                            command.method, command.target, key.keyId,
                            formatISO8601(command.deadline)));
    return kExitSuccess;
  } catch (const CCCommandSignatureError& e) {
    throw ToolFailure(kExitFailure, o.file + ": " + e.description());
  }
}

// --- decode -------------------------------------------------------------------

// One line out for each message in: {"kind":K,"message":M} or {"error":TEXT}.
std::string decodedLine(const std::string& text) {
  try {
    const WireMessage message = WireMessage::decode(text);
    return "{\"kind\":" + jsonString(enumName(message.kind())) +
           ",\"message\":" + message.encodedString() + "}\n";
  } catch (const Error& e) {
    return "{\"error\":" + jsonString(e.description()) + "}\n";
  }
}

int decodeMessages(const CommandOptions& o) {
  std::ifstream file;
  if (o.file != "-") {
    file.open(o.file, std::ios::binary);
    if (!file) throw ToolFailure(kExitUsage, "cannot read " + o.file);
  }
  std::istream& in = o.file == "-" ? std::cin : file;
  bool failed = false;
  std::string line;
  // Line by line, so that a stream can be followed as it grows.
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const std::string out = decodedLine(line);
    failed = failed || out.rfind("{\"error\":", 0) == 0;
    writeOutput(out);
  }
  if (in.bad()) throw ToolFailure(kExitUsage, "cannot read " + o.file);
  return failed ? kExitFailure : kExitSuccess;
}

// --- outbox, acks ---------------------------------------------------------------

struct StoreOptions {
  std::string db;
  std::string id;
  bool json = false;
};

// Reading opens the file read-only; repairing opens it for writing, but
// never creates it: a mistyped path must not leave an empty store behind.
CCLinkStore openStore(const std::string& path, bool forWriting) {
  try {
    if (!forWriting) return CCLinkStore(SQLiteDatabase::openReadOnly(path));
    if (!std::filesystem::is_regular_file(path))
      throw ToolFailure(kExitUsage, path + ": no such file");
    return CCLinkStore(SQLiteDatabase::open(path));
  } catch (const SQLiteDatabase::DBError& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

// The store's own errors (no such table, a busy database) make the input unusable.
template <class Body>
int onStore(const StoreOptions& o, bool forWriting, Body body) {
  CCLinkStore store = openStore(o.db, forWriting);
  try {
    return body(store);
  } catch (const SQLiteDatabase::DBError& e) {
    throw ToolFailure(kExitUsage, o.db + ": " + e.description());
  }
}

std::string decodingError(const SQLiteDatabase::Value& column, const auto& decode) {
  const std::string* text = column.textPointer();
  if (text == nullptr) return "the column is not text";
  try {
    decode(*text);
    return {};
  } catch (const Error& e) {
    return e.description();
  }
}

// A stored text for JSON output: bytes that are not UTF-8 are escaped
// rather than making the line unwritable.
std::string jsonText(const std::string& text) {
  return jsonString(isValidUTF8(text) ? text : escapedBytes(text));
}

std::string outboxLine(const CCLinkStore::OutboxRow& row, bool json) {
  std::optional<CCEvent> event;
  const std::string error = decodingError(row.payload, [&event](const std::string& text) {
    event = TarskelJSON::decoder().decode<CCEvent>(text);
  });
  if (json) {
    std::string out = fmt::format("{{\"seq\":{},\"eventId\":{},\"createdAt\":{},", row.seq,
                                  jsonText(row.eventId), jsonText(row.createdAt));
    out += event ? "\"event\":" + TarskelJSON::canonicalEncoder().encode(*event)
                 : "\"error\":" + jsonText(error);
    return out + "}\n";
  }
  return fmt::format("{}  {}  {}  {}\n", row.seq, forTerminal(row.eventId),
                     forTerminal(row.createdAt),
                     forTerminal(event ? event->type : "(unreadable: " + error + ")"));
}

// Rows go out as they are read, in blocks, so a table of any size costs one
// block of memory. A walk that ends early on a damaged database is reported
// as `tarskel audit verify` reports a damaged chain: exit 1.
int outboxList(const StoreOptions& o) {
  return onStore(o, false, [&o](CCLinkStore& store) {
    constexpr std::size_t kBlockBytes = 64 * 1024;
    std::string block;
    std::int64_t lastSeq = 0;
    const SQLiteDatabase::ScanEnd end = store.forEachOutboxRow([&](CCLinkStore::OutboxRow& row) {
      block += outboxLine(row, o.json);
      lastSeq = row.seq;
      if (block.size() >= kBlockBytes) writeOutput(std::exchange(block, {}));
      return true;
    });
    writeOutput(block);
    if (!end.complete) {
      throw ToolFailure(kExitFailure, fmt::format("{}: database damaged after seq {}: {}", o.db,
                                                  lastSeq, forTerminal(end.message)));
    }
    return kExitSuccess;
  });
}

int outboxCount(const StoreOptions& o) {
  return onStore(o, false, [](CCLinkStore& store) {
    writeOutput(std::to_string(store.pendingCount()) + "\n");
    return kExitSuccess;
  });
}

int outboxRemove(const StoreOptions& o) {
  return onStore(o, true, [&o](CCLinkStore& store) {
    const std::int64_t before = store.pendingCount();
    store.removeEvent(o.id);
    if (store.pendingCount() == before)
      throw ToolFailure(kExitFailure, "no event '" + o.id + "' in the outbox");
    writeOutput("removed: " + o.id + "\n");
    return kExitSuccess;
  });
}

int acksShow(const StoreOptions& o) {
  return onStore(o, false, [&o](CCLinkStore& store) {
    const std::optional<CCLinkStore::AckRow> row = store.ackRow(o.id);
    if (!row) throw ToolFailure(kExitFailure, "no ack stored for '" + o.id + "'");
    std::optional<CCAck> ack;
    const std::string error = decodingError(row->ack, [&ack](const std::string& text) {
      ack = TarskelJSON::decoder().decode<CCAck>(text);
    });
    if (!ack)
      throw ToolFailure(kExitFailure, "the ack stored for '" + o.id + "' can't be read: " + error);
    writeOutput(canonicalLine(*ack));
    return kExitSuccess;
  });
}

// --- installation -----------------------------------------------------------------

}  // namespace

void installCCCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* cc = app.add_subcommand("cc", "Control-centre commands, wire messages and link stores");
  cc->require_subcommand(1);

  auto c = std::make_shared<CommandOptions>();
  CLI::App* payloadCommand =
      cc->add_subcommand("payload", "Print the bytes a command's signature covers");
  payloadCommand->add_option("file", c->file, "command file, or - for standard input")
      ->required()
      ->type_name("FILE");
  bind(payloadCommand, ctx, c, payload);

  CLI::App* signCommand =
      cc->add_subcommand("sign", "Sign a command with a vendor key; print it signed");
  signCommand->add_option("file", c->file, "command file, or - (any sig in it is replaced)")
      ->required()
      ->type_name("FILE");
  signCommand->add_option("--key", c->key, "key file of `tarskel vendor keygen`")
      ->type_name("FILE")
      ->required()
      ->type_name("FILE");
  bind(signCommand, ctx, c, sign);

  CLI::App* verifyCommand = cc->add_subcommand(
      "verify", "Check a command's signature and deadline; exit 1 naming the fault");
  verifyCommand->add_option("file", c->file, "signed command file, or -")
      ->required()
      ->type_name("FILE");
  verifyCommand->add_option("--allowlist", c->allowlist, "vendor allowlist file")
      ->type_name("FILE")
      ->required()
      ->type_name("FILE");
  verifyCommand->add_option("--now", c->now, "judge the deadline at this time, not the clock's")
      ->type_name("DATE");
  bind(verifyCommand, ctx, c, verify);

  CLI::App* decodeCommand =
      cc->add_subcommand("decode", "Decode wire messages, one per line; one JSON line each");
  c->file = "-";
  decodeCommand->add_option("file", c->file, "file of messages, or - (the default)")
      ->type_name("FILE");
  bind(decodeCommand, ctx, c, decodeMessages);

  auto s = std::make_shared<StoreOptions>();
  CLI::App* outbox =
      cc->add_subcommand("outbox", "The events a link store holds for the control centre");
  outbox->add_option("--db", s->db, "the link store's database file")
      ->required()
      ->type_name("FILE");
  outbox->require_subcommand(1);
  CLI::App* listCommand =
      outbox->add_subcommand("list", "Every queued row, oldest first, readable or not");
  listCommand->add_flag("--json", s->json, "one JSON object per row");
  bind(listCommand, ctx, s, outboxList);
  bind(outbox->add_subcommand("count", "The number of queued rows"), ctx, s, outboxCount);
  CLI::App* removeCommand =
      outbox->add_subcommand("remove", "Drop one queued event; exit 1 if it isn't there");
  removeCommand->add_option("id", s->id, "the event's eventId")->required()->type_name("ID");
  bind(removeCommand, ctx, s, outboxRemove);

  CLI::App* acks = cc->add_subcommand("acks", "The acks a link store remembers");
  acks->add_option("--db", s->db, "the link store's database file")->required()->type_name("FILE");
  acks->require_subcommand(1);
  CLI::App* showCommand =
      acks->add_subcommand("show", "Print the ack stored for a command; exit 1 if none");
  showCommand->add_option("cmd", s->id, "the command's cmdId")->required()->type_name("CMD");
  bind(showCommand, ctx, s, acksShow);
}

}  // namespace tarskel::tool
