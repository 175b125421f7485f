#pragma once

// The few system calls through which the platform operations change the
// installed application: the atomic exchange of two directory entries, the
// change of an entry's owner to root, the effective user, the owner of an
// entry and the running executable's path.
//
// One implementation per system, chosen by the build (src/linux/,
// src/darwin/). The platform operations take this interface so that tests
// can play a daemon that does not run as root, or a system call that
// refuses; everything else they do goes to the real file system.
//
// Every member may be called from any thread at once; none keeps state.
// Failures are reported as errno values, never thrown, so that the caller
// words them.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace tarskel {

class PlatformFiles {
 public:
  virtual ~PlatformFiles() = default;

  // The running system's implementation; lives as long as the process.
  static std::shared_ptr<const PlatformFiles> system();

  // Exchanges the two existing entries `a` and `b` in one step: at every
  // instant each path names a complete entry. 0 on success, otherwise the
  // errno (ENOENT when either is missing; nothing has moved then).
  // Darwin: renamex_np(a, b, RENAME_SWAP); Linux: renameat2 with
  // RENAME_EXCHANGE.
  virtual int exchange(const std::filesystem::path& a, const std::filesystem::path& b) const = 0;

  // lchown(path, 0, 0): owner root, group wheel (gid 0). A symbolic link is
  // changed itself, never followed. 0 on success, otherwise the errno.
  virtual int changeOwnerToRootWheel(const std::filesystem::path& path) const;

  // geteuid().
  virtual uid_t effectiveUserId() const;

  // The owner's uid of the entry itself (a final symbolic link is described,
  // not followed), or the errno of the failed lookup.
  struct Owner {
    std::optional<std::uint32_t> uid;
    int errorNumber = 0;
  };
  virtual Owner ownerOf(const std::filesystem::path& path) const;

  // Opens `relative` (a path of plain names joined by "/") beneath the open
  // directory `directory`, following no symbolic link at any component and
  // never leaving the directory: a link or ".." swapped in by someone else
  // is refused (ELOOP, EXDEV or similar), never followed. Returns the new
  // descriptor, or -errno. Linux: openat2 with RESOLVE_BENEATH |
  // RESOLVE_NO_SYMLINKS where the kernel has it, else one openat with
  // O_NOFOLLOW per component; Darwin: the latter.
  virtual int openBeneath(int directory, const std::string& relative, int flags) const;

  // Makes `name` in the open directory `destinationDirectory` a clone of the
  // open regular file `source` sharing its blocks (reflink) where the file
  // system can, without following a link at `name`, and fails with EEXIST
  // when `name` exists. 0 on success, otherwise the errno, and then nothing
  // is left at `name`: the caller copies the bytes instead. Linux: FICLONE;
  // Darwin: fclonefileat.
  virtual int cloneFile(int source, int destinationDirectory, const std::string& name) const;

  // Removes every access control list entry of `path` (a final link is not
  // followed), leaving only its mode bits. 0 on success or when the file
  // system has no ACLs, otherwise the errno. Linux: the POSIX ACL extended
  // attributes; Darwin: an empty extended ACL.
  virtual int stripAccessControl(const std::filesystem::path& path) const;

  // Copies the extended attributes of the open file `source` to the open
  // file `target` (created by the caller and still writable by it), except
  // those that carry privileges or access control. 0 on success, also when
  // either file system has no extended attributes, otherwise the errno
  // (ERANGE when the source's attributes kept changing while read). Linux:
  // the "user." namespace only, since "security." holds capabilities and
  // labels, "trusted." is root's and "system." holds ACLs; Darwin: every
  // attribute flistxattr shows, since none of them grants a privilege and
  // ACLs are not among them.
  virtual int copyExtendedAttributes(int source, int target) const;

  // Gives the open file `target` the access and modification times of the
  // open file `source`. 0 on success, otherwise the errno. Both: futimens.
  virtual int copyTimes(int source, int target) const;

  // The path of the running executable, as the system reports it; nothing
  // when the system can't tell. Linux: /proc/self/exe; Darwin:
  // _NSGetExecutablePath.
  virtual std::optional<std::filesystem::path> executablePath() const = 0;

 protected:
  PlatformFiles() = default;
};

// The path that a caller's text names, as the platform operations use it:
// absolute (a relative text is taken from the current directory, an empty one
// names the current directory), without trailing separators, otherwise as
// written ("." and ".." stay). Pure apart from reading the current directory.
inline std::filesystem::path platformFilePath(std::string_view text) {
  std::string path(text);
  if (path.empty() || path.front() != '/') {
    std::error_code error;
    std::string base = std::filesystem::current_path(error).string();
    if (error || base.empty()) base = "/";
    if (base.back() != '/') base += '/';
    path = base + path;
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return std::filesystem::path(path);
}

// True when the last component of `path` has the extension "app", exactly
// (case matters).
inline bool hasAppExtension(const std::filesystem::path& path) {
  // A name that is only ".app" is a hidden file without an extension.
  const std::string name = path.filename().string();
  return name.size() > 4 && name.ends_with(".app");
}

}  // namespace tarskel
