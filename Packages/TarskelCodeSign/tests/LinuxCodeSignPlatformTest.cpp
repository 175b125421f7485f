// What the gate really answers on Linux, against real files and processes.
#if defined(__linux__)

#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

#include "tarskel/codesign/CodeSignVerifier.hpp"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace tarskel {
namespace {

using namespace CodeSignStatus;

const std::vector<std::string> kAllowed{"TEAMID0001"};

std::string selfExecutable() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// A child that has exited and been reaped: its pid names no process.
pid_t reapedChild() {
  pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

OSStatus statusOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const CodeSignError& e) {
    EXPECT_EQ(e.kind(), CodeSignError::Kind::signatureInvalid);
    return e.status();
  }
  ADD_FAILURE() << "the gate passed on Linux";
  return 0;
}

TEST(LinuxCodeSignPlatformTest, ExistingExecutableIsUnsigned) {
  const std::string exe = selfExecutable();
  try {
    CodeSignVerifier::verifyExecutable(exe, kAllowed);
    ADD_FAILURE() << "no error";
  } catch (const CodeSignError& e) {
    EXPECT_EQ(e.description(),
              "gate SO: firma inválida o no anclada a Apple en " + exe + " (-67062)");
  }
}

TEST(LinuxCodeSignPlatformTest, MissingFileHasAStatusOfItsOwn) {
  OSStatus s = statusOf([] { CodeSignVerifier::verifyExecutable("/nonexistent/tarskel", kAllowed); });
  EXPECT_EQ(s, errSecCSStaticCodeNotFound);
  EXPECT_EQ(statusOf([] { CodeSignVerifier::verifyExecutable("", kAllowed); }),
            errSecCSStaticCodeNotFound);
}

TEST(LinuxCodeSignPlatformTest, Processes) {
  EXPECT_EQ(statusOf([] { CodeSignVerifier::verifyPid(::getpid(), kAllowed); }), errSecCSUnsigned);
  pid_t dead = reapedChild();
  try {
    CodeSignVerifier::verifyPid(dead, kAllowed);
    ADD_FAILURE() << "no error";
  } catch (const CodeSignError& e) {
    EXPECT_EQ(e.description(), "gate SO: firma inválida o no anclada a Apple en pid " +
                                   std::to_string(dead) + " (-67065)");
  }
  for (std::int32_t pid : {0, -1}) {
    SCOPED_TRACE(pid);
    EXPECT_EQ(statusOf([pid] { CodeSignVerifier::verifyPid(pid, kAllowed); }), errSecCSNoSuchCode);
  }
}

TEST(LinuxCodeSignPlatformTest, PidfdResolvesToTheExecutable) {
  LinuxCodeSignPlatform platform;
  int self = static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0));
  if (self < 0) GTEST_SKIP() << "no pidfd_open on this kernel";
  CodeResult guest = platform.guestCodeForPidfd(self);
  ASSERT_EQ(guest.status, 0);
  ASSERT_TRUE(guest.code);
  CodeResult onDisk = platform.staticCodeOf(*guest.code);
  ASSERT_EQ(onDisk.status, 0);
  EXPECT_EQ(LinuxCodeSignPlatform::executablePath(*onDisk.code), selfExecutable());
  EXPECT_EQ(platform.checkValidity(*onDisk.code, kSecCSCheckAllArchitectures, nullptr),
            errSecCSUnsigned);
  SigningInformation info = platform.copySigningInformation(*onDisk.code, kSecCSSigningInformation);
  EXPECT_EQ(info.status, 0);
  EXPECT_EQ(info.team, SigningInformation::Team::absent);
  ::close(self);
}

// The peer gate holds a pidfd from accept; once that process has gone, even
// a reused pid must not lend it another program's identity.
TEST(LinuxCodeSignPlatformTest, PidfdOfAGoneProcessHasNoCode) {
  LinuxCodeSignPlatform platform;
  pid_t child = ::fork();
  if (child == 0) {
    ::pause();
    ::_exit(0);
  }
  int fd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  if (fd < 0) GTEST_SKIP() << "no pidfd_open on this kernel";
  EXPECT_EQ(platform.guestCodeForPidfd(fd).status, errSecCSNoSuchCode);
  ::close(fd);

  int notPidfd = ::dup(STDIN_FILENO);
  EXPECT_EQ(platform.guestCodeForPidfd(notPidfd).status, errSecCSInvalidObjectRef);
  ::close(notPidfd);
  EXPECT_EQ(platform.guestCodeForPidfd(-1).status, errSecCSInvalidObjectRef);
}

}  // namespace
}  // namespace tarskel

#endif  // __linux__
