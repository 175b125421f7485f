// The client over a Unix-domain socket. One socket per client object, opened
// at the first request and again after it fails. Any number of threads share
// it: each writes its own frame under the lock, and whichever waiting thread
// finds nobody reading becomes the reader, handing every reply it reads to
// the thread waiting for that id, until its own has come.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/TrustedPath.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {

namespace {

using Clock = std::chrono::steady_clock;

std::string errnoText(int error) { return std::strerror(error); }

// poll's time-out for `deadline`: -1 for none, else the milliseconds left,
// rounded up so that a wait never ends just before the deadline.
int pollMilliseconds(std::optional<Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT32_MAX));
}

// A connected socket to `path`, or the reason there is none. With
// `requireRoot`, a server whose credentials (taken by the kernel when it
// listened) are not root's is refused: anyone able to put a socket at the
// system daemon's path first would otherwise answer in its place.
std::variant<FileDescriptor, std::string> connectTo(const std::string& path, bool requireRoot) {
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
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int fd = socket.get();
  if (fd < 0) return "socket: " + errnoText(errno);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return "connect " + path + ": " + errnoText(errno);
  }
  if (requireRoot) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != 0) {
      const std::string uid = length == sizeof peer ? std::to_string(peer.uid) : "?";
      return "el servidor de " + path + " no es root (uid " + uid + ")";
    }
  }
  return socket;
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
  // The reply body for `message`, or throws DaemonClientError (timedOut
  // once `deadline` has passed).
  std::optional<std::string> exchange(std::string message,
                                      std::optional<Clock::time_point> deadline);

  // Cancels: wakes the reader and fails every call, now and later.
  void cancel();

 private:
  // False when `deadline` passed before the reply to `id` came.
  bool readUntil(std::unique_lock<std::mutex>& lock, std::uint64_t id,
                 std::optional<Clock::time_point> deadline);
  void fail(const std::string& text);  // lock held

  const std::string path;
  const bool requireRoot;
  const std::string invalidName;  // why there is no path; empty when there is
  std::mutex mutex;
  std::condition_variable changed;
  FileDescriptor socket;  // none: not connected
  bool cancelled = false;
  bool reading = false;  // a thread is in recv() on fd
  std::uint64_t nextId = 1;
  FrameDecoder decoder;  // touched by the reader only
  std::map<std::uint64_t, std::optional<Outcome>> waiting;
};

std::optional<std::string> DaemonXPCClient::Connection::exchange(
    std::string message, std::optional<Clock::time_point> deadline) {
  std::unique_lock lock(mutex);
  if (cancelled) throw DaemonClientError::transport("conexión cancelada");
  if (!invalidName.empty()) throw DaemonClientError::transport(invalidName);
  if (!socket) {
    auto connected = connectTo(path, requireRoot);
    if (auto* text = std::get_if<std::string>(&connected)) {
      throw DaemonClientError::transport(*text);
    }
    socket = std::move(std::get<FileDescriptor>(connected));
    decoder = FrameDecoder();
  }
  const std::uint64_t id = nextId++;
  auto& slot = waiting[id];
  if (!sendAll(socket.get(), Transport::encodeFrame({id, true, std::move(message)}))) {
    const std::string text = "send: " + errnoText(errno);
    waiting.erase(id);
    // The reader, if any, sees the broken socket too and fails the others.
    if (!reading) fail(text);
    throw DaemonClientError::transport(text);
  }
  if (!readUntil(lock, id, deadline)) {
    waiting.erase(id);  // a reply that comes later is dropped
    throw DaemonClientError::timedOut();
  }
  Outcome outcome = std::move(*slot);
  waiting.erase(id);
  if (outcome.failure) throw DaemonClientError::transport(*outcome.failure);
  return std::move(outcome.body);
}

bool DaemonXPCClient::Connection::readUntil(std::unique_lock<std::mutex>& lock, std::uint64_t id,
                                            std::optional<Clock::time_point> deadline) {
  while (!waiting[id].has_value()) {
    if (deadline && Clock::now() >= *deadline) return false;
    if (reading) {
      if (deadline) {
        changed.wait_until(lock, *deadline);
      } else {
        changed.wait(lock);
      }
      continue;
    }
    reading = true;
    const int fd = socket.get();
    lock.unlock();
    // Wait for data with poll first: a thread asleep in recv() is woken each
    // time the daemon takes a request off the socket (the kernel signals
    // room to write on the same queue), and runs for nothing; poll wakes for
    // data only. Shutdown (cancel) still wakes it. A reader whose own
    // deadline passes hands the reading on to the next waiting thread.
    pollfd ready{fd, POLLIN, 0};
    int polled;
    while ((polled = ::poll(&ready, 1, pollMilliseconds(deadline))) < 0 && errno == EINTR) {
    }
    char buffer[64 * 1024];
    ssize_t n = 0;
    if (polled != 0) {
      do {
        n = ::recv(fd, buffer, sizeof buffer, 0);
      } while (n < 0 && errno == EINTR);
    }
    const int error = errno;
    lock.lock();
    reading = false;
    if (polled == 0) {
      changed.notify_all();
      continue;
    }
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
  return true;
}

void DaemonXPCClient::Connection::fail(const std::string& text) {
  for (auto& [id, outcome] : waiting) {
    if (!outcome) outcome = Outcome{{}, text};
  }
  socket.reset();
  changed.notify_all();
}

void DaemonXPCClient::Connection::cancel() {
  std::lock_guard lock(mutex);
  cancelled = true;
  if (!socket) return;
  // A thread in recv() owns the descriptor until it comes back; shutdown
  // wakes it, and it closes the socket and fails the rest.
  if (reading) {
    ::shutdown(socket.get(), SHUT_RDWR);
  } else {
    fail("conexión cancelada");
  }
}

namespace {

// The daemon judges a client as the file it runs. A process of the same
// user that could attach to it, or write its memory through /proc, could
// make it run anything: so the client is not dumpable, from the start of
// the program (this object is linked in with the client) and, should
// anything have undone that, again whenever a client is made.
void markNotDumpable() { ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0); }
[[maybe_unused]] const bool kNotDumpableFromTheStart = (markNotDumpable(), true);

std::unique_ptr<DaemonXPCClient::Connection> connectionFor(std::string_view machServiceName) {
  markNotDumpable();
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

DaemonResponse DaemonXPCClient::request(const DaemonRequest& request,
                                        std::optional<std::chrono::milliseconds> timeout) {
  std::optional<Clock::time_point> deadline;
  if (timeout) deadline = Clock::now() + *timeout;
  std::string bytes = TarskelJSON::encoder().encode(request);
  std::optional<std::string> response = connection_->exchange(std::move(bytes), deadline);
  if (!response) throw DaemonClientError::transport("reply sin payload de respuesta");
  return TarskelJSON::decoder().decode<DaemonResponse>(*response);
}

void DaemonXPCClient::close() { connection_->cancel(); }

}  // namespace tarskel
