#include "tarskel/daemon/Tarskeld.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "tarskel/daemon/TarskeldDeps.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/base/NearestWord.hpp"

namespace tarskel {
namespace {

constexpr std::string_view kCompletionHelp = "Print a completion script for bash, zsh or fish.";

// The exit statuses of both executables, tarskel's and tarskeld's alike.
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr std::string_view kExitStatusHelp =
    "Exit status: 0 ok (--help, --version), 1 the daemon could not start (the error names the "
    "file), 2 bad command line. Once serving, tarskeld runs until it is killed.";

// An empty value would put the state, or the socket, in the current directory.
std::string nonEmpty(const std::string& value) {
  return value.empty() ? std::string("must not be empty") : std::string();
}

// "unknown option '--rot'; did you mean '--root'?" for the first word the
// parser left over that looks like an option, or "" when there is none.
std::string unknownOptionText(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  for (const std::string& word : app.remaining()) {
    if (word.size() < 2 || word[0] != '-') continue;
    const std::string name = word.substr(0, word.find('='));
    const std::string nearest = nearestWord(name, names);
    return "unknown option '" + name + "'" +
           (nearest.empty() ? std::string() : "; did you mean '" + nearest + "'?");
  }
  return {};
}

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

// One daemon per root: two would each write the audit chain from their own
// idea of its head and fork it. An advisory lock on daemon/tarskeld.lock,
// taken before the audit store opens and held by this open file for the
// life of the process (the kernel lets go of it however the process ends).
// The file holds the owner's pid, for the message of the one refused.
class RootLock {
 public:
  explicit RootLock(const std::filesystem::path& stateDirectory) {
    const std::filesystem::path path = stateDirectory / "tarskeld.lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) {
      throw Error("cannot open the lock " + path.string() + ": " + std::strerror(errno));
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      int error = errno;
      std::string owner = ownerPid();
      ::close(fd_);
      if (error == EWOULDBLOCK) {
        throw Error("another tarskeld" + (owner.empty() ? "" : " (pid " + owner + ")") +
                    " already serves the root " + stateDirectory.parent_path().string() +
                    "; it holds " + path.string());
      }
      throw Error("cannot lock " + path.string() + ": " + std::strerror(error));
    }
    std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd_, 0) == 0) static_cast<void>(::pwrite(fd_, pid.data(), pid.size(), 0));
  }
  RootLock(const RootLock&) = delete;
  RootLock& operator=(const RootLock&) = delete;
  // Never runs in a serving daemon (run() does not return); closing lets go.
  ~RootLock() { ::close(fd_); }

 private:
  std::string ownerPid() const {
    char buffer[32] = {};
    ssize_t n = ::pread(fd_, buffer, sizeof buffer - 1, 0);
    std::string text(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text.find_first_not_of("0123456789") == std::string::npos ? text : std::string();
  }

  int fd_ = -1;
};

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

std::filesystem::path Tarskeld::resolveRoot(std::string_view root) {
  std::filesystem::path path = std::filesystem::absolute(expandTilde(root)).lexically_normal();
  // "/srv/state/" names the same directory as "/srv/state"; clients see one spelling.
  if (path.has_relative_path() && path.filename().empty()) path = path.parent_path();
  return path;
}

void Tarskeld::run() const {
  Logger logger{std::string(commandName)};
  const std::filesystem::path rootURL = resolveRoot(root);

  // The lock lives beside the audit chain, so the state directory comes
  // first; create() finds it made.
  RootLock lock(TarskeldDeps::makeStateDirectory(rootURL));

  TarskeldDeps::Seams seams = TarskeldDeps::Seams::ofProcess();
  // Held by this frame, which never ends: the listener's handlers and the
  // tasks on the pool reach the stores through it.
  std::unique_ptr<TarskeldDeps> deps;
  try {
    deps = TarskeldDeps::create(rootURL, machService, logger, std::move(seams));
  } catch (const SQLiteDatabase::DBError& e) {
    // The store's text does not say which file it was about.
    throw std::runtime_error((rootURL / "daemon" / "audit.db").string() + ": " + e.what());
  }

  logger.info("tarskeld v" + std::string(version) + " sirviendo " + machService);

  // The process lives in the listener's handlers from here on. No signal
  // handler: SIGTERM's default action is how the daemon stops.
  for (;;) pause();
}

int Tarskeld::main(int argc, char** argv) {
  Tarskeld command;
  std::string shell;

  CLI::App app{std::string(abstract), std::string(commandName)};
  app.add_option("--mach-service", command.machService, std::string(machServiceHelp))
      ->capture_default_str()
      ->check(nonEmpty);
  app.add_option("--root", command.root, std::string(rootHelp))
      ->capture_default_str()
      ->check(nonEmpty);
  app.set_version_flag("--version", std::string(version));
  app.footer(std::string(kExitStatusHelp));
  app.add_option("--generate-completion-script", shell, std::string(kCompletionHelp))
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (const std::string unknown = unknownOptionText(app); !unknown.empty()) {
      std::cerr << commandName << ": " << unknown << "\nRun with --help for more information.\n";
      return kExitUsage;
    }
    const int status = app.exit(e);
    return status == 0 ? 0 : kExitUsage;
  }

  if (!shell.empty()) {
    std::cout << *completionScript(shell) << std::flush;
    return EXIT_SUCCESS;
  }

  try {
    command.run();
  } catch (const std::exception& e) {
    std::cerr << "tarskeld: error: " << e.what() << std::endl;
  }
  return kExitFailed;
}

}  // namespace tarskel
