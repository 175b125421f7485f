// XPC objects, connections and a simulated Mach service. A service name is a
// Unix-domain socket (the name itself when it holds '/', else one under
// /tmp/tarskel-darwin-sim-<uid>/), so that listeners and clients meet in one
// process or across processes. Each connection's events are delivered one
// at a time on a thread of its own, which stands for its queue.

#include <Block.h>
#include <Security/Security.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <xpc/xpc.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "Objects.hpp"
#include "tarskel/darwinsim/DarwinSim.hpp"

struct _xpc_type_s {
  const char* name;
};
extern "C" {
const _xpc_type_s _xpc_type_connection{"connection"};
const _xpc_type_s _xpc_type_dictionary{"dictionary"};
const _xpc_type_s _xpc_type_data{"data"};
}

namespace tarskel::darwinsim {

CodeIdentity currentIdentity();
OSStatus makeCode(const CodeIdentity& identity, bool running, const void* at, CFTypeRef* out);

const _xpc_type_s errorType{"error"};

struct XObject : Object {
  XObject(const char* type, xpc_type_t k, const void* at) : Object(type, at), kind(k) {}
  xpc_type_t kind;
};

struct ErrorObject : XObject {
  explicit ErrorObject(const char* t) : XObject("xpc_error", &errorType, nullptr), text(t) {
    immortal = true;
  }
  const char* text;
};

}  // namespace tarskel::darwinsim

struct _xpc_dictionary_s final : tarskel::darwinsim::ErrorObject {
  using ErrorObject::ErrorObject;
};
extern "C" const _xpc_dictionary_s _xpc_error_connection_invalid{"Connection invalid"};

