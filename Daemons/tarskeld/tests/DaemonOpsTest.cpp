// The information and protected-read operations, run directly and through
// the core.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/FsReadProtectedPathOp.hpp"
#include "tarskel/daemon/GrantsSyncOp.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/protocol/base/Base64.hpp"

namespace tarskel {
namespace {

class FsReadTest : public ::testing::Test {
 protected:
  JSONValue read(const std::string& path) {
    DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
    return testing::runOn(pool, op.execute(JSONObject{{"path", path}}, context));
  }

  // The DaemonOpError text of reading `path`, or "" when it succeeds.
  std::string refusal(const std::string& path) {
    try {
      read(path);
      return "";
    } catch (const DaemonOpError& e) {
      return e.description();
    }
  }

  std::string sizedFile(const std::string& name, std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + 3);
    testing::writeFile(dir.file(name), bytes);
    return dir.file(name).string();
  }

  testing::TempDir dir;
  boost::asio::thread_pool pool{2};
  FsReadProtectedPathOp op;
};

TEST_F(FsReadTest, CapIsInclusive) {
  const std::string cap = "archivo supera el tope de 1048576 bytes: ";
  struct Case {
    std::size_t size;
    bool refused;
  };
  for (const Case& tc :
       std::vector<Case>{{0, false}, {1, false}, {1048576, false}, {1048577, true}}) {
    SCOPED_TRACE(tc.size);
    std::string path = sizedFile("f" + std::to_string(tc.size), tc.size);
    if (tc.refused) {
      EXPECT_EQ(refusal(path), cap + path);
      continue;
    }
    if (tc.size == 0) {
      // Passes the size check with size 0, then never ends: refused at the
      // cap rather than read until memory runs out.
      EXPECT_EQ(refusal("/proc/self/pagemap"), cap + "/proc/self/pagemap");
    }
    JSONValue result = read(path);
    EXPECT_EQ(*result["path"], JSONValue(path));
    EXPECT_EQ(result["size"]->numberValue(), static_cast<double>(tc.size));
    EXPECT_EQ(base64Decode(*result["contentsBase64"]->stringValue()), testing::readFile(path));
  }
}

TEST_F(FsReadTest, OnlyTheEntryItselfCountsAsRegular) {
  const std::string target = sizedFile("target", 10);
  std::filesystem::create_directory(dir.file("sub"));
  std::filesystem::create_symlink(target, dir.file("link"));
  std::filesystem::create_directory_symlink(dir.file("sub"), dir.file("sublink"));
  std::filesystem::copy_file(target, dir.file("sub/inner"));
  ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);

  const std::string notRegular = "no es un archivo regular: ";
  struct Case {
    std::string path, refusal;
  };
  const std::vector<Case> cases = {
      {dir.file("link").string(), notRegular + dir.file("link").string()},
      {dir.file("sub").string(), notRegular + dir.file("sub").string()},
      {dir.file("missing").string(), notRegular + dir.file("missing").string()},
      {dir.file("fifo").string(), notRegular + dir.file("fifo").string()},
      {std::string("/dev/null"), notRegular + "/dev/null"},
      {target + std::string(1, '\0') + "x", notRegular + target + std::string(1, '\0') + "x"},
      {dir.file("sublink/inner").string(), ""},  // a link before the last component is followed
      {target, ""},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.path);
    EXPECT_EQ(refusal(tc.path), tc.refusal);
  }
}

TEST(InfoOpTest, ReportsVersionsProcessAndCatalogue) {
  boost::asio::thread_pool pool(1);
  InfoOp op;
  DaemonOpContext context{{"a.op", "b.op"}, DaemonPeerVerdict::trusted("T")};
  JSONValue result = testing::runOn(pool, op.execute({}, context));
  EXPECT_EQ(result, JSONValue(JSONObject{
                        {"daemonVersion", "0.1.0"},
                        {"protocolVersion", JSONValue(TarskelProtocolInfo::protocolVersion)},
                        {"uid", static_cast<double>(::getuid())},
                        {"pid", static_cast<double>(::getpid())},
                        {"ops", JSONValue::Array{"a.op", "b.op"}},
                    }));
}

TEST(OpSchemasTest, RefuseWhatTheOperationsDoNotTake) {
  InfoOp info;
  FsReadProtectedPathOp read;
  GrantsSyncOp sync(nullptr);
  struct Case {
    const DaemonOp& op;
    JSONObject args;
    bool valid;
  };
  const std::vector<Case> cases = {
      {info, {}, true},
      {info, {{"x", 1}}, false},
      {read, {{"path", "/x"}}, true},
      {read, {{"path", ""}}, false},
      {read, {{"path", "/x"}, {"extra", 1}}, false},
      {read, {{"path", 1}}, false},
      {read, {}, false},
      {sync, {{"grants", JSONObject{}}}, true},
      {sync, {{"grants", JSONValue::Array{}}}, false},
      {sync, {{"grants", JSONObject{}}, {"x", 1}}, false},
      {sync, {}, false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    const Case& tc = cases[i];
    EXPECT_EQ(tc.op.argsSchema().validate(JSONValue(tc.args), "$").empty(), tc.valid);
  }
  EXPECT_FALSE(info.requiresGrant());
  EXPECT_FALSE(sync.requiresGrant());
  EXPECT_TRUE(read.requiresGrant());
}

}  // namespace
}  // namespace tarskel
