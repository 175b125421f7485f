#include "tarskel/protocol/base/FileDescriptor.hpp"

#include <unistd.h>

namespace tarskel {

void FileDescriptor::reset(int fd) noexcept {
  // Never retried on EINTR: on Linux the descriptor is released either way,
  // and a retry could close one another thread has just been given.
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

}  // namespace tarskel
