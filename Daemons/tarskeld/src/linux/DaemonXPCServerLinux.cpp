// The daemon's listener on a Unix-domain stream socket.
//
// Everything of a connection happens on the event loop's one thread: reads
// (recvmsg, so that each read comes with its sender's credentials), the
// gate, the core's decision and the audit row of a short operation, and the
// writes. Only operations that may take long leave it, for the core's pool.
// Since one thread owns all connection state, nothing here takes a lock.

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <vector>

#include "PeerSocketIdentity.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/TrustedPath.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFirstActivatedFd = 3;  // SD_LISTEN_FDS_START
constexpr int kReadsBeforeYield = 16;

std::string errnoText(int error) { return std::strerror(error); }

DaemonServerError cannotListen(const std::string& path, const std::string& reason) {
  return DaemonServerError("no se puede escuchar en " + path + ": " + reason);
}

class PeerConnection;

// What the connections of one server share: the limits and the count of
// open connections per user. Touched on the loop only.
struct ServerState {
  ServerState(DaemonCore c, DaemonPeerGate g, DaemonServerLimits l)
      : core(std::move(c)), gate(std::move(g)), limits(l) {}

  DaemonCore core;
  DaemonPeerGate gate;
  DaemonServerLimits limits;
  bool judgeSenders = false;  // the gate looks at senders: read credentials
  std::size_t open = 0;
  std::map<uid_t, std::size_t> openPerUid;
  const uid_t ownUid = ::geteuid();

  // Root and the daemon's own user are kept apart from the others: each
  // holds up to maxConnectionsPerUid of its own, a reserve nobody else can
  // take. The others share maxConnections, each up to an equal part of it
  // among the users holding connections (itself counted), and never more
  // than maxConnectionsPerUid: the more users compete, the less each holds.
  bool reserved(uid_t uid) const { return uid == 0 || uid == ownUid; }

  bool hasRoomFor(uid_t uid) const {
    auto mine = openPerUid.find(uid);
    const std::size_t held = mine == openPerUid.end() ? 0 : mine->second;
    if (reserved(uid)) return held < limits.maxConnectionsPerUid;
    std::size_t shared = 0;
    std::size_t users = held == 0 ? 1 : 0;
    for (const auto& [other, count] : openPerUid) {
      if (reserved(other)) continue;
      shared += count;
      ++users;
    }
    const std::size_t share = std::min(limits.maxConnectionsPerUid,
                                       std::max<std::size_t>(1, limits.maxConnections / users));
    return shared < limits.maxConnections && held < share;
  }
};

// One request read and not yet handed to the core, with the sender of its
// bytes (nothing when the gate doesn't look at senders).
struct PendingMessage {
  TransportEnvelope envelope;
  std::shared_ptr<PeerSocketIdentity> sender;
};

// One client connection, on the loop. Owned by its read loop and by the
// handlers of its messages; the server holds it only weakly.
class PeerConnection : public std::enable_shared_from_this<PeerConnection> {
 public:
  PeerConnection(Local::socket socket, uid_t uid, std::shared_ptr<ServerState> state,
                 std::shared_ptr<const PinnedPeer> pinned)
      : socket_(std::move(socket)),
        uid_(uid),
        state_(std::move(state)),
        pinned_(std::move(pinned)),
        decoder_(state_->limits.maxFrameLength),
        resume_(socket_.get_executor()),
        room_(socket_.get_executor()),
        lastActivity_(Clock::now()) {
    room_.expires_at(Clock::time_point::max());  // only ever cancelled, to wake
    ++state_->open;
    ++state_->openPerUid[uid_];
  }

  static asio::awaitable<void> readLoop(std::shared_ptr<PeerConnection> self) {
    try {
      co_await self->readUntilDone();
    } catch (const std::exception&) {
      // Out of memory or the like: this one connection goes.
    }
    if (self->readClosed_) {
      self->closeWhenDone();
    } else {
      self->close();
    }
  }

  ~PeerConnection() { close(); }

