#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/vendor/VendorHashing.hpp"

namespace tarskel {
namespace {

namespace fs = std::filesystem;

// Files hash as their whole bytes, on either side of the read chunk; the
// FIPS 180-4 million-'a' example pins the streamed digest itself.
TEST(VendorHashingTest, FilesHashAsTheirWholeBytesAcrossChunkBoundaries) {
  testing::TempDirectory temp;
  const fs::path file = temp.file("f");
  testing::writeFile(file, std::string(1000000, 'a'));
  EXPECT_EQ(VendorHashing::sha256HexOfFile(file),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  for (std::size_t size : {0u, 262143u, 262144u, 262145u, 524288u + 7u}) {
    SCOPED_TRACE(size);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 131 % 251);
    testing::writeFile(file, bytes);
    EXPECT_EQ(VendorHashing::sha256HexOfFile(file), VendorHashing::sha256Hex(bytes));
  }
}

TEST(VendorHashingTest, FileErrorsAreThrownNotHashed) {
  testing::TempDirectory temp;
  testing::writeFile(temp.file("target"), "x");
  fs::create_symlink(temp.file("target"), temp.file("link"));
  for (const fs::path& path : {temp.file("missing"), temp.file("link"), temp.path()}) {
    SCOPED_TRACE(path);
    EXPECT_THROW(VendorHashing::sha256HexOfFile(path), fs::filesystem_error);
  }
}

}  // namespace
}  // namespace tarskel
