#include "tarskel/vendor/VendorHashing.hpp"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/base/SHA256.hpp"

namespace tarskel::VendorHashing {
namespace {

// Large enough that the per-call overhead vanishes beside hashing, small
// enough to stay in the second-level cache.
constexpr std::size_t kChunkBytes = 256 * 1024;

[[noreturn]] void fail(const char* what, const std::filesystem::path& path, int error) {
  throw std::filesystem::filesystem_error(what, path,
                                          std::error_code(error, std::generic_category()));
}

}  // namespace

std::string sha256Hex(std::string_view bytes) { return tarskel::sha256Hex(bytes); }

std::string sha256HexOfFile(const std::filesystem::path& path, WorkBudget* budget) {
  if (budget != nullptr) budget->chargeFile();
  // Non-blocking open: a named pipe swapped in for a file must not hang the
  // caller. For a regular file the flag changes nothing.
  FileDescriptor file;
  try {
    file = openRegularFile(path, {.followLastLink = false});
  } catch (const FileReadError& e) {
    fail(e.kind() == FileReadError::Kind::notRegular ? "no es un archivo regular"
                                                     : "no se pudo abrir",
         path, e.errorNumber());
  }
  thread_local std::vector<unsigned char> buffer(kChunkBytes);
  SHA256 digest;
  for (;;) {
    ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("no se pudo leer", path, errno);
    }
    // Charged before it is hashed: a file that never ends (a sparse one of
    // exabytes) is given up at the budget, not read for ever.
    if (budget != nullptr) budget->chargeBytes(static_cast<std::uint64_t>(n));
    digest.update(buffer.data(), static_cast<std::size_t>(n));
  }
  return digest.finishHex();
}

}  // namespace tarskel::VendorHashing
