#include "tarskel/daemon/Tarskeld.hpp"

#include <pwd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "tarskel/daemon/TarskeldDeps.hpp"
#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel {
namespace {

constexpr std::string_view kCompletionHelp =
    "Imprime un script de completado de opciones para bash, zsh o fish.";

std::optional<std::string> homeOf(std::string_view user) {
  if (user.empty()) {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
    if (const passwd* entry = getpwuid(getuid()); entry != nullptr) return entry->pw_dir;
    return std::nullopt;
  }
  const passwd* entry = getpwnam(std::string(user).c_str());
  if (entry == nullptr) return std::nullopt;
  return entry->pw_dir;
}

}  // namespace

std::string Tarskeld::expandTilde(std::string_view path) {
  if (path.empty() || path.front() != '~') return std::string(path);
  std::size_t slash = path.find('/');
  std::string_view user = path.substr(1, slash == std::string_view::npos ? path.npos : slash - 1);
  std::optional<std::string> home = homeOf(user);
  if (!home) return std::string(path);
  std::string rest(slash == std::string_view::npos ? std::string_view() : path.substr(slash));
  // "~/" on a home of "/" must not become "//".
  if (!home->empty() && home->back() == '/' && !rest.empty()) home->pop_back();
  return *home + rest;
}

void Tarskeld::run(std::shared_ptr<const CodeSignPlatform> gatePlatform) const {
  Logger logger{std::string(commandName)};
  std::filesystem::path rootURL = expandTilde(root);

  TarskeldDeps::Seams seams = TarskeldDeps::Seams::ofProcess(std::move(gatePlatform));
  // Held by this frame, which never ends: the listener's handlers and the
  // tasks on the pool reach the stores through it.
  std::unique_ptr<TarskeldDeps> deps =
      TarskeldDeps::create(rootURL, machService, logger, std::move(seams));

  logger.info("tarskeld v" + std::string(version) + " sirviendo " + machService);

  // The process lives in the listener's handlers from here on. No signal
  // handler: SIGTERM's default action is how the daemon stops.
  for (;;) pause();
}

int Tarskeld::main(int argc, char** argv, std::shared_ptr<const CodeSignPlatform> gatePlatform) {
  Tarskeld command;
  std::string shell;

  CLI::App app{std::string(abstract), std::string(commandName)};
  app.add_option("--mach-service", command.machService, std::string(machServiceHelp))
      ->capture_default_str();
  app.add_option("--root", command.root, std::string(rootHelp))->capture_default_str();
  app.set_version_flag("--version", std::string(version));
  app.add_option("--generate-completion-script", shell, std::string(kCompletionHelp))
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }

  if (!shell.empty()) {
    std::cout << *completionScript(shell) << std::flush;
    return EXIT_SUCCESS;
  }

  try {
    command.run(std::move(gatePlatform));
  } catch (const std::exception& e) {
    std::cerr << "Error: " << e.what() << std::endl;
  }
  return EXIT_FAILURE;
}

}  // namespace tarskel
