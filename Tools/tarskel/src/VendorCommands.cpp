// tarskel vendor keygen|allowlist|seal|verify|rotate|apply-rotation
//
// The vendor's side of the vendor gate: making keys and allowlists, sealing a
// staged tree, checking a tree as the daemon would, and rotating the list of
// keys. A key file is {"keyId":"ID","privateKey":"<base64 of 32 raw bytes>"},
// mode 0600, and is never overwritten; a public-key file is the allowlist
// entry {"keyId":"ID","publicKey":"<base64 of 32 raw bytes>"}.

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Progress.hpp"
#include "SigningKeys.hpp"
#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel::tool {
namespace {

namespace fs = std::filesystem;

struct KeyFile {
  std::string keyId;
  std::string privateKey;

  void encode(KeyedEncoder& e) const {
    e.required("keyId", keyId);
    e.required("privateKey", privateKey);
  }
  static KeyFile decode(const KeyedDecoder& d) {
    return {d.required<std::string>("keyId"), d.required<std::string>("privateKey")};
  }
};

// A key id people and machines can both use: some text, all of it UTF-8.
std::string checkedKeyId(const std::string& keyId, const std::string& where) {
  if (keyId.empty()) throw ToolFailure(kExitUsage, where + ": the key id is empty");
  if (!isValidUTF8(keyId)) {
    throw ToolFailure(kExitUsage, where + ": the key id is not UTF-8: " + escapedBytes(keyId));
  }
  return keyId;
}

// Like ssh: a private key that others may read is no longer private.
void checkKeyPermissions(const std::string& path, bool strict) {
  struct stat info {};
  if (path == "-" || ::stat(path.c_str(), &info) != 0 || (info.st_mode & 077) == 0) return;
  const std::string text = fmt::format(
      "{}: private key readable by group or others (mode {:04o}); "
      "chmod 600 it",
      path, info.st_mode & 07777);
  if (strict) throw ToolFailure(kExitUsage, text);
  warn(text);
}

Ed25519KeyPair loadKeyPair(const std::string& path, bool strict) {
  const KeyFile file = readJSONInput<KeyFile>(path);
  checkKeyPermissions(path, strict);
  std::optional<std::string> raw = base64Decode(file.privateKey);
  if (!raw) throw ToolFailure(kExitUsage, inputName(path) + ": privateKey is not valid base64");
  try {
    return Ed25519KeyPair(*raw, checkedKeyId(file.keyId, inputName(path)));
  } catch (const Ed25519Error& e) {
    throw ToolFailure(kExitUsage, inputName(path) + ": " + e.description());
  }
}

// An allowlist entry from a public-key file ({"keyId","publicKey"}) or from
// a private key file.
VendorKey loadVendorKey(const std::string& path, bool strict) {
  const JSONValue value = readJSONInput<JSONValue>(path);
  if (value["privateKey"] != nullptr) return loadKeyPair(path, strict).vendorKey();
  VendorKey key;
  try {
    key = TarskelJSON::decoder().decode<VendorKey>(TarskelJSON::encoder().encode(value));
  } catch (const DecodingError& e) {
    throw ToolFailure(kExitUsage, inputName(path) + ": not a key file: " + e.what());
  }
  checkedKeyId(key.keyId, inputName(path));
  const std::optional<std::string> raw = base64Decode(key.publicKey);
  if (!raw || raw->size() != 32) {
    throw ToolFailure(kExitUsage, inputName(path) + ": publicKey is not 32 bytes in base64");
  }
  return key;
}

std::string canonicalLine(const auto& record) {
  return TarskelJSON::canonicalEncoder().encode(record) + "\n";
}

[[noreturn]] void failWrite(const std::string& path) {
  throw ToolFailure(kExitUsage, path + ": " + std::strerror(errno));
}

// Writes the key beside its final name, then links it in place: a crash
// leaves no half key, and an existing key is never replaced.
void writeKeyFile(const std::string& path, const std::string& content) {
  std::string temporary = path + ".XXXXXX";
  FileDescriptor file(::mkstemp(temporary.data()));  // mode 0600
  if (!file) failWrite(path);
  int error = writeAll(file.get(), content) && ::fsync(file.get()) == 0 ? 0 : errno;
  if (const int closeError = file.close(); error == 0) error = closeError;
  const bool written = error == 0;
  if (written && ::link(temporary.c_str(), path.c_str()) != 0) error = errno;
  ::unlink(temporary.c_str());
  if (error == 0) return;
  if (written && error == EEXIST) {
    throw ToolFailure(kExitUsage, path + " exists already; a key is never overwritten");
  }
  errno = error;
  failWrite(path);
}

JSONObject manifestFacts(const std::string& dir, const HashManifest& m) {
  return JSONObject{{"dir", JSONValue(dir)},
                    {"artifactId", JSONValue(m.artifactId)},
                    {"artifactType", JSONValue(std::string(enumName(m.artifactType)))},
                    {"version", JSONValue(m.version)},
                    {"monotonicVersion", JSONValue::integer(m.monotonicVersion)},
                    {"expires", JSONValue(formatISO8601(m.expires))},
                    {"files", JSONValue::integer(static_cast<std::int64_t>(m.files.size()))}};
}

std::string summary(const char* heading, const std::string& dir, const HashManifest& m) {
  return fmt::format(
      "{}: {}\n  artifact: {} {} ({})\n  monotonicVersion: {}\n  files: {}\n  expires: {}\n",
      heading, dir, m.artifactId, m.version, enumName(m.artifactType), m.monotonicVersion,
      m.files.size(), formatISO8601(m.expires));
}

VendorVerification ed25519Verification() {
  return VendorVerification(std::make_shared<Ed25519Algorithm>(), [] { return Date::now(); });
}

const char* sealKindName(SealError::Kind kind) {
  switch (kind) {
    case SealError::Kind::unreadableManifest:
      return "unreadableManifest";
    case SealError::Kind::fileMissing:
      return "fileMissing";
    case SealError::Kind::hashMismatch:
      return "hashMismatch";
    case SealError::Kind::unexpectedFile:
      return "unexpectedFile";
    case SealError::Kind::notRegularFile:
      return "notRegularFile";
    case SealError::Kind::verification:
      return "verification";
    case SealError::Kind::tooLarge:
      return "tooLarge";
  }
  return "?";
}

// What the seal and the file system say, as exit codes: a finding of the
// seal is a refusal (with --json, also a line on standard output), anything
// else is input that could not be used.
template <class Body>
int guarded(const std::string& dir, bool json, Body body) {
  try {
    return body();
  } catch (const SealError& e) {
    if (json) {
      JSONObject error{{"kind", JSONValue(sealKindName(e.kind()))},
                       {"message", JSONValue(e.description())}};
      writeOutput(jsonLine(JSONObject{{"ok", JSONValue(false)},
                                      {"dir", JSONValue(dir)},
                                      {"error", JSONValue(std::move(error))}}));
    }
    throw ToolFailure(kExitFailure, e.description());
  } catch (const std::filesystem::filesystem_error& e) {
    throw ToolFailure(kExitUsage, e.what());
  } catch (const EncodingError& e) {
    throw ToolFailure(kExitUsage, e.description());
  }
}

void requireDirectory(const std::string& dir) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    throw ToolFailure(
        kExitUsage, dir + ": " + (fs::exists(dir, ec) ? "not a directory" : std::strerror(ENOENT)));
  }
}

