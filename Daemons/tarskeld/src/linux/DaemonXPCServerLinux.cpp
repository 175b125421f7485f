// The daemon's listener on a Unix-domain stream socket.
//
// Each connection reads on its own strand, so the steps before a message's
// task (envelope, gate, copying the bytes out) run one message at a time per
// connection, like the handler of an XPC peer. The task runs on the pool and
// hands its reply frame back to the strand, which writes replies in the
// order they are done.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "PeerSocketIdentity.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

namespace {

constexpr int kFirstActivatedFd = 3;  // SD_LISTEN_FDS_START

std::string errnoText(int error) { return std::strerror(error); }

DaemonServerError cannotListen(const std::string& path, const std::string& reason) {
  return DaemonServerError("no se puede escuchar en " + path + ": " + reason);
}

// One client connection. Owned by its read loop and by the tasks of its
// messages; the server holds it only weakly, to close it on stop().
class PeerConnection : public std::enable_shared_from_this<PeerConnection> {
 public:
  PeerConnection(Local::socket socket, DaemonCore core, DaemonPeerGate gate,
                 asio::any_io_executor pool)
      : socket_(std::move(socket)),
        identity_(PeerSocketIdentity::ofSocket(socket_.native_handle())),
        core_(std::move(core)),
        gate_(std::move(gate)),
        pool_(std::move(pool)) {}

  asio::any_io_executor strand() { return socket_.get_executor(); }

  // Runs on the strand until the peer goes or a frame doesn't read.
  static asio::awaitable<void> readLoop(std::shared_ptr<PeerConnection> self) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
      auto reading =
          self->socket_.async_read_some(asio::buffer(buffer), asio::as_tuple(asio::use_awaitable));
      std::tuple<boost::system::error_code, std::size_t> read = co_await std::move(reading);
      if (std::get<0>(read)) break;
      if (!self->receive(std::string_view(buffer.data(), std::get<1>(read)))) break;
    }
    self->close();
  }

  // Closes the socket; on the strand. A write in flight still owns the
  // front of the outbox: it fails and empties the outbox itself.
  void close() {
    boost::system::error_code ignored;
    socket_.shutdown(Local::socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

  // Queues a reply frame; any thread.
  void send(std::string frame) {
    asio::post(strand(), [self = shared_from_this(), frame = std::move(frame)]() mutable {
      if (!self->socket_.is_open()) return;
      self->outbox_.push_back(std::move(frame));
      if (self->outbox_.size() == 1) self->writeFront();
    });
  }

 private:
  // False when the bytes broke the stream and the connection must close.
  bool receive(std::string_view bytes) {
    std::vector<std::string> payloads;
    try {
      payloads = decoder_.append(bytes);
    } catch (const FramingError&) {
      return false;
    }
    for (std::string& payload : payloads) {
      std::optional<TransportEnvelope> envelope;
      try {
        envelope = Transport::decodeEnvelope(payload);
      } catch (const TransportError&) {
        return false;
      }
      dispatch(std::move(*envelope));
    }
    return true;
  }

  void dispatch(TransportEnvelope message) {
    // Nobody waits for the answer of such a message, so it isn't worth running.
    if (!message.expectsReply) return;
    DaemonPeerVerdict verdict = gate_.verdict(identity_);
    asio::co_spawn(pool_,
                   answer(core_, std::move(message.body).value_or(std::string()),
                          std::move(verdict), shared_from_this(), message.id),
                   asio::detached);
  }

  static asio::awaitable<void> answer(DaemonCore core, std::string bytes,
                                      DaemonPeerVerdict verdict,
                                      std::shared_ptr<PeerConnection> self, std::uint64_t id) {
    auto handling = core.handleEncoded(std::move(bytes), std::move(verdict));
    std::string response = co_await std::move(handling);
    self->send(Transport::encodeFrame({id, false, std::move(response)}));
  }

  void writeFront() {
    asio::async_write(socket_, asio::buffer(outbox_.front()),
                      [self = shared_from_this()](boost::system::error_code ec, std::size_t) {
                        if (ec) {
                          // The peer has gone: its replies go nowhere.
                          self->outbox_.clear();
                          return;
                        }
                        self->outbox_.pop_front();
                        if (!self->socket_.is_open()) {
                          self->outbox_.clear();
                        } else if (!self->outbox_.empty()) {
                          self->writeFront();
                        }
                      });
  }

  Local::socket socket_;
  PeerSocketIdentity identity_;
  DaemonCore core_;
  DaemonPeerGate gate_;
  asio::any_io_executor pool_;
  FrameDecoder decoder_;
  std::deque<std::string> outbox_;
};

// The descriptor systemd passed, when this process is the one it was meant for.
std::optional<int> activatedSocket() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* fds = std::getenv("LISTEN_FDS");
  if (pid == nullptr || fds == nullptr) return std::nullopt;
  if (std::strtoll(pid, nullptr, 10) != ::getpid() || std::strtoll(fds, nullptr, 10) < 1) {
    return std::nullopt;
  }
  // Children must not take the socket for theirs.
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  ::fcntl(kFirstActivatedFd, F_SETFD, FD_CLOEXEC);
  return kFirstActivatedFd;
}

