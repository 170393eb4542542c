// The SQLite database as other programs see it, read through a separate
// sqlite3 connection: tables, columns, stored values, shared in-memory
// databases, and values that look like SQL.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sqlite_api.h"
#include "support/sqlite_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using ::db_test::Bytes;
using ::db_test::Flt;
using ::db_test::Int;
using ::db_test::Row;
using ::db_test::Str;
using ::testing::ElementsAre;

// The stored text of the owner index of side table repeated_field_table_T_F.
Row OwnerIndex(const std::string& field) {
  const std::string side = "repeated_field_table_T_" + field;
  return Row{"CREATE INDEX \"" + side + ":owner\" ON " + side + "(ID_T)"};
}

class SqliteLayoutTest : public ::testing::Test {
 protected:
  SqliteLayoutTest() : path_(dir_.File("layout.db")), api_(path_, "T", false) {
    EXPECT_EQ(api_.CreateTable({{"a", Attribute(kInteger)},
                                {"b", Attribute(kString)},
                                {"c", Attribute(kFloat)},
                                {"d", Attribute(kBytes)}},
                               {{"f", {kInteger, {}}}, {"g", {kString, {}}}, {"h", {kFloat, {}}}}),
              0);
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  std::string path_;
  SqliteAPI api_;
};

TEST_F(SqliteLayoutTest, TablesAndStoredValues) {
  ASSERT_EQ(api_.AddScalarField("e", Attribute(kString)), 0);
  ASSERT_EQ(api_.AddCompositeField("k", {kBytes, {}}), 0);
  ASSERT_EQ(api_.AddTableIndex("idx_ab", {"a", "b"}), 0);
  db_test::RawDb raw(path_);
  const std::string side = "CREATE TABLE repeated_field_table_T_";
  EXPECT_THAT(
      raw.Query("SELECT sql FROM sqlite_master ORDER BY name;"),
      ElementsAre(Row{"CREATE TABLE T(ID INTEGER PRIMARY KEY , a INTEGER,b TEXT,c REAL,d "
                      "BLOB, e TEXT)"},
                  Row{"CREATE INDEX idx_ab ON T (a,b)"},
                  Row{side + "f(ID INTEGER PRIMARY KEY, ID_T INTEGER, f INTEGER)"}, OwnerIndex("f"),
                  Row{side + "g(ID INTEGER PRIMARY KEY, ID_T INTEGER, g TEXT)"}, OwnerIndex("g"),
                  Row{side + "h(ID INTEGER PRIMARY KEY, ID_T INTEGER, h REAL)"}, OwnerIndex("h"),
                  Row{side + "k(ID INTEGER PRIMARY KEY, ID_T INTEGER, k BLOB)"}, OwnerIndex("k")));
  EXPECT_THAT(raw.Query("PRAGMA journal_mode;"), ElementsAre(Row{"wal"}));
  int synchronous = -1;
  ASSERT_EQ(api_.ExecuteQuery("PRAGMA synchronous;", CallbackSize, &synchronous), 0);
  EXPECT_EQ(synchronous, 1);  // NORMAL

  const ScalarFields record = {{"a", Int(-5)},
                               {"b", Str("O'Brien")},
                               {"c", Flt(3.14159265f)},
                               {"d", Bytes({0x00, 'A', 0xFF})}};
  const CompositeFields composite = {{"f", {kInteger, {Int(7), Int(-8)}}},
                                     {"g", {kString, {Str(std::string("a\0b", 3))}}},
                                     {"k", {kBytes, {Bytes({0xFF}), Bytes({})}}}};
  ASSERT_EQ(api_.StoreRecord(12, record, composite), 0);
  EXPECT_THAT(raw.Query("SELECT ID, a, typeof(a), b, c, typeof(c), hex(d), typeof(d), e FROM T;"),
              ElementsAre(Row{"12", "-5", "integer", "O'Brien", "3.14159", "real", "FFFE41FFFF",
                              "text", std::nullopt}));
  EXPECT_THAT(raw.Query("SELECT ID_T, f FROM repeated_field_table_T_f ORDER BY ID;"),
              ElementsAre(Row{"12", "7"}, Row{"12", "-8"}));
  EXPECT_THAT(raw.Query("SELECT hex(g) FROM repeated_field_table_T_g UNION ALL "
                        "SELECT hex(k) FROM repeated_field_table_T_k;"),
              ElementsAre(Row{"61FFFE62"}, Row{"FFFF"}, Row{""}));

  // A NULL column reads back unset, whatever the map held.
  ScalarFields scalar = {{"e", Str("stale")}};
  CompositeFields none;
  ASSERT_EQ(api_.RetrieveRecord(12, &scalar, &none), 0);
  EXPECT_EQ(scalar.at("e"), Attribute(kString));
}

TEST_F(SqliteLayoutTest, SharedInMemoryDatabase) {
  SqliteAPI first(dir_.File("mem"), "T", true);
  SqliteAPI second(dir_.File("mem"), "T", true);
  ASSERT_EQ(first.CreateTable({{"a", Attribute(kString)}}, {}), 0);
  ASSERT_EQ(first.StoreRecord(3, {{"a", Str("shared")}}, {}), 0);
  ScalarFields scalar = {{"a", Attribute(kString)}};
  CompositeFields composite;
  ASSERT_EQ(second.RetrieveRecord(3, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("a"), Str("shared"));
  std::string journal;
  ASSERT_EQ(second.ExecuteQuery("PRAGMA journal_mode;", CallbackPrint, &journal), 0);
  EXPECT_EQ(journal, "journal_mode = memory\n\n");
  int size = -1;
  EXPECT_EQ(SqliteAPI(dir_.File("other_mem"), "T", true).GetTableSize(&size), -1);
  EXPECT_FALSE(std::filesystem::exists(dir_.File("mem")));  // nothing on disk
}

// A database written before owner indexes existed gains them when a table is
// opened writable, only for that table's own side tables, and once.
TEST(SqliteOwnerIndex, AddedWhenAnOlderDatabaseIsOpenedAndDroppedWithItsTable) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  db_test::RawDb raw(dir.File("old.db"));
  // The side table of table T_x starts with T's side-table prefix too.
  raw.Query(
      "CREATE TABLE T(ID INTEGER PRIMARY KEY );"
      "CREATE TABLE repeated_field_table_T_f(ID INTEGER PRIMARY KEY, ID_T INTEGER, f INTEGER);"
      "CREATE TABLE repeated_field_table_T_x_f(ID INTEGER PRIMARY KEY, ID_T_x INTEGER, f "
      "INTEGER);");
  const std::string indexes = "SELECT sql FROM sqlite_master WHERE type='index';";
  {
    SqliteAPI api(dir.File("old.db"), "T", false);
    SqliteAPI again(dir.File("old.db"), "T", false);
    EXPECT_THAT(raw.Query(indexes), ElementsAre(OwnerIndex("f")));
    EXPECT_THAT(raw.Query("PRAGMA journal_mode;"), ElementsAre(Row{"wal"}));
    EXPECT_EQ(api.DestroyTable({{"f", {kInteger, {}}}}), 0);
  }
  EXPECT_THAT(raw.Query(indexes), ElementsAre());
  EXPECT_THAT(log.Lines(), ElementsAre());
}

TEST_F(SqliteLayoutTest, ValuesThatLookLikeSqlStayValues) {
  std::string every_byte;
  for (int c = 0; c < 256; ++c) every_byte.push_back(static_cast<char>(c));
  const std::string values[] = {"x'); DROP TABLE T; --",
                                std::string("'\0\xFF'; DELETE FROM T; --", 23), "' OR '1'='1",
                                every_byte};
  for (uint32_t id = 1; id <= 4; ++id) {
    const Attribute value = Str(values[id - 1]);
    ASSERT_EQ(api_.StoreRecord(id, {{"a", Int(1)}, {"b", value}}, {{"g", {kString, {value}}}}), 0);
    ScalarFields scalar = {{"b", Attribute(kString)}};
    CompositeFields composite = {{"g", {kString, {}}}};
    ASSERT_EQ(api_.RetrieveRecord(id, &scalar, &composite), 0) << id;
    EXPECT_EQ(scalar.at("b"), value) << id;
    EXPECT_THAT(composite.at("g").second, ElementsAre(value)) << id;
    std::vector<uint32_t> ids;  // each value matches its own record only
    EXPECT_EQ(api_.RetrieveRecords(&ids, {{"b", value}}, {}), 0);
    EXPECT_THAT(ids, ElementsAre(id));
    EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(1)}}, {{"g", {kString, {value}}}}), 0);
    EXPECT_THAT(ids, ElementsAre(id));
  }
  db_test::RawDb raw(path_);
  EXPECT_THAT(raw.Query("SELECT count(*) FROM T;"), ElementsAre(Row{"4"}));
  EXPECT_THAT(raw.Query("SELECT hex(b) FROM T WHERE ID=2;"),
              ElementsAre(Row{"27FFFEFFFF273B2044454C4554452046524F4D20543B202D2D"}));
}

}  // namespace
}  // namespace db
