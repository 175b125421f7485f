#include "tarskel/daemon/GrantsSyncOp.hpp"

#include <utility>

namespace tarskel {
namespace {

SchemaNode grantsSyncSchema() {
  SchemaNode grants;
  grants.type = SchemaType::object;
  SchemaNode root;
  root.type = SchemaType::object;
  root.properties = std::map<std::string, SchemaNode>{{"grants", grants}};
  root.required = std::vector<std::string>{"grants"};
  root.additionalProperties = false;
  return root;
}

// Only the strings of each list count; anything else in it is dropped.
GrantsStore::Grants grantsFrom(const JSONObject& args) {
  const JSONValue* value = args.find("grants");
  const JSONObject* object = value != nullptr ? value->objectValue() : nullptr;
  if (object == nullptr) throw DaemonOpError("grants no es objeto");
  GrantsStore::Grants grants;
  for (const auto& [service, list] : *object) {
    const JSONValue::Array* array = list.arrayValue();
    if (array == nullptr) {
      throw DaemonOpError("concesiones de " + service + ": se esperaba array de strings");
    }
    std::vector<std::string>& ops = grants[service];
    for (const JSONValue& element : *array) {
      if (const std::string* op = element.stringValue()) ops.push_back(*op);
    }
  }
  return grants;
}

}  // namespace

GrantsSyncOp::GrantsSyncOp(std::shared_ptr<GrantsStore> store)
    : DaemonOp("daemon.grants.sync", grantsSyncSchema(), false), store_(std::move(store)) {}

boost::asio::awaitable<JSONValue> GrantsSyncOp::execute(const JSONObject& args,
                                                        const DaemonOpContext& /*context*/) const {
  GrantsStore::Grants grants = grantsFrom(args);
  const auto services = static_cast<std::int64_t>(grants.size());
  co_await store_->replace(std::move(grants));
  co_return JSONValue(JSONObject{{"services", JSONValue::integer(services)}});
}

}  // namespace tarskel
