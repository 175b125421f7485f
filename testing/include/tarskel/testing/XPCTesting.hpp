#pragma once

// Test support, shipped nowhere: Unix-domain sockets made by hand, one end
// of a daemon connection driven frame by frame (a client that misbehaves on
// purpose, or a scripted daemon's side of an accepted connection), and a
// scripted daemon for the clients' tests.

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/xpc/DaemonWire.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel::testing {

inline sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

// A stream socket connected to `path`, or -1 with errno set.
inline int connectedSocket(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = unixAddress(path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

// A socket bound at `path`; listening when `backlog` is given.
inline int boundSocket(const std::string& path, std::optional<int> backlog = std::nullopt) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = unixAddress(path);
  EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
  if (backlog) {
    EXPECT_EQ(::listen(fd, *backlog), 0);
  }
  return fd;
}

// One end of a connection: raw frames out, envelopes in. Owns its socket.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) : fd_(connectedSocket(path)) {
    EXPECT_GE(fd_, 0) << path << ": " << std::strerror(errno);
  }
  explicit RawConnection(int acceptedFd) : fd_(acceptedFd) {}
  ~RawConnection() { ::close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  int fd() const { return fd_; }
  void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }
  void sendRaw(const std::string& bytes) {
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void send(std::uint64_t id, bool expectsReply, std::optional<std::string> body) {
    sendRaw(Transport::encodeFrame({id, expectsReply, std::move(body)}));
  }

  // True once a read, past whatever replies were waiting, finds the end of
  // the stream; false when the connection is still open at `limit`.
  bool closedByServer(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    char buffer[4096];
    while (readable(limit)) {
      if (::recv(fd_, buffer, sizeof buffer, 0) <= 0) return true;
    }
    return false;
  }

  // The next envelope, or nothing when the connection closes or `limit`
  // passes (a negative limit waits for ever).
  std::optional<TransportEnvelope> next(
      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    while (pending_.empty()) {
      char buffer[4096];
      if (!readable(limit)) return std::nullopt;
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return std::nullopt;
      for (auto& p : decoder_.append({buffer, static_cast<std::size_t>(n)})) pending_.push_back(p);
    }
    TransportEnvelope e = Transport::decodeEnvelope(pending_.front());
    pending_.erase(pending_.begin());
    return e;
  }

  DaemonResponse nextResponse(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    auto reply = next(limit);
    EXPECT_TRUE(reply && reply->body);
    if (!reply || !reply->body) return {};
    return TarskelJSON::decoder().decode<DaemonResponse>(*reply->body);
  }

 private:
  bool readable(std::chrono::milliseconds limit) {
    pollfd one{fd_, POLLIN, 0};
    return ::poll(&one, 1, static_cast<int>(limit.count())) > 0;
  }

  int fd_ = -1;
  FrameDecoder decoder_;
  std::vector<std::string> pending_;
};

// Accepts connections one after another on a socket (in a temporary
// directory unless a path is given) and hands every message to `script`,
// which answers through its side of the connection (or not at all). The
// socket is bound as root but may listen as another user, whose credentials
// are then the ones a client sees.
class ScriptedDaemon {
 public:
  using Connection = RawConnection;
  using Script = std::function<void(Connection&, const TransportEnvelope&)>;

  explicit ScriptedDaemon(Script script, std::string path = "", uid_t listensAs = 0)
      : script_(std::move(script)), path_(path.empty() ? dir_.file("d.sock").string() : path) {
    listenFd_ = boundSocket(path_);
    const bool asOther = listensAs != 0 && ::seteuid(listensAs) == 0;
    EXPECT_EQ(::listen(listenFd_, 8), 0);
    if (asOther) ::seteuid(0);
    thread_ = std::thread([this] { serve(); });
  }

  ~ScriptedDaemon() {
    ::shutdown(listenFd_, SHUT_RDWR);
    {
      std::lock_guard lock(mutex_);
      if (open_ >= 0) ::shutdown(open_, SHUT_RDWR);
    }
    thread_.join();
    ::close(listenFd_);
    ::unlink(path_.c_str());
  }

  const std::string& path() const { return path_; }

  std::vector<TransportEnvelope> received() {
    std::lock_guard lock(mutex_);
    return received_;
  }

 private:
  void serve() {
    for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      {
        std::lock_guard lock(mutex_);
        open_ = fd;
      }
      Connection connection(fd);
      while (auto envelope = connection.next(std::chrono::milliseconds(-1))) {
        {
          std::lock_guard lock(mutex_);
          received_.push_back(*envelope);
        }
        script_(connection, *envelope);
      }
      std::lock_guard lock(mutex_);
      open_ = -1;
    }
  }

  Script script_;
  TempDirectory dir_{"tarskel-xpc"};
  std::string path_;
  int listenFd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  int open_ = -1;  // the connection being served
  std::vector<TransportEnvelope> received_;
};

}  // namespace tarskel::testing
