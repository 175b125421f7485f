#include "tarskel/daemon/DaemonCore.hpp"

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

#include "RandomUUID.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

using boost::asio::awaitable;
using Clock = std::chrono::steady_clock;

constexpr const char* kOrigin = "xpc";

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

[[noreturn]] void duplicateName(const std::string& name) {
  std::string message = "Duplicate values for key: '" + name + "'\n";
  std::fputs(message.c_str(), stderr);
  std::fflush(stderr);
  std::abort();
}

std::string callerText(const DaemonRequest& request, const DaemonPeerVerdict& peer) {
  std::string caller = peer.callerText();
  if (request.serviceId) caller += " svc:" + *request.serviceId;
  return caller;
}

// A text for the wire: JSON carries only UTF-8, and a failure may quote a
// file name that is not (a staged tree's), so its bad bytes are escaped.
std::string wireText(std::string text) {
  return isValidUTF8(text) ? std::move(text) : escapedBytes(text);
}

// The first violations, and how many more there are: a request made of
// thousands of undeclared one-letter keys would otherwise be answered with a
// text several times its own size. No honest request comes near the cut.
std::vector<std::string> descriptions(const std::vector<SchemaViolation>& violations) {
  constexpr std::size_t kListed = 64;
  std::vector<std::string> out;
  out.reserve(std::min(violations.size(), kListed + 1));
  for (const SchemaViolation& v : violations) {
    if (out.size() == kListed) {
      out.push_back("… (" + std::to_string(violations.size() - kListed) + " más)");
      break;
    }
    out.push_back(v.description());
  }
  return out;
}

}  // namespace

DaemonCore::DaemonCore(std::optional<OpList> ops, std::shared_ptr<AuditStore> audit,
                       std::shared_ptr<GrantsStore> grants,
                       const std::optional<std::filesystem::path>& rootURL)
    : audit_(std::move(audit)), grants_(std::move(grants)) {
  OpList list = ops ? std::move(*ops) : builtInOperations(grants_, rootURL);
  auto map = std::make_shared<OpMap>();
  for (DaemonOpPtr& op : list) {
    std::string name = op->name();
    if (!map->emplace(name, std::move(op)).second) duplicateName(name);
  }
  ops_ = std::move(map);
}

std::vector<std::string> DaemonCore::catalog() const {
  // std::map keeps its keys in byte order already.
  std::vector<std::string> names;
  names.reserve(ops_->size());
  for (const auto& entry : *ops_) names.push_back(entry.first);
  return names;
}

bool DaemonCore::isShortOp(std::string_view name) {
  return name == "daemon.info" || name == "daemon.grants.sync";
}

DaemonOpPtr DaemonCore::op(std::string_view name) const {
  auto it = ops_->find(name);
  return it == ops_->end() ? nullptr : it->second;
}

// The checks before execute, in their fixed order. Nothing when the request
// may run, with `op` set; the denial otherwise.
awaitable<std::optional<DaemonWireError>> DaemonCore::admit(const DaemonRequest& request,
                                                            const DaemonPeerVerdict& peer,
                                                            DaemonOpPtr& op) const {
  if (peer.kind() == DaemonPeerVerdict::Kind::rejected) {
    co_return DaemonWireError::unauthorizedClient(peer.payload());
  }
  op = this->op(request.op);
  if (!op) co_return DaemonWireError::unknownOp(request.op);
  if (op->requiresGrant()) {
    if (!request.serviceId) co_return DaemonWireError::notGranted(request.op, std::nullopt);
    bool granted = co_await grants_->isGranted(request.op, *request.serviceId);
    if (!granted) co_return DaemonWireError::notGranted(request.op, request.serviceId);
  }
  auto violations = op->argsSchema().validate(JSONValue(request.args), "$");
  if (!violations.empty()) co_return DaemonWireError::invalidArgs(descriptions(violations));
  co_return std::nullopt;
}

awaitable<DaemonResponse> DaemonCore::run(const DaemonRequest& request,
                                          const DaemonPeerVerdict& peer, const DaemonOp& op,
                                          std::shared_ptr<std::atomic<bool>> clientGone,
                                          ReplyRoom* replies, std::string& outcome) const {
  DaemonOpContext context{catalog(), peer};
  context.replies = replies;
  if (!isShortOp(op.name())) {
    context.budget = std::make_shared<WorkBudget>(workLimits_, std::move(clientGone));
  }
  std::string failure;
  try {
    JSONValue result;
    if (longOps_ && !isShortOp(op.name())) {
      auto elsewhere = boost::asio::co_spawn(*longOps_, op.execute(request.args, context),
                                             boost::asio::use_awaitable);
      JSONValue ran = co_await std::move(elsewhere);
      result = std::move(ran);
    } else {
      JSONValue ran = co_await op.execute(request.args, context);
      result = std::move(ran);
    }
    outcome = "ok";
    co_return DaemonResponse::success(std::move(result));
  } catch (const std::exception& e) {
    // DaemonOpError and every tarskel::Error print as their description.
    failure = e.what();
  } catch (...) {
    failure = "error desconocido";
  }
  outcome = "error";
  co_return DaemonResponse::failure(DaemonWireError::opFailed(request.op, wireText(failure)));
}

awaitable<DaemonResponse> DaemonCore::handle(DaemonRequest request, DaemonPeerVerdict peer,
                                             std::shared_ptr<std::atomic<bool>> clientGone,
                                             ReplyRoom* replies) const {
  const Clock::time_point start = Clock::now();
  std::string caller = callerText(request, peer);
  std::string correlationId = request.correlationId ? *request.correlationId : randomUUIDString();

  DaemonOpPtr op;
  std::optional<DaemonWireError> denial = co_await admit(request, peer, op);
  std::string outcome = "denied";
  DaemonResponse response;
  if (denial) {
    response = DaemonResponse::failure(std::move(*denial));
  } else {
    DaemonResponse ran = co_await run(request, peer, *op, std::move(clientGone), replies, outcome);
    response = std::move(ran);
  }
  const double durationMs = millisecondsSince(start);
  std::string hash =
      co_await audit_->record(std::move(caller), request.op, kOrigin, std::move(outcome),
                              durationMs, std::move(correlationId));
  static_cast<void>(hash);  // the row's hash is the chain's business, not the client's
  co_return response;
}

awaitable<std::string> DaemonCore::handleEncoded(std::string bytes, DaemonPeerVerdict peer,
                                                 std::shared_ptr<std::atomic<bool>> clientGone,
                                                 ReplyRoom* replies) const {
  std::optional<DaemonRequest> request;
  std::string unreadable;
  try {
    request = TarskelJSON::decoder().decode<DaemonRequest>(bytes);
  } catch (const std::exception& e) {
    unreadable = e.what();
  }

  DaemonResponse response;
  std::string opName;
  if (request) {
    opName = request->op;
    DaemonResponse handled =
        co_await handle(std::move(*request), std::move(peer), std::move(clientGone), replies);
    response = std::move(handled);
  } else {
    response = DaemonResponse::failure(
        DaemonWireError::malformedRequest(wireText("request ilegible: " + unreadable)));
  }

  try {
    co_return TarskelJSON::encoder().encode(response);
  } catch (const std::exception& e) {
    // A result the encoder can't write (a non-finite number): the caller
    // still learns that, and why, rather than getting no bytes.
    co_return TarskelJSON::encoder().encode(DaemonResponse::failure(DaemonWireError::opFailed(
        wireText(opName),
        wireText("la respuesta no se pudo codificar: " + std::string(e.what())))));
  }
}

}  // namespace tarskel
