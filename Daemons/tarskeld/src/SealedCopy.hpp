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
// vendor/manifest.sig, from the open directory `stagedRoot` into the
// existing empty directory `destination`, by reflink clone where the file
// system has one, and makes every directory of the staged content there,
// empty ones included. Each copied file and directory keeps its extended
// attributes as PlatformFiles::copyExtendedAttributes keeps them, its access
// and modification times, and its mode without group or other write and
// without set-id bits (a directory that vanished from the staged tree while
// its files were copied stays 0700, as made).
// Throws SealedCopyError; what was copied stays for the caller to remove.
// With a `budget`, each file and directory and each byte copied through
// memory is charged to it; its WorkAbandoned goes out as it is.
void copySealedFiles(int stagedRoot, const HashManifest& manifest,
                     const std::filesystem::path& destination, const PlatformFiles& platform,
                     WorkBudget* budget = nullptr);

// Makes the tree at `at` fit for installation whatever happened to it since
// the copy: no group or other write and no set-id bit on any entry, no ACL
// entries. Every entry must be a directory or a regular file. Throws
// SealedCopyError.
void finishCopy(const std::filesystem::path& at, const PlatformFiles& platform);

// Removes the entry `name` (one name, no "/") of the open directory
// `directory`, with everything under it when it is a directory. No link is
// followed at any level: a link is removed itself, so the removal never
// leaves the tree below `directory` whatever its owner swaps in meanwhile.
// 0 when nothing is left there, otherwise the first errno; what could not be
// removed stays.
int removeBeneath(int directory, const std::string& name);

}  // namespace tarskel
