#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/testing/Hex.hpp"
#include "tarskel/testing/Table.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace tarskel {
namespace {

using testing::hex;
using testing::unhex;

// RFC 8032, section 7.1: name | secret key | public key | message | signature
TEST(Ed25519Test, ReproducesTheRfc8032Vectors) {
  Ed25519Algorithm algorithm;
  for (const testing::Row& v : testing::rows(R"(
TEST 1 | 9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60 | d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a |  | e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b
TEST 2 | 4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb | 3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c | 72 | 92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aeeb00d291612bb0c00
TEST 3 | c5aa8df43f9f837bedb7442f31dcb7b166d38535076f094b85ce3a2e0b4458f7 | fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025 | af82 | 6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f760984dc6594a7c15e9716ed28dc027beceea1ec40a
TEST SHA(abc) | 833fe62409237b9d62ec77587520911e9a759cec1d19755b7da901b96dca3d42 | ec172b93ad5e563bf4932c70e1245034c35467ef2efd4d64ebf819683467e2bf | ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f | dc2a4459e7369633a52b1bf277839a00201009a3efbf3ecb69bea2186c26b58909351fc9ac90b3ecfdfbc7c66431e0303dca179c138ac17ad9bef1177331a704
)")) {
    SCOPED_TRACE(v[0]);
    const std::string secretKey = v[1], publicKey = v[2], message = unhex(v[3]), signature = v[4];
    Ed25519IdentityKey key(unhex(secretKey));
    EXPECT_EQ(hex(key.rawPublicKey()), publicKey);
    EXPECT_EQ(hex(key.rawRepresentation()), secretKey);
    EXPECT_EQ(hex(key.sign(message)), signature);
    EXPECT_TRUE(algorithm.verify(unhex(signature), message, unhex(publicKey)));

    Ed25519KeyPair pair(unhex(secretKey), "k");
    VendorSignature signed_ = pair.sign(message);
    EXPECT_EQ(hex(*base64Decode(signed_.signature)), signature);
    EXPECT_EQ(*base64Decode(pair.vendorKey().publicKey), unhex(publicKey));
  }
}

TEST(Ed25519Test, VerifyRefusesWithoutThrowing) {
  Ed25519KeyPair pair("vendor-2026");
  const std::string message = "sealed bytes";
  const std::string signature = *base64Decode(pair.sign(message).signature);
  const std::string publicKey = *base64Decode(pair.vendorKey().publicKey);
  Ed25519Algorithm algorithm;
  ASSERT_TRUE(algorithm.verify(signature, message, publicKey));

  std::string flipped = message;
  flipped[3] ^= 0x01;
  const struct {
    const char* name;
    std::string signature, message, publicKey;
  } cases[] = {{"one bit of the message", signature, flipped, publicKey},
               {"public key of 31 bytes", signature, message, publicKey.substr(1)},
               {"public key of 33 bytes", signature, message, publicKey + "x"},
               {"signature of 63 bytes", signature.substr(1), message, publicKey},
               {"another key", signature, message, Ed25519IdentityKey().rawPublicKey()},
               // The identity point: a key of small order verifies nothing.
               {"small-order key", std::string(1, '\x01') + std::string(31, '\0'),
                std::string(1, '\x01') + std::string(63, '\0'),
                std::string(1, '\x01') + std::string(31, '\0')}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_FALSE(algorithm.verify(c.signature, c.message, c.publicKey));
  }
}

TEST(Ed25519Test, KeysOfTheWrongLengthFailWithTheLibraryError) {
  for (std::size_t length : {31u, 33u}) {
    SCOPED_TRACE(length);
    EXPECT_THROW(Ed25519IdentityKey(std::string(length, 'k')), Ed25519Error);
    EXPECT_THROW(Ed25519KeyPair(std::string(length, 'k'), "id"), Ed25519Error);
  }
}

TEST(Ed25519Test, OneKeySignsFromSeveralThreads) {
  Ed25519KeyPair pair("shared");
  const std::string expected = pair.sign("same").signature;
  std::vector<std::jthread> threads;
  std::vector<std::string> seen(4);
  for (std::size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) seen[t] = pair.sign("same").signature;
    });
  }
  threads.clear();
  for (const std::string& s : seen) EXPECT_EQ(s, expected);
}

}  // namespace
}  // namespace tarskel
