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
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

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

namespace {

// Attributes that grant privileges or decide access are not the vendor's to
// ship: only the namespace an unprivileged stager writes travels.
bool copiesAttribute(std::string_view name) { return name.starts_with("user."); }

// The names of `fd`'s attributes, NUL-separated; ENOTSUP counts as none. A
// list that grows between the two calls is read again.
int listAttributes(int fd, std::vector<char>& names) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const ssize_t size = ::flistxattr(fd, nullptr, 0);
    if (size < 0) return errno == ENOTSUP ? (names.clear(), 0) : errno;
    names.resize(static_cast<std::size_t>(size));
    const ssize_t read = ::flistxattr(fd, names.data(), names.size());
    if (read >= 0) {
      names.resize(static_cast<std::size_t>(read));
      return 0;
    }
    if (errno != ERANGE) return errno;
  }
  return ERANGE;
}

// The value of `name` on `fd`; ENODATA when it went away since it was listed.
int readAttribute(int fd, const char* name, std::vector<char>& value) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
    if (size < 0) return errno;
    value.resize(static_cast<std::size_t>(size));
    const ssize_t read = ::fgetxattr(fd, name, value.data(), value.size());
    if (read >= 0) {
      value.resize(static_cast<std::size_t>(read));
      return 0;
    }
    if (errno != ERANGE) return errno;
  }
  return ERANGE;
}

}  // namespace

int PlatformFiles::copyExtendedAttributes(int source, int target) const {
  std::vector<char> names;
  if (int error = listAttributes(source, names); error != 0) return error;
  std::vector<char> value;
  for (std::size_t at = 0; at < names.size();) {
    const char* name = names.data() + at;
    at += std::strlen(name) + 1;
    if (!copiesAttribute(name)) continue;
    const int error = readAttribute(source, name, value);
    if (error == ENODATA) continue;
    if (error != 0) return error;
    if (::fsetxattr(target, name, value.data(), value.size(), 0) != 0) {
      // A target file system without user attributes keeps none.
      return errno == ENOTSUP ? 0 : errno;
    }
  }
  return 0;
}

int PlatformFiles::copyTimes(int source, int target) const {
  struct stat info {};
  if (::fstat(source, &info) != 0) return errno;
  const struct timespec times[2] = {info.st_atim, info.st_mtim};
  return ::futimens(target, times) == 0 ? 0 : errno;
}

std::shared_ptr<const PlatformFiles> PlatformFiles::system() {
  static const std::shared_ptr<const PlatformFiles> instance =
      std::make_shared<LinuxPlatformFiles>();
  return instance;
}

}  // namespace tarskel