struct KeygenOptions {
  std::string keyId;
  std::string out;
};

int keygen(const KeygenOptions& o) {
  makeSigningKey(o.keyId, "--key-id", o.out);
  return kExitSuccess;
}

struct PubkeyOptions {
  std::string key;
  std::string output;
  bool strict = false;
};

int pubkey(const PubkeyOptions& o) {
  writeResult(canonicalLine(loadKeyPair(o.key, o.strict).vendorKey()), o.output);
  return kExitSuccess;
}

struct AllowlistOptions {
  std::int64_t revision = 0;
  std::vector<std::string> keyFiles;
  std::string output;
  bool strict = false;
};

int allowlist(const AllowlistOptions& o) {
  VendorAllowlist list{o.revision, {}};
  std::map<std::string, std::string> seen;  // key id -> the file it came from
  for (const std::string& path : o.keyFiles) {
    VendorKey key = loadVendorKey(path, o.strict);
    // Never list a key every forged signature verifies under.
    const std::optional<std::string> raw = base64Decode(key.publicKey);
    if (const auto weakness = raw ? ed25519KeyWeakness(*raw) : std::nullopt) {
      throw ToolFailure(kExitUsage,
                        path + ": vendor key '" + key.keyId + "' refused: " + *weakness);
    }
    if (auto [it, fresh] = seen.emplace(key.keyId, path); !fresh) {
      throw ToolFailure(kExitUsage,
                        "key id '" + key.keyId + "' twice: " + it->second + " and " + path);
    }
    list.keys.push_back(std::move(key));
  }
  writeResult(canonicalLine(list), o.output);
  return kExitSuccess;
}

