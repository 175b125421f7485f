#include "tarskel/protocol/bus/Framing.hpp"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace tarskel {

namespace {

constexpr std::size_t kHeaderLength = Framing::headerLength;

// The big-endian length, most significant byte first, at `at`.
void putHeader(char* at, std::uint32_t payloadLength) {
  for (std::size_t i = 0; i < kHeaderLength; ++i) {
    at[i] = static_cast<char>((payloadLength >> (8 * (kHeaderLength - 1 - i))) & 0xFF);
  }
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
  frame.append(kHeaderLength, '\0');
  putHeader(frame.data() + frame.size() - kHeaderLength, payloadLength);
}

void Framing::writeHeader(std::string& frame, std::uint32_t payloadLength) {
  putHeader(frame.data(), payloadLength);
}

std::uint32_t Framing::readHeader(std::string_view bytes) {
  std::uint32_t length = 0;
  for (std::size_t i = 0; i < kHeaderLength; ++i) {
    length = (length << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return length;
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
    const std::int64_t length = Framing::readHeader(std::string_view(buffer_).substr(consumed_));
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
