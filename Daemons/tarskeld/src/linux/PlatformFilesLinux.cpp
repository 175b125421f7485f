#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "OpenBeneath.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"

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

// openat2(2) arrived in Linux 5.6; glibc 2.36 has no wrapper, so the call
// and its argument are spelled out here as the kernel defines them.
#ifndef SYS_openat2
constexpr long kSysOpenat2 = 437;
#else
constexpr long kSysOpenat2 = SYS_openat2;
#endif
constexpr std::uint64_t kResolveNoSymlinks = 0x04;
constexpr std::uint64_t kResolveBeneath = 0x08;

struct OpenHow {
  std::uint64_t flags;
  std::uint64_t mode;
  std::uint64_t resolve;
};

}  // namespace

int PlatformFiles::openBeneath(int directory, const std::string& relative, int flags) const {
  OpenHow how{static_cast<std::uint64_t>(flags | O_NOFOLLOW | O_CLOEXEC), 0,
              kResolveBeneath | kResolveNoSymlinks};
  const long fd = ::syscall(kSysOpenat2, directory, relative.c_str(), &how, sizeof how);
  if (fd >= 0) return static_cast<int>(fd);
  // An older kernel, or a sandbox that filters the call: the same walk, one
  // component at a time.
  if (errno == ENOSYS || errno == EPERM || errno == E2BIG) {
    return openBeneathByComponents(directory, relative, flags);
  }
  return -errno;
}

int PlatformFiles::cloneFile(int source, int destinationDirectory, const std::string& name) const {
  FileDescriptor target(::openat(destinationDirectory, name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!target) return errno;
  if (::ioctl(target.get(), FICLONE, source) == 0) return 0;
  const int error = errno;
  ::unlinkat(destinationDirectory, name.c_str(), 0);
  return error;
}

int PlatformFiles::stripAccessControl(const std::filesystem::path& path) const {
  for (const char* name : {"system.posix_acl_access", "system.posix_acl_default"}) {
    if (::lremovexattr(path.c_str(), name) != 0 && errno != ENODATA && errno != ENOTSUP) {
      return errno;
    }
  }
  return 0;
}

std::shared_ptr<const PlatformFiles> PlatformFiles::system() {
  static const std::shared_ptr<const PlatformFiles> instance =
      std::make_shared<LinuxPlatformFiles>();
  return instance;
}

}  // namespace tarskel
