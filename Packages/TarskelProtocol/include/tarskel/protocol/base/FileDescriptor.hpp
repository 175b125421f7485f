#pragma once

// Sole owner of one open file descriptor: closed when the value goes, moved
// and never copied. -1 means none. Not safe for concurrent use of one value.
// Beside it, the one loop that writes to a descriptor: every layer writes
// through writeAll.

#include <string_view>
#include <utility>

namespace tarskel {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  explicit operator bool() const noexcept { return valid(); }

  // Gives the descriptor up without closing it.
  int release() noexcept { return std::exchange(fd_, -1); }
  // Closes the held descriptor (an error of close is dropped: the
  // descriptor is gone either way) and holds `fd` instead.
  void reset(int fd = -1) noexcept;
  // Closes the held descriptor now and holds none. Returns 0, or the errno
  // of a close that reported an error (a delayed write failure on some file
  // systems); EINTR counts as closed, since the descriptor is gone.
  int close() noexcept;

 private:
  int fd_ = -1;
};

// Writes every byte of `bytes` to `fd`, going on after short writes and
// EINTR. Returns false with errno set when a write fails (EIO when it wrote
// nothing); how much was written by then is unknown. Any thread.
bool writeAll(int fd, std::string_view bytes) noexcept;

}  // namespace tarskel
