#pragma once

// The synchronous client of the daemon: one DaemonRequest in, one
// DaemonResponse out.
//
//   DaemonXPCClient client(DaemonWire::machServiceName);
//   DaemonResponse r = client.request({.op = "daemon.info"});
//   if (!r.ok) ... r.error->code ...
//
// On macOS this is an XPC connection to the Mach service; elsewhere it is the
// Unix socket that socketPathForMachService(name) names, speaking the
// envelope of Transport.hpp. A plain name reaches the system daemon under
// /run/tarskel, and there the client talks only to a server running as root
// (the kernel's credentials of the listening socket); a name holding "/" is
// a socket path the caller vouches for, and no such check is made.
//
// On Linux a program that links the client is not dumpable
// (PR_SET_DUMPABLE 0) from its start: the daemon's gate refuses a process
// that is, since any process of its user could attach to it. It leaves no
// core file, and only root may read its /proc files.
//
// Threads. request() may be called from any number of threads at once; each
// call blocks its thread until its own reply is there (replies pair with
// messages by id), so never call it from a thread the answer depends on.
// close() may be called from any thread. The object must outlive every call
// in flight.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace tarskel {

// The daemon could not be reached, its reply carried no response, or no
// reply came in time: "daemon no disponible: <text>".
class DaemonClientError : public Error {
 public:
  enum class Kind { transport, timedOut };

  static DaemonClientError transport(std::string text) {
    return DaemonClientError(Kind::transport, std::move(text));
  }
  static DaemonClientError timedOut() {
    return DaemonClientError(Kind::timedOut, "sin respuesta en el plazo");
  }

  Kind kind() const { return kind_; }
  // The text behind "daemon no disponible: ".
  const std::string& text() const { return text_; }

 private:
  DaemonClientError(Kind kind, std::string text)
      : Error("daemon no disponible: " + text), kind_(kind), text_(std::move(text)) {}

  Kind kind_;
  std::string text_;
};

class DaemonXPCClient {
 public:
  // Never fails and never connects: a daemon that isn't there shows up at
  // the first request.
  explicit DaemonXPCClient(std::string_view machServiceName);
  // Releases the connection without cancelling it.
  ~DaemonXPCClient();

  DaemonXPCClient(const DaemonXPCClient&) = delete;
  DaemonXPCClient& operator=(const DaemonXPCClient&) = delete;

  // Sends `request` (encoded with TarskelJSON::encoder()) and blocks until
  // the reply, or for at most `timeout` when one is given. Throws:
  //   - the encoder's EncodingError when the request can't be encoded;
  //   - DaemonClientError::transport when the daemon is absent, the
  //     connection is lost before the reply, the client was closed, the
  //     reply has no response ("reply sin payload de respuesta"), the name
  //     is empty ("nombre de servicio vacío") or the server at /run/tarskel
  //     is not root's ("el servidor de <path> no es root (uid <uid>)");
  //   - DaemonClientError::timedOut when `timeout` passed first; the
  //     connection stays up for other calls, and the late reply is dropped;
  //   - the decoder's DecodingError for a response that doesn't decode,
  //     zero bytes included.
  // A response with ok == false is returned, not thrown. After a transport
  // failure the next call tries to connect again.
  DaemonResponse request(const DaemonRequest& request,
                         std::optional<std::chrono::milliseconds> timeout = std::nullopt);

  // Cancels the connection: calls in flight and every later call fail with
  // a transport error.
  void close();

  struct Connection;

 private:
  std::unique_ptr<Connection> connection_;
};

}  // namespace tarskel
