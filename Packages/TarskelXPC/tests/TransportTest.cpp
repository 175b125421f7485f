#include "tarskel/xpc/Transport.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "tarskel/protocol/bus/Framing.hpp"

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
    SCOPED_TRACE(c.text);
    try {
      Transport::decodeEnvelope(c.bytes);
      ADD_FAILURE() << "accepted";
    } catch (const TransportError& e) {
      EXPECT_STREQ(e.what(), c.text);
    }
  }
}

class SocketPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* v = std::getenv("XDG_RUNTIME_DIR")) saved_ = v;
  }
  void TearDown() override {
    if (saved_) {
      ::setenv("XDG_RUNTIME_DIR", saved_->c_str(), 1);
    } else {
      ::unsetenv("XDG_RUNTIME_DIR");
    }
  }
  std::optional<std::string> saved_;
};

TEST_F(SocketPathTest, NamesWithASlashArePaths) {
  EXPECT_EQ(socketPathForMachService("/tmp/x/d.sock"), "/tmp/x/d.sock");
  EXPECT_EQ(socketPathForMachService("./d.sock"), "./d.sock");
}

TEST_F(SocketPathTest, ServiceNamesMapUnderTheUsersRuntimeDirectory) {
  if (::geteuid() == 0) {
    EXPECT_EQ(socketPathForMachService("net.x"), "/run/tarskel/net.x.sock");
    return;
  }
  const std::string uid = std::to_string(::getuid());
  ::setenv("XDG_RUNTIME_DIR", "/run/user/77", 1);
  EXPECT_EQ(socketPathForMachService("net.x"), "/run/user/77/tarskel-" + uid + "/net.x.sock");
  ::setenv("XDG_RUNTIME_DIR", "", 1);
  EXPECT_EQ(socketPathForMachService("net.x"), "/tmp/tarskel-" + uid + "/net.x.sock");
  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(socketPathForMachService("net.x"), "/tmp/tarskel-" + uid + "/net.x.sock");
}

}  // namespace
}  // namespace tarskel
