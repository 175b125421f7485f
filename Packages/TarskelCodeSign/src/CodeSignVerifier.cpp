#include "tarskel/codesign/CodeSignVerifier.hpp"

#include <algorithm>

namespace tarskel {

std::string CodeSignVerifier::check(const CodeObject& code, std::string_view path,
                                    const std::vector<std::string>& allowedTeamIds,
                                    const CodeSignPlatform& platform) {
  CodeRef requirement = platform.compileRequirement(appleAnchorRequirement);

  OSStatus validity = platform.checkValidity(code, kSecCSCheckAllArchitectures, requirement.get());
  if (validity != 0) throw CodeSignError::signatureInvalid(path, validity);

  SigningInformation info = platform.copySigningInformation(code, kSecCSSigningInformation);
  if (info.status != 0 || info.result != SigningInformation::Result::dictionary) {
    throw CodeSignError::signatureInvalid(path, info.status);
  }
  if (info.team != SigningInformation::Team::string) throw CodeSignError::teamMissing(path);

  if (std::find(allowedTeamIds.begin(), allowedTeamIds.end(), info.teamIdentifier) ==
      allowedTeamIds.end()) {
    throw CodeSignError::teamNotAllowed(path, info.teamIdentifier);
  }
  return info.teamIdentifier;
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

}  // namespace tarskel
