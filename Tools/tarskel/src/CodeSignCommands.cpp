// tarskel codesign keygen|keys|check
//
// What signing code for the Linux gate needs. A code key is a vendor key
// whose keyId is a team identifier; ROOT/vendor/code-keys.json lists the
// machine's code keys in the allowlist's format, and a tree sealed with
// `tarskel vendor seal --key <code key>` signs every executable it lists for
// that team. `check` shows what the daemon's gate would make of a process
// or a file.

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "SigningKeys.hpp"
#include "ToolCommand.hpp"
#include "tarskel/codesign/CodeKeys.hpp"
#include "tarskel/codesign/CodeSignVerifier.hpp"
#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/codesign/TeamTrust.hpp"
#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDaemonRoot = "/Library/Application Support/Tarskel";

// The daemon's own words for a broken file, and nothing else.
Logger fileLogger() { return Logger("tarskel", LogLevel::critical); }

struct KeygenOptions {
  std::string team;
  std::string out;
};

struct KeysOptions {
  std::string root = kDaemonRoot;
  bool json = false;
};

struct CheckOptions {
  std::string target;
  std::string root = kDaemonRoot;
  bool json = false;
};

int keygen(const KeygenOptions& o) {
  makeSigningKey(o.team, "--team", o.out);
  return kExitSuccess;
}

int keys(const KeysOptions& o) {
  const fs::path file = fs::path(o.root) / CodeKeys::keysFile;
  const std::optional<TeamTrust> teams = TeamTrust::loadIfProvisioned(o.root, fileLogger());
  // A broken list is input that can't be used: say why, as the decoder does.
  const VendorAllowlist list =
      fs::exists(file) ? readJSONInput<VendorAllowlist>(file.string()) : VendorAllowlist{0, {}};
  const auto trusted = [&](const std::string& keyId) {
    return teams &&
           std::find(teams->teamIds.begin(), teams->teamIds.end(), keyId) != teams->teamIds.end();
  };
  if (o.json) {
    JSONValue::Array entries;
    for (const VendorKey& key : list.keys) {
      entries.emplace_back(JSONObject{{"keyId", JSONValue(key.keyId)},
                                      {"publicKey", JSONValue(key.publicKey)},
                                      {"trusted", JSONValue(trusted(key.keyId))}});
    }
    writeOutput(jsonLine(JSONObject{{"file", JSONValue(file.string())},
                                    {"revision", JSONValue::integer(list.revision)},
                                    {"provisioned", JSONValue(teams.has_value())},
                                    {"keys", JSONValue(std::move(entries))}}));
    return kExitSuccess;
  }
  std::string text = fmt::format("code keys: {} (revision {}, {} key(s))\n", file.string(),
                                 list.revision, list.keys.size());
  for (const VendorKey& key : list.keys) {
    text += fmt::format("  {}  {}  {}\n", key.keyId, key.publicKey,
                        trusted(key.keyId) ? "team trusted" : "team not in vendor/teams.json");
  }
  text += teams ? fmt::format("gate: provisioned, {} team(s)\n", teams->teamIds.size())
                : "gate: not provisioned (no vendor/teams.json): every client passes unverified\n";
  writeOutput(text);
  return kExitSuccess;
}

