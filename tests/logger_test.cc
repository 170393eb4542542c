// Tests of the library's logger: start-up registration and the lines that the
// logging macros produce.

#include "logger.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"
#include "db/init.h"
#include "sqlite_api.h"
#include "support/test_util.h"

namespace {

bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

TEST(LoggerDeathTest, FailedRegistrationAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // glibc's assertion report: file relative to the source root, line, the
  // full function signature, the condition.
  EXPECT_DEATH(db::Init(nullptr),
               "src/lib/logger\\.cc:22: void db::Logger::Init\\(qelmw_t\\*\\): "
               "Assertion `trccat_ != nullptr' failed");
}

TEST(LoggerTest, InitRegistersDbIntfCategory) {
  qelmw_t* mw = qelmw_create("logger-test");
  ASSERT_NE(mw, nullptr);
  db::Init(mw);
  ASSERT_NE(db::Logger::Instance().trccat(), nullptr);
  EXPECT_STREQ(zlog_category_name(db::Logger::Instance().trccat()), "db_intf");
  // A second Init re-registers and keeps a usable category.
  db::Init(mw);
  EXPECT_STREQ(zlog_category_name(db::Logger::Instance().trccat()), "db_intf");
  qelmw_destroy(mw);
}

TEST(LoggerTest, ErrorLineCarriesCategoryLevelSourceAndMessage) {
  db_test::LogCapture capture;
  const int line = __LINE__ + 1;
  DB_LOG_ERROR("ERROR: Db='%s' not connected, rc=%d", "x.db", -2);
  DB_LOG_INFO("closing db");
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "db_intf 12 tests/logger_test.cc:" + std::to_string(line) +
                          " TestBody: ERROR: Db='x.db' not connected, rc=-2");
  EXPECT_EQ(lines[1], "db_intf 10 tests/logger_test.cc:" + std::to_string(line + 1) +
                          " TestBody: closing db");
}

// A line written from inside the library names its source relative to the
// source root and the bare function name.
TEST(LoggerTest, LibraryErrorLineNamesSourceUnderSrcLib) {
  db_test::TempDir dir;
  db_test::LogCapture capture;
  db::SqliteAPI api(dir.File("missing/x.db"), "t", false);
  EXPECT_FALSE(api.IsConnected());
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(StartsWith(lines[0], "db_intf 12 src/lib/sqlite_api.cc:")) << lines[0];
  EXPECT_NE(lines[0].find(" Connect: ERROR! sqlite3_open: rc=14"), std::string::npos) << lines[0];
}

TEST(LoggerTest, ObjectConstructionLogsInfoLine) {
  db_test::TempDir dir;
  db_test::LogCapture capture;
  const std::string path = dir.File("t.db");
  { db::DbObject object(path, "table1", false, db::kSqlite); }
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(StartsWith(lines[0], "db_intf 10 src/lib/db_object.cc:")) << lines[0];
  EXPECT_NE(
      lines[0].find(" DbObject: Initializing db=" + path + ", table=table1, in_memory=0, type=0"),
      std::string::npos)
      << lines[0];
}

}  // namespace