  // Closes the socket and forgets what was unsent; replies still in flight
  // go nowhere. Idempotent.
  void close() {
    if (closed_) return;
    closed_ = true;
    readClosed_ = true;
    clientGone_->store(true);  // replies in flight go nowhere: their work may stop
    boost::system::error_code ignored;
    socket_.close(ignored);
    resume_.cancel();
    room_.cancel();
    outbox_.clear();
    pending_.clear();
    if (--state_->openPerUid[uid_] == 0) state_->openPerUid.erase(uid_);
    --state_->open;
  }

  // Closes a connection that has stalled or idled past its time; called by
  // the server's sweep.
  void sweep(Clock::time_point now) {
    if (closed_) return;
    const auto& limits = state_->limits;
    const bool frameStalled = decoder_.pendingBytes() > 0 && now - lastRead_ > limits.stallTimeout;
    const bool repliesUnread = !outbox_.empty() && now - lastWrite_ > limits.stallTimeout;
    const bool idle = inFlight_ == 0 && outbox_.empty() && decoder_.pendingBytes() == 0 &&
                      now - lastActivity_ > limits.idleTimeout;
    if (frameStalled || repliesUnread || idle) close();
  }

  bool closed() const { return closed_; }

 private:
  asio::awaitable<void> readUntilDone() {
    for (;;) {
      if (closed_) co_return;
      dispatchPending();
      if (readClosed_ && pending_.empty()) {
        // The client shut its writing side: every request taken from it
        // still gets its reply, then the connection closes.
        closeWhenDone();
        co_return;
      }
      if (readClosed_ || mustWait()) {
        waitingForRoom_ = true;
        resume_.expires_at(Clock::time_point::max());
        auto waiting = resume_.async_wait(asio::as_tuple(asio::use_awaitable));
        std::tuple<boost::system::error_code> woke = co_await std::move(waiting);
        (void)woke;
        waitingForRoom_ = false;
        continue;
      }
      const ssize_t n = readOnce();
      if (n > 0) {
        // A client whose next request is always there already would keep
        // the loop to itself: now and then the others' ready work goes first.
        if (++readsInARow_ == kReadsBeforeYield) {
          readsInARow_ = 0;
          auto yielding = asio::post(socket_.get_executor(), asio::use_awaitable);
          co_await std::move(yielding);
        }
        continue;
      }
      if (n == 0) {
        readClosed_ = true;
        if (peerHungUp()) clientGone_->store(true);
        continue;
      }
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        readsInARow_ = 0;
        auto waiting =
            socket_.async_wait(Local::socket::wait_read, asio::as_tuple(asio::use_awaitable));
        std::tuple<boost::system::error_code> ready = co_await std::move(waiting);
        if (std::get<0>(ready)) co_return;
        continue;
      }
      co_return;  // a read error or a bad frame: readLoop closes
    }
  }

  // Reading waits while requests of this connection are queued or too many
  // are in flight, or while the client leaves too many reply bytes unread:
  // the client's own writes then block.
  bool mustWait() const {
    return !pending_.empty() || inFlight_ >= state_->limits.maxInFlight ||
           repliesHeld() >= state_->limits.maxUnsentBytes;
  }

  class AnswerRoom;

  // Reply bytes this connection holds: those queued and not sent yet, and
  // those of answers still being made, each counted from the moment its
  // request is taken (AnswerRoom).
  std::size_t repliesHeld() const { return outboxBytes_ + takenBytes_ + largeBytes_; }

  // Whether a request whose answer may take `bytes` can be taken now: while
  // it keeps the connection within maxUnsentBytes, or alone, so that every
  // request is answered in the end.
  bool hasRoomFor(std::size_t bytes) const {
    const std::size_t held = repliesHeld();
    return held == 0 || held + bytes <= state_->limits.maxUnsentBytes;
  }

  // Whether the large answer of `room`'s operation may start: as above, its
  // own first count given back; or alone, once nothing is queued or being
  // made but by requests that wait for the same room (one of them must go).
  bool hasRoomForLarge(const AnswerRoom& room, std::size_t bytes) const {
    return (outboxBytes_ + largeBytes_ == 0 && takenBytes_ == waitingTakenBytes_) ||
           repliesHeld() - room.taken + bytes <= state_->limits.maxUnsentBytes;
  }

  // What one request's answer is counted as, until it is made (then its reply
  // counts for itself, until sent): `taken` from the moment the request is
  // taken, replaced by `large` when its operation asks for room. Lives in the
  // request's answer coroutine, which outlives the operation.
  class AnswerRoom final : public ReplyRoom {
   public:
    AnswerRoom(std::shared_ptr<PeerConnection> connection, std::size_t takenBytes)
        : taken(takenBytes),
          connection_(std::move(connection)),
          loop_(connection_->socket_.get_executor()) {}

    // Called on a worker; the counting happens on the loop.
    asio::awaitable<void> reserve(std::size_t bytes) override {
      auto waiting =
          asio::co_spawn(loop_, connection_->waitForRoom(*this, bytes), asio::use_awaitable);
      co_await std::move(waiting);
    }

    std::size_t taken;      // on the loop
    std::size_t large = 0;  // on the loop

   private:
    const std::shared_ptr<PeerConnection> connection_;
    const asio::any_io_executor loop_;
  };

  // On the loop: waits until the large answer fits (or the connection has
  // closed, when nothing will be sent anyway), then counts it.
  asio::awaitable<void> waitForRoom(AnswerRoom& room, std::size_t bytes) {
    waitingTakenBytes_ += room.taken;
    while (!closed_ && !hasRoomForLarge(room, bytes)) {
      ++roomWaiters_;
      auto waiting = room_.async_wait(asio::as_tuple(asio::use_awaitable));
      std::tuple<boost::system::error_code> woke = co_await std::move(waiting);
      (void)woke;
      --roomWaiters_;
    }
    waitingTakenBytes_ -= room.taken;
    takenBytes_ -= room.taken;
    room.taken = 0;
    largeBytes_ += bytes;
    room.large += bytes;
  }

  // Lets answers that wait for room look again.
  void wakeRoom() {
    if (roomWaiters_ > 0) room_.cancel();
  }

  // After the end of the stream: whether the client closed its socket
  // altogether (nobody will read a reply) rather than only its writing side.
  bool peerHungUp() {
    pollfd probe{socket_.native_handle(), POLLIN, 0};
    return ::poll(&probe, 1, 0) == 1 && (probe.revents & POLLHUP) != 0;
  }

  // Lets a read loop that waits for room look again.
  void wake() {
    if (waitingForRoom_) resume_.cancel();
  }

  // One recvmsg. >0: bytes taken; 0: end of stream; -1 with errno set, or
  // with errno 0 after a bad frame (the connection must close).
  ssize_t readOnce() {
    static thread_local std::array<char, 64 * 1024> buffer;
    alignas(cmsghdr) std::array<char, kPeerControlSpace> control;
    iovec io{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    if (state_->judgeSenders) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
    }
    const ssize_t n = ::recvmsg(socket_.native_handle(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0) return n;
    std::shared_ptr<PeerSocketIdentity> sender;
    // Descriptors a client passes are closed even on the last, empty read.
    if (state_->judgeSenders || message.msg_controllen > 0) {
      sender = PeerSocketIdentity::fromControl(message, pinned_);
      // Kept until the next read has its own: while one pidfd of a process
      // stays open the kernel hands out the next one cheaply, where closing
      // the last makes it build the next afresh (about 8 us per message).
      lastSender_ = sender;
    }
    if (n == 0) return 0;
    lastRead_ = lastActivity_ = Clock::now();
    if (!take(std::string_view(buffer.data(), static_cast<std::size_t>(n)), std::move(sender))) {
      errno = 0;
      return -1;
    }
    return n;
  }

  // Decodes the bytes of one read; false when they broke the stream.
  bool take(std::string_view bytes, std::shared_ptr<PeerSocketIdentity> sender) {
    const bool continuing = decoder_.pendingBytes() > 0;
    std::vector<std::string> payloads;
    try {
      payloads = decoder_.append(bytes);
    } catch (const FramingError&) {
      return false;
    }
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      PendingMessage pending;
      try {
        pending.envelope = Transport::decodeEnvelope(std::move(payloads[i]));
      } catch (const TransportError&) {
        return false;
      }
      if (!pending.envelope.expectsReply) continue;  // nobody waits: not worth running
      pending.sender = sender;
      // The first frame may have begun in an earlier read, maybe another
      // sender's: such a frame is nobody's.
      if (i == 0 && continuing && sender && carrySender_ && !carrySender_->sameSender(*sender)) {
        pending.sender = std::make_shared<PeerSocketIdentity>(0, -1);
      }
      pending_.push_back(std::move(pending));
    }
    if (decoder_.pendingBytes() == 0) {
      carrySender_.reset();
    } else if (payloads.empty() && continuing && carrySender_ && sender &&
               !carrySender_->sameSender(*sender)) {
      carrySender_ = std::make_shared<PeerSocketIdentity>(0, -1);
    } else if (payloads.empty() && continuing) {
      // the frame goes on with the sender it began with
    } else {
      carrySender_ = sender;
    }
    return true;
  }

  // Starts the requests taken, while fewer than maxInFlight run and their
  // answers fit the room (answerBytesFor).
  void dispatchPending() {
    while (!pending_.empty() && inFlight_ < state_->limits.maxInFlight && !closed_) {
      const std::size_t answerBytes = answerBytesFor(pending_.front());
      if (!hasRoomFor(answerBytes)) return;  // reading waits too: pending_ is not empty
      PendingMessage message = std::move(pending_.front());
      pending_.pop_front();
      DaemonPeerVerdict verdict =
          message.sender ? state_->gate.verdict(*message.sender) : state_->gate.verdict(nobody());
      ++inFlight_;
      takenBytes_ += answerBytes;
      asio::co_spawn(socket_.get_executor(),
                     answer(shared_from_this(), message.envelope.id,
                            std::move(message.envelope.body).value_or(std::string()),
                            std::move(verdict), answerBytes),
                     asio::detached);
    }
  }

  // What a request's answer is counted as from the moment it is taken until
  // it is made: a refusal may quote the request (each undeclared argument
  // named with its path and a sentence), so a few times its size. A large
  // answer that quotes nothing (a file's contents) asks for its own room.
  static std::size_t answerBytesFor(const PendingMessage& message) {
    constexpr std::size_t kQuoting = 6;
    constexpr std::size_t kAnswerBase = 4096;
    const auto& body = message.envelope.body;
    return kAnswerBase + kQuoting * (body ? body->size() : 0);
  }

  // A sender standing for "unknown", for a gate that never asks (when the
  // server reads no credentials, the gate is unprovisioned).
  static const PeerSocketIdentity& nobody() {
    static const PeerSocketIdentity none(0, -1);
    return none;
  }

  static asio::awaitable<void> answer(std::shared_ptr<PeerConnection> self, std::uint64_t id,
                                      std::string bytes, DaemonPeerVerdict verdict,
                                      std::size_t answerBytes) {
    AnswerRoom room(self, answerBytes);
    std::string response;
    try {
      auto handling = self->state_->core.handleEncoded(std::move(bytes), std::move(verdict),
                                                       self->clientGone_, &room);
      std::string handled = co_await std::move(handling);
      response = std::move(handled);
    } catch (const std::exception&) {
      // handleEncoded doesn't throw; an allocation failure answers nothing.
      self->release(room);
      --self->inFlight_;
      self->closeWhenDone();
      co_return;
    }
    self->release(room);
    self->reply(id, response);
  }

  // The answer is made: what it was counted as no longer counts (its reply,
  // once queued, counts for itself).
  void release(AnswerRoom& room) {
    takenBytes_ -= room.taken;
    largeBytes_ -= room.large;
    room.taken = room.large = 0;
    wakeRoom();
    wake();
  }

  void reply(std::uint64_t id, const std::string& response) {
    --inFlight_;
    if (closed_) return;
    const bool idle = outbox_.empty();
    outbox_.push_back(Transport::encodeReplyFrame(id, response));
    outboxBytes_ += outbox_.back().size();
    if (idle) lastWrite_ = Clock::now();
    if (idle) flush();
    wake();
  }

  // Writes what the socket takes now; waits for room for the rest.
  void flush() {
    while (!outbox_.empty() && !closed_) {
      std::string& front = outbox_.front();
      const ssize_t n = ::send(socket_.native_handle(), front.data() + sentOfFront_,
                               front.size() - sentOfFront_, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (!writeWaiting_) {
          writeWaiting_ = true;
          socket_.async_wait(Local::socket::wait_write,
                             [self = shared_from_this()](boost::system::error_code ec) {
                               self->writeWaiting_ = false;
                               if (!ec) self->flush();
                             });
        }
        return;
      }
      if (n < 0) {
        // The client has gone: its replies go nowhere.
        close();
        return;
      }
      lastWrite_ = lastActivity_ = Clock::now();
      sentOfFront_ += static_cast<std::size_t>(n);
      if (sentOfFront_ < front.size()) continue;
      outboxBytes_ -= front.size();
      sentOfFront_ = 0;
      outbox_.pop_front();
    }
    wake();
    wakeRoom();
    closeWhenDone();
  }

  void closeWhenDone() {
    if (readClosed_ && inFlight_ == 0 && outbox_.empty() && pending_.empty()) close();
  }

  Local::socket socket_;
  const uid_t uid_;
  const std::shared_ptr<ServerState> state_;
  const std::shared_ptr<const PinnedPeer> pinned_;  // the process that connected, when judged
  FrameDecoder decoder_;
  std::shared_ptr<PeerSocketIdentity> carrySender_;  // of the frame begun and not finished
  std::shared_ptr<PeerSocketIdentity> lastSender_;   // of the last read
  std::deque<PendingMessage> pending_;
  std::size_t inFlight_ = 0;
  int readsInARow_ = 0;  // reads that found bytes, since the read loop last waited
  std::deque<std::string> outbox_;
  std::size_t outboxBytes_ = 0;
  std::size_t takenBytes_ = 0;         // of answers being made, as counted when taken
  std::size_t largeBytes_ = 0;         // of large answers being made
  std::size_t waitingTakenBytes_ = 0;  // part of takenBytes_: of answers waiting for room
  std::size_t roomWaiters_ = 0;
  std::size_t sentOfFront_ = 0;
  bool writeWaiting_ = false;
  bool waitingForRoom_ = false;
  bool readClosed_ = false;
  bool closed_ = false;
  // Set once no reply can reach the client; long operations read it.
  std::shared_ptr<std::atomic<bool>> clientGone_ = std::make_shared<std::atomic<bool>>(false);
  asio::steady_timer resume_;  // wakes a read loop that waits for room
  asio::steady_timer room_;    // wakes answers that wait for room
  Clock::time_point lastActivity_;
  Clock::time_point lastRead_;
  Clock::time_point lastWrite_;
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

