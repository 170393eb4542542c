// The SQLite database as other programs see it: tables, columns, types and
// stored values read through a separate sqlite3 connection, locking between
// connections, shared in-memory databases, and values that look like SQL.

#include <sqlite3.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sqlite_api.h"
#include "support/test_util.h"

namespace db {
namespace {

using ::testing::ElementsAre;
using Row = std::vector<std::optional<std::string>>;

Attribute Int(int32_t v) {
  Attribute a(kInteger);
  a = v;
  return a;
}
Attribute Flt(float v) {
  Attribute a(kFloat);
  a = v;
  return a;
}
Attribute Str(const std::string& v) {
  Attribute a(kString);
  a = v;
  return a;
}
Attribute Bytes(const std::vector<uint8_t>& v) {
  Attribute a(kBytes);
  a = v;
  return a;
}

// A second, plain connection to the database file.
class RawDb {
 public:
  explicit RawDb(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &db_), 0); }
  ~RawDb() { sqlite3_close(db_); }

  // Every row of `sql`, each column as its exact bytes or nullopt for NULL.
  std::vector<Row> Query(const std::string& sql) {
    std::vector<Row> rows;
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db_);
    while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
      Row row;
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        if (sqlite3_column_type(stmt, i) == SQLITE_NULL) {
          row.push_back(std::nullopt);
          continue;
        }
        const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt, i));
        row.push_back(std::string(data == nullptr ? "" : data,
                                  static_cast<size_t>(sqlite3_column_bytes(stmt, i))));
      }
      rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
  }
  int Exec(const std::string& sql) {
    return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  }

 private:
  sqlite3* db_ = nullptr;
};

class SqliteLayoutTest : public ::testing::Test {
 protected:
  SqliteLayoutTest() : path_(dir_.File("layout.db")), api_(path_, "T", false) {}

