#pragma once

// One operation of the daemon's closed catalogue, and what it is handed.
//
// An operation is an immutable value: its name, argument schema and grant
// rule are fixed when it is built. DaemonCore holds each one through a
// shared_ptr<const DaemonOp> and may run any number of executes of the same
// operation at once, on any worker thread; an operation with state of its own
// must serialise that state itself (GrantsSyncOp goes through GrantsStore).

#include <boost/asio/awaitable.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/WorkBudget.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

namespace tarskel {

// Who sent a request, as the peer gate judged it. Each case carries one text:
// the team identifier for `trusted`, the reason for the other two.
class DaemonPeerVerdict {
 public:
  enum class Kind { trusted, unverified, rejected };

  // The client's code signature passed the gate, signed by `team`.
  static DaemonPeerVerdict trusted(std::string team) { return {Kind::trusted, std::move(team)}; }
  // The gate has no list of teams, so nothing was checked.
  static DaemonPeerVerdict unverified(std::string reason) {
    return {Kind::unverified, std::move(reason)};
  }
  // The client has no usable identity or failed the check.
  static DaemonPeerVerdict rejected(std::string reason) {
    return {Kind::rejected, std::move(reason)};
  }

  Kind kind() const { return kind_; }
  // The team for `trusted`, the reason otherwise.
  const std::string& payload() const { return payload_; }

  // The caller text of the audit chain: "team:<team>", "unverified:<reason>"
  // or "rejected:<reason>", the payload as it stands.
  std::string callerText() const;

  friend bool operator==(const DaemonPeerVerdict&, const DaemonPeerVerdict&) = default;

 private:
  DaemonPeerVerdict(Kind kind, std::string payload) : kind_(kind), payload_(std::move(payload)) {}

  Kind kind_;
  std::string payload_;
};

// Room for the replies a client has not read yet, as the transport that
// carries the request counts it. An operation whose answer may be large (a
// file read answers up to about 1.4 MB) asks for room before it starts
// producing it, so that a client that never reads can't make the daemon hold
// one large answer per request it sends.
class ReplyRoom {
 public:
  virtual ~ReplyRoom() = default;
  // Resumes once the connection may hold `bytes` more of replies, and counts
  // them against it from then until the reply has been sent. Waits as long as
  // the client leaves earlier replies unread; resumes at once when the client
  // has gone (the operation's budget then says so). Room is always given when
  // the connection holds no reply at all, however large `bytes` is. May be
  // called from any thread; never throws but for allocation failure.
  virtual boost::asio::awaitable<void> reserve(std::size_t bytes) = 0;
};

// Handed to every execute.
struct DaemonOpContext {
  std::vector<std::string> catalog;  // every operation's name, ascending
  DaemonPeerVerdict peer;
  // For an operation that may take long: what it may spend (bytes read,
  // files, wall time), cancelled when the client that waits for it has gone.
  // The operation charges it as it works and lets its WorkAbandoned go out
  // as it is. Null for the short operations and where nobody set one.
  std::shared_ptr<WorkBudget> budget = nullptr;
  // The room of the connection that waits for the answer; null where no
  // transport counts replies. Lives until execute's awaitable completes.
  ReplyRoom* replies = nullptr;
};

// A failure that an operation words itself. It reaches the client as
// "<op> falló: <description>".
class DaemonOpError : public Error {
 public:
  explicit DaemonOpError(std::string description) : Error(std::move(description)) {}
};

class DaemonOp {
 public:
  virtual ~DaemonOp() = default;
  DaemonOp(const DaemonOp&) = delete;
  DaemonOp& operator=(const DaemonOp&) = delete;

  // What a request's `op` must equal.
  const std::string& name() const { return name_; }
  // What the arguments must satisfy; DaemonCore checks it before execute.
  const SchemaNode& argsSchema() const { return argsSchema_; }
  // Whether the calling service needs a grant for `name` in GrantsStore.
  bool requiresGrant() const { return requiresGrant_; }

  // Runs the operation on a worker thread. `args` has passed argsSchema.
  // May throw anything: DaemonOpError for failures the operation words
  // itself, other errors as they come. `args` and `context` are taken by
  // reference: the caller keeps them alive until the awaitable completes.
  virtual boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                                    const DaemonOpContext& context) const = 0;

 protected:
  DaemonOp(std::string name, SchemaNode argsSchema, bool requiresGrant)
      : name_(std::move(name)), argsSchema_(std::move(argsSchema)), requiresGrant_(requiresGrant) {}

 private:
  std::string name_;
  SchemaNode argsSchema_;
  bool requiresGrant_;
};

using DaemonOpPtr = std::shared_ptr<const DaemonOp>;

}  // namespace tarskel
