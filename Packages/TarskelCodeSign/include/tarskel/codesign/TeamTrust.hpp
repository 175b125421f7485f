#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

// The team identifiers this machine was provisioned to trust, read from
// `vendor/teams.json` under the daemon's state root:
//
//   {"revision": <integer>, "teamIds": [<string>, ...]}   both keys required
//
// The file is laid down by provisioning; nothing here writes it.
struct TeamTrust {
  static constexpr std::string_view teamsFile = "vendor/teams.json";

  // The revision written in the file; 0 for the fail-closed value.
  std::int64_t revision = 0;
  // The allowed teams, in file order.
  std::vector<std::string> teamIds;

  // Three outcomes, which callers must keep apart:
  // - the file can't be read at all (absent, a directory, not a regular
  //   file, no permission): nothing, and nothing is logged. The gate is not
  //   provisioned.
  // - the file is read but is not the shape above: TeamTrust{0, {}} and one
  //   critical line "vendor/teams.json ilegible: <error> — gate del SO sin
  //   raíz". The machine was provisioned, so the gate stays shut: no team
  //   passes an empty list.
  // - otherwise the file's revision and teams, logging nothing.
  // Never throws. Any thread may call it.
  static std::optional<TeamTrust> loadIfProvisioned(const std::filesystem::path& root,
                                                    const Logger& logger);

  // The file's one record, for every reader of it (TarskelJSON's coders).
  void encode(KeyedEncoder& e) const;
  static TeamTrust decode(const KeyedDecoder& d);

  friend bool operator==(const TeamTrust&, const TeamTrust&) = default;
};

}  // namespace tarskel