struct SealOptions {
  std::string dir;
  std::string key;
  std::string artifactId;
  std::string type;
  std::string version;
  std::string monotonic;
  std::string expires;
  std::vector<std::string> metadata;
  bool json = false;
  bool strict = false;
};

std::optional<std::map<std::string, std::string>> parseMetadata(
    const std::vector<std::string>& pairs) {
  if (pairs.empty()) return std::nullopt;
  std::map<std::string, std::string> out;
  for (const std::string& pair : pairs) {
    const auto equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw ToolFailure(kExitUsage, "--metadata takes KEY=VALUE: " + pair);
    }
    if (!out.emplace(pair.substr(0, equals), pair.substr(equals + 1)).second) {
      throw ToolFailure(kExitUsage, "--metadata given twice: " + pair.substr(0, equals));
    }
  }
  return out;
}

// The anti-rollback number: a decimal integer from 0 up to the int64 limit,
// read exactly (a parser that clamps would seal a number nobody asked for).
std::int64_t parseMonotonic(const std::string& text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty() || value < 0) {
    throw ToolFailure(kExitUsage,
                      "--monotonic takes an integer from 0 to 9223372036854775807: " + text);
  }
  return value;
}

// A tree's own files must not hide under vendor/, which the seal never
// covers: only what an earlier seal wrote may be there.
void refuseForeignVendorDirectory(const std::string& dir) {
  const fs::path vendor = fs::path(dir) / BundleSeal::vendorDir;
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(vendor, ec))) return;
  const std::string refusal =
      vendor.string() +
      " holds files of the tree, which a seal would leave uncovered; "
      "move them elsewhere (only manifest.json and manifest.sig may be there)";
  if (!fs::is_directory(fs::symlink_status(vendor, ec))) throw ToolFailure(kExitUsage, refusal);
  for (const fs::directory_entry& entry : fs::directory_iterator(vendor, ec)) {
    const std::string name = entry.path().filename().string();
    const bool sealFile = name == "manifest.json" || name == "manifest.sig";
    if (!sealFile || !entry.is_regular_file(ec) || entry.is_symlink(ec))
      throw ToolFailure(kExitUsage, refusal);
  }
}

int seal(const SealOptions& o) {
  const std::optional<ArtifactType> type = enumFromName<ArtifactType>(o.type);
  if (!type) throw ToolFailure(kExitUsage, "--type takes platform or service: " + o.type);
  if (o.artifactId.empty()) throw ToolFailure(kExitUsage, "--artifact-id is empty");
  if (!SemVer::parse(o.version)) {
    throw ToolFailure(kExitUsage,
                      "--version takes a version such as 1.2.3 or 2.0.0-rc.1: '" + o.version + "'");
  }
  const std::int64_t monotonic = parseMonotonic(o.monotonic);
  const std::optional<Date> expires = parseISO8601(o.expires);
  if (!expires) throw ToolFailure(kExitUsage, "--expires takes YYYY-MM-DDTHH:MM:SSZ: " + o.expires);
  if (expires->secondsSinceReferenceDate <= Date::now().secondsSinceReferenceDate) {
    throw ToolFailure(
        kExitUsage,
        "--expires is not in the future, so no machine would accept the seal: " + o.expires);
  }
  auto metadata = parseMetadata(o.metadata);
  const Ed25519KeyPair pair = loadKeyPair(o.key, o.strict);
  requireDirectory(o.dir);
  refuseForeignVendorDirectory(o.dir);
  return guarded(o.dir, o.json, [&] {
    HashManifest m;
    {
      Progress progress("sealing", o.dir);
      m = BundleSeal::seal(o.dir, o.artifactId, *type, o.version, monotonic, *expires, pair,
                           std::move(metadata), progress.hashing());
    }
    if (o.json) {
      JSONObject facts = manifestFacts(o.dir, m);
      facts.set("keyId", JSONValue(pair.keyId()));
      writeOutput(jsonLine(facts));
    } else if (!quiet()) {
      writeOutput(summary("sealed", o.dir, m) + "  key: " + pair.keyId() + "\n");
    }
    return kExitSuccess;
  });
}

