#pragma once

// The declaration a service ships with, as it travels in JSON.
//
// Reading is tolerant: only `id`, `version`, `displayName` and `executables`
// (and the required keys of a record that is present) must be there; every
// other field takes its default, field by field, inside a present record too.
// A null counts as absent. Unknown keys are ignored. A value of the wrong
// type, an unknown spelling of an enumeration or an unknown tray item type
// fails the whole manifest with a DecodingError naming the key path.
//
// Writing is complete: every field with a default is written, so a manifest
// read and written back gains its defaults. Only `resources`, `energy`,
// `configSchema`, `tray`, `Activation::idleStopMinutes`, the two fields of
// ResourceBudget and `TrayItem::Action::args` are left out when they hold
// nothing.
//
// Strings stay strings: `version`, `platformApi` and the constraints are kept
// as read; only validate() parses them. Plain values, safe to read from any
// thread.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tarskel/protocol/json/JSONCoding.hpp"
#include "tarskel/protocol/json/JSONValue.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

namespace tarskel {

// Whether a service runs for one user or for the machine.
enum class ServiceScope { user, machine };

template <>
struct JSONEnum<ServiceScope> {
  static constexpr std::array<std::pair<ServiceScope, std::string_view>, 2> cases{{
      {ServiceScope::user, "user"},
      {ServiceScope::machine, "machine"},
  }};
};

struct ServiceDependency {
  std::string service;  // id of the other service
  std::string version;  // a version constraint, as text
  bool optional = false;

  void encode(KeyedEncoder& e) const;
  static ServiceDependency decode(const KeyedDecoder& d);
  friend bool operator==(const ServiceDependency&, const ServiceDependency&) = default;
};

struct Privileges {
  std::vector<std::string> privilegedOps;  // daemon operations it asks to call

  void encode(KeyedEncoder& e) const;
  static Privileges decode(const KeyedDecoder& d);
  friend bool operator==(const Privileges&, const Privileges&) = default;
};

struct Activation {
  enum class Mode { always, onDemand };

  Mode mode = Mode::always;
  std::optional<std::int64_t> idleStopMinutes;  // meaningful for onDemand only

  void encode(KeyedEncoder& e) const;
  static Activation decode(const KeyedDecoder& d);
  friend bool operator==(const Activation&, const Activation&) = default;
};

template <>
struct JSONEnum<Activation::Mode> {
  static constexpr std::array<std::pair<Activation::Mode, std::string_view>, 2> cases{{
      {Activation::Mode::always, "always"},
      {Activation::Mode::onDemand, "on-demand"},
  }};
};

struct ResourceBudget {
  std::optional<std::int64_t> memoryMaxMB;
  std::optional<std::int64_t> cpuPercentMax;

  void encode(KeyedEncoder& e) const;
  static ResourceBudget decode(const KeyedDecoder& d);
  friend bool operator==(const ResourceBudget&, const ResourceBudget&) = default;
};

struct EnergyPolicy {
  bool deferrable = false;  // required once the record is there

  void encode(KeyedEncoder& e) const;
  static EnergyPolicy decode(const KeyedDecoder& d);
  friend bool operator==(const EnergyPolicy&, const EnergyPolicy&) = default;
};

struct ConfigMigration {
  std::string from;  // a version constraint, as text

  void encode(KeyedEncoder& e) const;
  static ConfigMigration decode(const KeyedDecoder& d);
  friend bool operator==(const ConfigMigration&, const ConfigMigration&) = default;
};

struct ToolDescriptor {
  std::string name;
  std::string description;
  SchemaNode inputSchema;

  void encode(KeyedEncoder& e) const;
  static ToolDescriptor decode(const KeyedDecoder& d);
  friend bool operator==(const ToolDescriptor&, const ToolDescriptor&) = default;
};

struct EventsDeclaration {
  std::vector<std::string> publishes;
  std::vector<std::string> subscribes;