namespace tarskel::darwinsim {
namespace {

struct Data : XObject {
  Data(std::string b, const void* at)
      : XObject("xpc_data", &_xpc_type_data, at), bytes(std::move(b)) {}
  std::string bytes;
};

ErrorObject& interrupted() {
  static auto* e = new ErrorObject("Connection interrupted");
  return *e;
}
ErrorObject& invalid() { return const_cast<_xpc_dictionary_s&>(_xpc_error_connection_invalid); }

struct Connection;

struct Dictionary : XObject {
  explicit Dictionary(const void* at) : XObject("xpc_dictionary", &_xpc_type_dictionary, at) {}
  ~Dictionary() override;
  std::map<std::string, XObject*> entries;  // each value retained
  Connection* remote = nullptr;             // a received message's connection (retained)
  std::uint64_t id = 0;                     // the message's, or the one a reply answers
  bool expectsReply = false;
  bool replyMade = false;
  Connection* replyTo = nullptr;  // set on a reply (retained)
  bool sent = false;
};

enum Kind : std::uint8_t { kHello, kMessage, kReply };

struct Connection : XObject {
  Connection(std::string n, bool l, const void* at)
      : XObject("xpc_connection", &_xpc_type_connection, at), name(std::move(n)), listener(l) {}
  ~Connection() override {
    if (!resumed && !peer) {
      die("xpc_release: last reference to a connection never resumed (undefined for a connection "
          "made by xpc_connection_create)");
    }
    if (handler != nullptr) Block_release(handler);
    if (fd >= 0) ::close(fd);
  }
  std::string name;
  bool listener;
  bool peer = false;
  std::mutex mutex;
  std::condition_variable arrived;
  xpc_handler_t handler = nullptr;
  bool resumed = false, cancelled = false, invalid = false, finished = false;
  int fd = -1;
  pid_t pid = 0;
  CodeIdentity sender;  // a peer's, from its hello
  std::uint64_t nextId = 1;
  std::map<std::uint64_t, XObject*> replies;  // arrived, not yet taken
  std::set<std::uint64_t> waiting;
  std::map<std::uint64_t, xpc_handler_t> replyHandlers;  // copied; run on this queue
  std::mutex writing;
};

Dictionary::~Dictionary() {
  if (replyTo != nullptr && !sent) {
    std::lock_guard lock(replyTo->mutex);
    if (!replyTo->cancelled && !replyTo->invalid) {
      die("xpc_release: a reply released unsent while its sender waits on a live connection");
    }
  }
  for (auto& [key, value] : entries) release(value);
  if (remote != nullptr) release(remote);
  if (replyTo != nullptr) release(replyTo);
}

std::string socketPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const std::string dir = "/tmp/tarskel-darwin-sim-" + std::to_string(::getuid());
  ::mkdir(dir.c_str(), 0700);
  return dir + "/" + name;
}

sockaddr_un address(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  return a;
}

// ---- Frames: u32 length, then kind, id, expects-reply, and key/data pairs ----

struct Frame {
  Kind kind = kMessage;
  std::uint64_t id = 0;
  bool expectsReply = false;
  std::map<std::string, std::string> entries;
};

template <class T>
void put(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}
void putText(std::string& out, const std::string& text) {
  put(out, static_cast<std::uint32_t>(text.size()));
  out += text;
}

bool writeFrame(Connection& c, int fd, const Frame& f) {
  std::string body;
  put(body, f.kind);
  put(body, f.id);
  put(body, f.expectsReply);
  for (const auto& [key, value] : f.entries) {
    putText(body, key);
    putText(body, value);
  }
  std::string out;
  putText(out, body);
  std::lock_guard lock(c.writing);
  return ::send(fd, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size());
}

bool readAll(int fd, void* buffer, std::size_t size) {
  for (auto* at = static_cast<char*>(buffer); size > 0;) {
    const ssize_t n = ::recv(fd, at, size, 0);
    if (n <= 0) return false;
    at += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readFrame(int fd, Frame& f) {
  std::uint32_t length = 0;
  if (!readAll(fd, &length, sizeof length)) return false;
  std::string body(length, '\0');
  if (!readAll(fd, body.data(), length)) return false;
  std::size_t at = 0;
  auto take = [&](void* out, std::size_t n) {
    if (at + n > body.size()) die("simulated connection: a frame ends early");
    std::memcpy(out, body.data() + at, n);
    at += n;
  };
  auto text = [&] {
    std::uint32_t n = 0;
    take(&n, sizeof n);
    std::string s(n, '\0');
    take(s.data(), n);
    return s;
  };
  take(&f.kind, sizeof f.kind);
  take(&f.id, sizeof f.id);
  take(&f.expectsReply, sizeof f.expectsReply);
  while (at < body.size()) {
    std::string key = text();
    f.entries[key] = text();
  }
  return true;
}

Frame frameOf(Dictionary& d, Kind kind, std::uint64_t id, bool expectsReply) {
  Frame f{kind, id, expectsReply, {}};
  for (auto& [key, value] : d.entries) {
    auto* data = dynamic_cast<Data*>(value);
    if (data == nullptr) die("simulated connection: only data values cross it");
    f.entries[key] = data->bytes;
  }
  return f;
}

Dictionary* dictionaryOf(const Frame& f, const void* at) {
  auto* d = new Dictionary(at);
  for (const auto& [key, value] : f.entries) d->entries[key] = new Data(value, at);
  return d;
}

// ---- Delivery ------------------------------------------------------------------

void deliver(Connection& c, xpc_object_t event) {
  xpc_handler_t handler = nullptr;
  {
    std::lock_guard lock(c.mutex);
    if (c.handler != nullptr) handler = Block_copy(c.handler);
  }
  if (handler == nullptr) return;
  handler(event);
  Block_release(handler);
}

// The final event: XPC_ERROR_CONNECTION_INVALID, then the runtime lets go.
void finish(Connection& c) {
  {
    std::lock_guard lock(c.mutex);
    if (c.finished) return;
    c.finished = c.invalid = true;
  }
  deliver(c, &invalid());
  release(&c);
}

// Runs a reply handler with its reply, which the runtime then lets go.
void answer(xpc_handler_t handler, xpc_object_t reply) {
  handler(reply);
  Block_release(handler);
  xpc_release(reply);
}

// The stream is gone: every call waiting for a reply gets `error` instead.
void fail(Connection& c, ErrorObject& error) {
  std::map<std::uint64_t, xpc_handler_t> handlers;
  {
    std::lock_guard lock(c.mutex);
    for (std::uint64_t id : c.waiting) c.replies.emplace(id, &error);
    c.waiting.clear();
    c.arrived.notify_all();
    handlers.swap(c.replyHandlers);
  }
  for (auto& [id, handler] : handlers) answer(handler, &error);
}

// The queue of one stream: messages to the handler, replies to their waiters.
void pump(Connection* c, int fd) {
  for (Frame f; readFrame(fd, f); f = Frame{}) {
    if (f.kind == kReply) {
      std::unique_lock lock(c->mutex);
      if (c->waiting.erase(f.id) != 0) c->replies[f.id] = dictionaryOf(f, c->madeAt);
      c->arrived.notify_all();
      if (auto found = c->replyHandlers.find(f.id); found != c->replyHandlers.end()) {
        xpc_handler_t handler = found->second;
        c->replyHandlers.erase(found);
        lock.unlock();
        answer(handler, dictionaryOf(f, c->madeAt));
      }
      continue;
    }
    {
      std::lock_guard lock(c->mutex);
      if (c->cancelled) continue;
    }
    Dictionary* message = dictionaryOf(f, c->madeAt);
    retain(c);
    message->remote = c;
    message->id = f.id;
    message->expectsReply = f.expectsReply;
    deliver(*c, message);
    release(message);
  }
  bool cancelled = false;
  {
    std::lock_guard lock(c->mutex);
    cancelled = c->cancelled;
    if (c->fd == fd) c->fd = -1;
  }
  ::close(fd);
  fail(*c, cancelled ? invalid() : interrupted());
  if (c->peer || cancelled) {
    finish(*c);
  } else {
    deliver(*c, &interrupted());
  }
  release(c);
}

void serveListener(Connection* c) {
  const int listening = c->fd;
  for (;;) {
    const int fd = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && errno == EINTR) continue;
    if (fd < 0) break;
    Frame hello;
    if (!readFrame(fd, hello) || hello.kind != kHello) {
      ::close(fd);
      continue;
    }
    auto* peer = new Connection(c->name, false, c->madeAt);
    peer->peer = true;
    peer->fd = fd;
    peer->pid = static_cast<pid_t>(hello.id);
    peer->sender = CodeIdentity::decode(hello.entries["identity"]);
    deliver(*c, peer);
    release(peer);
  }
  ::unlink(socketPath(c->name).c_str());
  finish(*c);
}

// A client's stream, connected on first use. -1 once the service can't be
// reached: the connection is then invalid.
int connected(Connection& c) {
  std::unique_lock lock(c.mutex);
  if (c.fd >= 0 || c.invalid) return c.fd;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un a = address(socketPath(c.name));
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
    ::close(fd);
    c.invalid = true;  // its final event is on its way
    lock.unlock();
    std::thread([&c] { finish(c); }).detach();
    return -1;
  }
  c.fd = fd;
  Frame hello{kHello,
              static_cast<std::uint64_t>(::getpid()),
              false,
              {{"identity", currentIdentity().encode()}}};
  writeFrame(c, fd, hello);
  retain(&c);
  std::thread(pump, &c, fd).detach();
  return fd;
}

Connection* connectionOf(xpc_connection_t connection, const char* call) {
  return liveAs<Connection>(connection, call);
}

// Registers a call awaiting reply `id` on the stream `fd`, or false when that
// stream has gone already (its waiters were failed before this one came).
bool expectReply(Connection& c, int fd, std::uint64_t id, xpc_handler_t handler) {
  std::lock_guard lock(c.mutex);
  if (c.fd != fd) return false;
  if (handler != nullptr) {
    c.replyHandlers[id] = handler;
  } else {
    c.waiting.insert(id);
  }
  return true;
}

ErrorObject& goneError(Connection& c) {
  std::lock_guard lock(c.mutex);
  return c.cancelled ? invalid() : interrupted();
}

void checkSendable(Connection& c, const char* call) {
  std::lock_guard lock(c.mutex);
  if (c.cancelled) die(std::string(call) + ": send on a cancelled connection");
  if (c.listener) die(std::string(call) + ": a listener sends nothing");
  if (!c.resumed) die(std::string(call) + ": send on a connection never resumed");
}

}  // namespace

