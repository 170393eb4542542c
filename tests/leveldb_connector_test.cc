#include "leveldb_connector.h"

#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include "db/db_object.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

TEST(LevelDbConnectorTest, AcquiresShareOneCountedHandleUntilTheLastRelease) {
  db_test::TempDir dir;
  const std::string path = dir.File("db");
  LevelDbConnector& connector = LevelDbConnector::GetInstance();
  leveldb::DB* first = connector.AcquireConnection(path);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(path));  // Created when missing.
  EXPECT_EQ(connector.AcquireConnection(path), first);
  EXPECT_EQ(connector.LookupConnection(path), first);  // Lookups never count.
  EXPECT_EQ(connector.Find(path)->count, 2u);
  ASSERT_TRUE(first->Put(leveldb::WriteOptions(), "k", "v").ok());
  // Opened with the Bloom filter policy: the table file holds its filter.
  first->CompactRange(nullptr, nullptr);
  std::string tables;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    if (entry.path().extension() == ".ldb") tables += db_test::ReadFile(entry.path().string());
  }
  EXPECT_NE(tables.find("filter.leveldb.BuiltinBloomFilter2"), std::string::npos);

  EXPECT_FALSE(connector.ReleaseConnection(path));  // One user remains.
  EXPECT_EQ(connector.Find(path)->count, 1u);
  EXPECT_TRUE(connector.ReleaseConnection(path));  // The last one closes.
  EXPECT_EQ(connector.LookupConnection(path), nullptr);
  // Closed for real: leveldb itself takes the lock again.
  EXPECT_EQ(db_test::Dump(path), (db_test::KeyValues{{"k", "v"}}));

  // Surplus releases answer true and change nothing.
  ASSERT_NE(connector.AcquireConnection(path), nullptr);
  EXPECT_TRUE(connector.ReleaseConnection(dir.File("never-acquired")));
  EXPECT_EQ(connector.Find(path)->count, 1u);
  EXPECT_TRUE(connector.ReleaseConnection(path));
  EXPECT_TRUE(connector.ReleaseConnection(path));
}

// Daemons keep objects in statics. This one is destroyed at exit after the
// library's first-use singletons would be; it must still close cleanly.
db_test::TempDir static_dir;
std::unique_ptr<DbObject> static_object;

TEST(LevelDbConnectorTest, ObjectHeldInAStaticClosesAtExit) {
  db_test::InitLibrary();
  static_object = std::make_unique<DbObject>(static_dir.File("db"), "T", false, kLevelDb);
  EXPECT_TRUE(static_object->IsConnected());
}

}  // namespace
}  // namespace db