// Makes the missing directories of `dir`, each 0755 whatever the umask.
void makeSocketDirectory(const std::filesystem::path& dir, const std::string& path) {
  std::filesystem::path partial;
  for (const auto& part : dir) {
    partial /= part;
    if (::mkdir(partial.c_str(), 0755) == 0) {
      ::chmod(partial.c_str(), 0755);
    } else if (errno != EEXIST) {
      throw cannotListen(path, "mkdir " + partial.string() + ": " + errnoText(errno));
    }
  }
}

// Removes a socket file nobody answers on. A live listener, or a file that
// is not a socket, is left alone and refused.
void replaceStaleSocket(const std::string& path) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) return;
  if (!S_ISSOCK(st.st_mode)) throw cannotListen(path, "existe y no es un socket");
  Local::endpoint endpoint(path);
  const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool live = probe >= 0 && ::connect(probe, endpoint.data(), endpoint.size()) == 0;
  if (probe >= 0) ::close(probe);
  if (live) throw cannotListen(path, "otro proceso ya escucha ahí");
  ::unlink(path.c_str());
}

}  // namespace

struct DaemonXPCServer::Impl : std::enable_shared_from_this<DaemonXPCServer::Impl> {
  Impl(std::string name, DaemonCore c, DaemonPeerGate g, asio::any_io_executor p)
      : machServiceName(std::move(name)),
        core(std::move(c)),
        gate(std::move(g)),
        pool(std::move(p)),
        acceptor(asio::make_strand(pool)) {}

