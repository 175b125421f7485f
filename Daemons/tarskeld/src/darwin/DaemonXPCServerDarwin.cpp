// The daemon's listener on the XPC Mach service (Apple only).
//
// The listener's handler and each peer's handler hold their own copies of
// core, gate and pool, and nothing of the server object: serving a peer
// needs no instance. XPC calls a peer's handler one event at a time; the
// gate runs there, and the request then becomes one task on the pool.

#include <xpc/xpc.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "tarskel/daemon/DaemonXPCServer.hpp"

namespace tarskel {

namespace asio = boost::asio;

namespace {

// Carries the reply made for a message and the connection to send it on
// from the XPC handler into the background task; holds one reference each.
struct XPCBox {
  XPCBox(xpc_object_t adoptedReply, xpc_connection_t remoteConnection)
      : reply(adoptedReply), remote(remoteConnection) {
    xpc_retain(remote);
  }
  XPCBox(XPCBox&& other) noexcept
      : reply(std::exchange(other.reply, nullptr)), remote(std::exchange(other.remote, nullptr)) {}
  XPCBox& operator=(XPCBox&&) = delete;
  ~XPCBox() {
    if (reply != nullptr) xpc_release(reply);
    if (remote != nullptr) xpc_release(remote);
  }

  xpc_object_t reply;
  xpc_connection_t remote;
};

// The sender of one message: the system's platform binds the code object to
// that very message (SecCodeCreateWithXPCMessage); a test's fake goes by the
// connection's process id.
class XPCMessageSender final : public DaemonMessageSender {
 public:
  XPCMessageSender(xpc_object_t message, xpc_connection_t remote)
      : message_(message), remote_(remote) {}

  CodeResult senderCode(const CodeSignPlatform& platform) const override {
    return platform.senderCode(MessageOrigin{xpc_connection_get_pid(remote_), -1, message_});
  }

