#include "SealedExecutable.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/base/SHA256.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/VendorVerification.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel::linuxcode {

using namespace CodeSignStatus;

namespace {

constexpr std::size_t kMaxSealFileBytes = 256u << 20;
constexpr std::size_t kMaxRemembered = 1024;
constexpr std::time_t kSettledSeconds = 2;

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Why `path` is not root's alone, or nothing. `directory`: it must be one.
std::optional<std::string> notRootOnly(const std::string& path, bool directory) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return path + ": " + std::strerror(errno);
  if (directory ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode)) {
    return path + (directory ? " no es un directorio" : " no es un archivo regular");
  }
  if (info.st_uid != 0 || (info.st_mode & 022) != 0) {
    return path + " no es solo de root (uid " + std::to_string(info.st_uid) + ", modo " +
           octal(info.st_mode) + ")";
  }
  return std::nullopt;
}

// Every directory from "/" down to the file's own, then the file.
std::optional<std::string> pathNotRootOnly(const std::string& path) {
  if (auto refusal = notRootOnly("/", true)) return refusal;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (auto refusal = notRootOnly(path.substr(0, slash), true)) return refusal;
  }
  return notRootOnly(path, false);
}

// Whether a file of `identity` is past the clock tick of its last change:
// a later change can't leave its times as they are.
bool settled(const FileIdentity& identity) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec - identity.ctime.tv_sec >= kSettledSeconds;
}

bool exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

// The nearest directory above `path` holding both files of a seal.
std::optional<std::string> treeRootOf(const std::string& path) {
  std::string dir = path.substr(0, path.rfind('/'));
  for (;;) {
    const std::string base = dir.empty() ? "" : dir;
    if (exists(base + "/vendor/manifest.json") && exists(base + "/vendor/manifest.sig")) {
      return dir.empty() ? "/" : dir;
    }
    if (dir.empty()) return std::nullopt;
    dir.resize(dir.rfind('/'));
  }
}

}  // namespace

FileIdentity FileIdentity::of(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
}

bool operator==(const FileIdentity& a, const FileIdentity& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         sameTime(a.mtime, b.mtime) && sameTime(a.ctime, b.ctime);
}

std::size_t FileIdentityHash::operator()(const FileIdentity& id) const {
  std::size_t h = std::hash<ino_t>()(id.inode);
  for (long part : {static_cast<long>(id.device), static_cast<long>(id.size), id.ctime.tv_nsec,
                    static_cast<long>(id.ctime.tv_sec)}) {
    h = h * 1000003u ^ std::hash<long>()(part);
  }
  return h;
}

SealedExecutables::SealedExecutables(VendorAllowlist codeKeys) : codeKeys_(std::move(codeKeys)) {}

Judgement SealedExecutables::judge(const std::string& path,
                                   const std::optional<FileIdentity>& identity) const {
  FileIdentity current;
  if (identity) {
    // The path came from the kernel for this very file, so it names it
    // unless the file has been unlinked since (then it is marked so).
    current = *identity;
    std::lock_guard lock(mutex_);
    if (auto known = signers_.find(path);
        known != signers_.end() && known->second.first == current) {
      return known->second.second;
    }
  }
  struct stat info {};
  if (path.empty() || path.front() != '/' || ::lstat(path.c_str(), &info) != 0) {
    return Refusal{errSecCSStaticCodeNotFound, "ejecutable ausente: " + path};
  }
  if (!S_ISREG(info.st_mode)) {
    return Refusal{errSecCSStaticCodeNotFound, path + " no es un archivo regular"};
  }
  if (identity && (info.st_dev != identity->device || info.st_ino != identity->inode)) {
    return Refusal{errSecCSGuestInvalid, "el ejecutable en ejecución ya no está en " + path};
  }
  current = FileIdentity::of(info);
  {
    std::lock_guard lock(mutex_);
    if (auto known = signers_.find(path);
        known != signers_.end() && known->second.first == current) {
      return known->second.second;
    }
  }
  Judgement judged = judgeUncached(path, current);
  if (const Signer* signer = std::get_if<Signer>(&judged); signer && settled(current)) {
    std::lock_guard lock(mutex_);
    if (signers_.size() >= kMaxRemembered) signers_.clear();
    signers_.insert_or_assign(path, std::make_pair(current, *signer));
  }
  return judged;
}