bool isProcessId(const std::string& text) {
  return !text.empty() && text.size() < 10 &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// The executable and what the Linux seal says of it; the Darwin adapters
// (on a Mac, or built against the simulator) know neither.
void sealedFacts([[maybe_unused]] const CodeObject& code,
                 [[maybe_unused]] const CodeSignPlatform& platform,
                 [[maybe_unused]] JSONObject& facts, [[maybe_unused]] std::string& text) {
#if !defined(__APPLE__) && !defined(TARSKEL_DARWIN_SIM)
  const std::string executable = LinuxCodeSignPlatform::executablePath(code);
  facts.set("executable", JSONValue(executable));
  text += "executable: " + executable + "\n";
  const auto* linuxPlatform = dynamic_cast<const LinuxCodeSignPlatform*>(&platform);
  if (auto sealed = linuxPlatform ? linuxPlatform->sealedIdentity(code) : std::nullopt) {
    facts.set("tree", JSONValue(sealed->treeRoot));
    facts.set("identifier", JSONValue(sealed->identifier));
    facts.set("team", JSONValue(sealed->team));
    text += fmt::format("tree: {}\nidentifier: {}\nteam: {}\n", sealed->treeRoot,
                        sealed->identifier, sealed->team);
  }
#endif
}

int check(const CheckOptions& o) {
  const std::shared_ptr<const CodeSignPlatform> platform =
      CodeSignPlatform::systemAnchoredAt(o.root, fileLogger());
  const std::optional<TeamTrust> teams = TeamTrust::loadIfProvisioned(o.root, fileLogger());
  // A process is named as the gate names its clients; a file by its path.
  const bool process = isProcessId(o.target);
  const std::string label = process ? "cliente xpc" : o.target;
  CodeResult code = process ? platform->guestCodeForPid(std::stoi(o.target))
                            : platform->staticCodeForPath(o.target);
  if (process && code.status == 0 && code.code) code = platform->staticCodeOf(*code.code);

  JSONObject facts{{"target", JSONValue(o.target)}};
  std::string text;
  std::variant<std::string, CodeSignError> verdict = std::string();
  if (code.status != 0 || !code.code) {
    verdict = CodeSignError::signatureInvalid(label, code.status);
  } else {
    verdict = CodeSignVerifier::judge(
        *code.code, label, teams ? teams->teamIds : std::vector<std::string>{}, *platform);
    sealedFacts(*code.code, *platform, facts, text);
  }
  std::string outcome;
  bool refused = false;
  if (!teams) {
    outcome = "unverified:gate SO sin provisionar (sin vendor/teams.json)";
  } else if (const auto* failure = std::get_if<CodeSignError>(&verdict)) {
    outcome = "rejected:" + failure->description();
    refused = true;
  } else {
    outcome = "team:" + std::get<std::string>(verdict);
  }
  facts.set("caller", JSONValue(outcome));
  writeOutput(o.json ? jsonLine(facts) : text + "caller: " + outcome + "\n");
  return refused ? kExitFailure : kExitSuccess;
}

}  // namespace

void installCodeSignCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* codesign =
      app.add_subcommand("codesign", "Code keys and the code identity of the daemon's gate");
  codesign->require_subcommand(1);

  auto k = std::make_shared<KeygenOptions>();
  CLI::App* keygenCommand = codesign->add_subcommand(
      "keygen", "Make a code key for a team; print its entry for vendor/code-keys.json");
  keygenCommand->add_option("--team", k->team, "The team the key signs for (its keyId)")
      ->required();
  keygenCommand->add_option("--out", k->out, "Key file to create (mode 0600; never overwritten)")
      ->type_name("FILE")
      ->required();
  bind(keygenCommand, ctx, k, keygen);

  auto l = std::make_shared<KeysOptions>();
  CLI::App* keysCommand = codesign->add_subcommand(
      "keys", "List the code keys under the daemon's root, and which teams it trusts");
  keysCommand->add_option("--root", l->root, "The daemon's state root");
  addJSONFlag(keysCommand, l->json);
  bind(keysCommand, ctx, l, keys);

  auto c = std::make_shared<CheckOptions>();
  CLI::App* checkCommand = codesign->add_subcommand(
      "check", "Show the identity the gate would see for a process or a file; exit 1 if refused");
  checkCommand->add_option("PID|PATH", c->target, "A process id, or an executable's path")
      ->required();
  checkCommand->add_option("--root", c->root, "The daemon's state root");
  addJSONFlag(checkCommand, c->json);
  bind(checkCommand, ctx, c, check);
}

}  // namespace tarskel::tool
