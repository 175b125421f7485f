// The JSON form of a service manifest and its records.

#include "tarskel/protocol/manifest/ServiceManifest.hpp"

#include <type_traits>

namespace tarskel {
namespace {

// The value under `key`, or `fallback` when the key is absent or null.
template <class T>
T orDefault(const KeyedDecoder& d, std::string_view key, T fallback) {
  std::optional<T> read = d.optional<T>(key);
  return read ? std::move(*read) : std::move(fallback);
}

}  // namespace

void ServiceDependency::encode(KeyedEncoder& e) const {
  e.required("service", service);
  e.required("version", version);
  e.required("optional", optional);
}

ServiceDependency ServiceDependency::decode(const KeyedDecoder& d) {
  return {d.required<std::string>("service"), d.required<std::string>("version"),
          orDefault(d, "optional", false)};
}

void Privileges::encode(KeyedEncoder& e) const { e.required("privilegedOps", privilegedOps); }

Privileges Privileges::decode(const KeyedDecoder& d) {
  return {orDefault<std::vector<std::string>>(d, "privilegedOps", {})};
}

void Activation::encode(KeyedEncoder& e) const {
  e.required("mode", mode);
  e.optional("idleStopMinutes", idleStopMinutes);
}

Activation Activation::decode(const KeyedDecoder& d) {
  return {orDefault(d, "mode", Mode::always), d.optional<std::int64_t>("idleStopMinutes")};
}

void ResourceBudget::encode(KeyedEncoder& e) const {
  e.optional("memoryMaxMB", memoryMaxMB);
  e.optional("cpuPercentMax", cpuPercentMax);
}

ResourceBudget ResourceBudget::decode(const KeyedDecoder& d) {
  return {d.optional<std::int64_t>("memoryMaxMB"), d.optional<std::int64_t>("cpuPercentMax")};
}

void EnergyPolicy::encode(KeyedEncoder& e) const { e.required("deferrable", deferrable); }

EnergyPolicy EnergyPolicy::decode(const KeyedDecoder& d) {
  return {d.required<bool>("deferrable")};
}

void ConfigMigration::encode(KeyedEncoder& e) const { e.required("from", from); }

ConfigMigration ConfigMigration::decode(const KeyedDecoder& d) {
  return {d.required<std::string>("from")};
}

void ToolDescriptor::encode(KeyedEncoder& e) const {
  e.required("name", name);
  e.required("description", description);
  e.required("inputSchema", inputSchema);
}

ToolDescriptor ToolDescriptor::decode(const KeyedDecoder& d) {
  return {d.required<std::string>("name"), d.required<std::string>("description"),
          d.required<SchemaNode>("inputSchema")};
}

void EventsDeclaration::encode(KeyedEncoder& e) const {
  e.required("publishes", publishes);
  e.required("subscribes", subscribes);
}

EventsDeclaration EventsDeclaration::decode(const KeyedDecoder& d) {
  return {orDefault<std::vector<std::string>>(d, "publishes", {}),
          orDefault<std::vector<std::string>>(d, "subscribes", {})};
}

void TrayItem::encode(KeyedEncoder& e) const {
  std::visit(
      [&e](const auto& c) {
        using Case = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<Case, Status>) {
          e.required("type", std::string("status"));
          e.required("bind", c.bind);
        } else if constexpr (std::is_same_v<Case, Action>) {
          e.required("type", std::string("action"));
          e.required("title", c.title);
          e.required("tool", c.tool);
          e.optional("args", c.args);
        } else {
          e.required("type", std::string("panel"));
          e.required("title", c.title);
          e.required("panel", c.panel);
        }
      },
      item);
}

TrayItem TrayItem::decode(const KeyedDecoder& d) {
  const std::string type = d.required<std::string>("type");
  if (type == "status") return {Status{d.required<std::string>("bind")}};
  if (type == "action") {
    return {Action{d.required<std::string>("title"), d.required<std::string>("tool"),
                   d.optional<JSONValue>("args")}};
  }
  if (type == "panel") {
    return {Panel{d.required<std::string>("title"), d.required<std::string>("panel")}};
  }
  coding_detail::dataCorrupted(CodingPath(d.path(), "type"),
                               "Tipo de tray item desconocido: " + type);
}

void TrayContribution::encode(KeyedEncoder& e) const {
  e.required("section", section);
  e.required("ownTrayIcon", ownTrayIcon);
}

TrayContribution TrayContribution::decode(const KeyedDecoder& d) {
  return {orDefault<std::vector<TrayItem>>(d, "section", {}), orDefault(d, "ownTrayIcon", false)};
}

void RestartPolicy::encode(KeyedEncoder& e) const {
  e.required("mode", mode);
  e.required("backoffSeconds", backoffSeconds);
  e.required("maxFailures", maxFailures);
  e.required("window", window);
}

RestartPolicy RestartPolicy::decode(const KeyedDecoder& d) {
  const RestartPolicy defaults;
  return {
      orDefault(d, "mode", defaults.mode), orDefault(d, "backoffSeconds", defaults.backoffSeconds),
      orDefault(d, "maxFailures", defaults.maxFailures), orDefault(d, "window", defaults.window)};
}

std::string ManifestValidationError::description() const {
  std::string text;
  text.reserve(path.size() + code.size() + message.size() + 5);
  text.append(path).append(": [").append(code).append("] ").append(message);
  return text;
}

void ServiceManifest::encode(KeyedEncoder& e) const {
  e.required("id", id);
  e.required("version", version);
  e.required("displayName", displayName);
  e.required("scope", scope);
  e.required("executables", executables);
  e.required("platformApi", platformApi);
  e.required("dependencies", dependencies);
  e.required("privileges", privileges);
  e.required("permissions", permissions);
  e.required("activation", activation);
  e.required("schedule", schedule);
  e.optional("resources", resources);
  e.optional("energy", energy);
  e.optional("configSchema", configSchema);
  e.required("migrations", migrations);
  e.required("tools", tools);
  e.required("toolAccess", toolAccess);
  e.required("events", events);
  e.optional("tray", tray);
  e.required("restartPolicy", restartPolicy);
}

ServiceManifest ServiceManifest::decode(const KeyedDecoder& d) {
  const ServiceManifest defaults;
  ServiceManifest m;
  m.id = d.required<std::string>("id");
  m.version = d.required<std::string>("version");
  m.displayName = d.required<std::string>("displayName");
  m.scope = orDefault(d, "scope", defaults.scope);
  m.executables = d.required<std::map<std::string, std::string>>("executables");
  m.platformApi = orDefault(d, "platformApi", defaults.platformApi);
  m.dependencies = orDefault(d, "dependencies", defaults.dependencies);
  m.privileges = orDefault(d, "privileges", defaults.privileges);
  m.permissions = orDefault(d, "permissions", defaults.permissions);
  m.activation = orDefault(d, "activation", defaults.activation);
  m.schedule = orDefault(d, "schedule", defaults.schedule);
  m.resources = d.optional<ResourceBudget>("resources");
  m.energy = d.optional<EnergyPolicy>("energy");
  m.configSchema = d.optional<SchemaNode>("configSchema");
  m.migrations = orDefault(d, "migrations", defaults.migrations);
  m.tools = orDefault(d, "tools", defaults.tools);
  m.toolAccess = orDefault(d, "toolAccess", defaults.toolAccess);
  m.events = orDefault(d, "events", defaults.events);
  m.tray = d.optional<TrayContribution>("tray");
  m.restartPolicy = orDefault(d, "restartPolicy", defaults.restartPolicy);
  return m;
}

}  // namespace tarskel
