#pragma once

// A strict simulator of the Apple interfaces the Darwin adapters call (XPC,
// Security, CoreFoundation, the clone, swap and ACL calls), behind the same
// declarations as cmake/darwin-sdk/. Test code: linked by the darwin-sim
// build only, shipped nowhere.
//
// A use Apple calls wrong aborts the process with "darwin-sim: <rule>". Every
// object made through the simulator is counted while alive; leaks() names
// those still alive and where each was made. The calls below may come from
// any thread.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarskel::darwinsim {

// What the code-signing services answer for a piece of code. A process's
// own identity travels with every message it sends over a simulated
// connection; code found by process id or by path gets the identity set
// here. The default is validly signed, anchored to Apple, team TEAMID0001.
struct CodeIdentity {
  enum class Info { none, notDictionary, dictionary };
  enum class Team { absent, notString, string };

  std::int32_t codeStatus = 0;  // making a code object (message, pid, path)
  bool codeYieldsObject = true;
  std::int32_t staticStatus = 0;  // SecCodeCopyStaticCode
  bool staticYieldsObject = true;
  bool requirementCompiles = true;
  std::int32_t validity = 0;  // the signature itself, before any requirement
  bool appleAnchored = true;
  std::int32_t infoStatus = 0;
  Info info = Info::dictionary;
  Team team = Team::string;
  std::string teamId = "TEAMID0001";

  std::string encode() const;
  static CodeIdentity decode(const std::string& text);
};

// This process's identity, and the one of code found by pid or path. Starts
// from TARSKEL_DARWIN_SIM_CODE (an encode() text) when that is set.
void setCodeIdentity(const CodeIdentity& identity);

// "<path> extended" (or "other") for each ACL written, in order; cleared by the call.
std::vector<std::string> takeAccessControlWrites();

// The objects still alive ("<type> made at <where>"), once the simulated
// connections' queues have settled (at most about two seconds).
std::vector<std::string> leaks();

}  // namespace tarskel::darwinsim
