#include "SealedCopy.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <system_error>
#include <vector>

#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/vendor/BundleSeal.hpp"

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
    if (!writeAll(to, std::string_view(buffer.data(), static_cast<std::size_t>(n)))) {
      fail(path, errno);
    }
  }
}

// What a root-owned install may carry of a staged mode: no group or other
// write, no set-id bit; everything else as staged.
mode_t installMode(mode_t staged) {
  return staged & 07777 & ~static_cast<mode_t>(S_ISUID | S_ISGID | S_IWGRP | S_IWOTH);
}

// Gives the open copy `target` what the open source carries beside its
// bytes: extended attributes, its mode as installMode keeps it, and last its
// times (nothing after this may change the copy's content).
void copyMetadata(int source, int target, const std::string& path, const PlatformFiles& platform) {
  struct stat info {};
  if (::fstat(source, &info) != 0) fail(path, errno);
  if (int error = platform.copyExtendedAttributes(source, target); error != 0) fail(path, error);
  if (::fchmod(target, installMode(info.st_mode)) != 0) fail(path, errno);
  if (int error = platform.copyTimes(source, target); error != 0) fail(path, error);
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

  FileDescriptor target;
  if (platform.cloneFile(source.get(), directory.get(), name) == 0) {
    target =
        FileDescriptor(::openat(directory.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  } else {
    target = FileDescriptor(::openat(directory.get(), name.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (target) copyBytes(source.get(), target.get(), relative, budget);
  }
  if (!target) fail(relative, errno);
  copyMetadata(source.get(), target.get(), relative, platform);
}

// The subdirectories of `relative` (the root itself when empty) beneath
// `root`, appended to `into`; the seal's own directory is not content.
void listDirectories(int root, const std::string& relative, const PlatformFiles& platform,
                     std::vector<std::string>& into) {
  const int opened =
      relative.empty() ? ::dup(root) : platform.openBeneath(root, relative, O_RDONLY | O_DIRECTORY);
  if (opened < 0) fail(relative, relative.empty() ? errno : -opened);
  FileDescriptor owned(opened);
  DIR* directory = ::fdopendir(opened);
  if (directory == nullptr) fail(relative, errno);
  owned.release();  // the listing's now
  const std::unique_ptr<DIR, int (*)(DIR*)> closer(directory, ::closedir);
  const std::string prefix = relative.empty() ? "" : relative + "/";
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(directory);
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || (relative.empty() && name == BundleSeal::vendorDir))
      continue;
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat info {};
      isDirectory = ::fstatat(::dirfd(directory), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISDIR(info.st_mode);
    }
    if (isDirectory) into.push_back(prefix + name);
  }
  if (errno != 0) fail(relative, errno);
}

// Every directory of the staged content, empty ones too, made in the copy
// with its attributes, mode and times. Files are all in place before any
// time is set: making an entry changes its directory's times.
void copyDirectories(int sourceRoot, int destinationRoot, const PlatformFiles& platform,
                     WorkBudget* budget) {
  std::vector<std::string> directories;
  listDirectories(sourceRoot, "", platform, directories);
  for (std::size_t next = 0; next < directories.size(); ++next) {
    if (budget != nullptr) budget->chargeFile();
    // A copy of the name: the list it comes from grows, and may move, meanwhile.
    listDirectories(sourceRoot, std::string(directories[next]), platform, directories);
    makeDirectories(destinationRoot, directories[next]);
  }
  for (const std::string& relative : directories) {
    const int opened = platform.openBeneath(sourceRoot, relative, O_RDONLY | O_DIRECTORY);
    if (opened < 0) fail(relative, -opened);
    const FileDescriptor source(opened);
    const FileDescriptor target = makeDirectories(destinationRoot, relative);
    copyMetadata(source.get(), target.get(), relative, platform);
  }
}

}  // namespace

void copySealedFiles(int stagedRoot, const HashManifest& manifest, const fs::path& destination,
                     const PlatformFiles& platform, WorkBudget* budget) {
  const FileDescriptor target(
      ::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!target) fail(destination.string(), errno);

  std::set<std::string> paths{"vendor/manifest.json", "vendor/manifest.sig"};
  for (const HashManifest::FileEntry& entry : manifest.files) paths.insert(entry.path);
  for (const std::string& path : paths) copyOne(stagedRoot, target.get(), path, platform, budget);
  copyDirectories(stagedRoot, target.get(), platform, budget);
}

void finishCopy(const fs::path& at, const PlatformFiles& platform) {
  auto reset = [&platform](const fs::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) fail(path.string(), errno);
    if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) {
      throw SealedCopyError(path.string() + ": no es un archivo regular");
    }
    if (::chmod(path.c_str(), installMode(info.st_mode)) != 0) fail(path.string(), errno);
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

namespace {

// Deeper than any bundle; what lies below stays rather than each level
// holding one more descriptor.
constexpr int kMaxRemovalDepth = 256;

int removeEntry(int directory, const std::string& name, int depth) {
  const int opened = ::openat(directory, name.c_str(),
                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (opened < 0) {
    if (errno == ENOENT) return 0;
    if (errno != ENOTDIR && errno != ELOOP) return errno;
    return ::unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
  }
  FileDescriptor owned(opened);
  DIR* listing = ::fdopendir(opened);
  if (listing == nullptr) return errno;
  owned.release();  // the listing's now
  const std::unique_ptr<DIR, int (*)(DIR*)> closer(listing, ::closedir);
  if (depth >= kMaxRemovalDepth) return ELOOP;
  // Names first: entries removed while the listing is read may shift it.
  std::vector<std::string> names;
  for (const dirent* entry = ::readdir(listing); entry != nullptr; entry = ::readdir(listing)) {
    const std::string child = entry->d_name;
    if (child != "." && child != "..") names.push_back(child);
  }
  int first = 0;
  for (const std::string& child : names) {
    const int error = removeEntry(::dirfd(listing), child, depth + 1);
    if (first == 0) first = error;
  }
  if (first != 0) return first;
  return ::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

int removeBeneath(int directory, const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return EINVAL;
  }
  return removeEntry(directory, name, 0);
}

}  // namespace tarskel
