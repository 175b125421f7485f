#include "SealedCopy.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <system_error>

#include "tarskel/protocol/base/FileDescriptor.hpp"

namespace fs = std::filesystem;

namespace tarskel {
namespace {

[[noreturn]] void fail(const std::string& path, int error) {
  throw SealedCopyError(path + ": " + std::strerror(error));
}

// The directory `relative` names under `root`, made (0700) where missing.
// `root` and everything made here belong to the daemon, so no one else can
// have put a link on the way; O_NOFOLLOW holds that anyway.
FileDescriptor makeDirectories(int root, const std::string& relative) {
  FileDescriptor current(::dup(root));
  if (!current) fail(relative, errno);
  std::size_t start = 0;
  while (start < relative.size()) {
    std::size_t slash = relative.find('/', start);
    if (slash == std::string::npos) slash = relative.size();
    const std::string name = relative.substr(start, slash - start);
    if (::mkdirat(current.get(), name.c_str(), 0700) != 0 && errno != EEXIST) fail(relative, errno);
    FileDescriptor next(
        ::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next) fail(relative, errno);
    current = std::move(next);
    start = slash + 1;
  }
  return current;
}

void copyBytes(int from, int to, const std::string& path, WorkBudget* budget) {
  std::array<char, 128 * 1024> buffer;
  for (;;) {
    ssize_t n = ::read(from, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) fail(path, errno);
    if (n == 0) return;
    if (budget != nullptr) budget->chargeBytes(static_cast<std::uint64_t>(n));
    for (ssize_t written = 0; written < n;) {
      ssize_t m = ::write(to, buffer.data() + written, static_cast<std::size_t>(n - written));
      if (m < 0 && errno == EINTR) continue;
      if (m <= 0) fail(path, m < 0 ? errno : EIO);
      written += m;
    }
  }
}

void copyOne(int sourceRoot, int destinationRoot, const std::string& relative,
             const PlatformFiles& platform, WorkBudget* budget) {
  if (budget != nullptr) budget->chargeFile();
  // A path of plain names only; the manifest has been verified, but its
  // paths still come from outside.
  if (relative.empty() || relative.front() == '/' || relative.find('\0') != std::string::npos) {
    fail(relative, EINVAL);
  }
  const int opened = platform.openBeneath(sourceRoot, relative, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (opened < 0) fail(relative, -opened);
  FileDescriptor source(opened);
  struct stat info {};
  if (::fstat(source.get(), &info) != 0) fail(relative, errno);
  if (!S_ISREG(info.st_mode)) throw SealedCopyError(relative + ": no es un archivo regular");

  const std::size_t slash = relative.rfind('/');
  const std::string name = slash == std::string::npos ? relative : relative.substr(slash + 1);
  const FileDescriptor directory =
      makeDirectories(destinationRoot, slash == std::string::npos ? "" : relative.substr(0, slash));
  if (name.empty() || name == "." || name == "..") fail(relative, EINVAL);

  if (platform.cloneFile(source.get(), directory.get(), name) != 0) {
    FileDescriptor target(::openat(directory.get(), name.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!target) fail(relative, errno);
    copyBytes(source.get(), target.get(), relative, budget);
  }
  const mode_t mode = (info.st_mode & 0111) != 0 ? 0755 : 0644;
  if (::fchmodat(directory.get(), name.c_str(), mode, 0) != 0) fail(relative, errno);
}

}  // namespace

void copySealedFiles(const fs::path& stagedRoot, const HashManifest& manifest,
                     const fs::path& destination, const PlatformFiles& platform,
                     WorkBudget* budget) {
  // The staged root itself is named by the caller and may be reached through
  // links, as any path argument; from its descriptor down nothing is.
  const FileDescriptor source(::open(stagedRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!source) fail(stagedRoot.string(), errno);
  const FileDescriptor target(
      ::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!target) fail(destination.string(), errno);

  std::set<std::string> paths{"vendor/manifest.json", "vendor/manifest.sig"};
  for (const HashManifest::FileEntry& entry : manifest.files) paths.insert(entry.path);
  for (const std::string& path : paths) copyOne(source.get(), target.get(), path, platform, budget);
}

void finishCopy(const fs::path& at, const PlatformFiles& platform) {
  auto reset = [&platform](const fs::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) fail(path.string(), errno);
    mode_t mode = 0;
    if (S_ISDIR(info.st_mode)) {
      mode = 0755;
    } else if (S_ISREG(info.st_mode)) {
      mode = info.st_mode & 0755;
    } else {
      throw SealedCopyError(path.string() + ": no es un archivo regular");
    }
    if (::chmod(path.c_str(), mode) != 0) fail(path.string(), errno);
    if (int error = platform.stripAccessControl(path); error != 0) fail(path.string(), error);
  };
  reset(at);
  std::error_code error;
  fs::recursive_directory_iterator entry(at, error);
  for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
    reset(entry->path());
  }
  if (error) fail(at.string(), error.value());
}

}  // namespace tarskel
