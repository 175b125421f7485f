#include "OpenBeneath.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "tarskel/protocol/base/FileDescriptor.hpp"

namespace tarskel {

int openBeneathByComponents(int directory, const std::string& relative, int flags) {
  FileDescriptor current;  // invalid while `directory` itself is the base
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = relative.find('/', start);
    const std::string name =
        relative.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (name.empty() || name == "." || name == "..") return -EINVAL;
    const int base = current ? current.get() : directory;
    if (slash == std::string::npos) {
      const int fd = ::openat(base, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
      return fd >= 0 ? fd : -errno;
    }
    FileDescriptor next(
        ::openat(base, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next) return -errno;
    current = std::move(next);
    start = slash + 1;
  }
}

}  // namespace tarskel
