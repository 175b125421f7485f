#include "tarskel/protocol/base/Files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <random>
#include <system_error>

namespace tarskel {
namespace {

constexpr std::size_t kChunkBytes = 64 * 1024;

std::string readErrorText(FileReadError::Kind kind, const std::filesystem::path& path, int error) {
  switch (kind) {
    case FileReadError::Kind::notRegular:
      return path.string() + ": no es un archivo regular";
    case FileReadError::Kind::tooLarge:
      return path.string() + ": demasiado grande";
    case FileReadError::Kind::cannotOpen:
    case FileReadError::Kind::readFailed:
      break;
  }
  return path.string() + ": " + std::strerror(error);
}

std::string randomSuffix() {
  static constexpr char kDigits[] = "0123456789abcdef";
  thread_local std::mt19937_64 generator{std::random_device{}()};
  std::uint64_t bits = generator();
  std::string out(16, '0');
  for (char& c : out) {
    c = kDigits[bits & 0x0f];
    bits >>= 4;
  }
  return out;
}

}  // namespace

FileSystemError FileSystemError::fromErrno(std::string_view what, std::string_view path,
                                           int errorNumber) {
  std::string text(what);
  text += ' ';
  text += path;
  text += ": ";
  text += std::generic_category().message(errorNumber);
  return FileSystemError(std::move(text), errorNumber);
}

FileReadError::FileReadError(Kind kind, const std::filesystem::path& path, int errorNumber)
    : FileSystemError(readErrorText(kind, path, errorNumber), errorNumber), kind_(kind) {}

FileDescriptor openRegularFile(const std::filesystem::path& path, ReadFileOptions options) {
  int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  if (!options.followLastLink) flags |= O_NOFOLLOW;
  FileDescriptor file(::open(path.c_str(), flags));
  if (!file) throw FileReadError(FileReadError::Kind::cannotOpen, path, errno);
  struct stat info {};
  if (::fstat(file.get(), &info) != 0) {
    throw FileReadError(FileReadError::Kind::cannotOpen, path, errno);
  }
  if (!S_ISREG(info.st_mode)) throw FileReadError(FileReadError::Kind::notRegular, path, EINVAL);
  return file;
}

std::string readFile(const FileDescriptor& file, const std::filesystem::path& path,
                     std::size_t limit) {
  std::string content;
  struct stat info {};
  // The reported size is only a hint for the first allocation: /proc files
  // say 0, and a file may grow while it is read.
  if (::fstat(file.get(), &info) == 0 && info.st_size > 0) {
    content.reserve(std::min<std::size_t>(static_cast<std::size_t>(info.st_size), limit) + 1);
  }
  std::array<char, kChunkBytes> buffer;
  for (;;) {
    // Whole chunks are asked for (some kernel files refuse odd lengths), but
    // never more than one byte past the cap is kept.
    ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw FileReadError(FileReadError::Kind::readFailed, path, errno);
    }
    if (n == 0) return content;
    const std::size_t room = limit + 1 - content.size();
    content.append(buffer.data(), std::min(static_cast<std::size_t>(n), room));
    if (content.size() > limit) throw FileReadError(FileReadError::Kind::tooLarge, path, EFBIG);
  }
}

std::string readFile(const std::filesystem::path& path, std::size_t limit,
                     ReadFileOptions options) {
  const FileDescriptor file = openRegularFile(path, options);
  return readFile(file, path, limit);
}

void atomicReplace(const std::filesystem::path& target, std::string_view bytes,
                   const AtomicReplaceOptions& options) {
  const std::filesystem::path temporary =
      target.parent_path() / options.temporaryName.value_or("." + target.filename().string() + "-" +
                                                            randomSuffix() + ".tmp");
  FileDescriptor file(::open(temporary.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, options.mode));
  if (!file) throw FileSystemError::fromErrno("no se pudo escribir", temporary.native(), errno);

  // From here on every failure removes the temporary file: nothing is left
  // behind beside the target.
  auto failWith = [&temporary](std::string_view what, const std::filesystem::path& path,
                               int error) {
    ::unlink(temporary.c_str());
    throw FileSystemError::fromErrno(what, path.native(), error);
  };
  if (!writeAll(file.get(), bytes) || ::fsync(file.get()) != 0) {
    failWith("no se pudo escribir", temporary, errno);
  }
  if (const int error = file.close(); error != 0) failWith("no se pudo escribir", temporary, error);
  if (::rename(temporary.c_str(), target.c_str()) != 0) {
    failWith("no se pudo reemplazar", target, errno);
  }
}

}  // namespace tarskel
