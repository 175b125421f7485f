// The client over an XPC connection to the Mach service (Apple only).

#include <xpc/xpc.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace tarskel {

namespace {

// One reference to an XPC object, released when the holder goes.
struct XPCReference {
  explicit XPCReference(xpc_object_t o) : object(o) {}
  ~XPCReference() {
    if (object != nullptr) xpc_release(object);
  }
  XPCReference(const XPCReference&) = delete;
  XPCReference& operator=(const XPCReference&) = delete;
  xpc_object_t object;
};

std::string printable(xpc_object_t object) {
  char* text = xpc_copy_description(object);
  std::string out = text != nullptr ? text : "";
  std::free(text);
  return out;
}

// The reply to `message` (retained, for the caller to release), or NULL when
// none came within `timeout`. The handler may run after the caller has given
// up: it shares the state with the caller and drops a reply nobody waits for.
xpc_object_t replyWithin(xpc_connection_t connection, xpc_object_t message,
                         std::chrono::milliseconds timeout) {
  struct Pending {
    std::mutex mutex;
    std::condition_variable arrived;
    xpc_object_t reply = nullptr;
    bool abandoned = false;
  };
  auto pending = std::make_shared<Pending>();
  xpc_connection_send_message_with_reply(connection, message, nullptr, ^(xpc_object_t reply) {
    std::lock_guard lock(pending->mutex);
    if (pending->abandoned) return;
    pending->reply = xpc_retain(reply);
    pending->arrived.notify_all();
  });
  std::unique_lock lock(pending->mutex);
  if (!pending->arrived.wait_for(lock, timeout, [&] { return pending->reply != nullptr; })) {
    pending->abandoned = true;
    return nullptr;
  }
  return std::exchange(pending->reply, nullptr);
}

}  // namespace

struct DaemonXPCClient::Connection {
  xpc_connection_t connection;
  // Set by close(): a send on a cancelled connection is a misuse XPC may
  // crash on, so later calls fail before they get there.
  std::atomic<bool> cancelled{false};
};

DaemonXPCClient::DaemonXPCClient(std::string_view machServiceName) {
  const std::string name(machServiceName);
  xpc_connection_t connection = xpc_connection_create_mach_service(name.c_str(), nullptr, 0);
  // Errors show up as the reply of the call they interrupt; nothing to do here.
  xpc_connection_set_event_handler(connection, ^(xpc_object_t){
                                   });
  xpc_connection_resume(connection);
  connection_ = std::make_unique<Connection>();
  connection_->connection = connection;
}

// A resumed connection lives on in the runtime, handler and all, until it is
// cancelled: releasing our reference alone would leave it there.
DaemonXPCClient::~DaemonXPCClient() {
  close();
  xpc_release(connection_->connection);
}

DaemonResponse DaemonXPCClient::request(const DaemonRequest& request,
                                        std::optional<std::chrono::milliseconds> timeout) {
  const std::string bytes = TarskelJSON::encoder().encode(request);
  const std::string requestKey(DaemonWire::requestKey);
  const std::string responseKey(DaemonWire::responseKey);

  if (connection_->cancelled) throw DaemonClientError::transport("conexión cancelada");
  XPCReference message(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_data(message.object, requestKey.c_str(), bytes.data(), bytes.size());
  XPCReference reply(timeout ? replyWithin(connection_->connection, message.object, *timeout)
                             : xpc_connection_send_message_with_reply_sync(connection_->connection,
                                                                           message.object));
  if (reply.object == nullptr) throw DaemonClientError::timedOut();
  if (xpc_get_type(reply.object) != XPC_TYPE_DICTIONARY) {
    throw DaemonClientError::transport(printable(reply.object));
  }
  // Presence is told by the value's type, not by a data pointer: a daemon
  // whose response couldn't be encoded sends an entry of zero bytes, whose
  // pointer may be NULL, and that must reach the decoder, not read as absent.
  xpc_object_t value = xpc_dictionary_get_value(reply.object, responseKey.c_str());
  if (value == nullptr || xpc_get_type(value) != XPC_TYPE_DATA) {
    throw DaemonClientError::transport("reply sin payload de respuesta");
  }
  const std::size_t length = xpc_data_get_length(value);
  const void* data = xpc_data_get_bytes_ptr(value);
  const std::string response = data != nullptr && length > 0
                                   ? std::string(static_cast<const char*>(data), length)
                                   : std::string();
  return TarskelJSON::decoder().decode<DaemonResponse>(response);
}

void DaemonXPCClient::close() {
  if (!connection_->cancelled.exchange(true)) xpc_connection_cancel(connection_->connection);
}

}  // namespace tarskel