  void CreateTable() {
    ASSERT_EQ(api_.CreateTable({{"a", Attribute(kInteger)},
                                {"b", Attribute(kString)},
                                {"c", Attribute(kFloat)},
                                {"d", Attribute(kBytes)}},
                               {{"f", {kInteger, {}}},
                                {"g", {kString, {}}},
                                {"h", {kFloat, {}}},
                                {"k", {kBytes, {}}}}),
              0);
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  std::string path_;
  SqliteAPI api_;
};

TEST_F(SqliteLayoutTest, TablesColumnsAndTypes) {
  CreateTable();
  ASSERT_EQ(api_.AddTableIndex("idx_ab", {"a", "b"}), 0);
  ASSERT_TRUE(std::filesystem::exists(path_));
  RawDb raw(path_);
  EXPECT_THAT(raw.Query("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY name;"),
              ElementsAre(Row{"table", "T", "T",
                              "CREATE TABLE T(ID INTEGER PRIMARY KEY , a INTEGER,b TEXT,c REAL,d "
                              "BLOB)"},
                          Row{"index", "idx_ab", "T", "CREATE INDEX idx_ab ON T (a,b)"},
                          Row{"table", "repeated_field_table_T_f", "repeated_field_table_T_f",
                              "CREATE TABLE repeated_field_table_T_f(ID INTEGER PRIMARY KEY, ID_T "
                              "INTEGER, f INTEGER)"},
                          Row{"table", "repeated_field_table_T_g", "repeated_field_table_T_g",
                              "CREATE TABLE repeated_field_table_T_g(ID INTEGER PRIMARY KEY, ID_T "
                              "INTEGER, g TEXT)"},
                          Row{"table", "repeated_field_table_T_h", "repeated_field_table_T_h",
                              "CREATE TABLE repeated_field_table_T_h(ID INTEGER PRIMARY KEY, ID_T "
                              "INTEGER, h REAL)"},
                          Row{"table", "repeated_field_table_T_k", "repeated_field_table_T_k",
                              "CREATE TABLE repeated_field_table_T_k(ID INTEGER PRIMARY KEY, ID_T "
                              "INTEGER, k BLOB)"}));
  EXPECT_THAT(raw.Query("SELECT name, type, pk FROM pragma_table_info('T');"),
              ElementsAre(Row{"ID", "INTEGER", "1"}, Row{"a", "INTEGER", "0"},
                          Row{"b", "TEXT", "0"}, Row{"c", "REAL", "0"}, Row{"d", "BLOB", "0"}));
  EXPECT_THAT(
      raw.Query("SELECT name, type, pk FROM pragma_table_info('repeated_field_table_T_k');"),
      ElementsAre(Row{"ID", "INTEGER", "1"}, Row{"ID_T", "INTEGER", "0"}, Row{"k", "BLOB", "0"}));

  ASSERT_EQ(api_.AddScalarField("e", Attribute(kString)), 0);
  EXPECT_THAT(raw.Query("SELECT name, type FROM pragma_table_info('T') WHERE name='e';"),
              ElementsAre(Row{"e", "TEXT"}));
}

TEST_F(SqliteLayoutTest, StoredValuesAsText) {
  CreateTable();
  const ScalarFields record = {{"a", Int(-5)},
                               {"b", Str("O'Brien")},
                               {"c", Flt(3.14159265f)},
                               {"d", Bytes({0x00, 'A', 0xFF})}};
  const CompositeFields composite = {
      {"f", {kInteger, {Int(7), Int(-8)}}},
      {"g", {kString, {Str(std::string("a\0b", 3))}}},
      {"h", {kFloat, {Flt(0.1f)}}},
      {"k", {kBytes, {Bytes({0xFF}), Bytes({})}}},
  };
  ASSERT_EQ(api_.StoreRecord(12, record, composite), 0);

  RawDb raw(path_);
  EXPECT_THAT(
      raw.Query("SELECT ID, a, typeof(a), b, c, typeof(c), hex(d), typeof(d) FROM T;"),
      ElementsAre(Row{"12", "-5", "integer", "O'Brien", "3.14159", "real", "FFFE41FFFF", "text"}));
  EXPECT_THAT(raw.Query("SELECT ID_T, f FROM repeated_field_table_T_f ORDER BY ID;"),
              ElementsAre(Row{"12", "7"}, Row{"12", "-8"}));
  EXPECT_THAT(raw.Query("SELECT hex(g) FROM repeated_field_table_T_g;"),
              ElementsAre(Row{"61FFFE62"}));
  EXPECT_THAT(raw.Query("SELECT h FROM repeated_field_table_T_h;"), ElementsAre(Row{"0.1"}));
  EXPECT_THAT(raw.Query("SELECT hex(k) FROM repeated_field_table_T_k ORDER BY ID;"),
              ElementsAre(Row{"FFFF"}, Row{""}));

  ScalarFields scalar = {{"a", Attribute(kInteger)},
                         {"b", Attribute(kString)},
                         {"c", Attribute(kFloat)},
                         {"d", Attribute(kBytes)}};
  CompositeFields read = {
      {"f", {kInteger, {}}}, {"g", {kString, {}}}, {"h", {kFloat, {}}}, {"k", {kBytes, {}}}};
  ASSERT_EQ(api_.RetrieveRecord(12, &scalar, &read), 0);
  ScalarFields expected = record;
  expected["c"] = Flt(3.14159f);
  EXPECT_EQ(scalar, expected);
  EXPECT_EQ(read, composite);
}

TEST_F(SqliteLayoutTest, RecordWithoutSetScalarField) {
  CreateTable();
  ASSERT_EQ(api_.StoreRecord(7, {{"a", Attribute(kInteger)}, {"b", Attribute(kString)}},
                             {{"f", {kInteger, {Int(1), Int(2)}}}}),
            0);
  RawDb raw(path_);
  EXPECT_THAT(raw.Query("SELECT * FROM T;"),
              ElementsAre(Row{"7", std::nullopt, std::nullopt, std::nullopt, std::nullopt}));
  EXPECT_THAT(raw.Query("SELECT ID_T, f FROM repeated_field_table_T_f ORDER BY ID;"),
              ElementsAre(Row{"7", "1"}, Row{"7", "2"}));
}

TEST_F(SqliteLayoutTest, WriteLockHeldElsewhereGivesBusy) {
  CreateTable();
  RawDb other(path_);
  ASSERT_EQ(other.Exec("BEGIN EXCLUSIVE;"), SQLITE_OK);
  log_.Clear();
  EXPECT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), -6);
  int size = 0;
  EXPECT_EQ(api_.GetTableSize(&size), -6);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(log_.Count("ERROR! sqlite3_exec: err_msg='database is locked'"), 2);
  ASSERT_EQ(other.Exec("ROLLBACK;"), SQLITE_OK);
  EXPECT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), 0);
  EXPECT_EQ(api_.GetTableSize(&size), 0);
  EXPECT_EQ(size, 1);
}

