#pragma once

// SHA-256 (FIPS 180-4), written as this system always writes it: 64
// lower-case hexadecimal characters. OpenSSL's libcrypto does the work. No
// call fails: a libcrypto without SHA-256 is a broken installation, and the
// process aborts (TARSKEL_CHECK) rather than trust any hash.

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tarskel {

// The digest of `bytes`. Any thread.
std::string sha256Hex(std::string_view bytes);

// The same 64 characters without allocating, for hot loops.
std::array<char, 64> sha256HexDigits(std::string_view bytes);

// A digest fed in pieces; equal to sha256Hex of the pieces joined. One value
// is used by one thread at a time.
class SHA256 {
 public:
  SHA256();
  ~SHA256();
  SHA256(SHA256&&) noexcept;
  SHA256& operator=(SHA256&&) noexcept;

  void update(const void* data, std::size_t size);
  void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }
  // The digest of everything fed so far; the value may not be fed again.
  std::string finishHex();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace tarskel
