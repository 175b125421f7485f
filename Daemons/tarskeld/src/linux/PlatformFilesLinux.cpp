#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tarskel/daemon/PlatformFiles.hpp"

namespace tarskel {
namespace {

// glibc before 2.28 and some headers lack it; the kernel's value is fixed.
#ifndef RENAME_EXCHANGE
constexpr unsigned int kRenameExchange = 1U << 1;
#else
constexpr unsigned int kRenameExchange = RENAME_EXCHANGE;
#endif

class LinuxPlatformFiles final : public PlatformFiles {
 public:
  int exchange(const std::filesystem::path& a, const std::filesystem::path& b) const override {
    if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), kRenameExchange) == 0) return 0;
    return errno;
  }

  std::optional<std::filesystem::path> executablePath() const override {
    std::error_code error;
    std::filesystem::path target = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error || target.empty()) return std::nullopt;
    return target;
  }
};

}  // namespace

std::shared_ptr<const PlatformFiles> PlatformFiles::system() {
  static const std::shared_ptr<const PlatformFiles> instance =
      std::make_shared<LinuxPlatformFiles>();
  return instance;
}

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