TEST_F(SqliteLayoutTest, SharedInMemoryDatabase) {
  const std::string name = dir_.File("mem");
  SqliteAPI first(name, "T", true);
  SqliteAPI second(name, "T", true);
  SqliteAPI elsewhere(dir_.File("other_mem"), "T", true);
  ASSERT_TRUE(first.IsConnected());
  ASSERT_TRUE(second.IsConnected());
  ASSERT_EQ(first.CreateTable({{"a", Attribute(kString)}}, {{"f", {kInteger, {}}}}), 0);
  ASSERT_EQ(first.StoreRecord(3, {{"a", Str("shared")}}, {{"f", {kInteger, {Int(4)}}}}), 0);

  int size = -1;
  EXPECT_EQ(second.GetTableSize(&size), 0);
  EXPECT_EQ(size, 1);
  ScalarFields scalar = {{"a", Attribute(kString)}};
  CompositeFields composite = {{"f", {kInteger, {}}}};
  ASSERT_EQ(second.RetrieveRecord(3, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("a"), Str("shared"));
  EXPECT_THAT(composite.at("f").second, ElementsAre(Int(4)));

  EXPECT_EQ(elsewhere.GetTableSize(&size), -1);
  // Nothing is written to disk.
  EXPECT_FALSE(std::filesystem::exists(name));
  EXPECT_FALSE(std::filesystem::exists(dir_.File("other_mem")));
}

TEST_F(SqliteLayoutTest, ValuesThatLookLikeSqlStayValues) {
  CreateTable();
  static constexpr char kWithNul[] = "'\0\xFF'; DELETE FROM T; --";
  const std::vector<std::string> values = {
      "x'); DROP TABLE T; --",
      std::string(kWithNul, sizeof(kWithNul) - 1),
      "' OR '1'='1",
      "\xFF\xFE\xFF",
  };
  uint32_t id = 1;
  for (const std::string& value : values) {
    ASSERT_EQ(
        api_.StoreRecord(id, {{"a", Int(1)}, {"b", Str(value)}}, {{"g", {kString, {Str(value)}}}}),
        0)
        << id;
    ++id;
  }

  RawDb raw(path_);
  EXPECT_THAT(raw.Query("SELECT count(*) FROM T;"), ElementsAre(Row{"4"}));
  EXPECT_THAT(raw.Query("SELECT b FROM T WHERE ID=1;"), ElementsAre(Row{values[0]}));
  EXPECT_THAT(raw.Query("SELECT b FROM T WHERE ID=3;"), ElementsAre(Row{values[2]}));

  id = 1;
  for (const std::string& value : values) {
    ScalarFields scalar = {{"a", Attribute(kInteger)}, {"b", Attribute(kString)}};
    CompositeFields composite = {{"g", {kString, {}}}};
    ASSERT_EQ(api_.RetrieveRecord(id, &scalar, &composite), 0) << id;
    EXPECT_EQ(scalar.at("b"), Str(value)) << id;
    EXPECT_THAT(composite.at("g").second, ElementsAre(Str(value))) << id;

    std::vector<uint32_t> ids;
    EXPECT_EQ(api_.RetrieveRecords(&ids, {{"b", Str(value)}}, {}), 0);
    EXPECT_THAT(ids, ElementsAre(id));
    EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(1)}}, {{"g", {kString, {Str(value)}}}}), 0);
    EXPECT_THAT(ids, ElementsAre(id));
    ++id;
  }

  ASSERT_EQ(api_.UpdateRecord(1, {{"b", Str(values[1])}}, {}), 0);
  EXPECT_THAT(raw.Query("SELECT hex(b) FROM T WHERE ID=1;"),
              ElementsAre(Row{"27FFFEFFFF273B2044454C4554452046524F4D20543B202D2D"}));
  EXPECT_THAT(raw.Query("SELECT count(*) FROM T;"), ElementsAre(Row{"4"}));
}

}  // namespace
}  // namespace db
