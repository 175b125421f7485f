#pragma once

// The daemon's listener: turns each message into one call of
// DaemonCore::handleEncoded and one reply.
//
// For every message of a connection, one at a time in the connection's own
// handler: a message that expects no reply is dropped unread; otherwise the
// gate's verdict is worked out (anew, every message), the request bytes are
// taken (a missing request key is empty bytes, which the core answers with
// "malformedRequest"), and one task is started on the worker pool that
// awaits the core and sends the reply. Messages of one connection overlap and
// replies leave in any order. Nothing here is logged.
//
// macOS: an XPC Mach service listener. Linux: a Unix-domain stream socket at
// socketPathForMachService(name), speaking the frames and envelopes of
// tarskel/xpc/Transport.hpp; a frame or envelope that doesn't read closes
// that one connection. Under systemd socket activation (LISTEN_PID equal to
// this process, LISTEN_FDS at least 1) the passed descriptor 3 is adopted
// instead, and the name is not looked at.
//
// Threads. Construct, start() and stop() from one thread that is not a
// worker of `pool` (stop() waits for the pool to run the closing steps).
// Connections are served on `pool`. Handlers hold their own copies of core
// and gate, so tasks in flight may outlive the server object; the core's
// stores must outlive them (join the pool before dropping the stores).

#include <boost/asio/any_io_executor.hpp>
#include <memory>
#include <string>

#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/DaemonPeerGate.hpp"
#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// The listener could not be set up (Linux): "no se puede escuchar en <path>: <reason>".
class DaemonServerError : public Error {
 public:
  using Error::Error;
};

class DaemonXPCServer {
 public:
  // Never fails and doesn't listen yet.
  DaemonXPCServer(std::string machServiceName, DaemonCore core, DaemonPeerGate gate,
                  boost::asio::any_io_executor pool);
  // Stops the server if it still runs.
  ~DaemonXPCServer();

  DaemonXPCServer(const DaemonXPCServer&) = delete;
  DaemonXPCServer& operator=(const DaemonXPCServer&) = delete;

  // Starts listening and serving. On Linux, without socket activation, makes
  // the socket's directory (0755, with missing parents), replaces a stale
  // socket file (one nobody answers on), binds and makes the socket
  // connectable by any local user (0666): the gate, not the file mode,
  // decides. Throws DaemonServerError when the path is too long, already
  // served by a live listener, held by something that is not a socket, or
  // can't be bound. Call once.
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
  std::shared_ptr<Impl> impl_;
};

}  // namespace tarskel