// Makes the missing directories of `dir`, each 0755 whatever the umask, and
// refuses a socket directory that someone else could change: not a
// directory, owned by another user than this process's or root, or
// writable by group or others.
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
  struct stat st {};
  if (::lstat(dir.c_str(), &st) != 0)
    throw cannotListen(path, "stat " + dir.string() + ": " + errnoText(errno));
  if (!S_ISDIR(st.st_mode)) throw cannotListen(path, dir.string() + " no es un directorio");
  if (st.st_uid != ::geteuid() && st.st_uid != 0) {
    throw cannotListen(
        path, dir.string() + " pertenece a otro usuario (uid " + std::to_string(st.st_uid) + ")");
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw cannotListen(path, dir.string() + " admite escritura de grupo u otros");
  }
}

// Removes a socket file nobody answers on. A live listener, or a file that
// is not a socket, is left alone and refused.
void replaceStaleSocket(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  if (!S_ISSOCK(st.st_mode)) throw cannotListen(path, "existe y no es un socket");
  Local::endpoint endpoint(path);
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool live = probe && ::connect(probe.get(), endpoint.data(), endpoint.size()) == 0;
  if (live) throw cannotListen(path, "otro proceso ya escucha ahí");
  ::unlink(path.c_str());
}

bool outOfDescriptors(const boost::system::error_code& ec) {
  const int e = ec.value();
  return e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM;
}

}  // namespace

