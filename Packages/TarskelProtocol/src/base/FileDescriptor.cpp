#include "tarskel/protocol/base/FileDescriptor.hpp"

#include <unistd.h>

#include <cerrno>

namespace tarskel {

void FileDescriptor::reset(int fd) noexcept {
  // Never retried on EINTR: on Linux the descriptor is released either way,
  // and a retry could close one another thread has just been given.
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

int FileDescriptor::close() noexcept {
  if (fd_ < 0) return 0;
  const int closed = ::close(std::exchange(fd_, -1));
  return closed == 0 || errno == EINTR ? 0 : errno;
}

bool writeAll(int fd, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace tarskel
