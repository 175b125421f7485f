// The built daemon's socket against an unprivileged user and a sender that
// is not the process that connected, and its limits against clients that
// hold on.

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "E2EFixture.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::e2e {
namespace {

constexpr uid_t kNobody = 65534;

std::string infoRequest() {
  return TarskelJSON::encoder().encode(
      DaemonRequest{"daemon.info", {}, std::nullopt, std::nullopt});
}

// Runs `body` in a child as user and group 65534; its exit status.
template <class Body>
int asNobody(Body body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) _exit(90);
    _exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

int connectErrno(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int result = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  const int error = result == 0 ? 0 : errno;
  ::close(fd);
  return error;
}

using TransportE2ETest = E2EFixture;

TEST_F(TransportE2ETest, AnUnprivilegedUserCanNotConnect) {
  ::chmod(dir.path().c_str(),
          0755);  // the directory lets anyone through: only the socket's mode stops them
  start();
  struct stat st {};
  ASSERT_EQ(::stat(socketPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(asNobody([&] { return connectErrno(socketPath()); }), EACCES);
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
}

TEST_F(TransportE2ETest, ASocketDirectoryOthersMayWriteIsRefused) {
  ::chmod(dir.path().c_str(), 0777);
  DaemonProcess refused({TARSKELD_PATH,
                         {"--mach-service", socketPath(), "--root", root().string()},
                         {{"LISTEN_FDS", std::nullopt}, {"LISTEN_PID", std::nullopt}}});
  ASSERT_TRUE(refused.waitForExit());
  bool said = false;
  for (const std::string& line : refused.lines()) {
    said = said || line.find("admite escritura de grupo u otros") != std::string::npos;
  }
  EXPECT_TRUE(said);
}

// The test process connects and is the one trusted executable; a child that
// inherits the socket and execs cat writes a request of its own on it.
TEST_F(TransportE2ETest, EachMessageIsJudgedByItsOwnSender) {
  writeFile(root() / "vendor/teams.json", R"({"revision":1,"teamIds":["TEAMID0001"]})");
  char self[4096] = {};
  ASSERT_GT(::readlink("/proc/self/exe", self, sizeof self - 1), 0);
  start({{"TARSKEL_TEST_GATE", std::string("trust=") + self}}, TARSKELD_TESTGATE_PATH);
  RawConnection connection(socketPath());

  const std::filesystem::path frame = dir / "frame";
  writeFile(frame, Transport::encodeFrame({7, true, infoRequest()}));
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(connection.fd(), STDOUT_FILENO);
    ::execl("/bin/cat", "cat", frame.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  std::optional<TransportEnvelope> theirs = connection.receive();
  ::waitpid(child, nullptr, 0);
  ASSERT_TRUE(theirs && theirs->body);
  EXPECT_EQ(theirs->id, 7u);
  const auto refused = TarskelJSON::decoder().decode<DaemonResponse>(*theirs->body);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, "unauthorizedClient");

  connection.send({8, true, infoRequest()});
  std::optional<TransportEnvelope> mine = connection.receive();
  ASSERT_TRUE(mine && mine->body);
  EXPECT_TRUE(TarskelJSON::decoder().decode<DaemonResponse>(*mine->body).ok);
  const auto rows = auditRows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].caller.rfind("rejected:", 0), 0u) << rows[0].caller;
  EXPECT_EQ(rows[1].caller, "team:TEAMID0001");
}

TEST_F(TransportE2ETest, AHalfClosedClientGetsEveryReply) {
  start();
  RawConnection connection(socketPath());
  for (std::uint64_t id = 1; id <= 20; ++id) connection.send({id, true, infoRequest()});
  connection.shutdownWrite();
  int replies = 0;
  while (connection.receive(5s)) ++replies;
  EXPECT_EQ(replies, 20);
}

TEST_F(TransportE2ETest, AFrameOverOneMebibyteClosesItsConnectionAtTheHeader) {
  start();
  RawConnection connection(socketPath());
  connection.sendBytes(std::string("\x00\x10\x00\x01", 4));  // 1 MiB + 1
  const auto sent = std::chrono::steady_clock::now();
  EXPECT_FALSE(connection.receive(5s));
  EXPECT_LT(std::chrono::steady_clock::now() - sent, 4s) << "closed, not left waiting for the rest";
  EXPECT_EQ(codeOf(call("daemon.info")), "ok");
}

}  // namespace
}  // namespace tarskel::e2e
