// What both platforms' file systems do alike, through POSIX: the adapters in
// linux/ and darwin/ hold only what differs.

#include "tarskel/daemon/PlatformFiles.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tarskel {

int PlatformFiles::changeOwnerToRootWheel(const std::filesystem::path& path) const {
  return ::lchown(path.c_str(), 0, 0) == 0 ? 0 : errno;
}

uid_t PlatformFiles::effectiveUserId() const { return ::geteuid(); }

PlatformFiles::Owner PlatformFiles::ownerOf(const std::filesystem::path& path) const {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return Owner{std::nullopt, errno};
  return Owner{static_cast<std::uint32_t>(info.st_uid), 0};
}

}  // namespace tarskel
