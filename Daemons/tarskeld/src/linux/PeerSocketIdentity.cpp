#include "PeerSocketIdentity.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#ifndef SO_PASSPIDFD
#define SO_PASSPIDFD 76  // Linux 6.5; older C library headers lack it
#endif
#ifndef SCM_PIDFD
#define SCM_PIDFD 0x04
#endif
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif

namespace tarskel {

PeerSocketIdentity::~PeerSocketIdentity() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

bool PeerSocketIdentity::passCredentials(int listenerFd) {
  const int on = 1;
  ::setsockopt(listenerFd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  return ::setsockopt(listenerFd, SOL_SOCKET, SO_PASSPIDFD, &on, sizeof on) == 0;
}

std::shared_ptr<PeerSocketIdentity> PeerSocketIdentity::fromControl(msghdr& message) {
  pid_t pid = 0;
  int pidfd = -1;
  for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
    if (c->cmsg_level != SOL_SOCKET) continue;
    const std::size_t length = c->cmsg_len - CMSG_LEN(0);
    if (c->cmsg_type == SCM_CREDENTIALS && length >= sizeof(ucred)) {
      ucred cred{};
      std::memcpy(&cred, CMSG_DATA(c), sizeof cred);
      pid = cred.pid;
    } else if (c->cmsg_type == SCM_PIDFD && length >= sizeof(int)) {
      std::memcpy(&pidfd, CMSG_DATA(c), sizeof pidfd);
    } else if (c->cmsg_type == SCM_RIGHTS) {
      for (std::size_t i = 0; i + sizeof(int) <= length; i += sizeof(int)) {
        int passed = -1;
        std::memcpy(&passed, CMSG_DATA(c) + i, sizeof passed);
        if (passed >= 0) ::close(passed);
      }
    }
  }
  if (pidfd < 0 && pid > 0) pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  return std::make_shared<PeerSocketIdentity>(pid, pidfd < 0 ? -1 : pidfd);
}

CodeResult PeerSocketIdentity::senderCode(const CodeSignPlatform& platform) const {
  if (pid_ <= 0 || pidfd_ < 0) return {CodeSignStatus::errSecCSNoSuchCode, {}};
  CodeResult guest = platform.guestCodeForPid(pid_);
  // The executable was read through the number; only a process still alive
  // afterwards proves the number still named it.
  if (guest.status == 0 && ::syscall(SYS_pidfd_send_signal, pidfd_, 0, nullptr, 0) != 0 &&
      errno == ESRCH) {
    return {CodeSignStatus::errSecCSNoSuchCode, {}};
  }
  return guest;
}

}  // namespace tarskel
