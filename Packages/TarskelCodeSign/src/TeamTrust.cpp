#include "tarskel/codesign/TeamTrust.hpp"

#include <exception>

#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

namespace {

// A team list of this size is absurd; a bigger file is not read into memory.
constexpr std::size_t kMaxTeamsBytes = 16u << 20;

}  // namespace

void TeamTrust::encode(KeyedEncoder& e) const {
  e.required("revision", revision);
  e.required("teamIds", teamIds);
}

TeamTrust TeamTrust::decode(const KeyedDecoder& d) {
  return {d.required<std::int64_t>("revision"), d.required<std::vector<std::string>>("teamIds")};
}

std::optional<TeamTrust> TeamTrust::loadIfProvisioned(const std::filesystem::path& root,
                                                      const Logger& logger) {
  // Only a regular file is read, opened without blocking: a FIFO or a device
  // must not stall the daemon's start.
  std::optional<std::string> bytes;
  std::string problem;
  try {
    bytes = readFile(root / teamsFile, kMaxTeamsBytes);
  } catch (const FileReadError& e) {
    // Absent or unreadable: nothing was provisioned we can see. A file too
    // big to be a team list was provisioned, and is broken.
    if (e.kind() != FileReadError::Kind::tooLarge) return std::nullopt;
    problem = e.description();
  } catch (const std::exception&) {
    return std::nullopt;  // not even the path could be formed
  }
  if (bytes) {
    try {
      return TarskelJSON::decoder().decode<TeamTrust>(*bytes);
    } catch (const std::exception& e) {
      problem = e.what();
    }
  }
  logger.critical("vendor/teams.json ilegible: " + problem + " — gate del SO sin raíz");
  return TeamTrust{0, {}};
}

}  // namespace tarskel
