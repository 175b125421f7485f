// tarskel semver check|compare

#include <memory>
#include <string>

#include "ToolCommand.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel::tool {
namespace {

SemVer requireVersion(const std::string& text) {
  std::optional<SemVer> version = SemVer::parse(text);
  if (!version) throw ToolFailure(kExitUsage, "invalid version: " + text);
  return *version;
}

VersionConstraint requireConstraint(const std::string& text) {
  std::optional<VersionConstraint> constraint = VersionConstraint::parse(text);
  if (!constraint) throw ToolFailure(kExitUsage, "invalid version constraint: " + text);
  return *constraint;
}

struct CheckOptions {
  std::string constraint;
  std::string version;
  bool json = false;
};

int runCheck(const CheckOptions& options) {
  const VersionConstraint constraint = requireConstraint(options.constraint);
  const SemVer version = requireVersion(options.version);
  const bool satisfied = constraint.isSatisfied(version);
  if (options.json) {
    writeOutput(jsonLine(JSONObject{{"version", JSONValue(version.description())},
                                    {"constraint", JSONValue(constraint.raw)},
                                    {"satisfied", JSONValue(satisfied)}}));
  } else if (!quiet()) {
    writeOutput(version.description() + (satisfied ? " satisfies " : " does not satisfy ") +
                constraint.raw + "\n");
  }
  return satisfied ? kExitSuccess : kExitFailure;
}

struct CompareOptions {
  std::string a;
  std::string b;
  bool json = false;
};

int runCompare(const CompareOptions& options) {
  const SemVer a = requireVersion(options.a);
  const SemVer b = requireVersion(options.b);
  const char* order = a < b ? "<" : (b < a ? ">" : "=");
  if (options.json) {
    writeOutput(jsonLine(JSONObject{{"a", JSONValue(a.description())},
                                    {"b", JSONValue(b.description())},
                                    {"order", JSONValue(order)}}));
  } else {
    writeOutput(std::string(order) + "\n");
  }
  return kExitSuccess;
}

}  // namespace

void installSemverCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* semver = app.add_subcommand("semver", "Versions and version constraints");
  semver->require_subcommand(1);

  auto check = std::make_shared<CheckOptions>();
  CLI::App* checkCommand = semver->add_subcommand(
      "check", "Exit 0 when VERSION satisfies CONSTRAINT, 1 when not, 2 when either is invalid");
  checkCommand->add_option("CONSTRAINT", check->constraint, "1.2.3, >=1.2, ^1.2, 1.x or 1.2.x")
      ->required();
  checkCommand->add_option("VERSION", check->version, "major.minor.patch[-prerelease]")->required();
  addJSONFlag(checkCommand, check->json);
  checkCommand->callback([&ctx, check] { ctx.action = [check] { return runCheck(*check); }; });

  auto compare = std::make_shared<CompareOptions>();
  CLI::App* compareCommand =
      semver->add_subcommand("compare",
                             "Print <, = or > as version A stands to version B (prereleases "
                             "compare as plain text, so rc.10 < rc.9)");
  compareCommand->add_option("A", compare->a, "major.minor.patch[-prerelease]")->required();
  compareCommand->add_option("B", compare->b, "major.minor.patch[-prerelease]")->required();
  addJSONFlag(compareCommand, compare->json);
  compareCommand->callback(
      [&ctx, compare] { ctx.action = [compare] { return runCompare(*compare); }; });
}

}  // namespace tarskel::tool
