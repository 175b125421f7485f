// tarskel manifest lint|show|verify-executables
//
// Service manifests for people: the faults of each manifest, the manifest as
// the model writes it with every default filled in, and the operating-system
// gate over the executables it declares.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/codesign/CodeSignVerifier.hpp"
#include "tarskel/codesign/TeamTrust.hpp"
#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"

namespace tarskel::tool {
namespace {

// Where tarskeld keeps its state unless told otherwise.
constexpr const char* kDaemonRoot = TARSKEL_STATE_ROOT;  // the installed daemon's

std::string displayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

// The whole file, or standard input for "-". An input that can't be read is
// unusable (exit 2), named with the reason.
std::string readBytes(const std::string& path) {
  if (path == "-") {
    std::string content((std::istreambuf_iterator<char>(std::cin)),
                        std::istreambuf_iterator<char>());
    if (std::cin.bad()) throw ToolFailure(kExitUsage, "cannot read <stdin>");
    return content;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw ToolFailure(kExitUsage, "cannot read " + path + ": " + std::strerror(errno));
  std::string content;
  struct stat info {};
  int error = ::fstat(fd, &info) != 0 ? errno : (S_ISDIR(info.st_mode) ? EISDIR : 0);
  std::array<char, 65536> buffer{};
  while (error == 0) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n > 0) {
      content.append(buffer.data(), static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  ::close(fd);
  if (error != 0)
    throw ToolFailure(kExitUsage, "cannot read " + path + ": " + std::strerror(error));
  return content;
}

ServiceManifest readManifest(const std::string& path) {
  const std::string bytes = readBytes(path);
  try {
    return TarskelJSON::decoder().decode<ServiceManifest>(bytes);
  } catch (const DecodingError& e) {
    throw ToolFailure(kExitUsage, displayName(path) + ": " + e.what());
  }
}

// Writes to standard output and makes sure it got there.
void emit(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    throw ToolFailure(kExitUsage,
                      std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

struct LintOptions {
  std::vector<std::string> files;
  bool json = false;
};

// {"file":…,"valid":…,"errors":[{"code":…,"path":…,"message":…}]} and, for
// a file that can't be read or parsed, "error" with the reason.
std::string lintLine(const std::string& file, const std::vector<ManifestValidationError>& errors,
                     const std::optional<std::string>& failure) {
  std::string line = "{\"file\":";
  appendJSONString(line, file);
  line.append(",\"valid\":")
      .append(!failure && errors.empty() ? "true" : "false")
      .append(",\"errors\":[");
  for (std::size_t i = 0; i < errors.size(); ++i) {
    line.append(i == 0 ? "{\"code\":" : ",{\"code\":");
    appendJSONString(line, errors[i].code);
    line.append(",\"path\":");
    appendJSONString(line, errors[i].path);
    line.append(",\"message\":");
    appendJSONString(line, errors[i].message);
    line.append("}");
  }
  line.append("]");
  if (failure) {
    line.append(",\"error\":");
    appendJSONString(line, *failure);
  }
  return jsonForPeople(line, false) + "}\n";
}

int runLint(const LintOptions& options) {
  int exitCode = kExitSuccess;
  for (const std::string& path : options.files) {
    const std::string name = displayName(path);
    std::vector<ManifestValidationError> errors;
    std::optional<std::string> failure;
    try {
      errors = readManifest(path).validate();
    } catch (const ToolFailure& f) {
      failure = f.what();
      std::cerr << "tarskel: " << f.what() << "\n";
    }
    exitCode = std::max(exitCode, failure          ? int(kExitUsage)
                                  : errors.empty() ? int(kExitSuccess)
                                                   : int(kExitFinding));
    if (options.json) {
      emit(lintLine(name, errors, failure));
    } else {
      std::string text;
      for (const ManifestValidationError& e : errors)
        text.append(name).append(": ").append(e.description()).append("\n");
      emit(text);
    }
  }
  return exitCode;
}

struct ShowOptions {
  std::string file;
  bool compact = false;
};

int runShow(const ShowOptions& options) {
  const std::string compact = TarskelJSON::encoder().encode(readManifest(options.file));
  emit(jsonForPeople(compact, !options.compact) + "\n");
  return kExitSuccess;
}

// The shape of a teams file, as provisioning lays down vendor/teams.json.
struct TeamsFile {
  std::int64_t revision = 0;
  std::vector<std::string> teamIds;

  void encode(KeyedEncoder& e) const {
    e.required("revision", revision);
    e.required("teamIds", teamIds);
  }
  static TeamsFile decode(const KeyedDecoder& d) {
    return {d.required<std::int64_t>("revision"), d.required<std::vector<std::string>>("teamIds")};
  }
};

struct VerifyOptions {
  std::string bundle;
  std::string manifest;
  std::string teams;
  std::string root = kDaemonRoot;
};

std::vector<std::string> allowedTeams(const VerifyOptions& options) {
  if (!options.teams.empty()) {
    const std::string bytes = readBytes(options.teams);
    try {
      return TarskelJSON::decoder().decode<TeamsFile>(bytes).teamIds;
    } catch (const DecodingError& e) {
      throw ToolFailure(kExitUsage, displayName(options.teams) + ": " + e.what());
    }
  }
  // A teams file that is there but unreadable logs why and shuts the gate.
  std::optional<TeamTrust> trust = TeamTrust::loadIfProvisioned(options.root, Logger("tarskel"));
  if (!trust) {
    throw ToolFailure(kExitUsage, "no vendor/teams.json under " + options.root +
                                      ": the code-signing gate is not provisioned");
  }
  return trust->teamIds;
}

int runVerifyExecutables(const VerifyOptions& options) {
  const ServiceManifest manifest = readManifest(options.manifest);
  const CodeSignVerifier verifier{allowedTeams(options)};
  struct stat info {};
  if (::stat(options.bundle.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    throw ToolFailure(kExitUsage, "not a bundle directory: " + options.bundle);
  }
  try {
    verifier.verify(options.bundle, manifest);
  } catch (const CodeSignError& e) {
    emit(e.description() + "\n");
    return kExitFinding;
  }
  emit("executables ok\n");
  return kExitSuccess;
}

void install(CLI::App& app, ToolContext& ctx) {
  CLI::App* manifest = app.add_subcommand(
      "manifest", "Service manifests: lint, show with defaults, verify executables");
  manifest->require_subcommand(1);

  auto lint = std::make_shared<LintOptions>();
  CLI::App* lintCommand = manifest->add_subcommand(
      "lint",
      "Read and validate each manifest; one finding per line as FILE: path: [code] message. "
      "Exit 0 all valid, 1 findings, 2 a file unreadable or unparsable");
  lintCommand->add_option("FILE", lint->files, "manifest files, or - for standard input")
      ->required()
      ->type_name("FILE");
  lintCommand->add_flag("--json", lint->json,
                        "one JSON object per file: "
                        "{\"file\",\"valid\",\"errors\":[{\"code\",\"path\",\"message\"}]}");
  lintCommand->callback([&ctx, lint] { ctx.action = [lint] { return runLint(*lint); }; });

  auto show = std::make_shared<ShowOptions>();
  CLI::App* showCommand = manifest->add_subcommand(
      "show", "Print the manifest as the model writes it, every default filled in");
  showCommand->add_option("FILE", show->file, "manifest file, or - for standard input")
      ->required()
      ->type_name("FILE");
  showCommand->add_flag("--compact", show->compact, "one line instead of indented");
  showCommand->callback([&ctx, show] { ctx.action = [show] { return runShow(*show); }; });

  auto verify = std::make_shared<VerifyOptions>();
  CLI::App* verifyCommand = manifest->add_subcommand(
      "verify-executables",
      "Put every executable the manifest declares under BUNDLE through the code-signing gate; "
      "absent files are skipped. Exit 0 all pass, 1 the first failure, 2 unusable input");
  verifyCommand->add_option("BUNDLE", verify->bundle, "the bundle's directory")
      ->required()
      ->type_name("DIR");
  verifyCommand
      ->add_option("--manifest", verify->manifest, "manifest file, or - for standard input")
      ->required()
      ->type_name("FILE");
  auto* teams = verifyCommand
                    ->add_option("--teams", verify->teams,
                                 "allowed teams: {\"revision\":N,\"teamIds\":[...]}")
                    ->type_name("FILE");
  auto* root =
      verifyCommand
          ->add_option("--root", verify->root, "state root whose vendor/teams.json is used")
          ->type_name("DIR")
          ->capture_default_str();
  teams->excludes(root);
  root->excludes(teams);
  verifyCommand->callback(
      [&ctx, verify] { ctx.action = [verify] { return runVerifyExecutables(*verify); }; });
}

const CommandRegistration kManifestCommands(35, install);

}  // namespace
}  // namespace tarskel::tool
