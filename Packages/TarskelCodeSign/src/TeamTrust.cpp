#include "tarskel/codesign/TeamTrust.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <exception>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

namespace {

// The shape of vendor/teams.json.
struct File {
  std::int64_t revision = 0;
  std::vector<std::string> teamIds;

  void encode(KeyedEncoder& e) const {
    e.required("revision", revision);
    e.required("teamIds", teamIds);
  }
  static File decode(const KeyedDecoder& d) {
    return {d.required<std::int64_t>("revision"), d.required<std::vector<std::string>>("teamIds")};
  }
};

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// The whole file, or nothing for any failure. Only regular files are read:
// a FIFO or a device must not stall the daemon's start.
std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) return std::nullopt;
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;

  std::string content;
  std::array<char, 16384> buffer{};
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) return content;
    content.append(buffer.data(), static_cast<std::size_t>(n));
  }
}

}  // namespace

std::optional<TeamTrust> TeamTrust::loadIfProvisioned(const std::filesystem::path& root,
                                                      const Logger& logger) {
  std::optional<std::string> bytes;
  try {
    bytes = readWholeFile(root / teamsFile);
  } catch (const std::exception&) {
    // Not even the path could be formed: nothing was provisioned we can see.
  }
  if (!bytes) return std::nullopt;

  std::string problem;
  try {
    File file = TarskelJSON::decoder().decode<File>(*bytes);
    return TeamTrust{file.revision, std::move(file.teamIds)};
  } catch (const std::exception& e) {
    problem = e.what();
  }
  logger.critical("vendor/teams.json ilegible: " + problem + " — gate del SO sin raíz");
  return TeamTrust{0, {}};
}

}  // namespace tarskel