  void encode(KeyedEncoder& e) const;
  static EventsDeclaration decode(const KeyedDecoder& d);
  friend bool operator==(const EventsDeclaration&, const EventsDeclaration&) = default;
};

// One entry of a service's tray section, told apart in JSON by "type":
//   {"type":"status","bind":…}
//   {"type":"action","title":…,"tool":…[,"args":…]}
//   {"type":"panel","title":…,"panel":…}
// Keys that don't belong to the case are ignored. Any other "type" fails
// with dataCorrupted at "type": "Tipo de tray item desconocido: <type>".
struct TrayItem {
  struct Status {
    std::string bind;
    friend bool operator==(const Status&, const Status&) = default;
  };
  struct Action {
    std::string title;
    std::string tool;
    std::optional<JSONValue> args;
    friend bool operator==(const Action&, const Action&) = default;
  };
  struct Panel {
    std::string title;
    std::string panel;
    friend bool operator==(const Panel&, const Panel&) = default;
  };

  std::variant<Status, Action, Panel> item;

  void encode(KeyedEncoder& e) const;
  static TrayItem decode(const KeyedDecoder& d);
  friend bool operator==(const TrayItem&, const TrayItem&) = default;
};

struct TrayContribution {
  std::vector<TrayItem> section;
  bool ownTrayIcon = false;

  void encode(KeyedEncoder& e) const;
  static TrayContribution decode(const KeyedDecoder& d);
  friend bool operator==(const TrayContribution&, const TrayContribution&) = default;
};

struct RestartPolicy {
  enum class Mode { always, onFailure, never };

  Mode mode = Mode::always;
  std::vector<std::int64_t> backoffSeconds{1, 5, 30, 120};
  std::int64_t maxFailures = 5;  // counted within `window`
  std::int64_t window = 600;

  void encode(KeyedEncoder& e) const;
  static RestartPolicy decode(const KeyedDecoder& d);
  friend bool operator==(const RestartPolicy&, const RestartPolicy&) = default;
};

template <>
struct JSONEnum<RestartPolicy::Mode> {
  static constexpr std::array<std::pair<RestartPolicy::Mode, std::string_view>, 3> cases{{
      {RestartPolicy::Mode::always, "always"},
      {RestartPolicy::Mode::onFailure, "on-failure"},
      {RestartPolicy::Mode::never, "never"},
  }};
};

// One fault of a manifest: a stable rule code ("tool.badName"), where it
// stands ("tools[3].name") and the message for people.
struct ManifestValidationError {
  std::string code;
  std::string path;
  std::string message;

  // "<path>: [<code>] <message>"
  std::string description() const;

  friend bool operator==(const ManifestValidationError&, const ManifestValidationError&) = default;
};

struct ServiceManifest {
  std::string id;  // reverse-DNS
  std::string version;
  std::string displayName;
  ServiceScope scope = ServiceScope::user;
  std::map<std::string, std::string> executables;  // "<os>-<arch>" to a path inside the bundle
  std::string platformApi = "1.x";
  std::vector<ServiceDependency> dependencies;
  Privileges privileges;
  std::map<std::string, std::vector<std::string>> permissions;  // kept as read
  Activation activation;
  std::vector<std::string> schedule;  // "daily@HH:MM"
  std::optional<ResourceBudget> resources;
  std::optional<EnergyPolicy> energy;
  std::optional<SchemaNode> configSchema;
  std::vector<ConfigMigration> migrations;
  std::vector<ToolDescriptor> tools;
  std::vector<std::string> toolAccess;  // "<serviceId>/<tool>" or "<serviceId>/*"
  EventsDeclaration events;
  std::optional<TrayContribution> tray;
  RestartPolicy restartPolicy;

  // Every fault of the manifest, rule by rule in a fixed order, none
  // stopping the others; empty when it is valid. Pure: touches no file and
  // knows no other manifest. Never throws; any thread may call it.
  std::vector<ManifestValidationError> validate() const;

  void encode(KeyedEncoder& e) const;
  static ServiceManifest decode(const KeyedDecoder& d);
  friend bool operator==(const ServiceManifest&, const ServiceManifest&) = default;
};

}  // namespace tarskel
