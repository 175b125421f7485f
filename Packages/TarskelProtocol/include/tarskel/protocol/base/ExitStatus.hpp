#pragma once

// The one table of exit statuses of this system's executables, tarskeld and
// tarskel alike.

#include <string_view>

namespace tarskel {

enum ExitStatus : int {
  kExitSuccess = 0,
  // tarskel: refused, or not ok (a finding, a failed check, a refusal).
  // tarskeld: the daemon could not start.
  kExitFailure = 1,
  kExitUsage = 2,      // bad usage, or input that can't be used (unreadable, malformed)
  kExitTransport = 3,  // tarskel: the daemon could not be reached, or did not answer in time
};

inline constexpr std::string_view kToolExitStatusHelp =
    "Exit status: 0 ok; 1 refused or not ok; 2 bad usage or unusable input; "
    "3 daemon unreachable or timed out.";

inline constexpr std::string_view kDaemonExitStatusHelp =
    "Exit status: 0 ok (--help, --version), 1 the daemon could not start (the error names the "
    "file), 2 bad command line. Once serving, tarskeld runs until it is killed.";

}  // namespace tarskel