 private:
  xpc_object_t message_;
  xpc_connection_t remote_;
};

// The peers being served, each with one reference of ours, so that stop()
// can cancel them; a peer leaves at its final event.
struct Peers {
  std::mutex mutex;
  std::set<xpc_connection_t> open;
  bool stopped = false;  // and every peer cancelled
};

asio::awaitable<void> answer(DaemonCore core, std::string bytes, DaemonPeerVerdict verdict,
                             XPCBox box, std::shared_ptr<Peers> peers) {
  auto handling = core.handleEncoded(std::move(bytes), std::move(verdict));
  std::string response = co_await std::move(handling);
  const std::string responseKey(DaemonWire::responseKey);
  // Zero bytes (a response that couldn't be encoded) go as an entry of length zero.
  xpc_dictionary_set_data(box.reply, responseKey.c_str(), response.data(), response.size());
  // A send on a cancelled connection is a misuse: once stopped, replies go nowhere.
  std::lock_guard lock(peers->mutex);
  if (!peers->stopped) xpc_connection_send_message(box.remote, box.reply);
}

// A block captures a reference as a reference: the peer's handler takes
// copies, since the listener's handler (whose copies the arguments are) may
// go before the peer does.
void serve(xpc_connection_t peer, const DaemonCore& listenerCore,
           const DaemonPeerGate& listenerGate, const asio::any_io_executor& listenerPool,
           const std::shared_ptr<Peers>& listenerPeers) {
  const std::string requestKey(DaemonWire::requestKey);
  const DaemonCore core = listenerCore;
  const DaemonPeerGate gate = listenerGate;
  const asio::any_io_executor pool = listenerPool;
  const std::shared_ptr<Peers> peers = listenerPeers;
  bool stopped = false;
  {
    std::lock_guard lock(peers->mutex);
    stopped = peers->stopped;
    if (!stopped) peers->open.insert(static_cast<xpc_connection_t>(xpc_retain(peer)));
  }
  xpc_connection_set_event_handler(peer, ^(xpc_object_t message) {
    if (message == XPC_ERROR_CONNECTION_INVALID) {
      std::lock_guard lock(peers->mutex);
      if (peers->open.erase(peer) != 0) xpc_release(peer);
      return;
    }
    // Error events (the peer went away) cost nothing and leave no trace.
    if (xpc_get_type(message) != XPC_TYPE_DICTIONARY) return;
    // A message that expects no reply is dropped, not even processed.
    xpc_object_t reply = xpc_dictionary_create_reply(message);
    if (reply == nullptr) return;
    xpc_connection_t remote = xpc_dictionary_get_remote_connection(message);
    if (remote == nullptr) {
      std::fputs("tarskeld: mensaje con respuesta sin conexión remota\n", stderr);
      std::abort();
    }
    DaemonPeerVerdict verdict = gate.verdict(XPCMessageSender(message, remote));
    std::size_t length = 0;
    const void* data = xpc_dictionary_get_data(message, requestKey.c_str(), &length);
    // A missing key, or one of another type, is empty bytes: "malformedRequest".
    std::string bytes =
        data != nullptr ? std::string(static_cast<const char*>(data), length) : std::string();
    auto task = answer(core, std::move(bytes), std::move(verdict), XPCBox(reply, remote), peers);
    asio::co_spawn(pool, std::move(task), asio::detached);
  });
  xpc_connection_resume(peer);
  if (stopped) xpc_connection_cancel(peer);
}

}  // namespace

struct DaemonXPCServer::Impl {
  std::string machServiceName;
  DaemonCore core;
  DaemonPeerGate gate;
  asio::any_io_executor pool;
  std::shared_ptr<Peers> peers = std::make_shared<Peers>();
  xpc_connection_t listener = nullptr;  // made by start(): an inactive one may not be released
  bool started = false;
  bool stopped = false;
};

// The limits and the event loop are the socket transport's: XPC bounds and
// schedules its own connections.
DaemonXPCServer::DaemonXPCServer(std::string machServiceName, DaemonCore core, DaemonPeerGate gate,
                                 asio::any_io_executor pool, DaemonServerLimits,
                                 std::shared_ptr<DaemonEventLoop>)
    : impl_(std::make_shared<Impl>(
          Impl{std::move(machServiceName), std::move(core), std::move(gate), std::move(pool)})) {}

DaemonXPCServer::~DaemonXPCServer() {
  stop();
  if (impl_->listener != nullptr) xpc_release(impl_->listener);
}

void DaemonXPCServer::start() {
  if (impl_->started) return;
  impl_->started = true;
  impl_->listener = xpc_connection_create_mach_service(impl_->machServiceName.c_str(), nullptr,
                                                       XPC_CONNECTION_MACH_SERVICE_LISTENER);
  const DaemonCore core = impl_->core;
  const DaemonPeerGate gate = impl_->gate;
  const asio::any_io_executor pool = impl_->pool;
  const std::shared_ptr<Peers> peers = impl_->peers;
  xpc_connection_set_event_handler(impl_->listener, ^(xpc_object_t event) {
    // Anything but a new peer, errors included, is ignored: not logged, and
    // the listener is not cancelled.
    if (xpc_get_type(event) == XPC_TYPE_CONNECTION) {
      serve(static_cast<xpc_connection_t>(event), core, gate, pool, peers);
    }
  });
  xpc_connection_resume(impl_->listener);
}

void DaemonXPCServer::stop() {
  if (!impl_->started || impl_->stopped) return;
  impl_->stopped = true;
  xpc_connection_cancel(impl_->listener);
  // Cancelling doesn't wait for the peer's handler, which takes the lock at its final event.
  std::lock_guard lock(impl_->peers->mutex);
  impl_->peers->stopped = true;
  for (xpc_connection_t peer : impl_->peers->open) xpc_connection_cancel(peer);
}

std::string DaemonXPCServer::endpoint() const { return impl_->machServiceName; }

}  // namespace tarskel
