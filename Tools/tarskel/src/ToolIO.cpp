// Reading the tool's input, writing its output, and the words it says to people.
//
// Input is read on the person's own behalf, so unlike the daemon's capped
// reader it takes pipes and process substitutions (<(cmd)) of any size.

#include <fcntl.h>
#include <fmt/format.h>
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
  return jsonForPeople(TarskelJSON::canonicalEncoder().encode(value), false) + "\n";
}

std::string jsonForPeople(std::string_view compact, bool indent) {
  std::string out;
  int depth = 0;
  auto newline = [&] {
    if (indent) out.append("\n").append(2 * static_cast<std::size_t>(depth), ' ');
  };
  for (std::size_t i = 0; i < compact.size(); ++i) {
    const char c = compact[i];
    if (c == '"') {  // the whole string, its escapes kept but for "\/"
      out += c;
      for (++i; i < compact.size() && compact[i] != '"'; ++i) {
        if (compact[i] == '\\' && i + 1 < compact.size()) {
          if (compact[++i] != '/') out += '\\';
        }
        out += compact[i];
      }
      out += '"';
    } else if ((c == '{' || c == '[') && i + 1 < compact.size() &&
               compact[i + 1] == (c == '{' ? '}' : ']')) {
      out.append(compact.substr(i++, 2));  // empty: stays on one line
    } else if (c == '{' || c == '[') {
      out += c;
      ++depth;
      newline();
    } else if (c == '}' || c == ']') {
      --depth;
      newline();
      out += c;
    } else if (c == ',') {
      out += c;
      newline();
    } else {
      out += c;
      if (c == ':' && indent) out += ' ';
    }
  }
  return out;
}

std::string forTerminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '\n':
        out += "\\n";
        continue;
      case '\t':
        out += "\\t";
        continue;
      case '\r':
        out += "\\r";
        continue;
      case '\\':
        out += "\\\\";
        continue;
      default:
        break;
    }
    if (c < 0x20 || c == 0x7F) {
      out += fmt::format("\\x{:02x}", c);
    } else if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) {
      out += fmt::format("\\u{:04x}", (static_cast<unsigned char>(text[++i]) & 0x3F) | 0x80);
    } else if (c == 0xE2 && i + 2 < text.size()) {
      // U+200E/F, U+202A..E, U+2066..9: marks and embeddings that reorder text.
      unsigned cp = 0x2000 | ((static_cast<unsigned char>(text[i + 1]) & 0x3Fu) << 6) |
                    (static_cast<unsigned char>(text[i + 2]) & 0x3Fu);
      bool reorders = cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
                      (cp >= 0x2066 && cp <= 0x2069) || cp == 0x2028 || cp == 0x2029;
      if (reorders && (static_cast<unsigned char>(text[i + 1]) & 0xF0) == 0x80) {
        out += fmt::format("\\u{:04x}", cp);
        i += 2;
      } else {
        out += static_cast<char>(c);
      }
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace tarskel::tool
