// tarskel vendor keygen|allowlist|seal|verify|rotate|apply-rotation
//
// The vendor's side of the vendor gate: making keys and allowlists, sealing a
// staged tree, checking a tree as the daemon would, and rotating the list of
// keys. A key file is {"keyId":"ID","privateKey":"<base64 of 32 raw bytes>"},
// mode 0600, and is never overwritten.

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
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

template <class T>
T decodeFile(const std::string& path) {
  const std::string bytes = readInput(path);
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const Error& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

Ed25519KeyPair loadKeyPair(const std::string& path) {
  const KeyFile file = decodeFile<KeyFile>(path);
  std::optional<std::string> raw = base64Decode(file.privateKey);
  if (!raw) throw ToolFailure(kExitUsage, path + ": privateKey no es base64 válido");
  try {
    return Ed25519KeyPair(*raw, file.keyId);
  } catch (const Ed25519Error& e) {
    throw ToolFailure(kExitUsage, path + ": " + e.description());
  }
}

std::string canonicalLine(const auto& record) {
  return TarskelJSON::canonicalEncoder().encode(record) + "\n";
}

[[noreturn]] void failWrite(const std::string& path) {
  throw ToolFailure(kExitUsage, "no se pudo escribir " + path + ": " + std::strerror(errno));
}

// Writes the key beside its final name, then links it in place: a crash
// leaves no half key, and an existing key is never replaced.
void writeKeyFile(const std::string& path, const std::string& content) {
  std::string temporary = path + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());  // mode 0600
  if (fd < 0) failWrite(path);
  const char* data = content.data();
  std::size_t left = content.size();
  bool ok = true;
  while (ok && left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) {
      data += n;
      left -= static_cast<std::size_t>(n);
    }
  }
  ok = ok && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  const bool linked = ok && ::link(temporary.c_str(), path.c_str()) == 0;
  const int linkError = errno;
  ::unlink(temporary.c_str());
  if (linked) return;
  if (ok && linkError == EEXIST) throw ToolFailure(kExitUsage, path + " ya existe; no se sobrescribe");
  errno = linkError;
  failWrite(path);
}

// Progress for people watching a terminal; nothing when standard error is a
// file or a pipe. Redrawn at most ten times a second, so small trees finish
// before anything is drawn.
SealHashing hashingWithProgress(const char* verb) {
  SealHashing hashing;
  if (::isatty(STDERR_FILENO) == 0) return hashing;
  auto last = std::make_shared<std::chrono::steady_clock::time_point>(std::chrono::steady_clock::now());
  auto drawn = std::make_shared<bool>(false);
  hashing.progress = [verb, last, drawn](std::size_t done, std::size_t total) {
    const auto now = std::chrono::steady_clock::now();
    if (done < total && now - *last < std::chrono::milliseconds(100)) return;
    *last = now;
    if (done == total && !*drawn) return;
    *drawn = true;
    fmt::print(stderr, "\r{} {}/{} archivos{}", verb, done, total, done == total ? "\x1b[K\n" : "");
  };
  return hashing;
}

std::string summary(const char* heading, const fs::path& dir, const HashManifest& m) {
  return fmt::format(
      "{}: {}\n  artefacto: {} {} ({})\n  monotonicVersion: {}\n  archivos: {}\n  vence: {}\n",
      heading, dir.string(), m.artifactId, m.version, enumName(m.artifactType), m.monotonicVersion,
      m.files.size(), formatISO8601(m.expires));
}

VendorVerification ed25519Verification() {
  return VendorVerification(std::make_shared<Ed25519Algorithm>(), [] { return Date::now(); });
}

// What the seal and the file system say, as exit codes: a finding of the
// seal is a refusal, anything else is input that could not be used.
template <class Body>
int guarded(Body body) {
  try {
    return body();
  } catch (const SealError& e) {
    throw ToolFailure(kExitFinding, e.description());
  } catch (const fs::filesystem_error& e) {
    throw ToolFailure(kExitUsage, e.what());
  }
}

struct KeygenOptions {
  std::string keyId;
  std::string out;
};