  void listen() {
    if (auto fd = activatedSocket()) {
      boost::system::error_code ec;
      acceptor.assign(Local(), *fd, ec);
      if (ec) throw cannotListen("LISTEN_FDS", ec.message());
      path = acceptor.local_endpoint(ec).path();
      return;
    }
    path = socketPathForMachService(machServiceName);
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
      throw cannotListen(path, "ruta demasiado larga");
    }
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    if (!dir.empty()) makeSocketDirectory(dir, path);
    replaceStaleSocket(path);
    boost::system::error_code ec;
    acceptor.open(Local(), ec);
    if (!ec) acceptor.bind(Local::endpoint(path), ec);
    if (ec) throw cannotListen(path, ec.message());
    struct stat st{};
    ::lstat(path.c_str(), &st);
    boundFile = std::make_pair(st.st_dev, st.st_ino);
    // Any local user may connect: the gate, not the file mode, decides.
    ::chmod(path.c_str(), 0666);
    acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw cannotListen(path, ec.message());
  }

  static asio::awaitable<void> acceptLoop(std::shared_ptr<Impl> self) {
    for (;;) {
      // Each connection gets its own strand. (Kept out of the co_await
      // expression: GCC 12 may destroy temporaries there twice.)
      asio::any_io_executor strand = asio::make_strand(self->pool);
      auto accepting = self->acceptor.async_accept(strand, asio::as_tuple(asio::use_awaitable));
      std::tuple<boost::system::error_code, Local::socket> accepted = co_await std::move(accepting);
      if (!self->acceptor.is_open()) co_return;
      if (std::get<0>(accepted)) {
        // Out of descriptors or the like: not logged, the listener goes on
        // after a breath rather than spinning.
        asio::steady_timer pause(self->acceptor.get_executor(), std::chrono::milliseconds(50));
        auto waiting = pause.async_wait(asio::as_tuple(asio::use_awaitable));
        std::tuple<boost::system::error_code> waited = co_await std::move(waiting);
        (void)waited;
        continue;
      }
      auto connection = std::make_shared<PeerConnection>(std::move(std::get<1>(accepted)),
                                                         self->core, self->gate, self->pool);
      self->remember(connection);
      asio::co_spawn(connection->strand(), PeerConnection::readLoop(connection), asio::detached);
    }
  }

  void remember(const std::shared_ptr<PeerConnection>& connection) {
    std::lock_guard lock(connectionsMutex);
    std::erase_if(connections, [](const auto& weak) { return weak.expired(); });
    connections.push_back(connection);
  }

  void stop() {
    std::vector<std::future<void>> closed;
    closed.push_back(asio::post(acceptor.get_executor(), asio::use_future([self = shared_from_this()] {
                                  boost::system::error_code ignored;
                                  self->acceptor.close(ignored);
                                })));
    std::vector<std::weak_ptr<PeerConnection>> open;
    {
      std::lock_guard lock(connectionsMutex);
      open.swap(connections);
    }
    for (const auto& weak : open) {
      if (auto connection = weak.lock()) {
        closed.push_back(asio::post(connection->strand(),
                                    asio::use_future([connection] { connection->close(); })));
      }
    }
    for (auto& f : closed) f.wait();
    removeSocketFile();
  }

  // Only the file this server bound: another daemon may have replaced it.
  void removeSocketFile() {
    if (!boundFile) return;
    struct stat st{};
    if (::lstat(path.c_str(), &st) == 0 && std::make_pair(st.st_dev, st.st_ino) == *boundFile) {
      ::unlink(path.c_str());
    }
    boundFile.reset();
  }

  const std::string machServiceName;
  const DaemonCore core;
  const DaemonPeerGate gate;
  const asio::any_io_executor pool;
  Local::acceptor acceptor;  // on its own strand once listening
  std::string path;
  std::optional<std::pair<dev_t, ino_t>> boundFile;
  bool started = false;
  bool stopped = false;
  std::mutex connectionsMutex;
  std::vector<std::weak_ptr<PeerConnection>> connections;
};

DaemonXPCServer::DaemonXPCServer(std::string machServiceName, DaemonCore core,
                                 DaemonPeerGate gate, asio::any_io_executor pool)
    : impl_(std::make_shared<Impl>(std::move(machServiceName), std::move(core), std::move(gate),
                                   std::move(pool))) {}

DaemonXPCServer::~DaemonXPCServer() { stop(); }

void DaemonXPCServer::start() {
  if (impl_->started) return;
  impl_->listen();
  impl_->started = true;
  asio::co_spawn(impl_->acceptor.get_executor(), Impl::acceptLoop(impl_), asio::detached);
}

void DaemonXPCServer::stop() {
  if (!impl_->started || impl_->stopped) return;
  impl_->stopped = true;
  impl_->stop();
}

std::string DaemonXPCServer::endpoint() const { return impl_->path; }

}  // namespace tarskel
