#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "tarskel/protocol/base/Files.hpp"
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

  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 3u);  // state.json, busy, .taken
}

TEST(FilesTest, SHA256MatchesPublishedVectorsWholeAndInPieces) {
  EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  SHA256 pieces;
  pieces.update("a");
  pieces.update("bc");
  EXPECT_EQ(pieces.finishHex(), sha256Hex("abc"));
}

}  // namespace
}  // namespace tarskel