// The code identity of a message's sender, for SecCodeCreateWithXPCMessage.
OSStatus codeOfMessage(xpc_object_t message, const void* at, CFTypeRef* out) {
  auto* d = liveAs<Dictionary>(message, "SecCodeCreateWithXPCMessage");
  if (d->remote == nullptr) {
    *out = nullptr;
    return -67071;  // errSecCSInvalidObjectRef: the message came over no connection
  }
  return makeCode(d->remote->sender, true, at, out);
}

}  // namespace tarskel::darwinsim

using namespace tarskel::darwinsim;
#define CALLER __builtin_return_address(0)

extern "C" {

xpc_object_t xpc_retain(xpc_object_t object) {
  retain(liveAs<XObject>(object, "xpc_retain"));
  return object;
}
void xpc_release(xpc_object_t object) { release(liveAs<XObject>(object, "xpc_release")); }
xpc_type_t xpc_get_type(xpc_object_t object) {
  return liveAs<XObject>(object, "xpc_get_type")->kind;
}

char* xpc_copy_description(xpc_object_t object) {
  auto* o = liveAs<XObject>(object, "xpc_copy_description");
  std::string text = "<" + std::string(o->kind->name) + ": ";
  if (auto* e = dynamic_cast<ErrorObject*>(o))
    text += std::string("XPCErrorDescription = ") + e->text;
  if (auto* d = dynamic_cast<Dictionary*>(o))
    text += "count = " + std::to_string(d->entries.size());
  return ::strdup((text + ">").c_str());
}

xpc_connection_t xpc_connection_create_mach_service(const char* name, dispatch_queue_t queue,
                                                    uint64_t flags) {
  if (queue != nullptr) die("xpc_connection_create_mach_service: the simulator has no queues");
  return reinterpret_cast<xpc_connection_t>(
      new Connection(name, (flags & XPC_CONNECTION_MACH_SERVICE_LISTENER) != 0, CALLER));
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) {
  Connection* c = connectionOf(connection, "xpc_connection_set_event_handler");
  std::lock_guard lock(c->mutex);
  if (c->resumed)
    die("xpc_connection_set_event_handler: handler set after the connection was resumed");
  if (c->handler != nullptr) Block_release(c->handler);
  c->handler = Block_copy(handler);
}

void xpc_connection_resume(xpc_connection_t connection) {
  Connection* c = connectionOf(connection, "xpc_connection_resume");
  std::unique_lock lock(c->mutex);
  if (c->resumed) die("xpc_connection_resume: resumed more times than suspended");
  if (c->handler == nullptr) die("xpc_connection_resume: resumed without an event handler");
  c->resumed = true;
  retain(c);  // the runtime's, until the final event
  if (c->peer) {
    retain(c);  // the queue's, as for a client's stream
    std::thread(pump, c, c->fd).detach();
  } else if (c->listener) {
    const std::string path = socketPath(c->name);
    ::unlink(path.c_str());
    c->fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un a = address(path);
    if (::bind(c->fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(c->fd, 64) != 0) {
      die("xpc_connection_resume: no Mach service can be registered under " + c->name);
    }
    std::thread(serveListener, c).detach();
  }
}

void xpc_connection_cancel(xpc_connection_t connection) {
  Connection* c = connectionOf(connection, "xpc_connection_cancel");
  std::unique_lock lock(c->mutex);
  if (!c->resumed) die("xpc_connection_cancel: a connection never resumed can't be cancelled");
  if (c->cancelled || c->invalid) return;
  c->cancelled = true;
  if (c->fd >= 0) {
    ::shutdown(c->fd, SHUT_RDWR);  // its queue sends the final event
  } else {
    lock.unlock();
    std::thread([c] { finish(*c); }).detach();
  }
}

void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message) {
  Connection* c = connectionOf(connection, "xpc_connection_send_message");
  auto* d = liveAs<Dictionary>(message, "xpc_connection_send_message");
  checkSendable(*c, "xpc_connection_send_message");
  Frame frame;
  if (d->replyTo != nullptr) {
    if (d->replyTo != c) die("xpc_connection_send_message: a reply sent on another connection");
    if (d->sent) die("xpc_connection_send_message: a reply sent twice");
    d->sent = true;
    frame = frameOf(*d, kReply, d->id, false);
  } else {
    frame = frameOf(*d, kMessage, 0, false);
  }
  int fd = -1;
  if (c->peer) {
    std::lock_guard lock(c->mutex);
    fd = c->fd;
  } else {
    fd = connected(*c);
  }
  if (fd >= 0) writeFrame(*c, fd, frame);  // on a connection that has gone, dropped
}

xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection,
                                                         xpc_object_t message) {
  Connection* c = connectionOf(connection, "xpc_connection_send_message_with_reply_sync");
  auto* d = liveAs<Dictionary>(message, "xpc_connection_send_message_with_reply_sync");
  checkSendable(*c, "xpc_connection_send_message_with_reply_sync");
  if (c->peer) die("xpc_connection_send_message_with_reply_sync: the simulator's peers only reply");
  const int fd = connected(*c);
  if (fd < 0) return &invalid();
  std::unique_lock lock(c->mutex);
  const std::uint64_t id = c->nextId++;
  lock.unlock();
  if (!expectReply(*c, fd, id, nullptr)) return &goneError(*c);
  writeFrame(*c, fd, frameOf(*d, kMessage, id, true));
  lock.lock();
  c->arrived.wait(lock, [&] { return c->replies.count(id) != 0; });
  XObject* reply = c->replies[id];
  c->replies.erase(id);
  return reply;
}

