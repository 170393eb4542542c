#include "logger.h"

#include <regex>

#include "db/db_object.h"
#include "db/init.h"
#include "support/test_util.h"

namespace {

TEST(LoggerDeathTest, FailedRegistrationAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // glibc's report: source relative to the root, line, full signature, condition.
  EXPECT_DEATH(db::Init(nullptr),
               "src/lib/logger\\.cc:22: void db::Logger::Init\\(qelmw_t\\*\\): "
               "Assertion `trccat_ != nullptr' failed");
}

TEST(LoggerTest, LinesCarryCategoryLevelSourceFunctionAndMessage) {
  db_test::TempDir dir;
  db_test::LogCapture capture;
  const int line = __LINE__ + 1;
  DB_LOG_ERROR("ERROR: Db='%s' not connected, rc=%d", "x.db", -2);
  const std::string path = dir.File("missing/t.db");
  { db::DbObject object(path, "tbl", false, db::kSqlite); }
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "db_intf 12 tests/logger_test.cc:" + std::to_string(line) +
                          " TestBody: ERROR: Db='x.db' not connected, rc=-2");
  // Library lines name their source under src/lib; line numbers left out here.
  for (std::string& text : lines) text = std::regex_replace(text, std::regex(":[0-9]+ "), " ");
  EXPECT_EQ(lines[1], "db_intf 10 src/lib/db_object.cc DbObject: Initializing db=" + path +
                          ", table=tbl, in_memory=0, type=0");
  EXPECT_EQ(lines[2], "db_intf 12 src/lib/sqlite_api.cc Connect: ERROR! sqlite3_open: rc=14");
  EXPECT_EQ(lines[3], "db_intf 10 src/lib/db_object.cc ~DbObject: closing db");
}

}  // namespace
