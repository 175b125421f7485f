#include "tarskel/protocol/base/Logger.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <mutex>

namespace tarskel {

namespace {

constexpr std::array<std::string_view, 7> kLevelNames{"trace",   "debug", "info",    "notice",
                                                      "warning", "error", "critical"};

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing standard error
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

// The journal's priority of each level, by syslog's numbers.
constexpr std::array<std::string_view, 7> kJournalPrefixes{"<7>", "<7>", "<6>", "<5>",
                                                           "<4>", "<3>", "<2>"};

// Whether `fd` is the stream that `journalStream` ("<device>:<inode>" in
// decimal, JOURNAL_STREAM's form) names: then systemd's journal reads it, and
// a "<N>" before a line is taken off and kept as the entry's priority.
bool isJournalStream(const char* journalStream, int fd) {
  if (journalStream == nullptr) return false;
  const std::string_view text(journalStream);
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  const char* end = text.data() + text.size();
  auto [deviceEnd, deviceError] = std::from_chars(text.data(), text.data() + colon, device);
  auto [inodeEnd, inodeError] = std::from_chars(text.data() + colon + 1, end, inode);
  if (deviceError != std::errc() || inodeError != std::errc() || deviceEnd != text.data() + colon ||
      inodeEnd != end) {
    return false;
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0) return false;
  return status.st_dev == device && status.st_ino == inode;
}

}  // namespace

std::string_view logLevelName(LogLevel level) {
  auto index = static_cast<std::size_t>(level);
  return index < kLevelNames.size() ? kLevelNames[index] : std::string_view("unknown");
}

std::optional<LogLevel> logLevelFromName(std::string_view name) {
  for (std::size_t i = 0; i < kLevelNames.size(); ++i) {
    if (kLevelNames[i] == name) return static_cast<LogLevel>(i);
  }
  return std::nullopt;
}

LogSink standardErrorSink() {
  return [](std::string_view line) { writeAll(STDERR_FILENO, line); };
}

std::string formatLogTimestamp(std::time_t time) {
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr) return "<unknown>";
  std::array<char, 64> buffer{};
  std::size_t n = std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:%S%z", &local);
  if (n == 0) return "<unknown>";
  return std::string(buffer.data(), n);
}

std::string formatLogLine(std::string_view timestamp, LogLevel level, std::string_view label,
                          const LogMetadata& metadata, std::string_view source,
                          std::string_view message) {
  std::string line;
  line.reserve(timestamp.size() + label.size() + source.size() + message.size() + 32);
  line.append(timestamp).append(" ").append(logLevelName(level)).append(" ");
  line.append(label).append(" :");
  for (const auto& [key, value] : metadata) {
    line.append(" ").append(key).append("=").append(value);
  }
  line.append(" [").append(source).append("] ").append(message).append("\n");
  return line;
}

// One per sink, shared by every copy of the logger that writes to it.
struct Logger::SharedSink {
  SharedSink(LogSink s, bool toJournal) : sink(std::move(s)), journal(toJournal) {}
  std::mutex mutex;
  LogSink sink;
  bool journal;  // each line starts with the journal's priority prefix
};

Logger::Logger(std::string label, LogLevel minimumLevel, LogSink sink, std::string source)
    : label_(std::move(label)),
      source_(source.empty() ? label_ : std::move(source)),
      minimumLevel_(minimumLevel),
      sink_(sink ? std::make_shared<SharedSink>(std::move(sink), false)
                 : std::make_shared<SharedSink>(
                       standardErrorSink(),
                       isJournalStream(std::getenv("JOURNAL_STREAM"), STDERR_FILENO))) {}

Logger Logger::withSource(std::string source) const {
  Logger copy = *this;
  if (source.empty()) {
    copy.source_ = label_;
  } else {
    copy.source_ = std::move(source);
  }
  return copy;
}

void Logger::log(LogLevel level, std::string_view message, const LogMetadata& metadata) const {
  if (!isEnabled(level)) return;
  try {
    std::string line = formatLogLine(formatLogTimestamp(std::time(nullptr)), level, label_,
                                     metadata, source_, message);
    if (sink_->journal) line.insert(0, kJournalPrefixes[static_cast<std::size_t>(level)]);
    std::lock_guard lock(sink_->mutex);
    sink_->sink(line);
  } catch (...) {
    // Logging must never take its caller down: a line that can't be built or
    // delivered is lost.
  }
}

}  // namespace tarskel
