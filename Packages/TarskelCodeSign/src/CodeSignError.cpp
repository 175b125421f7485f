#include "tarskel/codesign/CodeSignError.hpp"

#include <utility>

namespace tarskel {

CodeSignError::CodeSignError(Kind kind, std::string text, std::string_view path, OSStatus status,
                             std::string_view team)
    : Error(std::move(text)), kind_(kind), path_(path), status_(status), team_(team) {}

CodeSignError CodeSignError::executableMissing(std::string_view path) {
  return {Kind::executableMissing,
          "gate SO: ejecutable declarado ausente: " + std::string(path),
          path,
          0,
          {}};
}

CodeSignError CodeSignError::signatureInvalid(std::string_view path, OSStatus status,
                                              std::string_view reason) {
  return {Kind::signatureInvalid,
          "gate SO: firma inválida o no anclada a Apple en " + std::string(path) + " (" +
              std::to_string(status) + ")" + (reason.empty() ? "" : ": " + std::string(reason)),
          path,
          status,
          {}};
}

CodeSignError CodeSignError::teamMissing(std::string_view path) {
  return {
      Kind::teamMissing, "gate SO: sin Team ID (¿ad-hoc?) en " + std::string(path), path, 0, {}};
}

CodeSignError CodeSignError::teamNotAllowed(std::string_view path, std::string_view team) {
  return {
      Kind::teamNotAllowed,
      "gate SO: Team ID '" + std::string(team) + "' fuera de la allowlist en " + std::string(path),
      path, 0, team};
}

}  // namespace tarskel