struct VerifyOptions {
  std::string dir;
  std::string allowlist;
  std::optional<std::int64_t> installedMonotonic;
  bool allowDowngrade = false;
  bool json = false;
};

// The keys a tree may be sealed under: an allowlist file, or a single
// public-key file (as `vendor pubkey` writes it) standing for a list of one.
VendorAllowlist loadTrustedKeys(const std::string& path) {
  const JSONValue value = readJSONInput<JSONValue>(path);
  if (value["keys"] == nullptr && value["publicKey"] != nullptr) {
    return VendorAllowlist{0, {loadVendorKey(path, false)}};
  }
  return readJSONInput<VendorAllowlist>(path);
}

int verify(const VerifyOptions& o) {
  const VendorAllowlist list = loadTrustedKeys(o.allowlist);
  requireDirectory(o.dir);
  return guarded(o.dir, o.json, [&] {
    HashManifest m;
    {
      Progress progress("verifying", o.dir);
      m = BundleSeal::verify(o.dir, ed25519Verification(), list, o.installedMonotonic,
                             o.allowDowngrade, progress.hashing());
    }
    // Proven by now, so the signature file reads.
    const std::string keyId =
        readJSONInput<VendorSignature>((fs::path(o.dir) / BundleSeal::signatureFile).string())
            .keyId;
    if (o.json) {
      JSONObject facts = manifestFacts(o.dir, m);
      facts.set("keyId", JSONValue(keyId));
      facts.set("ok", JSONValue(true));
      writeOutput(jsonLine(facts));
    } else if (!quiet()) {
      writeOutput(summary("verified", o.dir, m) + "  key: " + keyId + "\n");
    }
    return kExitSuccess;
  });
}

struct RotateOptions {
  std::string current;
  std::string next;
  std::string key;
  std::string rotation;
  std::string output;
  bool strict = false;
};

// The rotation's verdict under `current`: the new list, or exit 1 with why not.
VendorAllowlist judgeRotation(const VendorKeyRotation& rotation, const VendorAllowlist& current) {
  auto result = ed25519Verification().applyRotation(rotation, current);
  if (auto* error = std::get_if<VendorVerificationError>(&result)) {
    throw ToolFailure(kExitFailure, error->description());
  }
  return std::get<VendorAllowlist>(std::move(result));
}

int rotate(const RotateOptions& o) {
  const auto current = readJSONInput<VendorAllowlist>(o.current);
  const auto next = readJSONInput<VendorAllowlist>(o.next);
  const Ed25519KeyPair pair = loadKeyPair(o.key, o.strict);
  const VendorKeyRotation rotation{next, pair.sign(next.signingPayload())};
  // A rotation the machines would refuse is not worth handing out.
  judgeRotation(rotation, current);
  writeResult(canonicalLine(rotation), o.output);
  return kExitSuccess;
}

int applyRotation(const RotateOptions& o) {
  const auto current = readJSONInput<VendorAllowlist>(o.current);
  const auto rotation = readJSONInput<VendorKeyRotation>(o.rotation);
  writeResult(canonicalLine(judgeRotation(rotation, current)), o.output);
  return kExitSuccess;
}

void addStrict(CLI::App* command, bool& strict) {
  command->add_flag("--strict", strict,
                    "Refuse, not just warn about, a private key readable by group or others");
}

}  // namespace

void installVendorCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* vendor = app.add_subcommand("vendor", "Keys, allowlists and seals of the vendor gate");
  vendor->require_subcommand(1);

  auto k = std::make_shared<KeygenOptions>();
  CLI::App* keygenCommand =
      vendor->add_subcommand("keygen", "Make a signing key; print its allowlist entry");
  keygenCommand->add_option("--key-id", k->keyId, "The key's name in allowlists")->required();
  keygenCommand->add_option("--out", k->out, "Key file to create (mode 0600; never overwritten)")
      ->type_name("FILE")
      ->required();
  bind(keygenCommand, ctx, k, keygen);

  auto p = std::make_shared<PubkeyOptions>();
  CLI::App* pubkeyCommand = vendor->add_subcommand(
      "pubkey", "Print the public-key file {\"keyId\",\"publicKey\"} of a key");
  pubkeyCommand->add_option("KEY", p->key, "Private key file")->required();
  addOutputOption(pubkeyCommand, p->output);
  addStrict(pubkeyCommand, p->strict);
  bind(pubkeyCommand, ctx, p, pubkey);

  auto a = std::make_shared<AllowlistOptions>();
  CLI::App* allowlistCommand =
      vendor->add_subcommand("allowlist", "Print an allowlist of these keys");
  allowlistCommand->add_option("--revision", a->revision, "The list's revision")->required();
  allowlistCommand
      ->add_option("KEYFILES", a->keyFiles, "Public-key or private key files, in list order")
      ->required();
  addOutputOption(allowlistCommand, a->output);
  addStrict(allowlistCommand, a->strict);
  bind(allowlistCommand, ctx, a, allowlist);

  auto s = std::make_shared<SealOptions>();
  CLI::App* sealCommand = vendor->add_subcommand("seal", "Hash and sign a tree into DIR/vendor");
  sealCommand->add_option("DIR", s->dir, "The tree's root")->required();
  sealCommand->add_option("--key", s->key, "Private key file")->type_name("FILE")->required();
  sealCommand->add_option("--artifact-id", s->artifactId, "Artifact identity")->required();
  sealCommand->add_option("--type", s->type, "platform or service")
      ->check(CLI::IsMember({"platform", "service"}))
      ->required();
  sealCommand
      ->add_option("--version", s->version,
                   "The artifact's version, e.g. 1.2.3 (not the program's: tarskel --version)")
      ->required();
  sealCommand->add_option("--monotonic", s->monotonic, "Anti-rollback number, 0 or more")
      ->required();
  sealCommand->add_option("--expires", s->expires, "YYYY-MM-DDTHH:MM:SSZ, in the future")
      ->required();
  sealCommand->add_option("--metadata", s->metadata, "KEY=VALUE annotation, repeatable");
  addJSONFlag(sealCommand, s->json);
  addStrict(sealCommand, s->strict);
  bind(sealCommand, ctx, s, seal);

  auto v = std::make_shared<VerifyOptions>();
  CLI::App* verifyCommand =
      vendor->add_subcommand("verify", "Prove a sealed tree; exit 1 naming the fault");
  verifyCommand->add_option("DIR", v->dir, "The tree's root")->required();
  verifyCommand->add_option("--allowlist", v->allowlist, "Allowlist file, or one public-key file")
      ->type_name("FILE")
      ->required();
  verifyCommand->add_option("--installed-monotonic", v->installedMonotonic,
                            "Refuse older versions");
  verifyCommand->add_flag("--allow-downgrade", v->allowDowngrade, "Accept an older version");
  addJSONFlag(verifyCommand, v->json);
  bind(verifyCommand, ctx, v, verify);

  auto r = std::make_shared<RotateOptions>();
  CLI::App* rotateCommand =
      vendor->add_subcommand("rotate", "Sign a new allowlist with a current key");
  rotateCommand->add_option("--current", r->current, "Allowlist in force")->required();
  rotateCommand->add_option("--new", r->next, "Allowlist to replace it")->required();
  rotateCommand->add_option("--key", r->key, "Private key file of a current key")
      ->type_name("FILE")
      ->required();
  addOutputOption(rotateCommand, r->output);
  addStrict(rotateCommand, r->strict);
  bind(rotateCommand, ctx, r, rotate);

  CLI::App* applyCommand =
      vendor->add_subcommand("apply-rotation", "Print the allowlist a rotation yields");
  applyCommand->add_option("ROTATION", r->rotation, "Rotation file")->required();
  applyCommand->add_option("--current", r->current, "Allowlist in force")->required();
  addOutputOption(applyCommand, r->output);
  bind(applyCommand, ctx, r, applyRotation);
}

void makeSigningKey(const std::string& keyId, const std::string& where, const std::string& out) {
  Ed25519KeyPair pair(checkedKeyId(keyId, where));
  writeKeyFile(out,
               TarskelJSON::encoder().encode(KeyFile{pair.keyId(), pair.rawPrivateKeyBase64()}));
  writeOutput(canonicalLine(pair.vendorKey()));
}

}  // namespace tarskel::tool
