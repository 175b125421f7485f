// The grants table on disk and in memory, and the sync operation that
// replaces it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonTestSupport.hpp"
#include "tarskel/daemon/GrantsSyncOp.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/testing/Errors.hpp"

namespace tarskel {
namespace {

using ::testing::ElementsAre;
using Grants = GrantsStore::Grants;

class GrantsStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<GrantsStore> load() {
    return std::make_shared<GrantsStore>(path(), pool.get_executor());
  }
  std::filesystem::path path() const { return dir.file("grants.json"); }

  testing::TempDir dir;
  boost::asio::thread_pool pool{2};
};

TEST_F(GrantsStoreTest, UnusableFilesReadAsEmpty) {
  const std::vector<std::string> files = {
      "{",
      R"({"grant":{"a":["x"]}})",           // key misspelt
      R"({"grants":{"a":["x"],"b":[1]}})",  // one bad value spoils the whole file
  };
  for (const std::string& text : files) {
    SCOPED_TRACE(text);
    testing::writeFile(path(), text);
    auto store = load();
    EXPECT_TRUE(store->snapshotSync().empty());
    EXPECT_FALSE(store->isGrantedSync("x", "a"));
    EXPECT_EQ(testing::readFile(path()), text) << "a broken file stays until the next replace";
  }
}

TEST_F(GrantsStoreTest, MissingFileIsEmptyAndTheFirstReplaceCreatesIt) {
  auto store = load();
  EXPECT_TRUE(store->snapshotSync().empty());
  testing::runOn(pool, store->replace({{"svc", {"b", "a", "a"}}}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
      << "the temporary file was renamed into place";
  EXPECT_EQ(testing::readFile(path()), R"({"grants":{"svc":["b","a","a"]}})")
      << "lists keep their order and duplicates on disk";
  EXPECT_THAT(store->snapshotSync().at("svc"), ElementsAre("a", "b"));
  auto restarted = load();  // reads what was written; checks are exact
  EXPECT_TRUE(testing::runOn(pool, restarted->isGranted("a", "svc")));
  EXPECT_FALSE(restarted->isGrantedSync("A", "svc"));
  EXPECT_FALSE(restarted->isGrantedSync("a", "sv"));
}

TEST_F(GrantsStoreTest, FailedReplaceLeavesFileAndMemory) {
  // Running as root ignores a read-only directory, so the failures come from
  // the file system's shape instead.
  const std::string before = R"({"grants":{"old":["op"]}})";
  testing::writeFile(path(), before);
  auto store = load();
  {
    SCOPED_TRACE("temporary file can't be created: the directory is a regular file");
    auto blocked = std::make_shared<GrantsStore>(path() / "grants.json", pool.get_executor());
    EXPECT_THAT(testing::thrownText<FileSystemError>([&] {
                  testing::runOn(pool, blocked->replace({{"new", {"op"}}}));
                }),
                ::testing::StartsWith("no se pudo escribir "));
    EXPECT_TRUE(blocked->snapshotSync().empty());
    EXPECT_EQ(testing::readFile(path()), before);
  }
  {
    SCOPED_TRACE("rename refused: the target is now a directory");
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    EXPECT_THROW(store->replaceSync({{"new", {"op"}}}), FileSystemError);
    EXPECT_TRUE(store->isGrantedSync("op", "old"));
    EXPECT_FALSE(store->isGrantedSync("op", "new"));
    EXPECT_TRUE(std::filesystem::is_directory(path()));
  }
}

// The sync keeps the strings of each list, counts the services, and on a bad
// value fails with the file and the table as they were.
TEST_F(GrantsStoreTest, SyncReplacesTheTableOrChangesNothing) {
  auto store = load();
  GrantsSyncOp op{store};
  auto sync = [&](const std::string& args) {
    return testing::runOn(pool,
                          testing::failureOf(op, TarskelJSON::decoder().decode<JSONObject>(args)));
  };
  struct Case {
    std::string args, failure;
    Grants held;  // after the row
  };
  const Grants last{{"", {"z"}}, {"a", {"x"}}, {"b", {"y"}}};
  const std::vector<Case> cases = {
      {R"({"grants":{}})", "", {}},
      {R"({"grants":{"a":[1,"x",null,"x"],"b":["y"],"":["z"]}})", "", last},
      {R"({"grants":{"a":"x"}})", "concesiones de a: se esperaba array de strings", last},
      {R"({"grants":{"ok":["op"],"b":{}}})", "concesiones de b: se esperaba array de strings",
       last},
      {R"({})", "grants no es objeto", last},
  };
  for (const Case& tc : cases) {
    SCOPED_TRACE(tc.args);
    EXPECT_EQ(sync(tc.args), tc.failure);
    EXPECT_EQ(store->snapshotSync(), tc.held);
  }
  EXPECT_EQ(testing::readFile(path()), R"({"grants":{"":["z"],"a":["x","x"],"b":["y"]}})");
  DaemonOpContext context{{}, DaemonPeerVerdict::unverified("t")};
  EXPECT_EQ(testing::runOn(pool, op.execute(TarskelJSON::decoder().decode<JSONObject>(
                                                R"({"grants":{"s":["o"],"t":[]}})"),
                                            context)),
            JSONValue(JSONObject{{"services", 2.0}}));
}

}  // namespace
}  // namespace tarskel
