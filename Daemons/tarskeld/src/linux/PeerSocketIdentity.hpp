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
#include "tarskel/protocol/base/FileDescriptor.hpp"

namespace tarskel {

// The process that connected, pinned when the connection was accepted: its
// /proc directory, opened while its pidfd (SO_PEERPIDFD) showed it alive, so
// the directory stands for that process and never for a later holder of its
// pid. A message whose sender has the pinned pid was written by the pinned
// process if the directory still reads: that process then held the pid from
// the pinning until now, so no other process could have had it when the
// message was sent. The executable is then read through the directory, and
// no liveness check is needed. Owns the descriptor; the pidfd is closed once
// it has done its part, so a connection costs one descriptor more.
struct PinnedPeer {
  pid_t pid = 0;
  FileDescriptor procDir;

  // The peer of the accepted socket `socketFd`, whose SO_PEERCRED pid is
  // `pid`; nothing when the kernel has no SO_PEERPIDFD, the pid is unknown,
  // or the peer has already gone.
  static std::shared_ptr<const PinnedPeer> of(int socketFd, pid_t pid);
};

class PeerSocketIdentity final : public DaemonMessageSender {
 public:
  // `pidfd` is owned (-1: none); `pid` 0 or less means no sender is known
  // (bytes of two senders in one frame, a sender in another pid namespace).
  // `pinned` is the connection's pinned peer, if any.
  PeerSocketIdentity(pid_t pid, int pidfd, std::shared_ptr<const PinnedPeer> pinned = nullptr)
      : pid_(pid), pidfd_(pidfd), pinned_(std::move(pinned)) {}
  PeerSocketIdentity(const PeerSocketIdentity&) = delete;
  PeerSocketIdentity& operator=(const PeerSocketIdentity&) = delete;

  // The sender of the bytes `message` received: reads its control messages,
  // closes every descriptor they passed but the sender's pidfd (a client's
  // SCM_RIGHTS never stays open here). Without a SCM_PIDFD the pidfd is
  // opened from the pid now, which a pid reused in between could defeat:
  // only kernels before 6.5 take that path.
  static std::shared_ptr<PeerSocketIdentity> fromControl(
      msghdr& message, const std::shared_ptr<const PinnedPeer>& pinned = nullptr);

  // Asks the socket to carry its senders' credentials and pidfds with every
  // message (set on the listener, accepted sockets inherit it); false when
  // the kernel has no SO_PASSPIDFD.
  static bool passCredentials(int listenerFd);

  // The guest code of the pid through `platform`; errSecCSNoSuchCode when
  // there is no pid or its process ended before the executable was read.
  // Through the pinned peer's directory when the pid is the pinned one, the
  // platform reads through it and the read succeeds; otherwise
  // /proc/<pid>/exe, then the message's pidfd proves the pid still named the
  // sender. Both give the same answer where both apply.
  CodeResult senderCode(const CodeSignPlatform& platform) const override;

  pid_t pid() const { return pid_; }
  int pidfd() const { return pidfd_.get(); }

  // Same pid: the kernel gives one read the bytes of one sender, and a frame
  // whose bytes came from two is judged as nobody's.
  bool sameSender(const PeerSocketIdentity& other) const { return pid_ == other.pid_; }

 private:
  pid_t pid_;
  FileDescriptor pidfd_;
  std::shared_ptr<const PinnedPeer> pinned_;  // kept only when its pid is pid_
};

// Control space for SCM_CREDENTIALS and SCM_PIDFD, with room for a client's
// SCM_RIGHTS to be received and closed rather than refused silently.
inline constexpr std::size_t kPeerControlSpace = 256;

}  // namespace tarskel
