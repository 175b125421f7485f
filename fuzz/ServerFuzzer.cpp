// Drives the real socket server (event loop, limits, core, audit chain) with
// arbitrary client bytes over a real connection: the input is written in
// pieces (its first byte chooses where it is cut), the writing side is shut,
// and every reply is read until the server closes. The server must survive,
// answer or close within its time limits, and keep serving a fresh client.
//
// Short limits keep each run quick: a frame left unfinished closes after
// 50 ms.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/thread_pool.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"

namespace {

using namespace tarskel;

struct Served {
  std::filesystem::path dir;
  boost::asio::thread_pool longOps{1};
  std::shared_ptr<DaemonEventLoop> loop = std::make_shared<DaemonEventLoop>();
  std::shared_ptr<SQLiteDatabase> db;
  std::shared_ptr<AuditStore> audit;
  std::shared_ptr<GrantsStore> grants;
  std::unique_ptr<DaemonXPCServer> server;

  Served() {
    char pattern[] = "/tmp/tarskel-serverfuzz-XXXXXX";
    dir = ::mkdtemp(pattern);
    db = SQLiteDatabase::open((dir / "audit.db").string());
    audit = std::make_shared<AuditStore>(db, loop->executor());
    grants = std::make_shared<GrantsStore>(dir / "grants.json", loop->executor());
    DaemonServerLimits limits;
    limits.stallTimeout = std::chrono::milliseconds(50);
    limits.idleTimeout = std::chrono::milliseconds(50);
    limits.maxInFlight = 4;
    limits.maxUnsentBytes = 4096;
    server = std::make_unique<DaemonXPCServer>(
        (dir / "d.sock").string(), DaemonCore(std::nullopt, audit, grants), DaemonPeerGate{},
        longOps.get_executor(), limits, loop);
    server->start();
  }
};

Served& served() {
  static Served* s = new Served();  // lives as long as the process
  return *s;
}

int connectTo(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  // Far beyond the server's own limits (50 ms), so that only a server that
  // neither answers nor closes trips it, not a slow run on a loaded machine.
  timeval limit{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Served& s = served();
  const int fd = connectTo(s.server->endpoint());
  const std::size_t piece = size == 0 ? 1 : 1 + data[0] % 64;
  for (std::size_t at = 0; at < size; at += piece) {
    const std::size_t n = std::min(piece, size - at);
    if (::send(fd, data + at, n, MSG_NOSIGNAL) < 0) break;  // closed by the server
  }
  ::shutdown(fd, SHUT_WR);
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) break;
    if (n < 0) {  // neither answered nor closed within its limits
      std::perror("ServerFuzzer: reading the server's answer");
      std::abort();
    }
  }
  ::close(fd);
  DaemonXPCClient client(s.server->endpoint());
  if (!client.request({"daemon.info", {}, std::nullopt, std::nullopt}).ok) std::abort();
  return 0;
}
