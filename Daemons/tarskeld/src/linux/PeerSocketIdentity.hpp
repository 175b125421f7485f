#pragma once

// The sender behind a Unix-socket connection, pinned when the connection is
// accepted: a pidfd of the peer (SO_PEERPIDFD, or SO_PEERCRED and
// pidfd_open on kernels without it). It is resolved to running code anew for
// each message, so a peer that exits and whose pid is reused is never taken
// for the newcomer.

#include <sys/types.h>

#include "tarskel/daemon/DaemonPeerGate.hpp"

namespace tarskel {

class PeerSocketIdentity final : public DaemonMessageSender {
 public:
  // Reads the peer of the connected socket `fd`; never fails. Without a
  // pidfd the identity resolves to no code.
  static PeerSocketIdentity ofSocket(int fd);

  PeerSocketIdentity(int pidfd, pid_t pid) : pidfd_(pidfd), pid_(pid) {}
  PeerSocketIdentity(PeerSocketIdentity&& other) noexcept;
  PeerSocketIdentity& operator=(PeerSocketIdentity&&) = delete;
  ~PeerSocketIdentity() override;

  // platform.senderCode of the pidfd and pid: the system's platform goes by
  // the pidfd, a test's fake by the pid.
  CodeResult senderCode(const CodeSignPlatform& platform) const override;

  int pidfd() const { return pidfd_; }
  pid_t pid() const { return pid_; }

 private:
  int pidfd_;  // owned; -1 when none could be had
  pid_t pid_;  // as the kernel gave it at accept; 0 when unknown
};

}  // namespace tarskel
