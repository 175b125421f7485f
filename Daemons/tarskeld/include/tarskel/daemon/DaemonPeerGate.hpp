#pragma once

// Who sent a message, judged by code signature, for every message anew.
//
// The gate only states a verdict; it never drops a message. Refusing a
// rejected peer is the core's first step, so that the refusal reaches the
// client as a response and the audit chain as a row.
//
// The gate asks two things of the world: the running code behind a message
// (DaemonMessageSender, given by the transport) and the code-signing services
// (CodeSignPlatform, the system's own unless a test build hands in a fake).
// It never fails.
//
// No verdict outlives its message: every message is judged from its own
// sender. What the platform may keep is what is costly and keyed by what
// would change it (Linux: an executable's hash and seal by the file's
// identity, a process's facts by its program image; docs/security.md, "The
// code identity on Linux"). The transport's way to the sender is made cheap
// too (docs/security.md, "The socket and the sender").
//
// Threads: a DaemonPeerGate is an immutable value, copied into each
// connection's handler; verdict() may run on any thread, and blocks while the
// platform reads files and checks signatures.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/daemon/DaemonOp.hpp"

namespace tarskel {

// The sender of one message, as its transport knows it. On macOS this is the
// XPC message itself (SecCodeCreateWithXPCMessage); on Linux the peer pinned
// by the connection's pidfd, resolved when asked, never from the message's
// text.
class DaemonMessageSender {
 public:
  virtual ~DaemonMessageSender() = default;

  // The running code that sent the message, made through `platform`. A
  // nonzero status or no object when there is none (the peer has gone).
  virtual CodeResult senderCode(const CodeSignPlatform& platform) const = 0;

 protected:
  DaemonMessageSender() = default;
  DaemonMessageSender(const DaemonMessageSender&) = default;
  DaemonMessageSender& operator=(const DaemonMessageSender&) = default;
};

struct DaemonPeerGate {
  // The allowed team identifiers; absent when the gate was not provisioned
  // (no vendor/teams.json). Absent passes everyone as unverified; empty lets
  // no one be trusted.
  std::optional<std::vector<std::string>> teamIds;

  // The code-signing services: CodeSignPlatform::systemAnchoredAt() in the
  // shipped daemon, a fake in tests. Shared so that every copy of the gate keeps a test's fake
  // alive. A provisioned gate without one identifies no sender: every peer
  // is rejected as having no code identity (errSecCSInvalidObjectRef).
  std::shared_ptr<const CodeSignPlatform> platform;

  // In order, the first that applies:
  //   teamIds absent: unverified("gate SO sin provisionar (sin vendor/teams.json)"),
  //     with no platform call;
  //   no running code: rejected("sin identidad de código en el mensaje xpc (<status>)");
  //   no static code:  rejected("sin static code del cliente xpc (<status>)");
  //   CodeSignVerifier::check(code, "cliente xpc", *teamIds) fails:
  //     rejected(<the error's text>);
  //   otherwise trusted(<team>).
  // <status> is the signed 32-bit status in decimal.
  DaemonPeerVerdict verdict(const DaemonMessageSender& message) const;
};

}  // namespace tarskel
