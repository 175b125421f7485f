#pragma once

// The bytes a platform update installs, taken out of the stager's reach.
//
// A staged tree belongs to an unprivileged process that may change it at any
// moment, also between its verification and its exchange. So the update
// copies exactly the files the verified manifest lists, and the seal's two
// files, into a directory of its own beside the installed bundle (same file
// system, so that the exchange stays one rename), verifies that copy, and
// installs from it. The copy is made with descriptors only: every source is
// opened beneath the staged root's descriptor without following any link,
// and must be a regular file; every target is created fresh (O_EXCL) in
// directories the daemon has just made, 0700.

#include <filesystem>
#include <string>

#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/WorkBudget.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel {

// The copy could not be made; the text says which file and why.
class SealedCopyError : public Error {
 public:
  using Error::Error;
};

// Copies every path of `manifest.files`, plus vendor/manifest.json and
// vendor/manifest.sig, from `stagedRoot` into the existing empty directory
// `destination`, by reflink clone where the file system has one. Each file
// gets mode 0755 when any execute bit was set on the source, else 0644;
// directories stay 0700 until finishCopy. Throws SealedCopyError; what was
// copied stays for the caller to remove. With a `budget`, each file and each
// byte copied through memory is charged to it; its WorkAbandoned goes out as
// it is.
void copySealedFiles(const std::filesystem::path& stagedRoot, const HashManifest& manifest,
                     const std::filesystem::path& destination, const PlatformFiles& platform,
                     WorkBudget* budget = nullptr);

// Resets the tree at `at` for installation: directories 0755, files without
// group or other write and without set-id bits, no ACL entries. Every entry
// must be a directory or a regular file. Throws SealedCopyError.
void finishCopy(const std::filesystem::path& at, const PlatformFiles& platform);

}  // namespace tarskel
