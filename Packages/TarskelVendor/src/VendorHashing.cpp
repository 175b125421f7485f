#include "tarskel/vendor/VendorHashing.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

namespace tarskel::VendorHashing {
namespace {

// Large enough that the per-call overhead vanishes beside hashing, small
// enough to stay in the second-level cache.
constexpr std::size_t kChunkBytes = 256 * 1024;

using MDContextPtr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// Fetched once: an implicit fetch on every digest costs a provider lookup.
const EVP_MD* sha256() {
  static const EVP_MD* md = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
  }();
  return md;
}

std::string hex(const unsigned char* digest, unsigned length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(std::size_t{length} * 2, '\0');
  for (unsigned i = 0; i < length; ++i) {
    out[2 * i] = kDigits[digest[i] >> 4];
    out[2 * i + 1] = kDigits[digest[i] & 0x0f];
  }
  return out;
}

MDContextPtr newContext() {
  MDContextPtr context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), sha256(), nullptr) != 1) throw std::bad_alloc();
  return context;
}

std::string finish(EVP_MD_CTX* context) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (EVP_DigestFinal_ex(context, digest, &length) != 1) throw std::bad_alloc();
  return hex(digest, length);
}

[[noreturn]] void fail(const char* what, const std::filesystem::path& path, int error) {
  throw std::filesystem::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::string sha256Hex(std::string_view bytes) {
  MDContextPtr context = newContext();
  EVP_DigestUpdate(context.get(), bytes.data(), bytes.size());
  return finish(context.get());
}

std::string sha256HexOfFile(const std::filesystem::path& path) {
  // Non-blocking open: a named pipe swapped in for a file must not hang the
  // caller. For a regular file the flag changes nothing.
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.get() < 0) fail("no se pudo abrir", path, errno);
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) fail("no se pudo leer", path, errno);
  if (!S_ISREG(info.st_mode)) fail("no es un archivo regular", path, EINVAL);
  thread_local std::vector<unsigned char> buffer(kChunkBytes);
  MDContextPtr context = newContext();
  for (;;) {
    ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("no se pudo leer", path, errno);
    }
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(n));
  }
  return finish(context.get());
}

}  // namespace tarskel::VendorHashing
