#include <fcntl.h>
#include <mach-o/dyld.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/clonefile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "OpenBeneath.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"

namespace tarskel {
namespace {

class DarwinPlatformFiles final : public PlatformFiles {
 public:
  int exchange(const std::filesystem::path& a, const std::filesystem::path& b) const override {
    if (::renamex_np(a.c_str(), b.c_str(), RENAME_SWAP) == 0) return 0;
    return errno;
  }

  // _NSGetExecutablePath tells the size it needs when the buffer is short;
  // the path it gives may still hold links, which the caller resolves.
  std::optional<std::filesystem::path> executablePath() const override {
    std::vector<char> buffer(1024);
    auto size = static_cast<std::uint32_t>(buffer.size());
    if (::_NSGetExecutablePath(buffer.data(), &size) != 0) {
      buffer.resize(size);
      if (::_NSGetExecutablePath(buffer.data(), &size) != 0) return std::nullopt;
    }
    std::string path(buffer.data());
    if (path.empty()) return std::nullopt;
    return std::filesystem::path(path);
  }
};

}  // namespace

int PlatformFiles::openBeneath(int directory, const std::string& relative, int flags) const {
  return openBeneathByComponents(directory, relative, flags);
}

// fclonefileat(2): a copy-on-write clone on APFS; ENOTSUP elsewhere, and
// EXDEV across volumes. CLONE_NOFOLLOW keeps a link at `name` from being
// followed; CLONE_NOOWNERCOPY gives the clone the caller's ownership.
int PlatformFiles::cloneFile(int source, int destinationDirectory, const std::string& name) const {
  if (::fclonefileat(source, destinationDirectory, name.c_str(),
                     CLONE_NOFOLLOW | CLONE_NOOWNERCOPY) == 0) {
    return 0;
  }
  return errno;
}

// An empty ACL of the extended type replaces whatever entries the file
// carries; acl_set_link_np does not follow a final link.
int PlatformFiles::stripAccessControl(const std::filesystem::path& path) const {
  acl_t empty = ::acl_init(0);
  if (empty == nullptr) return errno;
  const int result = ::acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, empty);
  const int error = errno;
  ::acl_free(empty);
  if (result == 0 || error == ENOTSUP) return 0;
  return error;
}

namespace {

// A resource fork is an attribute too and may be large; a bundle file's
// attributes beyond this are not the vendor's and the copy is refused.
constexpr std::size_t kMaxAttributeBytes = 16u << 20;

// The names of `fd`'s attributes, NUL-separated; ENOTSUP counts as none. A
// list that grows between the two calls is read again.
int listAttributes(int fd, std::vector<char>& names) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const ssize_t size = ::flistxattr(fd, nullptr, 0, 0);
    if (size < 0) return errno == ENOTSUP ? (names.clear(), 0) : errno;
    names.resize(static_cast<std::size_t>(size));
    const ssize_t read = ::flistxattr(fd, names.data(), names.size(), 0);
    if (read >= 0) {
      names.resize(static_cast<std::size_t>(read));
      return 0;
    }
    if (errno != ERANGE) return errno;
  }
  return ERANGE;
}

// The whole value of `name` on `fd`; ENOATTR when it went away since it was
// listed.
int readAttribute(int fd, const char* name, std::vector<char>& value) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const ssize_t size = ::fgetxattr(fd, name, nullptr, 0, 0, 0);
    if (size < 0) return errno;
    if (static_cast<std::size_t>(size) > kMaxAttributeBytes) return E2BIG;
    value.resize(static_cast<std::size_t>(size));
    const ssize_t read = ::fgetxattr(fd, name, value.data(), value.size(), 0, 0);
    if (read >= 0) {
      value.resize(static_cast<std::size_t>(read));
      return 0;
    }
    if (errno != ERANGE) return errno;
  }
  return ERANGE;
}

}  // namespace

// A clone has brought the attributes already; they are set again, so that a
// copied file gets the same. ACLs are not attributes here: stripAccessControl
// removes them.
int PlatformFiles::copyExtendedAttributes(int source, int target) const {
  std::vector<char> names;
  if (int error = listAttributes(source, names); error != 0) return error;
  std::vector<char> value;
  for (std::size_t at = 0; at < names.size();) {
    const char* name = names.data() + at;
    at += std::strlen(name) + 1;
    const int error = readAttribute(source, name, value);
    if (error == ENOATTR) continue;
    if (error != 0) return error;
    // fsetxattr wants a buffer even for an empty value.
    const char empty = 0;
    if (::fsetxattr(target, name, value.empty() ? &empty : value.data(), value.size(), 0, 0) != 0) {
      return errno == ENOTSUP ? 0 : errno;
    }
  }
  return 0;
}

int PlatformFiles::copyTimes(int source, int target) const {
  struct stat info {};
  if (::fstat(source, &info) != 0) return errno;
  const struct timespec times[2] = {info.st_atimespec, info.st_mtimespec};
  return ::futimens(target, times) == 0 ? 0 : errno;
}

std::shared_ptr<const PlatformFiles> PlatformFiles::system() {
  static const std::shared_ptr<const PlatformFiles> instance =
      std::make_shared<DarwinPlatformFiles>();
  return instance;
}

}  // namespace tarskel
