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

  // The path of the running executable, as the system reports it; nothing
  // when the system can't tell. Linux: /proc/self/exe; Darwin:
  // _NSGetExecutablePath.
  virtual std::optional<std::filesystem::path> executablePath() const = 0;

 protected:
  PlatformFiles() = default;
};

}  // namespace tarskel
