#pragma once

// Signing keys on disk, shared by the commands that make them.

#include <string>

namespace tarskel::tool {

// Makes a fresh Ed25519 key named `keyId` (refused, naming `where`, when
// empty or not UTF-8), writes it to `out` (mode 0600, never overwriting a
// file) as {"keyId","privateKey"}, and prints its allowlist entry
// {"keyId","publicKey"} on standard output. Throws ToolFailure.
void makeSigningKey(const std::string& keyId, const std::string& where, const std::string& out);

}  // namespace tarskel::tool
