#include <fcntl.h>
#include <mach-o/dyld.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/clonefile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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

std::shared_ptr<const PlatformFiles> PlatformFiles::system() {
  static const std::shared_ptr<const PlatformFiles> instance =
      std::make_shared<DarwinPlatformFiles>();
  return instance;
}

}  // namespace tarskel
