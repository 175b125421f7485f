#pragma once

// Length-prefixed frames over a byte stream.
//
//   frame := length: uint32be, payload: uint8[length]
//
// The length counts the payload only. Nothing else travels: no magic, no
// version, no checksum. A frame of length 0 is four zero bytes.
//
// Framing::encode builds frames; FrameDecoder reassembles them from bytes cut
// anywhere. A FrameDecoder is a plain value used by one thread at a time; a
// copy decodes on by itself.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

namespace Framing {
// The limit a decoder is given unless its owner has reason for another: 16 MiB.
inline constexpr std::int64_t defaultMaxFrameLength = 16'777'216;

// The 4-byte big-endian length followed by `payload`. Looks at no limit, so it
// can build a frame that a decoder refuses. A payload longer than
// 4,294,967,295 bytes is a programming fault: the process ends.
std::string encode(std::string_view payload);

// The bytes of a header, before every payload.
inline constexpr std::size_t headerLength = 4;

// Appends the 4-byte big-endian header of a `payloadLength`-byte payload to
// `frame`: for a caller that writes the payload in place after it.
void appendHeader(std::string& frame, std::uint32_t payloadLength);

// Writes that header over the first headerLength bytes of `frame`: for a
// caller that reserved them before it knew the payload's length.
void writeHeader(std::string& frame, std::uint32_t payloadLength);

// The payload length announced by the header at the start of `bytes`, which
// holds at least headerLength bytes.
std::uint32_t readHeader(std::string_view bytes);
}  // namespace Framing

// A header announced more than the decoder accepts:
// "frame de <length> bytes excede el máximo de <max>".
class FramingError : public Error {
 public:
  static FramingError frameTooLarge(std::int64_t length, std::int64_t max);

  std::int64_t length() const { return length_; }
  std::int64_t max() const { return max_; }

 private:
  FramingError(std::int64_t length, std::int64_t max);

  std::int64_t length_;
  std::int64_t max_;
};

class FrameDecoder {
 public:
  explicit FrameDecoder(std::int64_t maxFrameLength = Framing::defaultMaxFrameLength)
      : maxFrameLength_(maxFrameLength) {}

  // Adds `bytes` (any length, empty included) and returns every payload now
  // complete, in stream order, each an independent copy.
  //
  // Throws FramingError as soon as a complete header announces more than
  // maxFrameLength(). The failure is terminal: the header stays buffered, so
  // every later append throws the same error at once, and payloads completed
  // earlier in the failing call are lost. The owner closes the stream.
  std::vector<std::string> append(std::string_view bytes);

  // Bytes received and not yet delivered: a partial header, or a partial
  // frame with its header. Nonzero at the end of a stream means the stream
  // stopped inside a frame.
  std::size_t pendingBytes() const { return buffer_.size() - consumed_; }

  // The largest payload accepted; a payload of exactly this length passes.
  std::int64_t maxFrameLength() const { return maxFrameLength_; }
  // From the next append on (a session that has said hello may send more).
  void setMaxFrameLength(std::int64_t max) { maxFrameLength_ = max; }

 private:
  std::string buffer_;
  // Bytes at the front of buffer_ already delivered; dropped lazily so that a
  // burst of small frames doesn't shift the buffer once per frame.
  std::size_t consumed_ = 0;
  std::int64_t maxFrameLength_;
};

}  // namespace tarskel
