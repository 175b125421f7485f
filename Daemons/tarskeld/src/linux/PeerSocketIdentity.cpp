#include "PeerSocketIdentity.hpp"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#ifndef SO_PASSPIDFD
#define SO_PASSPIDFD 76  // Linux 6.5; older C library headers lack it
#endif
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
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

std::shared_ptr<const PinnedPeer> PinnedPeer::of(int socketFd, pid_t pid) {
  if (pid <= 0) return nullptr;
  int peerPidfd = -1;
  socklen_t length = sizeof peerPidfd;
  if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERPIDFD, &peerPidfd, &length) != 0 || peerPidfd < 0) {
    return nullptr;
  }
  const FileDescriptor pidfd(peerPidfd);
  auto pin = std::make_shared<PinnedPeer>();
  const std::string dir = "/proc/" + std::to_string(pid);
  pin->procDir.reset(::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  // Alive after the open: the directory is the connecting process's.
  const bool alive = ::syscall(SYS_pidfd_send_signal, pidfd.get(), 0, nullptr, 0) == 0;
  if (!pin->procDir || !alive) return nullptr;
  pin->pid = pid;
  return pin;
}

bool PeerSocketIdentity::passCredentials(int listenerFd) {
  const int on = 1;
  ::setsockopt(listenerFd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  return ::setsockopt(listenerFd, SOL_SOCKET, SO_PASSPIDFD, &on, sizeof on) == 0;
}

std::shared_ptr<PeerSocketIdentity> PeerSocketIdentity::fromControl(
    msghdr& message, const std::shared_ptr<const PinnedPeer>& pinned) {
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
        const FileDescriptor closedHere(passed);  // a client's descriptors never stay open
      }
    }
  }
  if (pidfd < 0 && pid > 0) pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  return std::make_shared<PeerSocketIdentity>(
      pid, pidfd < 0 ? -1 : pidfd, pinned && pid > 0 && pinned->pid == pid ? pinned : nullptr);
}

CodeResult PeerSocketIdentity::senderCode(const CodeSignPlatform& platform) const {
  if (pinned_ && pid_ > 0 && pinned_->pid == pid_) {
    // Only a success is taken from the shortcut: when the pinned process has
    // gone, the pid may have passed to the sender, which the message's own
    // pidfd then judges as before.
    auto code = platform.guestCodeInProcDirectory(pinned_->procDir.get(), pid_);
    if (code && code->status == 0 && code->code) return *std::move(code);
  }
  if (pid_ <= 0 || !pidfd_) return {CodeSignStatus::errSecCSNoSuchCode, {}};
  CodeResult guest = platform.guestCodeForPid(pid_);
  // The executable was read through the number; only a process still alive
  // afterwards proves the number still named it.
  if (guest.status == 0 && ::syscall(SYS_pidfd_send_signal, pidfd_.get(), 0, nullptr, 0) != 0 &&
      errno == ESRCH) {
    return {CodeSignStatus::errSecCSNoSuchCode, {}};
  }
  return guest;
}

}  // namespace tarskel
