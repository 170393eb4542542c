#include "leveldb_connector.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include "support/test_util.h"

namespace db {
namespace {

uint32_t CountOf(const std::string& path) {
  const LevelDbConnector::Connection* c = LevelDbConnector::GetInstance().Find(path);
  return c == nullptr ? 0 : c->count;
}

TEST(LevelDbConnectorTest, AcquiresShareOneCountedHandle) {
  db_test::TempDir dir;
  const std::string path = dir.File("db");
  LevelDbConnector& connector = LevelDbConnector::GetInstance();
  EXPECT_EQ(&connector, &LevelDbConnector::GetInstance());

  leveldb::DB* first = connector.AcquireConnection(path);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(path));  // created when missing
  leveldb::DB* second = connector.AcquireConnection(path);
  EXPECT_EQ(first, second);
  EXPECT_EQ(CountOf(path), 2u);

  // Lookups never count.
  EXPECT_EQ(connector.LookupConnection(path), first);
  EXPECT_EQ(connector.LookupConnection(path), first);
  EXPECT_EQ(CountOf(path), 2u);

  EXPECT_FALSE(connector.ReleaseConnection(path));  // one user remains
  EXPECT_EQ(CountOf(path), 1u);
  EXPECT_EQ(connector.LookupConnection(path), first);
  EXPECT_TRUE(connector.ReleaseConnection(path));  // last one closes
  EXPECT_EQ(connector.Find(path), nullptr);
  EXPECT_EQ(connector.LookupConnection(path), nullptr);
}

TEST(LevelDbConnectorTest, LastReleaseClosesAndDataSurvivesReopen) {
  db_test::TempDir dir;
  const std::string path = dir.File("db");
  LevelDbConnector& connector = LevelDbConnector::GetInstance();
  leveldb::DB* db = connector.AcquireConnection(path);
  ASSERT_NE(db, nullptr);
  ASSERT_TRUE(db->Put(leveldb::WriteOptions(), "k", "v").ok());
  ASSERT_TRUE(connector.ReleaseConnection(path));

  // Closed for real: the directory's lock is free for another opener.
  leveldb::DB* raw = nullptr;
  leveldb::Options options;
  ASSERT_TRUE(leveldb::DB::Open(options, path, &raw).ok());
  std::string value;
  EXPECT_TRUE(raw->Get(leveldb::ReadOptions(), "k", &value).ok());
  EXPECT_EQ(value, "v");
  delete raw;

  leveldb::DB* again = connector.AcquireConnection(path);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(CountOf(path), 1u);
  EXPECT_TRUE(again->Get(leveldb::ReadOptions(), "k", &value).ok());
  EXPECT_TRUE(connector.ReleaseConnection(path));
}

TEST(LevelDbConnectorTest, SurplusReleasesReturnTrueAndChangeNothing) {
  db_test::TempDir dir;
  LevelDbConnector& connector = LevelDbConnector::GetInstance();
  const std::string kept = dir.File("kept");
  ASSERT_NE(connector.AcquireConnection(kept), nullptr);
  EXPECT_TRUE(connector.ReleaseConnection(dir.File("never-acquired")));
  EXPECT_TRUE(connector.ReleaseConnection(dir.File("never-acquired")));
  EXPECT_EQ(CountOf(kept), 1u);

  const std::string other = dir.File("other");
  ASSERT_NE(connector.AcquireConnection(other), nullptr);
  EXPECT_TRUE(connector.ReleaseConnection(other));
  EXPECT_TRUE(connector.ReleaseConnection(other));
  EXPECT_EQ(CountOf(kept), 1u);
  EXPECT_TRUE(connector.ReleaseConnection(kept));
}

TEST(LevelDbConnectorTest, OpenFailureLogsAndCachesNothing) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  LevelDbConnector& connector = LevelDbConnector::GetInstance();

  // Held by another opener in this process: LevelDB refuses the lock.
  const std::string locked = dir.File("locked");
  leveldb::Options options;
  options.create_if_missing = true;
  leveldb::DB* holder = nullptr;
  ASSERT_TRUE(leveldb::DB::Open(options, locked, &holder).ok());
  EXPECT_EQ(connector.AcquireConnection(locked), nullptr);
  EXPECT_EQ(connector.Find(locked), nullptr);
  ASSERT_EQ(log.Count("ERROR: Open status='IO error: lock "), 1);
  EXPECT_TRUE(log.Contains("src/lib/leveldb_connector.cc"));
  EXPECT_TRUE(log.Contains("AcquireConnection"));

  // Once the other opener is gone, a later acquire opens it.
  delete holder;
  EXPECT_NE(connector.AcquireConnection(locked), nullptr);
  EXPECT_TRUE(connector.ReleaseConnection(locked));

  // A path that is a plain file cannot be a database.
  log.Clear();
  const std::string file = dir.File("plain");
  std::ofstream(file) << "x";
  EXPECT_EQ(connector.AcquireConnection(file), nullptr);
  EXPECT_EQ(connector.LookupConnection(file), nullptr);
  EXPECT_EQ(log.Count("ERROR: Open status='"), 1);
}

}  // namespace
}  // namespace db
