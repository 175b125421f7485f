#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/base/Logger.hpp"

namespace tarskel {
namespace {

// Sets TZ for the life of the object and puts the old value back.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* tz) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    ::setenv("TZ", tz, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    if (old_) {
      ::setenv("TZ", old_->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<std::string> old_;
};

struct CapturedLines {
  std::vector<std::string> lines;
  LogSink sink() {
    return [this](std::string_view line) { lines.emplace_back(line); };
  }
};

TEST(LoggerTest, LineFormsAndTimestamps) {
  EXPECT_EQ(formatLogLine("T", LogLevel::critical, "tarskeld", {}, "src", "mensaje — ñ"),
            "T critical tarskeld : [src] mensaje — ñ\n");
  EXPECT_EQ(formatLogLine("T", LogLevel::warning, "tarskeld", {{"b", "2"}, {"a", "1"}}, "src", "m"),
            "T warning tarskeld : b=2 a=1 [src] m\n");
  {
    ScopedTimeZone tz("XXX-5:30");  // fixed offset east of Greenwich, no daylight time
    EXPECT_EQ(formatLogTimestamp(86400), "1970-01-02T05:30:00+0530");
  }
  EXPECT_EQ(formatLogTimestamp(std::numeric_limits<std::time_t>::max()), "<unknown>");
}

TEST(LoggerTest, LevelsSourcesAndAThrowingSink) {
  CapturedLines out;
  Logger logger("tarskeld", LogLevel::notice, out.sink());
  logger.info("i");
  logger.notice("n");
  logger.withSource("codesign").critical("c", {{"k", "v"}});
  ASSERT_EQ(out.lines.size(), 2u);
  static const std::regex form(
      R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}[+-]\d{4} notice tarskeld : \[tarskeld\] n\n$)");
  EXPECT_TRUE(std::regex_match(out.lines[0], form)) << out.lines[0];
  EXPECT_NE(out.lines[1].find(" critical tarskeld : k=v [codesign] c\n"), std::string::npos);

  Logger throwing("x", LogLevel::info, [](std::string_view) { throw std::runtime_error("full"); });
  EXPECT_NO_THROW(throwing.error("lost"));
}

// Copies of one logger on several threads share the sink; calls into it must
// not overlap, or an unsynchronised sink like this vector would be corrupted.
TEST(LoggerTest, ConcurrentCopiesSerialiseTheSink) {
  CapturedLines out;
  Logger logger("tarskeld", LogLevel::info, out.sink());
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([copy = logger, t] {
      for (int i = 0; i < kLines; ++i) copy.info("hilo " + std::to_string(t));
    });
  }
  for (auto& th : threads) th.join();
  ASSERT_EQ(out.lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const std::string& line : out.lines) {
    ASSERT_EQ(line.find('\n'), line.size() - 1) << line;
  }
}

TEST(LoggerTest, DefaultSinkWritesToStandardError) {
  std::FILE* capture = std::tmpfile();
  ASSERT_NE(capture, nullptr);
  int saved = ::dup(STDERR_FILENO);
  ASSERT_GE(saved, 0);
  ASSERT_GE(::dup2(::fileno(capture), STDERR_FILENO), 0);
  Logger("tarskeld").warning("al error estándar");
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);

  std::rewind(capture);
  char buffer[256] = {};
  std::size_t n = std::fread(buffer, 1, sizeof buffer - 1, capture);
  std::fclose(capture);
  std::string text(buffer, n);
  EXPECT_NE(text.find(" warning tarskeld : [tarskeld] al error estándar\n"), std::string::npos)
      << text;
}

}  // namespace
}  // namespace tarskel
