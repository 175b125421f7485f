#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

#include "ProcessImage.hpp"
#include "SealedExecutable.hpp"
#include "tarskel/codesign/CodeKeys.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"

#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif

namespace tarskel {

using namespace CodeSignStatus;
using linuxcode::FileIdentity;
using linuxcode::Judgement;
using linuxcode::Refusal;
using linuxcode::SealedExecutables;
using linuxcode::Signer;

namespace {

struct LinuxStaticCode final : CodeObject {
  LinuxStaticCode(std::string p, std::optional<FileIdentity> id, std::optional<std::string> refusal)
      : path(std::move(p)), identity(id), processRefusal(std::move(refusal)) {}

  // The seal's answer, worked out once for this object.
  const Judgement& judgement(const std::optional<SealedExecutables>& sealed) const {
    std::call_once(once, [&] {
      judged = sealed ? sealed->judge(path, identity)
                      : Judgement(Refusal{errSecCSReqFailed,
                                          "sin claves de código (vendor/code-keys.json)"});
    });
    return judged;
  }

  std::string path;
  std::optional<FileIdentity> identity;       // of the running file, for a process's code
  std::optional<std::string> processRefusal;  // why the process is not that file alone
  mutable std::once_flag once;
  mutable Judgement judged;
};

struct LinuxRunningCode final : CodeObject {
  LinuxRunningCode(pid_t p, std::string exe, FileIdentity id, std::optional<std::string> refusal)
      : pid(p),
        executable(std::move(exe)),
        identity(id),
        processRefusal(std::move(refusal)),
        onDisk(std::make_shared<LinuxStaticCode>(executable, identity, processRefusal)) {}
  pid_t pid;
  std::string executable;
  FileIdentity identity;
  std::optional<std::string> processRefusal;
  // Its file, judged at most once however often this code is asked about.
  std::shared_ptr<const LinuxStaticCode> onDisk;
};

}  // namespace

struct LinuxCodeSignPlatform::State {
  std::optional<SealedExecutables> sealed;  // nothing: no code keys
  std::mutex mutex;
  // Program images that passed the process checks, by pid: the image's
  // token and its running code as last read.
  struct Known {
    linuxcode::ImageToken token;
    std::shared_ptr<const LinuxRunningCode> code;
  };
  std::unordered_map<pid_t, Known> images;
};

namespace {

constexpr std::size_t kMaxImages = 4096;

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

// The running code last read for `pid`, when the process still runs the
// program image that passed the process checks then: one read of its
// memory. An image keeps its executable (only an exec changes it, and an
// exec brings a new token), so a success for that file is still good.
std::optional<LinuxCodeSignPlatform::State::Known> knownImage(LinuxCodeSignPlatform::State& state,
                                                              pid_t pid) {
  std::optional<LinuxCodeSignPlatform::State::Known> known;
  {
    std::lock_guard lock(state.mutex);
    auto it = state.images.find(pid);
    if (it == state.images.end()) return std::nullopt;
    known = it->second;
  }
  if (!linuxcode::imageStillIs(pid, known->token)) return std::nullopt;
  return known;
}

void rememberImage(LinuxCodeSignPlatform::State& state, pid_t pid,
                   const linuxcode::ImageToken& token,
                   std::shared_ptr<const LinuxRunningCode> code) {
  std::lock_guard lock(state.mutex);
  if (state.images.size() >= kMaxImages) state.images.clear();
  state.images.insert_or_assign(pid, LinuxCodeSignPlatform::State::Known{token, std::move(code)});
}

// The executable of the process of `procDir`, path and identity, or the
// status that says why there is none.
std::variant<OSStatus, std::pair<std::string, FileIdentity>> executableIn(int procDir) {
  int error = 0;
  std::string exe = readLink("exe", error, procDir);
  struct stat info {};
  if (error == 0 && ::fstatat(procDir, "exe", &info, 0) != 0) error = errno;
  // A zombie or a kernel thread has no executable; to us it is no code.
  if (error == ENOENT || error == ESRCH) return errSecCSNoSuchCode;
  if (error != 0) return errSecCSGuestInvalid;
  return std::make_pair(std::move(exe), FileIdentity::of(info));
}

// The running code of the process whose /proc directory is `procDir`. The
// executable is read after the process checks: when that read works, the
// process was there for every read before it.
CodeResult runningCodeIn(LinuxCodeSignPlatform::State& state, int procDir, pid_t pid) {
  const auto known = knownImage(state, pid);
  if (known && state.sealed &&
      state.sealed->remembers(known->code->executable, known->code->identity)) {
    return {0, known->code};
  }
  // An image that passed before but whose file is not yet remembered (just
  // written, or never judged) skips the process checks, not the file's.
  std::optional<linuxcode::ImageToken> image =
      known ? std::optional(known->token) : linuxcode::readImageToken(procDir, pid);
  std::optional<std::string> refusal;
  if (!image) {
    refusal = "no se pudo leer la imagen del proceso (auxv y AT_RANDOM)";
  } else if (!known) {
    refusal = linuxcode::processRefusal(procDir);
    // The same image from the first read to the last: no exec in between.
    if (!refusal && linuxcode::readImageToken(procDir, pid) != image) {
      refusal = "el proceso cambió de programa mientras se examinaba";
    }
  }
  auto executable = executableIn(procDir);
  if (const OSStatus* status = std::get_if<OSStatus>(&executable)) return {*status, {}};
  auto& [path, identity] = std::get<std::pair<std::string, FileIdentity>>(executable);
  auto code = std::make_shared<const LinuxRunningCode>(pid, std::move(path), identity, refusal);
  if (!refusal && linuxcode::imageStillIs(pid, *image)) rememberImage(state, pid, *image, code);
  return {0, std::move(code)};
}

}  // namespace

LinuxCodeSignPlatform::LinuxCodeSignPlatform(std::optional<VendorAllowlist> codeKeys)
    : state_(std::make_shared<State>()) {
  if (codeKeys) state_->sealed.emplace(std::move(*codeKeys));
}

std::shared_ptr<const LinuxCodeSignPlatform> LinuxCodeSignPlatform::anchoredAt(
    const std::filesystem::path& root, const Logger& logger) {
  return std::make_shared<LinuxCodeSignPlatform>(CodeKeys::loadIfPresent(root, logger));
}

std::shared_ptr<const CodeSignPlatform> CodeSignPlatform::systemAnchoredAt(
    const std::filesystem::path& root, const Logger& logger) {
  std::optional<VendorAllowlist> keys = CodeKeys::loadIfPresent(root, logger);
  if (!keys) {
    logger.warning("sin vendor/code-keys.json — ningún cliente está firmado para el gate XPC");
  } else if (!keys->keys.empty()) {
    logger.info("gate XPC anclado a " + std::to_string(keys->keys.size()) + " clave(s) de código");
  }
  return std::make_shared<LinuxCodeSignPlatform>(std::move(keys));
}

const CodeSignPlatform& CodeSignPlatform::system() {
  static const LinuxCodeSignPlatform platform;
  return platform;
}

CodeResult LinuxCodeSignPlatform::staticCodeForPath(const std::string& path) const {
  char resolved[PATH_MAX];
  struct stat info {};
  if (path.empty() || ::realpath(path.c_str(), resolved) == nullptr ||
      ::stat(resolved, &info) != 0) {
    return {errSecCSStaticCodeNotFound, {}};
  }
  return {0, std::make_shared<LinuxStaticCode>(resolved, std::nullopt, std::nullopt)};
}

CodeResult LinuxCodeSignPlatform::guestCodeForPid(std::int32_t pid) const {
  if (pid <= 0) return {errSecCSNoSuchCode, {}};
  FileDescriptor dir(
      ::open(("/proc/" + std::to_string(pid)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return {errno == ENOENT ? errSecCSNoSuchCode : errSecCSGuestInvalid, {}};
  return runningCodeIn(*state_, dir.get(), pid);
}

std::optional<CodeResult> LinuxCodeSignPlatform::guestCodeInProcDirectory(int procDir,
                                                                          std::int32_t pid) const {
  if (procDir < 0 || pid <= 0) return CodeResult{errSecCSNoSuchCode, {}};
  // The directory stands for the process it was opened for, not for its
  // number: once that process has gone (reaped or a zombie) "exe" is ENOENT.
  return runningCodeIn(*state_, procDir, pid);
}

CodeResult LinuxCodeSignPlatform::guestCodeForPidfd(int pidfd) const {
  std::optional<long> pid = pidOfPidfd(pidfd);
  if (!pid) return {errSecCSInvalidObjectRef, {}};
  if (*pid <= 0 || *pid > std::numeric_limits<std::int32_t>::max()) return {errSecCSNoSuchCode, {}};
  CodeResult guest = guestCodeForPid(static_cast<std::int32_t>(*pid));
  // Everything was read through the number; only if the pidfd's process is
  // still alive afterwards do we know the number still named it.
  if (guest.status == 0 && pidfdProcessGone(pidfd)) return {errSecCSNoSuchCode, {}};
  return guest;
}

CodeResult LinuxCodeSignPlatform::senderCode(const MessageOrigin& origin) const {
  return guestCodeForPidfd(origin.pidfd);
}

CodeResult LinuxCodeSignPlatform::staticCodeOf(const CodeObject& runningCode) const {
  const auto* running = dynamic_cast<const LinuxRunningCode*>(&runningCode);
  if (running == nullptr) return {errSecCSInvalidObjectRef, {}};
  return {0, running->onDisk};
}

CodeRef LinuxCodeSignPlatform::compileRequirement(std::string_view text) const {
  return std::make_shared<LinuxRequirement>(text);
}

OSStatus LinuxCodeSignPlatform::checkValidity(const CodeObject& staticCode, std::uint32_t flags,
                                              const CodeObject* requirement) const {
  return checkValidityWithReason(staticCode, flags, requirement).status;
}

CodeSignPlatform::Validity LinuxCodeSignPlatform::checkValidityWithReason(
    const CodeObject& staticCode, std::uint32_t, const CodeObject*) const {
  const auto* code = dynamic_cast<const LinuxStaticCode*>(&staticCode);
  if (code == nullptr) return {errSecCSInvalidObjectRef, {}};
  if (const auto* refusal = std::get_if<Refusal>(&code->judgement(state_->sealed))) {
    return {refusal->status, refusal->reason};
  }
  if (code->processRefusal) return {errSecCSGuestInvalid, *code->processRefusal};
  return {0, {}};
}

SigningInformation LinuxCodeSignPlatform::copySigningInformation(const CodeObject& staticCode,
                                                                 std::uint32_t) const {
  const auto* code = dynamic_cast<const LinuxStaticCode*>(&staticCode);
  if (code == nullptr) {
    return {errSecCSInvalidObjectRef,
            SigningInformation::Result::none,
            SigningInformation::Team::absent,
            {}};
  }
  if (const auto* signer = std::get_if<Signer>(&code->judgement(state_->sealed))) {
    return {0, SigningInformation::Result::dictionary, SigningInformation::Team::string,
            signer->team};
  }
  return {0, SigningInformation::Result::dictionary, SigningInformation::Team::absent, {}};
}

std::optional<LinuxCodeSignPlatform::SealedIdentity> LinuxCodeSignPlatform::sealedIdentity(
    const CodeObject& staticCode) const {
  const auto* code = dynamic_cast<const LinuxStaticCode*>(&staticCode);
  if (code == nullptr) return std::nullopt;
  const auto* signer = std::get_if<Signer>(&code->judgement(state_->sealed));
  if (signer == nullptr) return std::nullopt;
  return SealedIdentity{signer->team, signer->identifier, signer->treeRoot};
}

std::string LinuxCodeSignPlatform::executablePath(const CodeObject& code) {
  if (const auto* s = dynamic_cast<const LinuxStaticCode*>(&code)) return s->path;
  if (const auto* r = dynamic_cast<const LinuxRunningCode*>(&code)) return r->executable;
  return {};
}

}  // namespace tarskel
