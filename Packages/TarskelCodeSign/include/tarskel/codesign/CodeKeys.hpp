#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"

namespace tarskel {

// The keys that sign code on Linux, read from `vendor/code-keys.json` under
// the daemon's state root. The file is a vendor allowlist
// ({"revision": <integer>, "keys": [{"keyId", "publicKey"}, ...]}): a key's
// keyId is the team its signatures stand for. Laid down by provisioning
// beside vendor/teams.json; nothing here writes it.
struct CodeKeys {
  static constexpr std::string_view keysFile = "vendor/code-keys.json";

  // Three outcomes, as for the team list:
  // - the file can't be read at all (absent, not a regular file, no
  //   permission): nothing, and nothing is logged;
  // - it is read but is not an allowlist, or holds a key every forged
  //   signature would verify under: an empty list and one critical line
  //   "vendor/code-keys.json ilegible: <error> — gate del SO sin raíz", so
  //   that no code is signed for anyone;
  // - otherwise the list, logging nothing.
  // Never throws. Any thread may call it.
  static std::optional<VendorAllowlist> loadIfPresent(const std::filesystem::path& root,
                                                      const Logger& logger);
};

}  // namespace tarskel
