#include "tarskel/codesign/CodeSignVerifier.hpp"

#include <algorithm>
#include <set>
#include <system_error>

namespace tarskel {

std::variant<std::string, CodeSignError> CodeSignVerifier::judge(
    const CodeObject& code, std::string_view path, const std::vector<std::string>& allowedTeamIds,
    const CodeSignPlatform& platform) {
  CodeRef requirement = platform.compileRequirement(appleAnchorRequirement);

  CodeSignPlatform::Validity validity =
      platform.checkValidityWithReason(code, kSecCSCheckAllArchitectures, requirement.get());
  if (validity.status != 0) {
    return CodeSignError::signatureInvalid(path, validity.status, validity.reason);
  }

  SigningInformation info = platform.copySigningInformation(code, kSecCSSigningInformation);
  if (info.status != 0 || info.result != SigningInformation::Result::dictionary) {
    return CodeSignError::signatureInvalid(path, info.status);
  }
  if (info.team != SigningInformation::Team::string) return CodeSignError::teamMissing(path);

  if (std::find(allowedTeamIds.begin(), allowedTeamIds.end(), info.teamIdentifier) ==
      allowedTeamIds.end()) {
    return CodeSignError::teamNotAllowed(path, info.teamIdentifier);
  }
  return std::move(info.teamIdentifier);
}

std::string CodeSignVerifier::check(const CodeObject& code, std::string_view path,
                                    const std::vector<std::string>& allowedTeamIds,
                                    const CodeSignPlatform& platform) {
  auto verdict = judge(code, path, allowedTeamIds, platform);
  if (auto* failure = std::get_if<CodeSignError>(&verdict)) throw std::move(*failure);
  return std::get<std::string>(std::move(verdict));
}

std::string CodeSignVerifier::verifyExecutable(const std::filesystem::path& at,
                                               const std::vector<std::string>& allowedTeamIds,
                                               const CodeSignPlatform& platform) {
  const std::string path = at.string();
  CodeResult created = platform.staticCodeForPath(path);
  if (created.status != 0 || !created.code) {
    throw CodeSignError::signatureInvalid(path, created.status);
  }
  return check(*created.code, path, allowedTeamIds, platform);
}

std::string CodeSignVerifier::verifyPid(std::int32_t pid,
                                        const std::vector<std::string>& allowedTeamIds,
                                        const CodeSignPlatform& platform) {
  const std::string label = "pid " + std::to_string(pid);
  CodeResult guest = platform.guestCodeForPid(pid);
  if (guest.status != 0 || !guest.code) throw CodeSignError::signatureInvalid(label, guest.status);

  CodeResult onDisk = platform.staticCodeOf(*guest.code);
  if (onDisk.status != 0 || !onDisk.code) {
    throw CodeSignError::signatureInvalid(label, onDisk.status);
  }
  return check(*onDisk.code, label, allowedTeamIds, platform);
}

namespace {

// `relative` under `bundle`, joined as text the way a URL appends a path: a
// leading '/' of `relative` does not make it absolute (path's operator/
// would let "/usr/bin/x" replace the bundle), and ".." stays as written.
std::string underBundle(std::string bundle, const std::string& relative) {
  const std::size_t start = std::min(relative.find_first_not_of('/'), relative.size());
  if (start == relative.size()) return bundle;
  if (bundle.empty() || bundle.back() != '/') bundle.push_back('/');
  return bundle.append(relative, start);
}

}  // namespace

void CodeSignVerifier::verify(const std::filesystem::path& bundleAt,
                              const ServiceManifest& manifest,
                              const CodeSignPlatform& platform) const {
  // A set: one file serving several targets is checked once, and in order.
  std::set<std::string> paths;
  for (const auto& entry : manifest.executables) paths.insert(entry.second);

  for (const std::string& relative : paths) {
    const std::string file = underBundle(bundleAt.string(), relative);
    std::error_code error;
    if (!std::filesystem::exists(file, error)) continue;
    verifyExecutable(file, teamIds, platform);
  }
}

}  // namespace tarskel
