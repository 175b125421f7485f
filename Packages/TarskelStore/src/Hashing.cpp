#include "tarskel/store/Hashing.hpp"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace tarskel::Hashing {
namespace {

// Fetched once: an implicit fetch on every digest costs more than hashing a
// short audit preimage.
const EVP_MD* sha256() {
  static EVP_MD* md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return md;
}

}  // namespace

std::array<char, 64> sha256HexDigits(std::string_view data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  const EVP_MD* md = sha256();
  if (md == nullptr || EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr) != 1 ||
      length != 32) {
    // No SHA-256 in libcrypto means a broken installation; no hash could be trusted.
    std::fputs("Hashing: SHA-256 unavailable in libcrypto\n", stderr);
    std::abort();
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::array<char, 64> out{};
  for (unsigned int i = 0; i < 32; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0x0F];
  }
  return out;
}

std::string sha256Hex(std::string_view data) {
  std::array<char, 64> digits = sha256HexDigits(data);
  return std::string(digits.data(), digits.size());
}

}  // namespace tarskel::Hashing
