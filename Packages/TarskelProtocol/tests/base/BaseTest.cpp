#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/base/Logger.hpp"
#include "tarskel/protocol/base/SHA256.hpp"
#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;
using testing::TempDirectory;
using Kind = FileReadError::Kind;

TEST(FilesTest, ReadFileRefusesWhatIsNotASmallRegularFile) {
  TempDirectory dir;
  testing::writeFile(dir.file("four"), "1234");
  testing::writeFile(dir.file("five"), "12345");
  ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);  // no writer: a blocking open hangs
  fs::create_symlink("four", dir.file("link"));

  struct Case {
    std::string name;
    fs::path path;
    bool followLastLink;
    std::optional<Kind> refusal;
  };
  const Case cases[] = {
      {"at the cap", dir.file("four"), true, std::nullopt},
      {"one byte past the cap", dir.file("five"), true, Kind::tooLarge},
      {"fifo", dir.file("fifo"), true, Kind::notRegular},
      {"link followed", dir.file("link"), true, std::nullopt},
      {"link refused", dir.file("link"), false, Kind::cannotOpen},
      {"endless kernel file of size 0", "/proc/self/pagemap", true, Kind::tooLarge}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      EXPECT_EQ(readFile(c.path, 4, {c.followLastLink}), "1234");
      EXPECT_FALSE(c.refusal);
    } catch (const FileReadError& e) {
      ASSERT_TRUE(c.refusal) << e.what();
      EXPECT_EQ(e.kind(), *c.refusal);
      EXPECT_TRUE(std::string(e.what()).starts_with(c.path.string() + ": ")) << e.what();
    }
  }
}

TEST(FilesTest, AtomicReplaceLeavesNothingBesideTheTarget) {
  TempDirectory dir;
  const fs::path target = dir.file("state.json");
  atomicReplace(target, "first");
  atomicReplace(target, "second", {".state.tmp", 0600});
  EXPECT_EQ(testing::readFile(target), "second");
  EXPECT_EQ(fs::status(target).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  // A rename that fails (the target is a directory that is not empty)
  // leaves the target as it was and no temporary file.
  testing::writeFile(dir.file("busy/inside"), "x");
  EXPECT_THROW(atomicReplace(dir.file("busy"), "new"), FileSystemError);
  // A temporary name already taken is refused, never written through.
  testing::writeFile(dir.file(".taken"), "keep");
  EXPECT_THROW(atomicReplace(target, "new", {".taken", 0644}), FileSystemError);
  EXPECT_EQ(testing::readFile(dir.file(".taken")), "keep");

  // state.json, busy and .taken
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 3);
}

TEST(FilesTest, SHA256MatchesPublishedVectorsWholeAndInPieces) {
  EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  SHA256 pieces;
  pieces.update("a");
  pieces.update("bc");
  EXPECT_EQ(pieces.finishHex(), sha256Hex("abc"));
}

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
  std::vector<std::string> lines;
  Logger logger("tarskeld", LogLevel::notice,
                [&](std::string_view line) { lines.emplace_back(line); });
  logger.info("i");
  logger.notice("n");
  logger.withSource("codesign").critical("c", {{"k", "v"}});
  ASSERT_EQ(lines.size(), 2u);
  static const std::regex form(
      R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}[+-]\d{4} notice tarskeld : \[tarskeld\] n\n$)");
  EXPECT_TRUE(std::regex_match(lines[0], form)) << lines[0];
  EXPECT_NE(lines[1].find(" critical tarskeld : k=v [codesign] c\n"), std::string::npos);

  Logger throwing("x", LogLevel::info, [](std::string_view) { throw std::runtime_error("full"); });
  EXPECT_NO_THROW(throwing.error("lost"));

  // A logger without a sink writes to standard error, with the journal's
  // priority prefix only when standard error is the stream JOURNAL_STREAM names.
  for (const char* journal : {"", "0:0", "stderr"}) {
    ::testing::internal::CaptureStderr();
    struct stat err {};
    ::fstat(STDERR_FILENO, &err);
    const std::string stream =
        *journal == 's' ? std::to_string(err.st_dev) + ":" + std::to_string(err.st_ino) : journal;
    *journal ? ::setenv("JOURNAL_STREAM", stream.c_str(), 1) : ::unsetenv("JOURNAL_STREAM");
    Logger("tarskeld").warning("al error estándar");
    ::unsetenv("JOURNAL_STREAM");
    const std::string line = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(line.starts_with("<4>2"), *journal == 's') << journal << ": " << line;
    EXPECT_TRUE(line.ends_with(" warning tarskeld : [tarskeld] al error estándar\n")) << line;
  }
}

// Copies of one logger on several threads share the sink; calls into it must
// not overlap, or an unsynchronised sink like this vector would be corrupted.
TEST(LoggerTest, ConcurrentCopiesSerialiseTheSink) {
  std::vector<std::string> lines;
  Logger logger("tarskeld", LogLevel::info,
                [&](std::string_view line) { lines.emplace_back(line); });
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([copy = logger, t] {
      for (int i = 0; i < kLines; ++i) copy.info("hilo " + std::to_string(t));
    });
  }
  for (auto& th : threads) th.join();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const std::string& line : lines) {
    ASSERT_EQ(line.find('\n'), line.size() - 1) << line;
  }
}

TEST(Base64, StrictDecoding) {
  // White space, foreign characters and misplaced padding are refused; the
  // unused bits of the last symbol are not looked at ("Zh==" is "f").
  const std::pair<const char*, std::optional<std::string>> cases[] = {{"", ""},
                                                                      {"Zg==", "f"},
                                                                      {"Zm8=", "fo"},
                                                                      {"Zm9vYg==", "foob"},
                                                                      {"Zh==", "f"},
                                                                      {"Zg", std::nullopt},
                                                                      {"Zm 9v", std::nullopt},
                                                                      {"Z===", std::nullopt},
                                                                      {"Zg==Zg==", std::nullopt}};
  for (const auto& [text, bytes] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(base64Decode(text), bytes);
    EXPECT_EQ(base64Decode(base64Encode(bytes.value_or(text))), bytes.value_or(text));
  }
}

}  // namespace
}  // namespace tarskel