int keygen(const KeygenOptions& o) {
  Ed25519KeyPair pair(o.keyId);
  writeKeyFile(o.out, TarskelJSON::encoder().encode(KeyFile{pair.keyId(), pair.rawPrivateKeyBase64()}));
  writeOutput(canonicalLine(pair.vendorKey()));
  return kExitSuccess;
}

struct AllowlistOptions {
  std::int64_t revision = 0;
  std::vector<std::string> keyFiles;
};

int allowlist(const AllowlistOptions& o) {
  VendorAllowlist list{o.revision, {}};
  for (const std::string& path : o.keyFiles) {
    VendorKey key = loadKeyPair(path).vendorKey();
    // Never list a key every forged signature verifies under.
    const std::optional<std::string> raw = base64Decode(key.publicKey);
    if (const auto weakness = raw ? ed25519KeyWeakness(*raw) : std::nullopt) {
      throw ToolFailure(kExitUsage, path + ": clave vendor '" + key.keyId + "' rechazada: " + *weakness);
    }
    list.keys.push_back(std::move(key));
  }
  writeOutput(canonicalLine(list));
  return kExitSuccess;
}

struct SealOptions {
  std::string dir;
  std::string key;
  std::string artifactId;
  std::string type;
  std::string version;
  std::int64_t monotonic = 0;
  std::string expires;
  std::vector<std::string> metadata;
};

std::optional<std::map<std::string, std::string>> parseMetadata(const std::vector<std::string>& pairs) {
  if (pairs.empty()) return std::nullopt;
  std::map<std::string, std::string> out;
  for (const std::string& pair : pairs) {
    const auto equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw ToolFailure(kExitUsage, "--metadata espera CLAVE=VALOR: " + pair);
    }
    if (!out.emplace(pair.substr(0, equals), pair.substr(equals + 1)).second) {
      throw ToolFailure(kExitUsage, "--metadata repetida: " + pair.substr(0, equals));
    }
  }
  return out;
}

int seal(const SealOptions& o) {
  const std::optional<ArtifactType> type = enumFromName<ArtifactType>(o.type);
  if (!type) throw ToolFailure(kExitUsage, "--type debe ser platform o service");
  const std::optional<Date> expires = parseISO8601(o.expires);
  if (!expires) throw ToolFailure(kExitUsage, "--expires espera YYYY-MM-DDTHH:MM:SSZ: " + o.expires);
  auto metadata = parseMetadata(o.metadata);
  const Ed25519KeyPair pair = loadKeyPair(o.key);
  if (!fs::is_directory(o.dir)) throw ToolFailure(kExitUsage, o.dir + " no es un directorio");
  return guarded([&] {
    const HashManifest m = BundleSeal::seal(o.dir, o.artifactId, *type, o.version, o.monotonic,
                                            *expires, pair, std::move(metadata),
                                            hashingWithProgress("sellando"));
    writeOutput(summary("sellado", o.dir, m) + "  clave: " + pair.keyId() + "\n");
    return kExitSuccess;
  });
}

struct VerifyOptions {
  std::string dir;
  std::string allowlist;
  std::optional<std::int64_t> installedMonotonic;
  bool allowDowngrade = false;
};

int verify(const VerifyOptions& o) {
  const auto list = decodeFile<VendorAllowlist>(o.allowlist);
  return guarded([&] {
    const HashManifest m =
        BundleSeal::verify(o.dir, ed25519Verification(), list, o.installedMonotonic,
                           o.allowDowngrade, hashingWithProgress("verificando"));
    writeOutput(summary("verificado", o.dir, m));
    return kExitSuccess;
  });
}

struct RotateOptions {
  std::string current;
  std::string next;
  std::string key;
  std::string rotation;
};

// The rotation's verdict under `current`: the new list, or exit 1 with why not.
VendorAllowlist judgeRotation(const VendorKeyRotation& rotation, const VendorAllowlist& current) {
  auto result = ed25519Verification().applyRotation(rotation, current);
  if (auto* error = std::get_if<VendorVerificationError>(&result)) {
    throw ToolFailure(kExitFinding, error->description());
  }
  return std::get<VendorAllowlist>(std::move(result));
}

