#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"

namespace tarskel {
namespace {

using Payloads = std::vector<std::string>;
using namespace std::string_literals;

TEST(FramingTest, EncodesBigEndianLengthThenPayload) {
  EXPECT_EQ(Framing::encode("abc"), "\0\0\0\3abc"s);
  const std::string big = Framing::encode(std::string(0x010203, 'x'));
  EXPECT_EQ(big.substr(0, 5), "\0\1\2\3x"s);
  EXPECT_EQ(big.size(), 0x010207u);
}

// One stream of frames (empty ones included), cut in two at every byte: the
// payloads come out whole, in order, and pendingBytes counts what is held. A
// copy taken at the cut decodes the rest on its own.
TEST(FramingTest, EveryCutPointYieldsTheSameFrames) {
  const Payloads sent = {"uno", "", "tercero", std::string(300, 'z'), ""};
  std::string stream;
  for (const auto& p : sent) stream += Framing::encode(p);
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    FrameDecoder decoder;
    Payloads got = decoder.append(std::string_view(stream).substr(0, cut));
    std::size_t delivered = 0;
    for (const auto& p : got) delivered += p.size() + 4;
    EXPECT_EQ(decoder.pendingBytes(), cut - delivered);
    FrameDecoder copy = decoder;
    const Payloads rest = decoder.append(std::string_view(stream).substr(cut));
    EXPECT_EQ(copy.append(std::string_view(stream).substr(cut)), rest);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(got, sent);
    EXPECT_EQ(decoder.pendingBytes(), 0u);
  }
}

// Refusals: the limit is inclusive and judged on the fourth header byte, the
// length is unsigned, and a refusal is terminal and loses the frames of its call.
TEST(FramingTest, OversizeHeaderIsRefusedForGood) {
  struct Case {
    std::int64_t max;
    std::string accepted;  // appended first, delivered
    std::string refused;   // appended next, throws
    std::int64_t length;
    const char* text;
    std::size_t pendingAfter;  // the offending header and what follows it
  };
  const std::vector<Case> cases = {
      {16, Framing::encode(std::string(16, 'x')) + "\0\0\0"s, "\x11"s, 17,
       "frame de 17 bytes excede el máximo de 16", 4},
      {Framing::defaultMaxFrameLength, "", "\xFF\xFF\xFF\xFF"s, 4294967295,
       "frame de 4294967295 bytes excede el máximo de 16777216", 4},
      {8, "", Framing::encode("ok") + "\0\0\0\x09zz"s, 9, "frame de 9 bytes excede el máximo de 8",
       6}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    FrameDecoder decoder(c.max);
    EXPECT_NO_THROW(decoder.append(c.accepted));
    try {
      decoder.append(c.refused);
      ADD_FAILURE() << "accepted";
    } catch (const FramingError& e) {
      EXPECT_EQ(e.length(), c.length);
      EXPECT_EQ(e.max(), c.max);
      EXPECT_STREQ(e.what(), c.text);
    }
    EXPECT_EQ(decoder.pendingBytes(), c.pendingAfter);
    EXPECT_THROW(decoder.append(""), FramingError);
    EXPECT_THROW(decoder.append(Framing::encode("más")), FramingError);
    EXPECT_EQ(decoder.pendingBytes(), c.pendingAfter + Framing::encode("más").size());
  }
}

}  // namespace
}  // namespace tarskel
