#pragma once

// Test support, shipped nowhere: a command line run under /bin/sh, its
// exit status and what it wrote.

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::testing {

struct ShellRun {
  int exitCode = -1;  // -1 when the shell did not exit by itself
  std::string out;
  std::string err;
};

// `s` as one word of a shell command line.
inline std::string quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs the shell command line `command` with `input` on standard input;
// standard output goes to `stdoutTo` when given (then `out` stays empty).
inline ShellRun runShell(const std::string& command, const std::string& input = "",
                         const std::string& stdoutTo = "") {
  const TempDirectory io("tarskel-shell-io");
  writeFile(io.file("in"), input);
  const std::string out = stdoutTo.empty() ? io.file("out").string() : stdoutTo;
  const int status = std::system(("(" + command + ") <" + quote(io.file("in")) + " >" + quote(out) +
                                  " 2>" + quote(io.file("err")))
                                     .c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, stdoutTo.empty() ? readFile(out) : "",
          readFile(io.file("err"))};
}

}  // namespace tarskel::testing
