#ifndef DB_INTF_TESTS_SUPPORT_SQLITE_UTIL_H_
#define DB_INTF_TESTS_SUPPORT_SQLITE_UTIL_H_

#include <sqlite3.h>

#include <optional>

#include "support/test_util.h"

namespace db_test {

// One result row, NULL columns as nullopt.
using Row = std::vector<std::optional<std::string>>;

// A second, plain connection to a database file. Query reads text up to a
// NUL; read values that may hold one through hex().
class RawDb {
 public:
  explicit RawDb(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &db_), 0); }
  ~RawDb() { sqlite3_close(db_); }
  std::vector<Row> Query(const std::string& sql) {
    std::vector<Row> rows;
    EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), &RawDb::AddRow, &rows, nullptr), SQLITE_OK) << sql;
    return rows;
  }

 private:
  static int AddRow(void* rows, int argc, char** values, char**) {
    Row& row = static_cast<std::vector<Row>*>(rows)->emplace_back();
    for (int i = 0; i < argc; ++i)
      row.push_back(values[i] != nullptr ? std::optional<std::string>(values[i]) : std::nullopt);
    return 0;
  }
  sqlite3* db_ = nullptr;
};

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_SQLITE_UTIL_H_