// The simulator has no dispatch queues: the handler runs on the connection's
// own (a NULL `replyq`), after the call returns, as every reply handler does.
void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            dispatch_queue_t replyq, xpc_handler_t handler) {
  const char* call = "xpc_connection_send_message_with_reply";
  Connection* c = connectionOf(connection, call);
  auto* d = liveAs<Dictionary>(message, call);
  checkSendable(*c, call);
  if (replyq != nullptr) die(std::string(call) + ": the simulator has no queues");
  if (c->peer) die(std::string(call) + ": the simulator's peers only reply");
  xpc_handler_t copy = Block_copy(handler);
  const int fd = connected(*c);
  std::uint64_t id = 0;
  {
    std::lock_guard lock(c->mutex);
    id = c->nextId++;
  }
  if (fd < 0 || !expectReply(*c, fd, id, copy)) {
    ErrorObject* error = fd < 0 ? &invalid() : &goneError(*c);
    std::thread([copy, error] { answer(copy, error); }).detach();
    return;
  }
  writeFrame(*c, fd, frameOf(*d, kMessage, id, true));
}

pid_t xpc_connection_get_pid(xpc_connection_t connection) {
  return connectionOf(connection, "xpc_connection_get_pid")->pid;
}

xpc_object_t xpc_dictionary_create(const char* const*, const xpc_object_t*, size_t count) {
  if (count != 0) die("xpc_dictionary_create: the simulator fills dictionaries by their set calls");
  return new Dictionary(CALLER);
}

