#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/testing/Errors.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel {
namespace {

using namespace std::string_literals;

TEST(TransportTest, EnvelopeBytes) {
  struct Case {
    const char* name;
    TransportEnvelope envelope;
    std::string bytes;
  };
  const std::vector<Case> cases = {
      {"absent body, no reply", {1, false, std::nullopt}, "\0\0\0\0\0\0\0\1\0"s},
      {"empty body", {2, true, ""}, "\0\0\0\0\0\0\0\2\3"s},
      {"body", {0x0102030405060708, true, "{}"}, "\1\2\3\4\5\6\7\x08\3{}"s},
      {"reply", {0xFFFFFFFFFFFFFFFF, false, "r"}, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\2r"s},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Transport::encodeEnvelope(c.envelope), c.bytes);
    EXPECT_EQ(Transport::decodeEnvelope(c.bytes), c.envelope);
    EXPECT_EQ(Transport::decodeEnvelope(std::string(c.bytes)), c.envelope);
    if (!c.envelope.expectsReply && c.envelope.body) {
      EXPECT_EQ(Transport::encodeReplyFrame(c.envelope.id, *c.envelope.body),
                Transport::encodeFrame(c.envelope));
    }
  }
  EXPECT_EQ(Transport::encodeFrame({2, true, ""}), Framing::encode("\0\0\0\0\0\0\0\2\3"s));
}

TEST(TransportTest, PayloadsThatAreNoEnvelope) {
  struct Case {
    std::string bytes;
    const char* text;
  };
  const std::vector<Case> cases = {
      {"", "sobre de transporte truncado: 0 bytes"},
      {"\0\0\0\0\0\0\0\1"s, "sobre de transporte truncado: 8 bytes"},
      {"\0\0\0\0\0\0\0\1\4"s, "sobre de transporte con indicadores desconocidos: 4"},
      {"\0\0\0\0\0\0\0\1\x81"s, "sobre de transporte con indicadores desconocidos: 129"},
      {"\0\0\0\0\0\0\0\1\1x"s, "sobre de transporte con datos tras un cuerpo ausente"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(testing::thrownText<TransportError>([&] { Transport::decodeEnvelope(c.bytes); }),
              c.text);
  }
}

// One mapping for every user: a plain name is the system daemon's socket,
// whoever asks and whatever their environment says.
TEST(TransportTest, SocketPathOfAServiceName) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"net.x", "/run/tarskel/net.x.sock"},
      {"/tmp/x/d.sock", "/tmp/x/d.sock"},
      {"./d.sock", "./d.sock"},
  };
  ::setenv("XDG_RUNTIME_DIR", "/run/user/77", 1);
  for (const auto& [name, path] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(socketPathForMachService(name), path);
    EXPECT_EQ(isDefaultServiceName(name), name == "net.x");
  }
  EXPECT_THROW(socketPathForMachService(""), TransportError);
  // Another user gets the same path (root can play one).
  const pid_t child = ::geteuid() == 0 ? ::fork() : -1;
  if (child == 0) {
    _exit(::setuid(65534) == 0 && socketPathForMachService("net.x") == cases[0].second ? 0 : 1);
  }
  int status = 0;
  if (child > 0) ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  ::unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
}  // namespace tarskel