struct DaemonXPCServer::Impl : std::enable_shared_from_this<DaemonXPCServer::Impl> {
  Impl(std::string name, DaemonCore core, DaemonPeerGate gate, asio::any_io_executor longOps,
       DaemonServerLimits limits, asio::any_io_executor loopExecutor)
      : machServiceName(std::move(name)),
        loop(std::move(loopExecutor)),
        state(std::make_shared<ServerState>(std::move(core), std::move(gate), limits)),
        acceptor(loop),
        sweeper(loop) {
    state->core.runLongOpsOn(std::move(longOps));
    state->judgeSenders = state->gate.teamIds.has_value();
  }

  void listen() {
    if (auto fd = activatedSocket()) {
      boost::system::error_code ec;
      acceptor.assign(Local(), *fd, ec);
      if (ec) throw cannotListen("LISTEN_FDS", ec.message());
      path = acceptor.local_endpoint(ec).path();
    } else {
      bindSocket();
    }
    if (state->judgeSenders) PeerSocketIdentity::passCredentials(acceptor.native_handle());
    boost::system::error_code ec;
    acceptor.non_blocking(true, ec);
  }

  void bindSocket() {
    path = socketPathForMachService(machServiceName);
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
      throw cannotListen(path, "ruta demasiado larga");
    }
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    if (!dir.empty()) makeSocketDirectory(dir, path);
    // Whoever may rename an entry of any directory above could swap ours.
    if (auto why = untrustedDirectory(dir, ::geteuid())) throw cannotListen(path, *why);
    replaceStaleSocket(path);
    boost::system::error_code ec;
    acceptor.open(Local(), ec);
    if (!ec) {
      // Born 0600: there is no moment at which another user could connect.
      const mode_t previous = ::umask(0177);
      acceptor.bind(Local::endpoint(path), ec);
      ::umask(previous);
    }
    if (ec) throw cannotListen(path, ec.message());
    struct stat st {};
    ::lstat(path.c_str(), &st);
    boundFile = std::make_pair(st.st_dev, st.st_ino);
    ::chmod(path.c_str(), 0600);
    acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw cannotListen(path, ec.message());
  }

  static asio::awaitable<void> acceptLoop(std::shared_ptr<Impl> self) {
    for (;;) {
      auto accepting = self->acceptor.async_accept(asio::as_tuple(asio::use_awaitable));
      std::tuple<boost::system::error_code, Local::socket> accepted = co_await std::move(accepting);
      if (!self->acceptor.is_open()) co_return;
      const boost::system::error_code& ec = std::get<0>(accepted);
      if (ec) {
        // Out of descriptors or memory: the listener goes on after a breath
        // rather than spinning; anything else (a client that gave up) at once.
        if (outOfDescriptors(ec)) {
          asio::steady_timer pause(self->acceptor.get_executor(), std::chrono::milliseconds(50));
          auto waiting = pause.async_wait(asio::as_tuple(asio::use_awaitable));
          std::tuple<boost::system::error_code> waited = co_await std::move(waiting);
          (void)waited;
        }
        continue;
      }
      self->admit(std::move(std::get<1>(accepted)));
    }
  }

  // Serves an accepted socket, or closes it at once when its user, or
  // everyone together, holds as many connections as allowed.
  void admit(Local::socket socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return;
    if (!state->hasRoomFor(peer.uid)) return;  // the socket closes as it goes out of scope
    boost::system::error_code ignored;
    socket.non_blocking(true, ignored);
    std::shared_ptr<const PinnedPeer> pinned;
    if (state->judgeSenders) pinned = PinnedPeer::of(socket.native_handle(), peer.pid);
    auto connection =
        std::make_shared<PeerConnection>(std::move(socket), peer.uid, state, std::move(pinned));
    std::erase_if(connections, [](const auto& weak) { return weak.expired(); });
    connections.push_back(connection);
    asio::co_spawn(loop, PeerConnection::readLoop(connection), asio::detached);
  }

  // Every so often: closes connections that stalled or idled past their
  // time, and hands freed memory back to the system.
  static asio::awaitable<void> sweepLoop(std::shared_ptr<Impl> self) {
    const auto& limits = self->state->limits;
    const auto period = std::max(std::chrono::milliseconds(10),
                                 std::min(limits.idleTimeout, limits.stallTimeout) / 4);
    for (;;) {
      self->sweeper.expires_after(period);
      auto waiting = self->sweeper.async_wait(asio::as_tuple(asio::use_awaitable));
      std::tuple<boost::system::error_code> waited = co_await std::move(waiting);
      if (std::get<0>(waited) || !self->acceptor.is_open()) co_return;
      const auto now = Clock::now();
      std::size_t closedNow = 0;
      for (const auto& weak : self->connections) {
        if (auto connection = weak.lock()) {
          connection->sweep(now);
          if (connection->closed()) ++closedNow;
        }
      }
      const std::size_t before = self->connections.size();
      std::erase_if(self->connections, [](const auto& weak) {
        auto c = weak.lock();
        return !c || c->closed();
      });
      if (before != self->connections.size() || closedNow > 0) ::malloc_trim(0);
    }
  }

  void stop() {
    asio::post(loop, asio::use_future([self = shared_from_this()] {
                 boost::system::error_code ignored;
                 self->acceptor.close(ignored);
                 self->sweeper.cancel();
                 for (const auto& weak : self->connections) {
                   if (auto connection = weak.lock()) connection->close();
                 }
                 self->connections.clear();
               }))
        .wait();
    removeSocketFile();
  }

  // Only the file this server bound: another daemon may have replaced it.
  void removeSocketFile() {
    if (!boundFile) return;
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && std::make_pair(st.st_dev, st.st_ino) == *boundFile) {
      ::unlink(path.c_str());
    }
    boundFile.reset();
  }

  const std::string machServiceName;
  // The loop itself is the server object's: a coroutine that ends on the
  // loop may drop the last Impl, and the loop can't join itself.
  const asio::any_io_executor loop;
  std::shared_ptr<ServerState> state;
  Local::acceptor acceptor;
  asio::steady_timer sweeper;
  std::string path;
  std::optional<std::pair<dev_t, ino_t>> boundFile;
  bool started = false;
  bool stopped = false;
  std::vector<std::weak_ptr<PeerConnection>> connections;  // on the loop
};

DaemonXPCServer::DaemonXPCServer(std::string machServiceName, DaemonCore core, DaemonPeerGate gate,
                                 asio::any_io_executor longOps, DaemonServerLimits limits,
                                 std::shared_ptr<DaemonEventLoop> loop)
    : loop_(loop ? std::move(loop) : std::make_shared<DaemonEventLoop>()),
      impl_(std::make_shared<Impl>(std::move(machServiceName), std::move(core), std::move(gate),
                                   std::move(longOps), limits, loop_->executor())) {}

DaemonXPCServer::~DaemonXPCServer() { stop(); }

void DaemonXPCServer::start() {
  if (impl_->started) return;
  impl_->listen();
  impl_->started = true;
  asio::co_spawn(impl_->loop, Impl::acceptLoop(impl_), asio::detached);
  asio::co_spawn(impl_->loop, Impl::sweepLoop(impl_), asio::detached);
}

void DaemonXPCServer::stop() {
  if (!impl_->started || impl_->stopped) return;
  impl_->stopped = true;
  impl_->stop();
}

std::string DaemonXPCServer::endpoint() const { return impl_->path; }

}  // namespace tarskel
