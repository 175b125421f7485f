#include "tarskel/protocol/bus/Framing.hpp"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace tarskel {

namespace {

constexpr std::size_t kHeaderLength = 4;

std::uint32_t readBigEndian32(const char* p) {
  const auto byte = [p](int i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(p[i]));
  };
  return (byte(0) << 24) | (byte(1) << 16) | (byte(2) << 8) | byte(3);
}

}  // namespace

std::string Framing::encode(std::string_view payload) {
  if (payload.size() > std::numeric_limits<std::uint32_t>::max()) {
    std::fputs("Framing.encode: payload longer than 4294967295 bytes\n", stderr);
    std::abort();
  }
  std::string frame;
  frame.reserve(kHeaderLength + payload.size());
  appendHeader(frame, static_cast<std::uint32_t>(payload.size()));
  frame.append(payload);
  return frame;
}

void Framing::appendHeader(std::string& frame, std::uint32_t payloadLength) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    frame.push_back(static_cast<char>((payloadLength >> shift) & 0xFF));
  }
}

FramingError::FramingError(std::int64_t length, std::int64_t max)
    : Error("frame de " + std::to_string(length) + " bytes excede el máximo de " +
            std::to_string(max)),
      length_(length),
      max_(max) {}

FramingError FramingError::frameTooLarge(std::int64_t length, std::int64_t max) {
  return FramingError(length, max);
}

namespace {
constexpr std::size_t kKeptCapacity = 256 * 1024;
}  // namespace

std::vector<std::string> FrameDecoder::append(std::string_view bytes) {
  if (consumed_ > 0 && consumed_ >= buffer_.size() / 2) {
    buffer_.erase(0, consumed_);
    consumed_ = 0;
  }
  buffer_.append(bytes);
  std::vector<std::string> frames;
  while (pendingBytes() >= kHeaderLength) {
    const std::int64_t length = readBigEndian32(buffer_.data() + consumed_);
    if (length > maxFrameLength_) throw FramingError::frameTooLarge(length, maxFrameLength_);
    const auto total = kHeaderLength + static_cast<std::size_t>(length);
    if (pendingBytes() < total) break;
    frames.emplace_back(buffer_, consumed_ + kHeaderLength, static_cast<std::size_t>(length));
    consumed_ += total;
  }
  if (consumed_ == buffer_.size()) {
    // The room a large frame needed is given back once it is delivered: an
    // idle stream holds no more than a small read's worth.
    if (buffer_.capacity() > kKeptCapacity) {
      std::string().swap(buffer_);
    } else {
      buffer_.clear();
    }
    consumed_ = 0;
  }
  return frames;
}

}  // namespace tarskel
