#pragma once

// The operating-system gate: is this code signed, anchored to Apple, and
// signed by a team this machine trusts?
//
// Every operation stops at the first failure and throws CodeSignError, and
// nothing else; on success it returns the team identifier it found. The
// operations are free of shared state: any thread may call them. They block
// while the platform reads files and checks signatures.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tarskel/codesign/CodeSignError.hpp"
#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"

namespace tarskel {

struct CodeSignVerifier {
  // The requirement every signature must satisfy.
  static constexpr std::string_view appleAnchorRequirement = "anchor apple generic";

  // The allowed teams of an instance, for the operations that go by a
  // service manifest.
  std::vector<std::string> teamIds;

  // Judges static code made by `platform` (the platform that made `code`). In order, the first
  // failure ending it:
  //   1. compiles "anchor apple generic" (its status is not looked at);
  //   2. checks validity in all architectures against it: a nonzero status
  //      is signatureInvalid(path, status, the platform's reason, if any),
  //      so ad-hoc code ends here;
  //   3. copies the signing information: a nonzero status, no result or a
  //      result that is not a dictionary is signatureInvalid(path, status),
  //      the status being 0 when the call itself succeeded;
  //   4-5. a team identifier entry that is absent or not a string is
  //      teamMissing(path);
  //   6. a team not equal (exactly, case included) to one of
  //      `allowedTeamIds` is teamNotAllowed(path, team).
  // `path` only names the code in messages.
  static std::string check(const CodeObject& code, std::string_view path,
                           const std::vector<std::string>& allowedTeamIds,
                           const CodeSignPlatform& platform);

  // check() without the throw, for a caller on a hot path that turns the
  // failure into a value anyway (the daemon's gate, once per message): the
  // team on success, otherwise the very CodeSignError check() would throw.
  static std::variant<std::string, CodeSignError> judge(
      const CodeObject& code, std::string_view path, const std::vector<std::string>& allowedTeamIds,
      const CodeSignPlatform& platform);

  // The file at `at`: failing to make its static code (nonzero status or no
  // object) is signatureInvalid(<path>, status); otherwise check() under the
  // file's path.
  static std::string verifyExecutable(const std::filesystem::path& at,
                                      const std::vector<std::string>& allowedTeamIds,
                                      const CodeSignPlatform& platform);

  // The running process `pid`, named "pid <n>" in messages: failing to find
  // its running code, or the static code behind it, is
  // signatureInvalid("pid <n>", status); otherwise check().
  static std::string verifyPid(std::int32_t pid, const std::vector<std::string>& allowedTeamIds,
                               const CodeSignPlatform& platform);

  // The two above on this machine's own code-signing services
  // (CodeSignPlatform::system()): what another process of the platform calls.
  static std::string verifyExecutable(const std::filesystem::path& at,
                                      const std::vector<std::string>& allowedTeamIds) {
    return verifyExecutable(at, allowedTeamIds, CodeSignPlatform::system());
  }
  static std::string verifyPid(std::int32_t pid, const std::vector<std::string>& allowedTeamIds) {
    return verifyPid(pid, allowedTeamIds, CodeSignPlatform::system());
  }

  // Every executable `manifest` declares, under the bundle at `bundleAt`,
  // against `teamIds`. Each distinct path is checked once, in ascending
  // order, so the failure reported is the first by that order; the keys (the
  // targets) play no part, so every target is checked whatever this machine
  // is. A path is appended to the bundle as it is, never taken as absolute.
  // A file that isn't there is skipped: absence is no failure here. Making
  // the static code fails with signatureInvalid(<file>, status); then
  // check() runs under the file's path. An empty table passes at once.
  void verify(const std::filesystem::path& bundleAt, const ServiceManifest& manifest,
              const CodeSignPlatform& platform) const;
  // The same on this machine's own code-signing services.
  void verify(const std::filesystem::path& bundleAt, const ServiceManifest& manifest) const {
    verify(bundleAt, manifest, CodeSignPlatform::system());
  }
};

}  // namespace tarskel
