// The information and protected-read operations, and the schemas of the
// operations.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/FsReadProtectedPathOp.hpp"
#include "tarskel/daemon/GrantsSyncOp.hpp"
#include "tarskel/daemon/InfoOp.hpp"
#include "tarskel/daemon/PlatformApplyUpdateOp.hpp"
#include "tarskel/daemon/PlatformUninstallMachineOp.hpp"
#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/testing/JSONTesting.hpp"
#include "tarskel/testing/Table.hpp"

namespace tarskel {
namespace {

// Only a regular file, up to and including the cap, is read; a link before
// the last component is followed, a final link is not. Which files the reader
// refuses is its own table's; here, the text each refusal is answered with.
TEST(FsReadTest, WhatIsReadAndWhatIsRefused) {
  testing::TempDir dir;
  boost::asio::thread_pool pool{2};
  FsReadProtectedPathOp op;
  auto sized = [&](std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + 3);
    testing::writeFile(dir.file(std::to_string(size)), bytes);
    return dir.file(std::to_string(size)).string();
  };
  const std::string target = sized(10);
  std::filesystem::create_directory(dir.file("sub"));
  std::filesystem::create_symlink(target, dir.file("link"));
  std::filesystem::create_directory_symlink(dir.file("sub"), dir.file("sublink"));
  std::filesystem::copy_file(target, dir.file("sub/inner"));
  ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
  const std::string cap = "archivo supera el tope de 1048576 bytes: ";
  const std::string notRegular = "no es un archivo regular: ";
  const std::pair<std::string, std::string> cases[] = {
      {sized(1048576), ""},
      {target, ""},
      {dir.file("sublink/inner").string(), ""},
      {sized(1048577), cap + dir.file("1048577").string()},
      {dir.file("link").string(), notRegular + dir.file("link").string()},
      {dir.file("missing").string(), notRegular + dir.file("missing").string()},
      {dir.file("fifo").string(), notRegular + dir.file("fifo").string()},
      {target + std::string(1, '\0') + "x", notRegular + target + std::string(1, '\0') + "x"},
  };
  for (const auto& [path, refusal] : cases) {
    SCOPED_TRACE(path);
    EXPECT_EQ(testing::runOn(pool, testing::failureOf(op, {{"path", path}})), refusal);
    if (!refusal.empty()) continue;
    const DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
    const JSONValue result = testing::runOn(pool, op.execute(JSONObject{{"path", path}}, context));
    EXPECT_EQ(*result["path"], JSONValue(path));
    EXPECT_EQ(result["size"]->numberValue(), static_cast<double>(std::filesystem::file_size(path)));
    EXPECT_EQ(base64Decode(*result["contentsBase64"]->stringValue()), testing::readFile(path));
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

// op | args | whether its schema takes them. No argument of the uninstall
// can point root at another path.
TEST(OpSchemasTest, RefuseWhatTheOperationsDoNotTake) {
  const InfoOp info;
  const FsReadProtectedPathOp read;
  const GrantsSyncOp sync(nullptr);
  const PlatformApplyUpdateOp update("/nonexistent", PlatformFiles::system());
  const PlatformUninstallMachineOp uninstall(std::nullopt, "/nonexistent", PlatformFiles::system());
  const std::map<std::string, const DaemonOp*> ops = {{info.name(), &info},
                                                      {read.name(), &read},
                                                      {sync.name(), &sync},
                                                      {update.name(), &update},
                                                      {uninstall.name(), &uninstall}};
  for (const testing::Row& row : testing::rows(R"(
daemon.info | {"x":1} | no
fs.readProtectedPath | {"path":"/x"} | yes
fs.readProtectedPath | {"path":""} | no
fs.readProtectedPath | {"path":"/x","extra":1} | no
daemon.grants.sync | {"grants":{}} | yes
daemon.grants.sync | {"grants":[]} | no
platform.applyUpdate | {"action":"swap","stagedRoot":"/s","appName":"T.app","installedApp":"/A/T.app","previousPath":"/p"} | yes
platform.applyUpdate | {"action":"swap","stagedRoot":"/s","appName":"T.app","installedApp":"/A/T.app","previousPath":"/p","force":true} | no
platform.uninstallMachine | {} | yes
platform.uninstallMachine | {"path":"/"} | no
)")) {
    EXPECT_EQ(ops.at(row[0])->argsSchema().validate(testing::json(row[1]), "$").empty(),
              row[2] == "yes")
        << row.line;
  }
  EXPECT_FALSE(info.requiresGrant());
  EXPECT_FALSE(sync.requiresGrant());
  EXPECT_TRUE(read.requiresGrant());
}

}  // namespace
}  // namespace tarskel
