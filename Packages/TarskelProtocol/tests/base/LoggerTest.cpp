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
  const char* tz = std::getenv("TZ");
  const std::optional<std::string> oldTZ = tz ? std::optional<std::string>(tz) : std::nullopt;
  ::setenv("TZ", "XXX-5:30", 1);  // fixed offset east of Greenwich, no daylight time
  ::tzset();
  EXPECT_EQ(formatLogTimestamp(86400), "1970-01-02T05:30:00+0530");
  oldTZ ? ::setenv("TZ", oldTZ->c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
  EXPECT_EQ(formatLogTimestamp(std::numeric_limits<std::time_t>::max()), "<unknown>");
}

TEST(LoggerTest, LevelsSourcesSinks) {
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

  ::testing::internal::CaptureStderr();  // where a logger without a sink writes
  Logger("tarskeld").warning("al error estándar");
  EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with(
      " warning tarskeld : [tarskeld] al error estándar\n"));
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

}  // namespace
}  // namespace tarskel
