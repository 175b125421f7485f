#include "tarskel/daemon/InfoOp.hpp"

#include <unistd.h>

#include "tarskel/protocol/base/Version.hpp"

namespace tarskel {
namespace {

SchemaNode noArgumentsSchema() {
  SchemaNode root;
  root.type = SchemaType::object;
  root.properties = std::map<std::string, SchemaNode>{};
  root.additionalProperties = false;
  return root;
}

}  // namespace

InfoOp::InfoOp()
    : DaemonOp("daemon.info", noArgumentsSchema(), false),
      uid_(static_cast<std::int64_t>(::getuid())),
      pid_(static_cast<std::int64_t>(::getpid())) {}

boost::asio::awaitable<JSONValue> InfoOp::execute(const JSONObject& /*args*/,
                                                  const DaemonOpContext& context) const {
  JSONValue::Array ops(context.catalog.begin(), context.catalog.end());
  co_return JSONValue(JSONObject{
      {"daemonVersion", JSONValue(std::string(tarskelVersion))},
      {"protocolVersion", JSONValue(TarskelProtocolInfo::protocolVersion)},
      {"uid", JSONValue::integer(uid_)},
      {"pid", JSONValue::integer(pid_)},
      {"ops", JSONValue(std::move(ops))},
  });
}

}  // namespace tarskel
