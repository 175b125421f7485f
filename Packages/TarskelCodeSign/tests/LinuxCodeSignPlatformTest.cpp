// What the gate really answers on Linux, against real files and processes.
#if defined(__linux__)

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "tarskel/codesign/CodeSignVerifier.hpp"
#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/testing/Errors.hpp"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace tarskel {
namespace {

using namespace CodeSignStatus;

const std::vector<std::string> kAllowed{"TEAMID0001"};

std::string selfExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// A child that waits to be killed.
pid_t pausedChild() {
  const pid_t child = ::fork();
  if (child == 0) {
    ::pause();
    ::_exit(0);
  }
  return child;
}

std::string unsignedText(const std::string& label, OSStatus status, const std::string& why = "") {
  return "gate SO: firma inválida o no anclada a Apple en " + label + " (" +
         std::to_string(status) + ")" + (why.empty() ? "" : ": " + why);
}
const std::string kNoKeys = "sin claves de código (vendor/code-keys.json)";

TEST(LinuxCodeSignPlatformTest, EveryPathAndProcessFailsWithItsStatus) {
  pid_t dead = ::fork();  // exited and reaped: its pid names no process
  if (dead == 0) ::_exit(0);
  ::waitpid(dead, nullptr, 0);
  const std::string exe = selfExecutable();
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { CodeSignVerifier::verifyExecutable(exe, kAllowed); },
       unsignedText(exe, errSecCSReqFailed, kNoKeys)},
      {[] { CodeSignVerifier::verifyExecutable("/nonexistent/t", kAllowed); },
       unsignedText("/nonexistent/t", errSecCSStaticCodeNotFound)},
      {[] { CodeSignVerifier::verifyPid(::getpid(), kAllowed); },
       unsignedText("pid " + std::to_string(::getpid()), errSecCSReqFailed, kNoKeys)},
      {[&] { CodeSignVerifier::verifyPid(dead, kAllowed); },
       unsignedText("pid " + std::to_string(dead), errSecCSNoSuchCode)},
  };
  // Without code keys nothing is signed on Linux.
  for (const auto& [operation, expected] : cases) {
    EXPECT_EQ(testing::thrownText<CodeSignError>(operation), expected);
  }
}

// The peer gate holds a pidfd from accept: it resolves to the executable, and
// once that process has gone, even a reused pid must not lend it another
// program's identity.
TEST(LinuxCodeSignPlatformTest, PidfdResolvesWhileItsProcessLives) {
  LinuxCodeSignPlatform platform;
  int self = static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0));
  if (self < 0) GTEST_SKIP() << "no pidfd_open on this kernel";
  CodeResult guest = platform.guestCodeForPidfd(self);
  ASSERT_TRUE(guest.status == 0 && guest.code);
  CodeResult onDisk = platform.staticCodeOf(*guest.code);
  ASSERT_EQ(onDisk.status, 0);
  EXPECT_EQ(LinuxCodeSignPlatform::executablePath(*onDisk.code), selfExecutable());
  ::close(self);

  const pid_t child = pausedChild();
  int fd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(platform.guestCodeForPidfd(fd).status, errSecCSNoSuchCode);
  ::close(fd);
  int notPidfd = ::dup(STDIN_FILENO);
  EXPECT_EQ(platform.guestCodeForPidfd(notPidfd).status, errSecCSInvalidObjectRef);
  ::close(notPidfd);
  EXPECT_EQ(platform.guestCodeForPidfd(-1).status, errSecCSInvalidObjectRef);
}

// The gate's shortcut for a connection's own sender: a /proc directory
// opened for a process reads that process's executable, and once the process
// has gone it reads nothing, never a later holder of the pid.
TEST(LinuxCodeSignPlatformTest, ProcDirectoryResolvesOnlyItsOwnProcess) {
  LinuxCodeSignPlatform platform;
  const pid_t child = pausedChild();
  const std::string path = "/proc/" + std::to_string(child);
  int dir = ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(dir, 0);
  std::optional<CodeResult> alive = platform.guestCodeInProcDirectory(dir, child);
  ASSERT_TRUE(alive && alive->status == 0 && alive->code);
  EXPECT_EQ(LinuxCodeSignPlatform::executablePath(*alive->code), selfExecutable());
  ::kill(child, SIGKILL);
  siginfo_t info{};
  ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);  // a zombie, not reaped
  std::optional<CodeResult> zombie = platform.guestCodeInProcDirectory(dir, child);
  ::waitpid(child, nullptr, 0);
  std::optional<CodeResult> reaped = platform.guestCodeInProcDirectory(dir, child);
  ::close(dir);
  for (const auto& gone : {zombie, reaped}) {
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->status, errSecCSNoSuchCode);
    EXPECT_FALSE(gone->code);
  }
}

}  // namespace
}  // namespace tarskel

#endif  // __linux__
