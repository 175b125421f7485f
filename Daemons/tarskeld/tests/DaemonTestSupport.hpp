#pragma once

// Shared by the in-process tests and the end-to-end tests of the daemon.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "tarskel/daemon/DaemonCore.hpp"
#include "tarskel/daemon/GrantsStore.hpp"
#include "tarskel/daemon/PlatformFiles.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel::testing {

using TempDir = TempDirectory;

// The text of the error that running `op` on `args` ends in, or "" on
// success. Caught where it is thrown, on the pool, so that no exception
// object is shared between threads.
inline boost::asio::awaitable<std::string> failureOf(const DaemonOp& op, JSONObject args) {
  const DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
  try {
    JSONValue ignored = co_await op.execute(args, context);
  } catch (const Error& e) {
    co_return e.description();  // whole, past any NUL
  } catch (const std::exception& e) {
    co_return std::string(e.what());
  }
  co_return std::string();
}

template <class T>
T runOn(boost::asio::thread_pool& pool, boost::asio::awaitable<T> task) {
  return boost::asio::co_spawn(pool, std::move(task), boost::asio::use_future).get();
}

inline std::string requestBytes(const std::string& op, JSONObject args = {}) {
  return TarskelJSON::encoder().encode(
      DaemonRequest{op, std::move(args), std::nullopt, std::nullopt});
}

// The system's file calls, but for the executable's path, who the daemon
// runs as, and an owner change refused for paths ending in `refusedSuffix`.
class ScriptedPlatformFiles final : public PlatformFiles {
 public:
  using Path = std::filesystem::path;
  int exchange(const Path& a, const Path& b) const override { return system()->exchange(a, b); }
  std::optional<Path> executablePath() const override { return executable; }
  uid_t effectiveUserId() const override { return euid; }
  int changeOwnerToRootWheel(const Path& path) const override {
    changed.push_back(path);
    if (!refusedSuffix.empty() && path.string().ends_with(refusedSuffix)) return EPERM;
    return system()->changeOwnerToRootWheel(path);
  }

  std::optional<Path> executable;
  uid_t euid = 0;
  std::string refusedSuffix;
  mutable std::vector<Path> changed;  // one operation at a time in these tests
};

// A hand-driven client connection: raw frames out, envelopes in.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
  }
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

  // The next reply, or nothing when the connection closes or `limit` passes.
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

// A worker pool, a real audit database and a grants file in a temporary
// directory: what the daemon runs on, minus the transport.
class DaemonFixture : public ::testing::Test {
 protected:
  void openStores(const std::string& grantsJSON = "") {
    if (!grantsJSON.empty()) writeFile(grantsPath(), grantsJSON);
    db = SQLiteDatabase::open(dir.file("audit.db").string());
    audit = std::make_shared<AuditStore>(db, pool.get_executor());
    grants = std::make_shared<GrantsStore>(grantsPath(), pool.get_executor());
  }

  std::filesystem::path grantsPath() const { return dir.file("grants.json"); }

  std::int64_t auditRows() const {
    return *db->query("SELECT COUNT(*) AS n FROM audit;").at(0).at("n").intValue();
  }

  DaemonResponse handle(const DaemonCore& core, DaemonRequest request,
                        DaemonPeerVerdict peer = DaemonPeerVerdict::unverified("t")) {
    return runOn(pool, core.handle(std::move(request), std::move(peer)));
  }

  // Every task has finished before the stores go; the strands of the stores
  // must in turn be gone before the pool that serves them.
  void TearDown() override { pool.join(); }

  TempDir dir;
  boost::asio::thread_pool pool{4};
  std::shared_ptr<SQLiteDatabase> db;
  std::shared_ptr<AuditStore> audit;
  std::shared_ptr<GrantsStore> grants;
};

}  // namespace tarskel::testing