xpc_object_t xpc_dictionary_create_reply(xpc_object_t original) {
  auto* d = liveAs<Dictionary>(original, "xpc_dictionary_create_reply");
  if (!d->expectsReply || d->replyMade) return nullptr;
  d->replyMade = true;
  auto* reply = new Dictionary(CALLER);
  retain(d->remote);
  reply->replyTo = d->remote;
  reply->id = d->id;
  return reply;
}

xpc_object_t xpc_dictionary_get_value(xpc_object_t dictionary, const char* key) {
  auto* d = liveAs<Dictionary>(dictionary, "xpc_dictionary_get_value");
  auto found = d->entries.find(key);
  return found == d->entries.end() ? nullptr : found->second;
}

// Apple leaves open what a zero-length data value's pointer is; here it is
// NULL, the answer a caller must be ready for.
const void* xpc_data_get_bytes_ptr(xpc_object_t data) {
  auto* d = liveAs<Data>(data, "xpc_data_get_bytes_ptr");
  return d->bytes.empty() ? nullptr : d->bytes.data();
}
size_t xpc_data_get_length(xpc_object_t data) {
  return liveAs<Data>(data, "xpc_data_get_length")->bytes.size();
}

const void* xpc_dictionary_get_data(xpc_object_t dictionary, const char* key, size_t* length) {
  auto* value =
      dynamic_cast<Data*>(static_cast<Object*>(xpc_dictionary_get_value(dictionary, key)));
  if (length != nullptr) *length = value != nullptr ? value->bytes.size() : 0;
  return value != nullptr ? xpc_data_get_bytes_ptr(value) : nullptr;
}

void xpc_dictionary_set_data(xpc_object_t dictionary, const char* key, const void* bytes,
                             size_t length) {
  auto* d = liveAs<Dictionary>(dictionary, "xpc_dictionary_set_data");
  if (bytes == nullptr && length != 0) die("xpc_dictionary_set_data: NULL bytes of nonzero length");
  XObject*& slot = d->entries[key];
  if (slot != nullptr) release(slot);
  slot = new Data(std::string(static_cast<const char*>(bytes), length), CALLER);
}

xpc_connection_t xpc_dictionary_get_remote_connection(xpc_object_t dictionary) {
  auto* d = liveAs<Dictionary>(dictionary, "xpc_dictionary_get_remote_connection");
  return reinterpret_cast<xpc_connection_t>(d->remote);
}

OSStatus SecCodeCreateWithXPCMessage(xpc_object_t message, SecCSFlags, SecCodeRef* target) {
  CFTypeRef out = nullptr;
  const OSStatus status = codeOfMessage(message, CALLER, &out);
  *target = static_cast<SecCodeRef>(const_cast<void*>(out));
  return status;
}

}  // extern "C"
