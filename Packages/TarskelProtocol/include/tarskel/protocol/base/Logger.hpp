#pragma once

// The logging facade: labelled loggers that write one line per message.
//
// Line form (one line, ended by "\n"):
//
//   line     := timestamp " " level " " label " :" metadata " [" source "] " message "\n"
//   metadata := ( " " key "=" value )*          ; in the order the caller gave
//   timestamp:= local time as strftime "%Y-%m-%dT%H:%M:%S%z", or "<unknown>"
//   level    := "trace" | "debug" | "info" | "notice" | "warning" | "error" | "critical"
//
// Without metadata a line reads
//   2026-01-02T03:04:05+0100 critical tarskeld : [tarskeld] texto
// and with it
//   2026-01-02T03:04:05+0100 info tarskeld : peer=12 op=daemon.info [tarskeld] texto
//
// Keys, values and messages are written as given: the caller keeps them on
// one line.
//
// Threads: a Logger is an immutable value and may be copied and used from any
// thread. Copies share one sink, and calls into that sink are serialised, so
// an injected sink needs no locking of its own. The default sink hands each
// whole line to write(2) on standard error in one call, so lines from other
// processes sharing the descriptor do not interleave within a line either.
//
// The journal: when standard error is systemd's journal stream (JOURNAL_STREAM
// names its device and inode, as systemd sets it for a service), a logger
// without a sink of its own starts each line with the journal's priority
// prefix, "<N>" (syslog's numbers: critical 2, error 3, warning 4, notice 5,
// info 6, debug and trace 7), which the journal takes off and keeps as the
// entry's priority. Anywhere else the line is exactly the form above.

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarskel {

enum class LogLevel : std::uint8_t { trace, debug, info, notice, warning, error, critical };

// "trace" ... "critical".
std::string_view logLevelName(LogLevel level);

// The level with this name, or nothing.
std::optional<LogLevel> logLevelFromName(std::string_view name);

// Receives one complete line, "\n" included.
using LogSink = std::function<void(std::string_view line)>;

// key=value pairs written behind the colon, in this order.
using LogMetadata = std::vector<std::pair<std::string, std::string>>;

// Writes each line to standard error with a single write(2); a short write
// is finished with further calls, and failures are ignored.
LogSink standardErrorSink();

// `time` as local time in the line's form; "<unknown>" when the local time
// can't be formed (for instance a time beyond the calendar's range).
std::string formatLogTimestamp(std::time_t time);

// The whole line, "\n" included.
std::string formatLogLine(std::string_view timestamp, LogLevel level, std::string_view label,
                          const LogMetadata& metadata, std::string_view source,
                          std::string_view message);

class Logger {
 public:
  // A logger named `label` that writes messages at `minimumLevel` and above
  // to `sink` (standard error when empty). `source` names the module in the
  // brackets; empty means the label.
  explicit Logger(std::string label, LogLevel minimumLevel = LogLevel::info, LogSink sink = {},
                  std::string source = {});

  const std::string& label() const { return label_; }
  const std::string& source() const { return source_; }
  LogLevel minimumLevel() const { return minimumLevel_; }
  bool isEnabled(LogLevel level) const { return level >= minimumLevel_; }

  // A copy that writes to the same sink under another source name.
  Logger withSource(std::string source) const;

  // Writes one line when `level` is enabled; never throws. The timestamp is
  // taken at the call.
  void log(LogLevel level, std::string_view message, const LogMetadata& metadata = {}) const;

  void trace(std::string_view m, const LogMetadata& md = {}) const { log(LogLevel::trace, m, md); }
  void debug(std::string_view m, const LogMetadata& md = {}) const { log(LogLevel::debug, m, md); }
  void info(std::string_view m, const LogMetadata& md = {}) const { log(LogLevel::info, m, md); }
  void notice(std::string_view m, const LogMetadata& md = {}) const {
    log(LogLevel::notice, m, md);
  }
  void warning(std::string_view m, const LogMetadata& md = {}) const {
    log(LogLevel::warning, m, md);
  }
  void error(std::string_view m, const LogMetadata& md = {}) const { log(LogLevel::error, m, md); }
  void critical(std::string_view m, const LogMetadata& md = {}) const {
    log(LogLevel::critical, m, md);
  }

 private:
  struct SharedSink;

  std::string label_;
  std::string source_;
  LogLevel minimumLevel_;
  std::shared_ptr<SharedSink> sink_;
};

}  // namespace tarskel
