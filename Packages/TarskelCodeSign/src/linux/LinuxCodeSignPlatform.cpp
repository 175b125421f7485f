#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fstream>
#include <limits>
#include <optional>
#include <string>

#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif

namespace tarskel {

using namespace CodeSignStatus;

namespace {

struct LinuxStaticCode final : CodeObject {
  explicit LinuxStaticCode(std::string p) : path(std::move(p)) {}
  std::string path;
};

struct LinuxRunningCode final : CodeObject {
  LinuxRunningCode(pid_t p, std::string exe) : pid(p), executable(std::move(exe)) {}
  pid_t pid;
  std::string executable;
};

struct LinuxRequirement final : CodeObject {
  explicit LinuxRequirement(std::string_view t) : text(t) {}
  std::string text;
};

// The target of a symbolic link such as /proc/<pid>/exe (relative to
// `dir`, a directory descriptor, or AT_FDCWD), or the errno.
std::string readLink(const char* link, int& error, int dir = AT_FDCWD) {
  std::string target(256, '\0');
  for (;;) {
    ssize_t n = ::readlinkat(dir, link, target.data(), target.size());
    if (n < 0) {
      error = errno;
      return {};
    }
    if (static_cast<std::size_t>(n) < target.size()) {
      target.resize(static_cast<std::size_t>(n));
      error = 0;
      return target;
    }
    target.resize(target.size() * 2);  // may have been cut short: try again larger
  }
}

// The "Pid:" field of a pidfd's fdinfo: -1 once the process has gone;
// nothing when `fd` is not a pidfd.
std::optional<long> pidOfPidfd(int fd) {
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
  std::string line;
  while (std::getline(info, line)) {
    constexpr std::string_view key = "Pid:";
    if (line.compare(0, key.size(), key) != 0) continue;
    std::size_t start = line.find_first_not_of(" \t", key.size());
    if (start == std::string::npos) return std::nullopt;
    long pid = 0;
    auto [end, ec] = std::from_chars(line.data() + start, line.data() + line.size(), pid);
    if (ec != std::errc()) return std::nullopt;
    return pid;
  }
  return std::nullopt;
}

bool pidfdProcessGone(int pidfd) {
  return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0) != 0 && errno == ESRCH;
}

}  // namespace

const CodeSignPlatform& CodeSignPlatform::system() {
  static const LinuxCodeSignPlatform platform;
  return platform;
}

CodeResult LinuxCodeSignPlatform::staticCodeForPath(const std::string& path) const {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0) return {errSecCSStaticCodeNotFound, {}};
  return {0, std::make_shared<LinuxStaticCode>(path)};
}

CodeResult LinuxCodeSignPlatform::guestCodeForPid(std::int32_t pid) const {
  if (pid <= 0) return {errSecCSNoSuchCode, {}};
  int error = 0;
  std::string exe = readLink(("/proc/" + std::to_string(pid) + "/exe").c_str(), error);
  // A zombie or a kernel thread has no executable; to us it is no code.
  if (error == ENOENT || error == ESRCH) return {errSecCSNoSuchCode, {}};
  if (error != 0) return {errSecCSGuestInvalid, {}};
  return {0, std::make_shared<LinuxRunningCode>(static_cast<pid_t>(pid), std::move(exe))};
}

std::optional<CodeResult> LinuxCodeSignPlatform::guestCodeInProcDirectory(int procDir,
                                                                          std::int32_t pid) const {
  if (procDir < 0 || pid <= 0) return CodeResult{errSecCSNoSuchCode, {}};
  int error = 0;
  // The directory stands for the process it was opened for, not for its
  // number: once that process has gone (reaped or a zombie) "exe" is ENOENT.
  std::string exe = readLink("exe", error, procDir);
  if (error == ENOENT || error == ESRCH) return CodeResult{errSecCSNoSuchCode, {}};
  if (error != 0) return CodeResult{errSecCSGuestInvalid, {}};
  return CodeResult{0, std::make_shared<LinuxRunningCode>(static_cast<pid_t>(pid), std::move(exe))};
}

CodeResult LinuxCodeSignPlatform::guestCodeForPidfd(int pidfd) const {
  std::optional<long> pid = pidOfPidfd(pidfd);
  if (!pid) return {errSecCSInvalidObjectRef, {}};
  if (*pid <= 0 || *pid > std::numeric_limits<std::int32_t>::max()) return {errSecCSNoSuchCode, {}};
  CodeResult guest = guestCodeForPid(static_cast<std::int32_t>(*pid));
  // The executable was read through the number; only if the pidfd's process
  // is still alive afterwards do we know the number still named it.
  if (guest.status == 0 && pidfdProcessGone(pidfd)) return {errSecCSNoSuchCode, {}};
  return guest;
}

CodeResult LinuxCodeSignPlatform::senderCode(const MessageOrigin& origin) const {
  return guestCodeForPidfd(origin.pidfd);
}

CodeResult LinuxCodeSignPlatform::staticCodeOf(const CodeObject& runningCode) const {
  const auto* running = dynamic_cast<const LinuxRunningCode*>(&runningCode);
  if (running == nullptr) return {errSecCSInvalidObjectRef, {}};
  return {0, std::make_shared<LinuxStaticCode>(running->executable)};
}

CodeRef LinuxCodeSignPlatform::compileRequirement(std::string_view text) const {
  return std::make_shared<LinuxRequirement>(text);
}

OSStatus LinuxCodeSignPlatform::checkValidity(const CodeObject& staticCode, std::uint32_t,
                                              const CodeObject*) const {
  if (dynamic_cast<const LinuxStaticCode*>(&staticCode) == nullptr) return errSecCSInvalidObjectRef;
  return errSecCSUnsigned;
}

SigningInformation LinuxCodeSignPlatform::copySigningInformation(const CodeObject& staticCode,
                                                                 std::uint32_t) const {
  if (dynamic_cast<const LinuxStaticCode*>(&staticCode) == nullptr) {
    return {errSecCSInvalidObjectRef,
            SigningInformation::Result::none,
            SigningInformation::Team::absent,
            {}};
  }
  return {0, SigningInformation::Result::dictionary, SigningInformation::Team::absent, {}};
}

std::string LinuxCodeSignPlatform::executablePath(const CodeObject& code) {
  if (const auto* s = dynamic_cast<const LinuxStaticCode*>(&code)) return s->path;
  if (const auto* r = dynamic_cast<const LinuxRunningCode*>(&code)) return r->executable;
  return {};
}

}  // namespace tarskel
