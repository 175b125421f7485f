#include "tarskel/protocol/bus/Framing.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarskel {
namespace {

using Payloads = std::vector<std::string>;
using namespace std::string_literals;

TEST(FramingTest, EncodesBigEndianLengthThenPayload) {
  EXPECT_EQ(Framing::encode(""), "\0\0\0\0"s);
  EXPECT_EQ(Framing::encode("abc"), "\0\0\0\3abc"s);
  EXPECT_EQ(Framing::encode(std::string(0x010203, 'x')).substr(0, 4), "\0\1\2\3"s);
}

TEST(FramingTest, EmptyFrameDecodesToOneEmptyPayload) {
  FrameDecoder decoder;
  EXPECT_EQ(decoder.append("\0\0\0\0"s), Payloads{""});
  EXPECT_EQ(decoder.pendingBytes(), 0u);
}

TEST(FramingTest, ByteAtATimeDeliversOnlyAtTheLastByte) {
  const std::string frame = Framing::encode("hola");
  FrameDecoder decoder;
  for (std::size_t i = 0; i + 1 < frame.size(); ++i) {
    EXPECT_TRUE(decoder.append(frame.substr(i, 1)).empty());
    EXPECT_EQ(decoder.pendingBytes(), i + 1);
  }
  EXPECT_EQ(decoder.append(frame.substr(frame.size() - 1)), Payloads{"hola"});
  EXPECT_EQ(decoder.pendingBytes(), 0u);
}

TEST(FramingTest, TwoAndAHalfFramesLeaveTheHalfPending) {
  const std::string third = Framing::encode("tercero");
  FrameDecoder decoder;
  const auto got = decoder.append(Framing::encode("uno") + Framing::encode("") + third.substr(0, 6));
  EXPECT_EQ(got, (Payloads{"uno", ""}));
  EXPECT_EQ(decoder.pendingBytes(), 6u);
  EXPECT_EQ(decoder.append(third.substr(6)), Payloads{"tercero"});
}

// Many small frames in one stream: the decoder drops consumed bytes lazily,
// which must never shift a payload.
TEST(FramingTest, LongStreamsOfSmallFramesStayInOrder) {
  std::string stream;
  Payloads sent;
  for (int i = 0; i < 500; ++i) {
    sent.push_back(std::string(static_cast<std::size_t>(i % 7), static_cast<char>('a' + i % 26)));
    stream += Framing::encode(sent.back());
  }
  FrameDecoder decoder;
  Payloads got;
  for (std::size_t at = 0; at < stream.size(); at += 13) {
    for (auto& p : decoder.append(std::string_view(stream).substr(at, 13))) got.push_back(p);
  }
  EXPECT_EQ(got, sent);
  EXPECT_EQ(decoder.pendingBytes(), 0u);
}

TEST(FramingTest, LimitIsInclusiveAndCheckedAtTheFourthHeaderByte) {
  FrameDecoder decoder(16);
  EXPECT_EQ(decoder.append(Framing::encode(std::string(16, 'x'))), Payloads{std::string(16, 'x')});
  EXPECT_TRUE(decoder.append("\0\0\0"s).empty());
  try {
    decoder.append("\x11"s);
    FAIL() << "a 17-byte header must be refused";
  } catch (const FramingError& e) {
    EXPECT_EQ(e.length(), 17);
    EXPECT_EQ(e.max(), 16);
    EXPECT_STREQ(e.what(), "frame de 17 bytes excede el máximo de 16");
  }
}

TEST(FramingTest, LengthIsUnsigned) {
  FrameDecoder decoder;
  try {
    decoder.append("\xFF\xFF\xFF\xFF"s);
    FAIL();
  } catch (const FramingError& e) {
    EXPECT_EQ(e.length(), 4294967295);
    EXPECT_STREQ(e.what(), "frame de 4294967295 bytes excede el máximo de 16777216");
  }
}

TEST(FramingTest, FailureIsTerminalAndLosesFramesOfTheSameCall) {
  FrameDecoder decoder(8);
  const std::string bad = "\0\0\0\x09zz"s;
  EXPECT_THROW(decoder.append(Framing::encode("ok") + bad), FramingError);
  EXPECT_EQ(decoder.pendingBytes(), bad.size());
  EXPECT_THROW(decoder.append(""), FramingError);
  EXPECT_THROW(decoder.append(Framing::encode("más")), FramingError);
  EXPECT_EQ(decoder.pendingBytes(), bad.size() + Framing::encode("más").size());
}

TEST(FramingTest, CopiesDecodeIndependently) {
  FrameDecoder first;
  first.append("\0\0\0\2a"s);
  FrameDecoder second = first;
  EXPECT_EQ(first.append("b"), Payloads{"ab"});
  EXPECT_EQ(second.append("c"), Payloads{"ac"});
}

}  // namespace
}  // namespace tarskel
