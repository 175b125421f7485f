#pragma once

// The transport-free heart of tarskeld: takes a request and the gate's
// verdict on its sender, decides, runs the operation and answers.
//
// Every decoded request is decided in one fixed order (peer, catalogue,
// grant, arguments, execute) and leaves exactly one audit row with origin
// "xpc" and outcome "ok", "denied" or "error". Undecodable bytes get
// "malformedRequest" and leave no row.
//
// Threads and ownership. A DaemonCore is a small value: copies share the
// catalogue (fixed at construction) and the two stores. handle and
// handleEncoded may run any number of times at once on the worker pool; the
// core has no lock of its own and hops to AuditStore and GrantsStore for one
// call each. The core (the copy whose member is awaited) must outlive the
// awaitable; both stores must outlive every request in flight.

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/daemon/DaemonOp.hpp"
#include "tarskel/daemon/GrantsStore.hpp"
#include "tarskel/protocol/base/Version.hpp"
#include "tarskel/store/AuditStore.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace tarskel {

class DaemonCore {
 public:
  // The tree's one version (from the build), as "daemon.info" reports it.
  static constexpr std::string_view daemonVersion = tarskelVersion;

  using OpList = std::vector<DaemonOpPtr>;

  // With `ops` given, that list is the catalogue, whatever it holds (an empty
  // list gives an empty catalogue): how the daemon's builder, TarskeldDeps,
  // hands over its five. Without it the catalogue is the daemon's own
  // (builtInOperations): daemon.info,
  // daemon.grants.sync (on `grants`) and fs.readProtectedPath, then, only
  // when `rootURL` is present, platform.applyUpdate and
  // platform.uninstallMachine on it. So a core without a root has three
  // operations and one with a root all five. Reads the environment when it
  // builds them: construct it before other threads exist.
  //
  // Two operations with one name are a programming error: the process ends
  // with "Duplicate values for key: '<name>'" on standard error.
  DaemonCore(std::optional<OpList> ops, std::shared_ptr<AuditStore> audit,
             std::shared_ptr<GrantsStore> grants,
             const std::optional<std::filesystem::path>& rootURL = std::nullopt);

  // DaemonCatalog::operations on this process's files, environment and
  // executable. Defined with the catalogue, so that the core names no
  // operation.
  static OpList builtInOperations(const std::shared_ptr<GrantsStore>& grants,
                                  const std::optional<std::filesystem::path>& rootURL);

  // The operation names, ascending by byte order (= Unicode scalar order).
  std::vector<std::string> catalog() const;

  // The operation under `name`, or nullptr.
  DaemonOpPtr op(std::string_view name) const;

  // Decides one request and answers it; never throws. Writes one audit row.
  // `clientGone`, when given, is set by the transport once nobody waits for
  // the answer any more: a long operation then ends at its next charge with
  // "trabajo abandonado: el cliente se fue". `replies`, when given, is the
  // room of the client's connection, handed to the operation (see
  // DaemonOpContext); it must live until the awaitable completes.
  boost::asio::awaitable<DaemonResponse> handle(DaemonRequest request, DaemonPeerVerdict peer,
                                                std::shared_ptr<std::atomic<bool>> clientGone = {},
                                                ReplyRoom* replies = nullptr) const;

  // Decodes `bytes` as a DaemonRequest, handles it and returns the encoded
  // response. Unreadable bytes (a missing or non-object "args" included)
  // answer "malformedRequest" without an audit row and without looking at
  // the verdict. A response that can't be encoded (a non-finite number in a
  // result) is answered with "opFailed" saying so, and a text that is not
  // UTF-8 (a file name of a staged tree) has its bad bytes escaped, so every
  // request gets an answer that says what went wrong. Never throws.
  boost::asio::awaitable<std::string> handleEncoded(
      std::string bytes, DaemonPeerVerdict peer, std::shared_ptr<std::atomic<bool>> clientGone = {},
      ReplyRoom* replies = nullptr) const;

  // From now on, this copy runs every operation but the short ones on
  // `executor` and comes back for the audit row: an operation that may take
  // long (a file read, an update, an uninstall) then never holds up the
  // thread that handles requests. Without it, operations run where the
  // request is handled.
  void runLongOpsOn(boost::asio::any_io_executor executor) { longOps_ = std::move(executor); }

  // What each operation that may take long is given to spend (its
  // WorkBudget); the defaults of WorkLimits until set. Set it before the
  // copy is shared.
  void limitLongOps(WorkLimits limits) { workLimits_ = limits; }

  // The operations that never take long: "daemon.info" and
  // "daemon.grants.sync". Every refusal is short too: it runs no operation.
  static bool isShortOp(std::string_view name);

  const std::shared_ptr<AuditStore>& audit() const { return audit_; }
  const std::shared_ptr<GrantsStore>& grants() const { return grants_; }

 private:
  using OpMap = std::map<std::string, DaemonOpPtr, std::less<>>;

  boost::asio::awaitable<std::optional<DaemonWireError>> admit(const DaemonRequest& request,
                                                               const DaemonPeerVerdict& peer,
                                                               DaemonOpPtr& op) const;
  boost::asio::awaitable<DaemonResponse> run(const DaemonRequest& request,
                                             const DaemonPeerVerdict& peer, const DaemonOp& op,
                                             std::shared_ptr<std::atomic<bool>> clientGone,
                                             ReplyRoom* replies, std::string& outcome) const;

  std::shared_ptr<const OpMap> ops_;
  std::shared_ptr<AuditStore> audit_;
  std::shared_ptr<GrantsStore> grants_;
  std::optional<boost::asio::any_io_executor> longOps_;
  WorkLimits workLimits_;
};

}  // namespace tarskel