bool SealedExecutables::remembers(const std::string& path, const FileIdentity& identity) const {
  std::lock_guard lock(mutex_);
  auto known = signers_.find(path);
  return known != signers_.end() && known->second.first == identity;
}

Judgement SealedExecutables::judgeUncached(const std::string& path,
                                           const FileIdentity& identity) const {
  if (auto refusal = pathNotRootOnly(path)) return Refusal{errSecCSReqFailed, *refusal};
  const std::optional<std::string> root = treeRootOf(path);
  if (!root) return Refusal{errSecCSUnsigned, path + " no está en un árbol sellado"};
  const std::string base = *root == "/" ? "" : *root;

  std::string manifestData;
  HashManifest manifest;
  VendorSignature signature;
  try {
    for (const char* part : {"/vendor", "/vendor/manifest.json", "/vendor/manifest.sig"}) {
      if (auto refusal = notRootOnly(base + part, std::strcmp(part, "/vendor") == 0)) {
        return Refusal{errSecCSSignatureFailed, *refusal};
      }
    }
    manifestData = readFile(base + "/vendor/manifest.json", kMaxSealFileBytes, {false});
    manifest = TarskelJSON::decoder().decode<HashManifest>(manifestData);
    signature = TarskelJSON::decoder().decode<VendorSignature>(
        readFile(base + "/vendor/manifest.sig", kMaxSealFileBytes, {false}));
  } catch (const std::exception& e) {
    return Refusal{errSecCSSignatureFailed, std::string("hash-manifest ilegible: ") + e.what()};
  }

  // The signature alone: a signature of code stays good after the manifest
  // expires, and no version is compared. The clock is set before expiry.
  const Date beforeExpiry{manifest.expires.secondsSinceReferenceDate - 1};
  const VendorVerification verification(std::make_shared<Ed25519Algorithm>(),
                                        [beforeExpiry] { return beforeExpiry; });
  const std::vector<VendorVerificationError> errors =
      verification.verify(manifestData, manifest, signature, codeKeys_, std::nullopt, false);
  if (!errors.empty()) {
    const bool unknown = errors.front().kind() == VendorVerificationError::Kind::unknownKey;
    return Refusal{unknown ? errSecCSReqFailed : errSecCSSignatureFailed,
                   "vendor/code-keys.json: " + errors.front().description()};
  }

  const std::string relative = path.substr(base.size() + 1);
  const HashManifest::FileEntry* entry = nullptr;
  if (relative != "vendor" && !relative.starts_with("vendor/")) {
    for (const auto& file : manifest.files) {
      if (file.path == relative) {
        entry = &file;
        break;
      }
    }
  }
  if (entry == nullptr) {
    return Refusal{errSecCSUnsigned, "el manifest de " + *root + " no lista " + relative};
  }
  const std::optional<std::string> hash = hashOf(path, identity);
  if (!hash) return Refusal{errSecCSSignatureFailed, "no se pudo leer " + path};
  if (*hash != entry->sha256) {
    return Refusal{errSecCSSignatureFailed, "sha256 no coincide: " + relative};
  }
  return Signer{signature.keyId, manifest.artifactId, *root};
}

std::optional<std::string> SealedExecutables::hashOf(const std::string& path,
                                                     const FileIdentity& identity) const {
  {
    std::lock_guard lock(mutex_);
    if (auto known = hashes_.find(identity); known != hashes_.end()) return known->second;
  }
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat before {
  }, after{};
  if (!file || ::fstat(file.get(), &before) != 0 || !(FileIdentity::of(before) == identity)) {
    return std::nullopt;
  }
  SHA256 digest;
  std::unique_ptr<char[]> buffer(new char[256 * 1024]);
  for (;;) {
    const ssize_t n = ::read(file.get(), buffer.get(), 256 * 1024);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    digest.update(buffer.get(), static_cast<std::size_t>(n));
  }
  if (::fstat(file.get(), &after) != 0 || !(FileIdentity::of(after) == identity)) {
    return std::nullopt;
  }
  std::string hex = digest.finishHex();
  if (settled(identity)) {
    std::lock_guard lock(mutex_);
    if (hashes_.size() >= kMaxRemembered) hashes_.clear();
    hashes_.emplace(identity, hex);
  }
  return hex;
}

}  // namespace tarskel::linuxcode
