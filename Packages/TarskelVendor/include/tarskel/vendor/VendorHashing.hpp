#pragma once

// SHA-256 (FIPS 180-4) as the vendor gate writes it: 64 lower-case
// hexadecimal characters. Stateless; callable from any thread.

#include <filesystem>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/WorkBudget.hpp"

namespace tarskel::VendorHashing {

// The digest of `bytes`. Never throws (short of memory).
std::string sha256Hex(std::string_view bytes);

// The digest of the whole content of the regular file at `path`, streamed in
// bounded memory, so it equals sha256Hex of the file's bytes. A symbolic link
// as the last component is not followed. Throws std::filesystem::filesystem_error
// when the file can't be opened or read.
// With a `budget`, the file and every chunk read are charged to it, and its
// WorkAbandoned goes out as it is.
std::string sha256HexOfFile(const std::filesystem::path& path, WorkBudget* budget = nullptr);

}  // namespace tarskel::VendorHashing
