#pragma once

// The daemon's listener: turns each message into one call of
// DaemonCore::handleEncoded and one reply.
//
// For every message of a connection, one at a time: a message that expects
// no reply is dropped unread; otherwise the gate's verdict is worked out
// (anew, every message, from that message's own sender), the request bytes
// are taken (a missing request key is empty bytes, which the core answers
// with "malformedRequest") and the request is handled. Messages of one
// connection overlap and replies leave in any order. Nothing here is logged.
//
// macOS: an XPC Mach service listener. Linux: a Unix-domain stream socket at
// socketPathForMachService(name), speaking the frames and envelopes of
// tarskel/xpc/Transport.hpp; a frame or envelope that doesn't read closes
// that one connection. Under systemd socket activation (LISTEN_PID equal to
// this process, LISTEN_FDS at least 1) the passed descriptor 3 is adopted
// instead, and the name is not looked at. docs/transport.md says what a
// connection may cost and when it is closed.
//
// Threads (Linux). Every connection lives on one event loop (a
// DaemonEventLoop: one thread), which reads, gates, decodes, decides, runs
// the short operations, hands the audit row to the store and replies without
// waking another thread; operations that may take long run on `longOps` (the core
// is told so), so that they never hold up the loop. Construct, start() and
// stop() from a thread that is neither the loop nor a worker of `longOps`.
// Handlers hold their own copies of core and gate, so tasks in flight may
// outlive the server object; the core's stores must outlive them.

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/DaemonPeerGate.hpp"
#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// The listener could not be set up (Linux): "no se puede escuchar en <path>: <reason>".
class DaemonServerError : public Error {
 public:
  using Error::Error;
};

// What one client may hold of the daemon (Linux). Past a limit the server
// stops reading that connection (the client's writes then block: that is the
// backpressure), and past a time limit it closes it.
struct DaemonServerLimits {
  // The largest frame a client may send; a longer header closes the
  // connection at once, before any of its payload is kept.
  std::int64_t maxFrameLength = 1 << 20;
  // Requests taken from one connection and not yet answered.
  std::size_t maxInFlight = 32;
  // Reply bytes one connection holds: unsent, or still being made (each
  // answer counts from the moment its request is taken, as 4 KiB plus six
  // times the request, or as what its operation asks for through ReplyRoom).
  // A request, or a large answer, that doesn't fit waits; one larger than
  // this goes alone. docs/transport.md has the rule and the worst case.
  std::size_t maxUnsentBytes = 1 << 20;
  // Open connections, per user id (from the kernel at accept). Users other
  // than root and the daemon's own share maxConnections, each up to an equal
  // part among the users holding connections (at most maxConnectionsPerUid),
  // so a user's share shrinks as more compete; root and the daemon's user
  // each keep maxConnectionsPerUid of their own beside them. One more is
  // accepted and closed at once.
  std::size_t maxConnections = 256;
  std::size_t maxConnectionsPerUid = 32;
  // A connection with nothing in flight that says nothing this long closes.
  std::chrono::milliseconds idleTimeout{60'000};
  // A frame left unfinished, or replies left unread, this long: closed.
  std::chrono::milliseconds stallTimeout{10'000};
};

// One thread running an io_context: where connections live. It runs from
// construction until destruction; the destructor waits for the work still
// on it (requests in flight) to end.
class DaemonEventLoop {
 public:
  DaemonEventLoop() : work_(context_.get_executor()), thread_([this] { context_.run(); }) {}
  ~DaemonEventLoop() {
    work_.reset();
    thread_.join();
  }
  DaemonEventLoop(const DaemonEventLoop&) = delete;
  DaemonEventLoop& operator=(const DaemonEventLoop&) = delete;

  boost::asio::any_io_executor executor() { return context_.get_executor(); }

  // The loop's one thread: whatever serialises on executor() runs there.
  std::thread::id threadId() const { return thread_.get_id(); }

 private:
  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::thread thread_;
};

class DaemonXPCServer {
 public:
  // Never fails and doesn't listen yet. Operations that may take long run on
  // `longOps`; everything else on `loop`, or on a loop of the server's own
  // when none is given. Give the loop that the core's stores serialise on,
  // and a request's audit row is queued without a thread hop.
  DaemonXPCServer(std::string machServiceName, DaemonCore core, DaemonPeerGate gate,
                  boost::asio::any_io_executor longOps, DaemonServerLimits limits = {},
                  std::shared_ptr<DaemonEventLoop> loop = nullptr);
  // Stops the server if it still runs.
  ~DaemonXPCServer();

  DaemonXPCServer(const DaemonXPCServer&) = delete;
  DaemonXPCServer& operator=(const DaemonXPCServer&) = delete;

  // Starts listening and serving. On Linux, without socket activation, makes
  // the socket's directory when missing (0755, with missing parents) and
  // refuses one that is not a directory, belongs to someone other than this
  // process's user or root, or is writable by group or others; replaces a
  // stale socket file (one nobody answers on); binds the socket 0600 (only
  // this user connects: under systemd the socket unit's mode and group say
  // who else may). Throws DaemonServerError for those refusals, and when the
  // path is too long, already served by a live listener, held by something
  // that is not a socket, or can't be bound. Call once.
  void start();

  // Stops accepting and closes every open connection; removes the socket
  // file this server made. Tasks in flight run to their end and their
  // replies go nowhere. The daemon itself never stops its server; this is
  // for tests and tools that host one in-process. Idempotent.
  void stop();

  // Where clients reach the server: the socket path on Linux (the adopted
  // socket's bound path under activation), the Mach service name on macOS.
  std::string endpoint() const;

  struct Impl;

 private:
  // Declared first, so it goes last: its destructor waits for what still
  // runs on the loop, which may hold the Impl.
  std::shared_ptr<DaemonEventLoop> loop_;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tarskel