int rotate(const RotateOptions& o) {
  const auto current = decodeFile<VendorAllowlist>(o.current);
  const auto next = decodeFile<VendorAllowlist>(o.next);
  const Ed25519KeyPair pair = loadKeyPair(o.key);
  const VendorKeyRotation rotation{next, pair.sign(next.signingPayload())};
  // A rotation the machines would refuse is not worth handing out.
  judgeRotation(rotation, current);
  writeOutput(canonicalLine(rotation));
  return kExitSuccess;
}

int applyRotation(const RotateOptions& o) {
  const auto current = decodeFile<VendorAllowlist>(o.current);
  const auto rotation = decodeFile<VendorKeyRotation>(o.rotation);
  writeOutput(canonicalLine(judgeRotation(rotation, current)));
  return kExitSuccess;
}

template <class Options>
void bind(CLI::App* command, ToolContext& ctx, std::shared_ptr<Options> options,
          int (*run)(const Options&)) {
  command->callback([&ctx, options, run] { ctx.action = [options, run] { return run(*options); }; });
}

void install(CLI::App& app, ToolContext& ctx) {
  CLI::App* vendor = app.add_subcommand("vendor", "Keys, allowlists and seals of the vendor gate");
  vendor->require_subcommand(1);

  auto k = std::make_shared<KeygenOptions>();
  CLI::App* keygenCommand = vendor->add_subcommand("keygen", "Make a signing key; print its allowlist entry");
  keygenCommand->add_option("--key-id", k->keyId, "the key's name in allowlists")->required();
  keygenCommand->add_option("--out", k->out, "key file to create (mode 0600)")->required();
  bind(keygenCommand, ctx, k, keygen);

  auto a = std::make_shared<AllowlistOptions>();
  CLI::App* allowlistCommand = vendor->add_subcommand("allowlist", "Print an allowlist of these keys");
  allowlistCommand->add_option("--revision", a->revision, "the list's revision")->required();
  allowlistCommand->add_option("keyfiles", a->keyFiles, "key files, in list order")->required();
  bind(allowlistCommand, ctx, a, allowlist);

  auto s = std::make_shared<SealOptions>();
  CLI::App* sealCommand = vendor->add_subcommand("seal", "Hash and sign a tree into DIR/vendor");
  sealCommand->add_option("dir", s->dir, "the tree's root")->required();
  sealCommand->add_option("--key", s->key, "key file")->required();
  sealCommand->add_option("--artifact-id", s->artifactId, "artefact identity")->required();
  sealCommand->add_option("--type", s->type, "platform or service")->required();
  sealCommand->add_option("--version", s->version, "version shown to people")->required();
  sealCommand->add_option("--monotonic", s->monotonic, "anti-rollback number")->required();
  sealCommand->add_option("--expires", s->expires, "YYYY-MM-DDTHH:MM:SSZ")->required();
  sealCommand->add_option("--metadata", s->metadata, "K=V annotation, repeatable");
  bind(sealCommand, ctx, s, seal);

  auto v = std::make_shared<VerifyOptions>();
  CLI::App* verifyCommand = vendor->add_subcommand("verify", "Prove a sealed tree; exit 1 naming the fault");
  verifyCommand->add_option("dir", v->dir, "the tree's root")->required();
  verifyCommand->add_option("--allowlist", v->allowlist, "allowlist file")->required();
  verifyCommand->add_option("--installed-monotonic", v->installedMonotonic, "refuse older versions");
  verifyCommand->add_flag("--allow-downgrade", v->allowDowngrade, "accept an older version");
  bind(verifyCommand, ctx, v, verify);

  auto r = std::make_shared<RotateOptions>();
  CLI::App* rotateCommand = vendor->add_subcommand("rotate", "Sign a new allowlist with a current key");
  rotateCommand->add_option("--current", r->current, "allowlist in force")->required();
  rotateCommand->add_option("--new", r->next, "allowlist to replace it")->required();
  rotateCommand->add_option("--key", r->key, "key file of a current key")->required();
  bind(rotateCommand, ctx, r, rotate);

  CLI::App* applyCommand = vendor->add_subcommand("apply-rotation", "Print the allowlist a rotation yields");
  applyCommand->add_option("rotation", r->rotation, "rotation file")->required();
  applyCommand->add_option("--current", r->current, "allowlist in force")->required();
  bind(applyCommand, ctx, r, applyRotation);
}

const CommandRegistration kVendor(50, install);

}  // namespace
}  // namespace tarskel::tool
