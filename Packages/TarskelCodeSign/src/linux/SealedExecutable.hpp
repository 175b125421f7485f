#pragma once

// Whether an executable file is signed for a team on Linux: the vendor seal
// of the tree around it, under a code key, on a path only root can change.
// Internal to the Linux adapter.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel::linuxcode {

// What tells one version of a file from another without reading it. Any
// write changes the change time, and so do a rename, a new link, a change
// of owner or mode.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec mtime{};
  timespec ctime{};

  static FileIdentity of(const struct stat& info);
  friend bool operator==(const FileIdentity& a, const FileIdentity& b);
};

struct FileIdentityHash {
  std::size_t operator()(const FileIdentity& id) const;
};

// A refusal: the Security status that stands for it, and why in words.
struct Refusal {
  OSStatus status = 0;
  std::string reason;
};

// Who signed an executable, and what the seal calls it.
struct Signer {
  std::string team;        // the keyId of the code key that verified
  std::string identifier;  // the manifest's artifactId
  std::string treeRoot;    // the sealed tree's root directory
};

using Judgement = std::variant<Signer, Refusal>;

// Judges executables against a fixed list of code keys, remembering what is
// costly. Any thread; the caches are locked.
class SealedExecutables {
 public:
  explicit SealedExecutables(VendorAllowlist codeKeys);

  // The executable at `path` (absolute, free of links, as /proc/<pid>/exe
  // gives it), which must be the file of `identity` when one is given. In
  // order, the first failure ending it:
  //   the file at the path is not that file, or not a regular file
  //     (errSecCSStaticCodeNotFound);
  //   the file or a directory from "/" down to it is not root's, or is
  //     writable by group or others (errSecCSReqFailed);
  //   no directory above it holds vendor/manifest.json and
  //     vendor/manifest.sig (errSecCSUnsigned);
  //   the seal's files are not root's alone, can't be read or decoded, or
  //     the signature doesn't verify (errSecCSSignatureFailed), or its key
  //     is not among the code keys (errSecCSReqFailed); expiry and version
  //     play no part;
  //   the manifest doesn't list the file (errSecCSUnsigned), or lists
  //     another SHA-256 (errSecCSSignatureFailed).
  // A success is remembered by path and identity; a file's hash by its
  // identity alone, once its change time is two seconds old (a file written
  // twice within the file system's clock tick keeps its times).
  Judgement judge(const std::string& path, const std::optional<FileIdentity>& identity) const;

  // Whether a success for the file of `identity` at `path` is remembered:
  // the judgement holds for as long as the file keeps that identity.
  bool remembers(const std::string& path, const FileIdentity& identity) const;

 private:
  std::optional<std::string> hashOf(const std::string& path, const FileIdentity& identity) const;
  Judgement judgeUncached(const std::string& path, const FileIdentity& identity) const;

  VendorAllowlist codeKeys_;
  mutable std::mutex mutex_;
  mutable std::unordered_map<FileIdentity, std::string, FileIdentityHash> hashes_;
  mutable std::unordered_map<std::string, std::pair<FileIdentity, Signer>> signers_;
};

}  // namespace tarskel::linuxcode
