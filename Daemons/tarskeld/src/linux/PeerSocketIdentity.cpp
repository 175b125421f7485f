#include "PeerSocketIdentity.hpp"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>


#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // Linux 6.5; older C library headers lack it
#endif

namespace tarskel {

PeerSocketIdentity PeerSocketIdentity::ofSocket(int fd) {
  ucred cred{};
  socklen_t length = sizeof cred;
  const pid_t pid = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0 ? cred.pid : 0;
  int pidfd = -1;
  length = sizeof pidfd;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) != 0) pidfd = -1;
  // The fallback can race a peer that exits and whose pid is reused before
  // this line; SO_PEERPIDFD is what closes that window.
  if (pidfd < 0 && pid > 0) pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  return {pidfd < 0 ? -1 : pidfd, pid};
}

PeerSocketIdentity::PeerSocketIdentity(PeerSocketIdentity&& other) noexcept
    : pidfd_(std::exchange(other.pidfd_, -1)), pid_(other.pid_) {}

PeerSocketIdentity::~PeerSocketIdentity() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

CodeResult PeerSocketIdentity::senderCode(const CodeSignPlatform& platform) const {
  return platform.senderCode(MessageOrigin{pid_, pidfd_, nullptr});
}

}  // namespace tarskel
