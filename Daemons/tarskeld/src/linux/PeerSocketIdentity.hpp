#pragma once

// The sender of the bytes of one read on a Unix-socket connection, as the
// kernel attached it to those bytes: the process id of SCM_CREDENTIALS and,
// on kernels that have it, the pidfd of SCM_PIDFD (both taken when the
// sender wrote, and never glued across senders by the kernel). A process
// that connects and hands its socket to another, or execs another program,
// is therefore never the one judged for what the other wrote.
//
// The pid comes with the message, so the gate never parses a pidfd's fdinfo;
// the pidfd only proves, after the executable was read through
// /proc/<pid>/exe, that the pid still named the same process.

#include <sys/socket.h>
#include <sys/types.h>

#include <memory>

#include "tarskel/daemon/DaemonPeerGate.hpp"

namespace tarskel {

class PeerSocketIdentity final : public DaemonMessageSender {
 public:
  // `pidfd` is owned (-1: none); `pid` 0 or less means no sender is known
  // (bytes of two senders in one frame, a sender in another pid namespace).
  PeerSocketIdentity(pid_t pid, int pidfd) : pid_(pid), pidfd_(pidfd) {}
  PeerSocketIdentity(const PeerSocketIdentity&) = delete;
  PeerSocketIdentity& operator=(const PeerSocketIdentity&) = delete;
  ~PeerSocketIdentity() override;

  // The sender of the bytes `message` received: reads its control messages,
  // closes every descriptor they passed but the sender's pidfd (a client's
  // SCM_RIGHTS never stays open here). Without a SCM_PIDFD the pidfd is
  // opened from the pid now, which a pid reused in between could defeat:
  // only kernels before 6.5 take that path.
  static std::shared_ptr<PeerSocketIdentity> fromControl(msghdr& message);

  // Asks the socket to carry its senders' credentials and pidfds with every
  // message (set on the listener, accepted sockets inherit it); false when
  // the kernel has no SO_PASSPIDFD.
  static bool passCredentials(int listenerFd);

  // The guest code of the pid through `platform`; errSecCSNoSuchCode when
  // there is no pid or its process ended before the executable was read.
  CodeResult senderCode(const CodeSignPlatform& platform) const override;

  pid_t pid() const { return pid_; }
  int pidfd() const { return pidfd_; }

  // Same pid: the kernel gives one read the bytes of one sender, and a frame
  // whose bytes came from two is judged as nobody's.
  bool sameSender(const PeerSocketIdentity& other) const { return pid_ == other.pid_; }

 private:
  pid_t pid_;
  int pidfd_;
};

// Control space for SCM_CREDENTIALS and SCM_PIDFD, with room for a client's
// SCM_RIGHTS to be received and closed rather than refused silently.
inline constexpr std::size_t kPeerControlSpace = 256;

}  // namespace tarskel
