#include "tarskel/protocol/base/SHA256.hpp"

#include <openssl/evp.h>

#include "tarskel/protocol/base/Check.hpp"

namespace tarskel {
namespace {

// Fetched once: an implicit fetch on every digest costs more than hashing a
// short audit preimage.
const EVP_MD* sha256Method() {
  static const EVP_MD* md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  TARSKEL_CHECK(md != nullptr, "SHA-256 no disponible en libcrypto");
  return md;
}

void writeHex(const unsigned char* digest, char* out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (unsigned i = 0; i < 32; ++i) {
    out[2 * i] = kDigits[digest[i] >> 4];
    out[2 * i + 1] = kDigits[digest[i] & 0x0f];
  }
}

}  // namespace

struct SHA256::Context {
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  ~Context() { EVP_MD_CTX_free(md); }
};

std::array<char, 64> sha256HexDigits(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const bool ok =
      EVP_Digest(bytes.data(), bytes.size(), digest, &length, sha256Method(), nullptr) == 1;
  TARSKEL_CHECK(ok && length == 32, "SHA-256 falló en libcrypto");
  std::array<char, 64> out{};
  writeHex(digest, out.data());
  return out;
}

std::string sha256Hex(std::string_view bytes) {
  const std::array<char, 64> digits = sha256HexDigits(bytes);
  return std::string(digits.data(), digits.size());
}

SHA256::SHA256() : context_(std::make_unique<Context>()) {
  TARSKEL_CHECK(
      context_->md != nullptr && EVP_DigestInit_ex(context_->md, sha256Method(), nullptr) == 1,
      "SHA-256 no disponible en libcrypto");
}

SHA256::~SHA256() = default;
SHA256::SHA256(SHA256&&) noexcept = default;
SHA256& SHA256::operator=(SHA256&&) noexcept = default;

void SHA256::update(const void* data, std::size_t size) {
  TARSKEL_CHECK(EVP_DigestUpdate(context_->md, data, size) == 1, "SHA-256 falló en libcrypto");
}

std::string SHA256::finishHex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  TARSKEL_CHECK(EVP_DigestFinal_ex(context_->md, digest, &length) == 1 && length == 32,
                "SHA-256 falló en libcrypto");
  std::string out(64, '\0');
  writeHex(digest, out.data());
  return out;
}

}  // namespace tarskel
