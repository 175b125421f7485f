// renamex_np, fclonefileat, the ACL and extended attribute calls and
// _NSGetExecutablePath, on top of the host's own calls, with Darwin's flags
// and errno meanings.

#include <fcntl.h>
#include <mach-o/dyld.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/clonefile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Objects.hpp"
#include "tarskel/darwinsim/DarwinSim.hpp"

namespace tarskel::darwinsim {
namespace {

std::mutex aclMutex;
std::vector<std::string> aclWrites;

struct ACL : Object {
  explicit ACL(const void* at) : Object("acl_t", at) {}
};

int fail(int error) {
  errno = error;
  return -1;
}

// Copies the bytes of `source` into `target`; an errno, or 0.
int copyBytes(int source, int target) {
  char buffer[65536];
  for (off_t at = 0;;) {
    const ssize_t n = ::pread(source, buffer, sizeof buffer, at);
    if (n < 0) return errno;
    if (n == 0) return 0;
    if (::write(target, buffer, static_cast<size_t>(n)) != n) return errno;
    at += n;
  }
}

// Darwin's attribute names are the host's "user." ones without the prefix:
// the host's privileged namespaces have no Darwin counterpart. The host's
// calls are reached by number, their names being Darwin's here.
constexpr std::string_view kUser = "user.";

std::string hostName(const char* name) { return std::string(kUser) + name; }

void checkAttributeCall(const char* call, std::uint32_t position, int options) {
  if (position != 0) {
    die(std::string(call) + ": position is a resource fork's offset, 0 for every other attribute");
  }
  if (options != 0) die(std::string(call) + ": the simulator takes no options");
}

ssize_t attributeResult(long result) {
  if (result < 0 && errno == ENODATA) errno = ENOATTR;
  return result;
}

}  // namespace

std::vector<std::string> takeAccessControlWrites() {
  std::lock_guard lock(aclMutex);
  return std::exchange(aclWrites, {});
}

}  // namespace tarskel::darwinsim

using namespace tarskel::darwinsim;

extern "C" {

// Only RENAME_SWAP is simulated. Darwin answers ENOTSUP where the volume
// can't exchange; Linux says EINVAL.
int renamex_np(const char* from, const char* to, unsigned int flags) {
  if (flags != RENAME_SWAP) die("renamex_np: the simulator swaps only (RENAME_SWAP)");
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE) == 0) return 0;
  return fail(errno == EINVAL ? ENOTSUP : errno);
}

// A clone is a copy here: same bytes and mode, owned by the source's owner
// unless CLONE_NOOWNERCOPY. A final link at `name` is never followed.
int fclonefileat(int source, int directory, const char* name, uint32_t flags) {
  if ((flags & ~uint32_t{CLONE_NOFOLLOW | CLONE_NOOWNERCOPY}) != 0) return fail(EINVAL);
  struct stat from {
  }, into{};
  if (::fstat(source, &from) != 0 || ::fstat(directory, &into) != 0) return fail(EBADF);
  if (!S_ISREG(from.st_mode)) return fail(ENOTSUP);
  if (from.st_dev != into.st_dev) return fail(EXDEV);
  const int target = ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                              from.st_mode & 07777);
  if (target < 0) return -1;  // EEXIST for anything already there, a link included
  int error = copyBytes(source, target);
  if (error == 0 && (flags & CLONE_NOOWNERCOPY) == 0 &&
      ::fchown(target, from.st_uid, from.st_gid) != 0) {
    error = errno;
  }
  if (error == 0 && ::fchmod(target, from.st_mode & 07777) != 0) error = errno;
  ::close(target);
  if (error != 0) ::unlinkat(directory, name, 0);
  return error == 0 ? 0 : fail(error);
}

acl_t acl_init(int count) {
  if (count < 0) {
    errno = EINVAL;
    return nullptr;
  }
  return reinterpret_cast<acl_t>(new ACL(__builtin_return_address(0)));
}

int acl_free(void* object) {
  release(liveAs<ACL>(object, "acl_free"));
  return 0;
}

int acl_set_link_np(const char* path, acl_type_t type, acl_t acl) {
  liveAs<ACL>(acl, "acl_set_link_np");
  struct stat info {};
  if (::lstat(path, &info) != 0) return -1;
  std::lock_guard lock(aclMutex);
  aclWrites.push_back(std::string(path) + (type == ACL_TYPE_EXTENDED ? " extended" : " other"));
  return 0;
}

ssize_t flistxattr(int fd, char* names, size_t size, int options) {
  checkAttributeCall("flistxattr", 0, options);
  std::string host;
  for (;;) {
    const long needed = ::syscall(SYS_flistxattr, fd, nullptr, 0);
    if (needed < 0) return -1;
    host.resize(static_cast<std::size_t>(needed));
    const long read = ::syscall(SYS_flistxattr, fd, host.data(), host.size());
    if (read >= 0) {
      host.resize(static_cast<std::size_t>(read));
      break;
    }
    if (errno != ERANGE) return -1;
  }
  std::string ours;
  for (std::size_t at = 0, end; (end = host.find('\0', at)) != std::string::npos; at = end + 1) {
    const std::string_view name(host.data() + at, end - at);
    if (name.size() > kUser.size() && name.starts_with(kUser)) {
      ours.append(name.substr(kUser.size())) += '\0';
    }
  }
  if (names == nullptr) return static_cast<ssize_t>(ours.size());
  if (size < ours.size()) return fail(ERANGE);
  std::memcpy(names, ours.data(), ours.size());
  return static_cast<ssize_t>(ours.size());
}

ssize_t fgetxattr(int fd, const char* name, void* value, size_t size, uint32_t position,
                  int options) {
  checkAttributeCall("fgetxattr", position, options);
  return attributeResult(::syscall(SYS_fgetxattr, fd, hostName(name).c_str(), value, size));
}

int fsetxattr(int fd, const char* name, const void* value, size_t size, uint32_t position,
              int options) {
  checkAttributeCall("fsetxattr", position, options);
  if (value == nullptr) die("fsetxattr: the value is never NULL, even for an empty one");
  return static_cast<int>(
      attributeResult(::syscall(SYS_fsetxattr, fd, hostName(name).c_str(), value, size, 0)));
}

int _NSGetExecutablePath(char* buffer, uint32_t* size) {
  char path[4096];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n < 0) return -1;
  if (static_cast<uint32_t>(n) + 1 > *size) {
    *size = static_cast<uint32_t>(n) + 1;
    return -1;
  }
  std::memcpy(buffer, path, static_cast<size_t>(n));
  buffer[n] = '\0';
  return 0;
}

}  // extern "C"
