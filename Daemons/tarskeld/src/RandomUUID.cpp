#include "RandomUUID.hpp"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>

namespace tarskel {
namespace {

// Random bytes drawn from the kernel a block at a time, so that a request
// doesn't pay a system call for its sixteen. One pool per thread: nothing is
// shared, and no two ids ever come from the same bytes.
class RandomPool {
 public:
  void take(std::uint8_t* out, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (next_ == bytes_.size()) refill();
      out[i] = bytes_[next_];
      bytes_[next_++] = 0;  // a byte handed out is not kept
    }
  }

 private:
  void refill() {
    // getentropy gives at most 256 bytes a call, on Linux and macOS alike.
    for (std::size_t at = 0; at < bytes_.size(); at += kChunk) {
      if (::getentropy(bytes_.data() + at, kChunk) != 0) {
        std::abort();  // no randomness from the kernel: nothing sound to fall back on
      }
    }
    next_ = 0;
  }

  static constexpr std::size_t kChunk = 256;

  std::array<std::uint8_t, 4096> bytes_{};
  std::size_t next_ = bytes_.size();
};

}  // namespace

std::string randomUUIDString() {
  thread_local RandomPool pool;
  std::array<std::uint8_t, 16> id{};
  pool.take(id.data(), id.size());
  id[6] = static_cast<std::uint8_t>((id[6] & 0x0F) | 0x40);  // version 4
  id[8] = static_cast<std::uint8_t>((id[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < id.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kDigits[id[i] >> 4]);
    text.push_back(kDigits[id[i] & 0x0F]);
  }
  return text;
}

}  // namespace tarskel
