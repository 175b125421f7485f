// Reading the tool's input, writing its output, and the words it says to people.
//
// Input is read on the person's own behalf, so unlike the daemon's capped
// reader it takes pipes and process substitutions (<(cmd)) of any size.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Files.hpp"

namespace tarskel::tool {
namespace {

std::string systemReason(int error) { return std::strerror(error); }

// Reads all of `fd`; false with errno set when a read fails.
bool readAll(int fd, std::string& out) {
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
}

bool gQuiet = false;

}  // namespace

// Set by the command line before any action runs.
void setQuiet(bool value) { gQuiet = value; }
bool quiet() { return gQuiet; }

void warn(const std::string& text) {
  if (!gQuiet) std::fprintf(stderr, "tarskel: warning: %s\n", text.c_str());
}

bool progressWanted() { return !gQuiet && ::isatty(STDERR_FILENO) == 1; }

std::string inputName(const std::string& path) { return path == "-" ? "standard input" : path; }

std::string readInput(const std::string& path) {
  std::string content;
  if (path == "-") {
    if (!readAll(STDIN_FILENO, content)) {
      throw ToolFailure(kExitUsage, "standard input: " + systemReason(errno));
    }
    return content;
  }
  if (path.empty()) throw ToolFailure(kExitUsage, "an empty file name");
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const int fd = file.get();
  if (fd < 0) throw ToolFailure(kExitUsage, path + ": " + systemReason(errno));
  struct stat info {};
  int error = 0;
  const bool described = ::fstat(fd, &info) == 0;
  if (described && S_ISREG(info.st_mode)) {
    // Sized once: a growing string would hold its old and new copies at once.
    content.reserve(static_cast<std::size_t>(info.st_size));
  }
  if (described && S_ISDIR(info.st_mode)) {
    error = EISDIR;
  } else if (!described || !readAll(fd, content)) {
    error = errno;
  }
  if (error != 0) throw ToolFailure(kExitUsage, path + ": " + systemReason(error));
  return content;
}

ToolFailure jsonInputFailure(const std::string& name, const DecodingError& error) {
  if (const auto& at = error.position()) {
    return ToolFailure(kExitUsage, name + ":" + std::to_string(at->line) + ":" +
                                       std::to_string(at->column) + ": " +
                                       error.debugDescription());
  }
  return ToolFailure(kExitUsage, name + ": " + error.what());
}

void writeOutput(const std::string& bytes) {
  std::fflush(stdout);  // whatever stdio holds goes first
  if (!writeAll(STDOUT_FILENO, bytes)) {
    throw ToolFailure(kExitUsage, "standard output: " + systemReason(errno));
  }
}

void writeResult(const std::string& bytes, const std::string& outputPath) {
  if (outputPath.empty() || outputPath == "-") return writeOutput(bytes);
  try {
    atomicReplace(outputPath, bytes);
  } catch (const FileSystemError& e) {
    throw ToolFailure(kExitUsage, outputPath + ": " + systemReason(e.errorNumber()));
  }
}

void addOutputOption(CLI::App* command, std::string& outputPath) {
  command->add_option("-o,--output", outputPath,
                      "Write the result to FILE (whole, or not at all) instead of standard output");
}

void addJSONFlag(CLI::App* command, bool& json) {
  command->add_flag("--json", json,
                    "Print the result as one line of JSON (see docs/tarskel-json.md)");
}

std::string jsonLine(const JSONValue& value) {
  return TarskelJSON::canonicalEncoder().encode(value) + "\n";
}

std::string nearestWord(std::string_view word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t bestDistance = std::string::npos;
  for (const std::string& candidate : candidates) {
    // Levenshtein distance, with an adjacent swap counting as one edit.
    const std::size_t n = word.size();
    const std::size_t m = candidate.size();
    std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1));
    for (std::size_t i = 0; i <= n; ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= m; ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= n; ++i) {
      for (std::size_t j = 1; j <= m; ++j) {
        const std::size_t cost = word[i - 1] == candidate[j - 1] ? 0 : 1;
        d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
        if (i > 1 && j > 1 && word[i - 1] == candidate[j - 2] && word[i - 2] == candidate[j - 1]) {
          d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
      }
    }
    std::size_t distance = d[n][m];
    if (!word.empty() && candidate.starts_with(word)) distance = std::min<std::size_t>(distance, 1);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  const std::size_t allowed = std::max<std::size_t>(2, word.size() / 3);
  return bestDistance <= allowed ? best : std::string();
}

}  // namespace tarskel::tool
