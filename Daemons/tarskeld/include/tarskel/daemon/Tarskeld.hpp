#pragma once

// The command of the executable `tarskeld`: two options, then run(), which
// lays out the state root, opens the stores, provisions what it can, brings
// up the listener and parks the main thread for the life of the process.
//
// What stops the daemon: a state directory that can't be made and an audit
// database that can't be opened or attached. What only reduces it, and never
// stops it: a failed seed, a missing team trust, a broken grants file.
//
// Log lines, in this order, all through one logger labelled "tarskeld":
//   at most one  "allowlist vendor de máquina sembrada desde la distribución"
//   exactly one  "gate XPC activo: <n> team(s) confiados"  (info) or
//                "gate XPC sin provisionar — clientes pasan como unverified"  (warning)
//   exactly one  "tarskeld v<version> sirviendo <machService>"
// Requests are never logged; their trace is the audit chain.
//
// Threads: parse and run belong to the main thread. run() never returns.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/Version.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

namespace tarskel {

struct Tarskeld {
  static constexpr std::string_view commandName = "tarskeld";
  static constexpr std::string_view abstract =
      "Tarskel — daemon de operaciones privilegiadas (catálogo cerrado)";
  static constexpr std::string_view version = tarskelVersion;
  static constexpr std::string_view defaultRoot = "/Library/Application Support/Tarskel";

  static constexpr std::string_view machServiceHelp =
      "Nombre del Mach service a escuchar (los e2e pasan uno efímero).";
  static constexpr std::string_view rootHelp =
      "Raíz de estado del daemon (los e2e pasan una efímera).";

  std::string machService{DaemonWire::machServiceName};
  std::string root{defaultRoot};

  // The process's entry point. Parses `argv`; answers --help, --version and
  // --generate-completion-script on standard output with status 0; prints a
  // parse error or an error of run() on standard error and returns a failure
  // status. On success run() never returns, so neither does this.
  static int main(int argc, char** argv);

  // Starts the daemon as configured and never returns. Throws when the state
  // directory or the audit database fails; nothing else stops it.
  [[noreturn]] void run() const;

  // `path` with a leading "~" or "~user" replaced by that home directory, as
  // the shell would; any other path, or an unknown user, as it stands.
  static std::string expandTilde(std::string_view path);

  // The state root as the daemon uses it: tilde expanded, made absolute
  // against the current directory, "." and ".." resolved, no trailing "/".
  static std::filesystem::path resolveRoot(std::string_view root);

  // A completion script for "bash", "zsh" or "fish" covering every option of
  // the command; nothing for another shell.
  static std::optional<std::string> completionScript(std::string_view shell);
};

}  // namespace tarskel
