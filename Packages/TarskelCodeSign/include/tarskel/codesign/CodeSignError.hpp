#pragma once

#include <string>
#include <string_view>

#include "tarskel/codesign/CodeSignPlatform.hpp"
#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// A failure of the operating-system gate. `path` is what the caller named:
// a file path, "pid <n>" for a process, or any label the caller chose.
class CodeSignError : public Error {
 public:
  enum class Kind { executableMissing, signatureInvalid, teamMissing, teamNotAllowed };

  // "gate SO: ejecutable declarado ausente: <path>". Declared for callers;
  // the verifier itself never throws it.
  static CodeSignError executableMissing(std::string_view path);
  // "gate SO: firma inválida o no anclada a Apple en <path> (<status>)", and
  // ": <reason>" after it when the platform gave one.
  static CodeSignError signatureInvalid(std::string_view path, OSStatus status,
                                        std::string_view reason = {});
  // "gate SO: sin Team ID (¿ad-hoc?) en <path>"
  static CodeSignError teamMissing(std::string_view path);
  // "gate SO: Team ID '<team>' fuera de la allowlist en <path>"
  static CodeSignError teamNotAllowed(std::string_view path, std::string_view team);

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }
  // The status of signatureInvalid; 0 for the other kinds.
  OSStatus status() const { return status_; }
  // The team of teamNotAllowed; empty for the other kinds.
  const std::string& team() const { return team_; }

 private:
  CodeSignError(Kind kind, std::string text, std::string_view path, OSStatus status,
                std::string_view team);

  Kind kind_;
  std::string path_;
  OSStatus status_;
  std::string team_;
};

}  // namespace tarskel
