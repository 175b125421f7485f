#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/vendor/VendorHashing.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;

struct Example {
  const char* name;
  std::string message;
  const char* digest;
};

// FIPS 180-4 examples, and the empty message.
const Example kExamples[] = {
    {"empty", "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"448 bits", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"one million a", std::string(1000000, 'a'),
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};

TEST(VendorHashingTest, Fips180Examples) {
  for (const Example& e : kExamples) {
    SCOPED_TRACE(e.name);
    EXPECT_EQ(VendorHashing::sha256Hex(e.message), e.digest);
  }
}

TEST(VendorHashingTest, FilesHashAsTheirWholeBytesAcrossChunkBoundaries) {
  testing::TempDirectory temp;
  const fs::path& dir = temp.path();
  for (const Example& e : kExamples) {
    SCOPED_TRACE(e.name);
    std::ofstream(dir / "f", std::ios::binary | std::ios::trunc) << e.message;
    EXPECT_EQ(VendorHashing::sha256HexOfFile(dir / "f"), e.digest);
  }
  // Sizes on either side of the read chunk.
  for (std::size_t size : {262143u, 262144u, 262145u, 524288u + 7u}) {
    SCOPED_TRACE(size);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 131 % 251);
    std::ofstream(dir / "f", std::ios::binary | std::ios::trunc) << bytes;
    EXPECT_EQ(VendorHashing::sha256HexOfFile(dir / "f"), VendorHashing::sha256Hex(bytes));
  }
}

TEST(VendorHashingTest, FileErrorsAreThrownNotHashed) {
  testing::TempDirectory temp;
  const fs::path& dir = temp.path();
  std::ofstream(dir / "target") << "x";
  fs::create_symlink(dir / "target", dir / "link");
  EXPECT_THROW(VendorHashing::sha256HexOfFile(dir / "missing"), fs::filesystem_error);
  EXPECT_THROW(VendorHashing::sha256HexOfFile(dir / "link"), fs::filesystem_error);
  EXPECT_THROW(VendorHashing::sha256HexOfFile(dir), fs::filesystem_error);
}

}  // namespace
}  // namespace tarskel
