// The client over a Unix-domain socket. One socket per client object, opened
// at the first request and again after it fails. Any number of threads share
// it: each writes its own frame under the lock, and whichever waiting thread
// finds nobody reading becomes the reader, handing every reply it reads to
// the thread waiting for that id, until its own has come.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "tarskel/protocol/base/TrustedPath.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {

namespace {

std::string errnoText(int error) { return std::strerror(error); }

// A connected socket to `path`, or the reason there is none. With
// `requireRoot`, a server whose credentials (taken by the kernel when it
// listened) are not root's is refused: anyone able to put a socket at the
// system daemon's path first would otherwise answer in its place.
std::variant<int, std::string> connectTo(const std::string& path, bool requireRoot) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return "ruta de socket demasiado larga: " + path;
  }
  // A directory on the way that someone else may change could hold anyone's
  // socket by the time we connect.
  if (auto why = untrustedDirectory(std::filesystem::absolute(path).parent_path(), ::geteuid())) {
    return "connect " + path + ": " + *why;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "socket: " + errnoText(errno);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    ::close(fd);
    return "connect " + path + ": " + errnoText(error);
  }
  if (requireRoot) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != 0) {
      const std::string uid = length == sizeof peer ? std::to_string(peer.uid) : "?";
      ::close(fd);
      return "el servidor de " + path + " no es root (uid " + uid + ")";
    }
  }
  return fd;
}

bool sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

struct DaemonXPCClient::Connection {
  // What a waiting call ends with: the reply's body (maybe absent) or the
  // transport failure's text.
  struct Outcome {
    std::optional<std::string> body;
    std::optional<std::string> failure;
  };

  // `p` is the socket path, or nothing with the reason in `invalid`.
  Connection(std::string p, bool root, std::string invalid)
      : path(std::move(p)), requireRoot(root), invalidName(std::move(invalid)) {}
  ~Connection() {
    if (fd >= 0) ::close(fd);
  }

  // The reply body for `message`, or throws DaemonClientError.
  std::optional<std::string> exchange(std::string message);

  // Cancels: wakes the reader and fails every call, now and later.
  void cancel();

 private:
  void readUntil(std::unique_lock<std::mutex>& lock, std::uint64_t id);
  void fail(const std::string& text);  // lock held

  const std::string path;
  const bool requireRoot;
  const std::string invalidName;  // why there is no path; empty when there is
  std::mutex mutex;
  std::condition_variable changed;
  int fd = -1;  // -1: not connected
  bool cancelled = false;
  bool reading = false;  // a thread is in recv() on fd
  std::uint64_t nextId = 1;
  FrameDecoder decoder;  // touched by the reader only
  std::map<std::uint64_t, std::optional<Outcome>> waiting;
};

std::optional<std::string> DaemonXPCClient::Connection::exchange(std::string message) {
  std::unique_lock lock(mutex);
  if (cancelled) throw DaemonClientError::transport("conexión cancelada");
  if (!invalidName.empty()) throw DaemonClientError::transport(invalidName);
  if (fd < 0) {
    auto connected = connectTo(path, requireRoot);
    if (auto* text = std::get_if<std::string>(&connected)) {
      throw DaemonClientError::transport(*text);
    }
    fd = std::get<int>(connected);
    decoder = FrameDecoder();
  }
  const std::uint64_t id = nextId++;
  auto& slot = waiting[id];
  if (!sendAll(fd, Transport::encodeFrame({id, true, std::move(message)}))) {
    const std::string text = "send: " + errnoText(errno);
    waiting.erase(id);
    // The reader, if any, sees the broken socket too and fails the others.
    if (!reading) fail(text);
    throw DaemonClientError::transport(text);
  }
  readUntil(lock, id);
  Outcome outcome = std::move(*slot);
  waiting.erase(id);
  if (outcome.failure) throw DaemonClientError::transport(*outcome.failure);
  return std::move(outcome.body);
}

void DaemonXPCClient::Connection::readUntil(std::unique_lock<std::mutex>& lock, std::uint64_t id) {
  while (!waiting[id].has_value()) {
    if (reading) {
      changed.wait(lock);
      continue;
    }
    reading = true;
    const int socket = fd;
    lock.unlock();
    char buffer[64 * 1024];
    ssize_t n;
    do {
      // Wait for data with poll first: a thread asleep in recv() is woken
      // each time the daemon takes a request off the socket (the kernel
      // signals room to write on the same queue), and runs for nothing;
      // poll wakes for data only. Shutdown (cancel) still wakes it.
      pollfd ready{socket, POLLIN, 0};
      while (::poll(&ready, 1, -1) < 0 && errno == EINTR) {
      }
      n = ::recv(socket, buffer, sizeof buffer, 0);
    } while (n < 0 && errno == EINTR);
    const int error = errno;
    lock.lock();
    reading = false;
    try {
      if (n == 0) throw DaemonClientError::transport("conexión interrumpida");
      if (n < 0) throw DaemonClientError::transport("recv: " + errnoText(error));
      for (std::string& payload : decoder.append({buffer, static_cast<std::size_t>(n)})) {
        TransportEnvelope reply = Transport::decodeEnvelope(payload);
        auto found = waiting.find(reply.id);
        // A reply nobody waits for (its caller has gone) is dropped.
        if (found != waiting.end()) found->second = Outcome{std::move(reply.body), {}};
      }
    } catch (const DaemonClientError& e) {
      fail(cancelled ? "conexión cancelada" : e.text());
    } catch (const Error& e) {
      fail(e.description());
    }
    changed.notify_all();
  }
}

void DaemonXPCClient::Connection::fail(const std::string& text) {
  for (auto& [id, outcome] : waiting) {
    if (!outcome) outcome = Outcome{{}, text};
  }
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
  changed.notify_all();
}

void DaemonXPCClient::Connection::cancel() {
  std::lock_guard lock(mutex);
  cancelled = true;
  if (fd < 0) return;
  // A thread in recv() owns the descriptor until it comes back; shutdown
  // wakes it, and it closes the socket and fails the rest.
  if (reading) {
    ::shutdown(fd, SHUT_RDWR);
  } else {
    fail("conexión cancelada");
  }
}

namespace {

std::unique_ptr<DaemonXPCClient::Connection> connectionFor(std::string_view machServiceName) {
  try {
    return std::make_unique<DaemonXPCClient::Connection>(socketPathForMachService(machServiceName),
                                                         isDefaultServiceName(machServiceName), "");
  } catch (const TransportError& e) {
    return std::make_unique<DaemonXPCClient::Connection>("", false, e.description());
  }
}

}  // namespace

DaemonXPCClient::DaemonXPCClient(std::string_view machServiceName)
    : connection_(connectionFor(machServiceName)) {}

DaemonXPCClient::~DaemonXPCClient() = default;

DaemonResponse DaemonXPCClient::request(const DaemonRequest& request) {
  std::string bytes = TarskelJSON::encoder().encode(request);
  std::optional<std::string> response = connection_->exchange(std::move(bytes));
  if (!response) throw DaemonClientError::transport("reply sin payload de respuesta");
  return TarskelJSON::decoder().decode<DaemonResponse>(*response);
}

void DaemonXPCClient::close() { connection_->cancel(); }

}  // namespace tarskel
