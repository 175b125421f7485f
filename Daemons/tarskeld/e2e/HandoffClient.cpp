// HandoffClient SOCKET [--exec] PROGRAM [ARGS...]: a sealed client that
// sends daemon.info itself ("parent <code>"), then hands its connected
// socket to a child running PROGRAM as descriptor 3, and ends as the child
// does. With --exec it runs PROGRAM itself: the same process, now another
// program, on the connection it made.

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

int main(int argc, char** argv) {
  using namespace tarskel;
  const bool sameProcess = argc > 2 && std::strcmp(argv[2], "--exec") == 0;
  if (argc < 3 + (sameProcess ? 1 : 0)) return 2;
  char** program = argv + (sameProcess ? 3 : 2);
  // A client of the library, as any sealed client is: not dumpable.
  DaemonXPCClient library(argv[1]);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 3;
  const std::string request =
      TarskelJSON::encoder().encode(DaemonRequest{"daemon.info", {}, std::nullopt, "svc.handoff"});
  const std::string frame = Transport::encodeFrame({1, true, request});
  ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
  FrameDecoder decoder;
  char buffer[4096];
  std::vector<std::string> payloads;
  for (ssize_t n; payloads.empty() && (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
    payloads = decoder.append({buffer, static_cast<std::size_t>(n)});
  }
  if (payloads.empty()) return 3;
  const auto response = TarskelJSON::decoder().decode<DaemonResponse>(
      *Transport::decodeEnvelope(payloads.front()).body);
  std::printf("parent %s\n", response.ok ? "ok" : response.error->code.c_str());
  std::fflush(stdout);

  const pid_t child = sameProcess ? 0 : ::fork();
  if (child == 0) {
    ::dup2(fd, 3);
    ::execvp(program[0], program);
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
