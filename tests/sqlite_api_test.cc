// SqliteAPI: its codes and error lines, and the file as sqlite3 sees it.

#include "sqlite_api.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

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
using ::testing::IsEmpty;

TEST(SqliteStatementPieces, Quirks) {
  EXPECT_EQ(SqliteAPI::CompositeFieldTableName("a_b", "c"), "repeated_field_table_a_b_c");
  EXPECT_EQ(SqliteAPI::CompositeFieldTableName("a", "b_c"), "repeated_field_table_a_b_c");
  // 0xFF before any byte but 0xFE yields that byte; a trailing one stays; numbers are kept.
  EXPECT_EQ(SqliteAPI::GetFieldAsString(Attribute(kBytes), "\xFFq\xFF\xFE\xFF"),
            std::string("q\0\xFF", 3));
  EXPECT_EQ(SqliteAPI::GetFieldAsString(Attribute(kInteger), "\xFF\xFE"), "\xFF\xFE");
}

class SqliteApiTest : public ::testing::Test {
 protected:
  SqliteApiTest() : api_(dir_.File("db.sqlite"), "T", false) {}

  void CreateDefaultTable() { ASSERT_EQ(api_.CreateTable(Schema(), CompositeSchema()), 0); }
  static ScalarFields Schema() {
    return {{"a", Attribute(kInteger)},
            {"b", Attribute(kString)},
            {"c", Attribute(kFloat)},
            {"d", Attribute(kBytes)}};
  }
  static CompositeFields CompositeSchema() {
    return {{"f", {kInteger, {Attribute(kInteger)}}},
            {"g", {kString, {Attribute(kString)}}},
            {"h", {kFloat, {}}}};
  }
  int Count(const std::string& table) {
    int size = -1;
    SqliteAPI(dir_.File("db.sqlite"), table, false).GetTableSize(&size);
    return size;
  }
  db_test::LogCapture log_;
  db_test::TempDir dir_;
  SqliteAPI api_;
};

// The statements each operation sends, in order; unset values and empty maps send none.
TEST_F(SqliteApiTest, StatementsSent) {
  CreateDefaultTable();
  std::vector<std::string> sent;
  sqlite3_trace_v2(
      api_.handle(), SQLITE_TRACE_STMT,
      [](unsigned, void* log, void*, void* sql) {
        static_cast<std::vector<std::string>*>(log)->push_back(static_cast<const char*>(sql));
        return 0;
      },
      &sent);
  const uint32_t id = 4000000000u;
  const CompositeFields stored = {{"f", {kInteger, {Int(10), Attribute(kInteger), Int(11)}}},
                                  {"g", {kString, {}}}};
  ASSERT_EQ(
      api_.StoreRecord(id, {{"a", Int(1)}, {"b", Str("x")}, {"c", Attribute(kFloat)}}, stored), 0);
  ASSERT_EQ(api_.StoreRecord(6, {{"a", Attribute(kInteger)}}, {}), 0);
  ASSERT_EQ(api_.UpdateRecord(id, {{"a", Int(2)}, {"b", Str("y")}}, {{"g", {kString, {Str("z")}}}}),
            0);
  ASSERT_EQ(api_.UpdateRecord(id, {{"a", Attribute(kInteger)}}, {}), 0);
  ASSERT_EQ(api_.DeleteRecord(6, {"f", "g"}), 0);
  int size = -1;
  ASSERT_EQ(api_.GetTableSize(&size), 0);
  ScalarFields scalar = Schema();
  CompositeFields composite = {{"f", {kInteger, {}}}};
  ASSERT_EQ(api_.RetrieveRecord(id, &scalar, &composite), 0);
  std::vector<uint32_t> ids;
  // Unset values impose nothing.
  ASSERT_EQ(api_.RetrieveRecords(&ids, {{"a", Attribute(kInteger)}},
                                 {{"f", {kInteger, {Attribute(kInteger)}}}}),
            0);
  ASSERT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(2)}, {"b", Str("y")}}, {}), 0);
  // Both elements match: the id comes once.
  ASSERT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(2)}}, {{"f", {kInteger, {Int(10), Int(11)}}}}),
            0);
  EXPECT_THAT(ids, ElementsAre(id));
  ASSERT_EQ(api_.DestroyTable({{"f", {kInteger, {}}}, {"g", {kString, {}}}}), 0);
  const std::string side_f = "repeated_field_table_T_f", side_g = "repeated_field_table_T_g";
  EXPECT_THAT(
      sent,
      ElementsAre(
          "INSERT INTO T (ID, a,b) VALUES (4000000000, 1,'x');", "BEGIN TRANSACTION",
          "INSERT INTO " + side_f + "(ID_T, f) VALUES (4000000000, 10);",
          "INSERT INTO " + side_f + "(ID_T, f) VALUES (4000000000, 11);", "END TRANSACTION",
          "INSERT INTO T (ID) VALUES (6);", "BEGIN TRANSACTION", "END TRANSACTION",
          "UPDATE T SET a=2 , b='y'  WHERE ID=4000000000;", "BEGIN TRANSACTION",
          "DELETE FROM " + side_g + " WHERE ID_T=4000000000;", "END TRANSACTION",
          "BEGIN TRANSACTION", "INSERT INTO " + side_g + "(ID_T, g) VALUES (4000000000, 'z');",
          "END TRANSACTION", "BEGIN TRANSACTION", "DELETE FROM " + side_f + " WHERE ID_T=6;",
          "DELETE FROM " + side_g + " WHERE ID_T=6;", "END TRANSACTION",
          "DELETE FROM T WHERE ID=6;", "SELECT COUNT(*) FROM T;",
          "SELECT ID FROM T WHERE ID=4000000000;", "SELECT * FROM T WHERE ID=4000000000;",
          "BEGIN TRANSACTION", "SELECT f FROM " + side_f + " WHERE ID_T=4000000000;",
          "END TRANSACTION", "SELECT ID FROM T;", "SELECT ID FROM T WHERE a=2 AND b='y' ;",
          "SELECT T.ID FROM T INNER JOIN " + side_f + " ON T.ID=" + side_f +
              ".ID_T WHERE T.a=2  AND (" + side_f + ".f IN (10, 11) );",
          "BEGIN TRANSACTION", "DROP TABLE " + side_f + ";", "DROP TABLE " + side_g + ";",
          "END TRANSACTION", "DROP TABLE T;"));
}

TEST_F(SqliteApiTest, RefusalsPrintingAndDeletions) {
  ASSERT_EQ(api_.CreateTable({}, {}), 0);
  EXPECT_EQ(api_.DestroyTable({{"f", {kInteger, {}}}}), -1);
  EXPECT_EQ(api_.EndTransaction(), 0);  // left open by the failure
  EXPECT_EQ(api_.DestroyTable({}), 0);  // and the main table kept

  CreateDefaultTable();
  // The main table exists: no side table is attempted.
  EXPECT_EQ(api_.CreateTable(Schema(), {{"z", {kInteger, {}}}}), -1);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='table T already exists'"));
  EXPECT_EQ(api_.AddTableIndex("idx", {}), -1);  // loses its "("
  EXPECT_EQ(api_.AddCompositeField("f", {kInteger, {}}), -1);
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3)}}}}), 0);
  static std::string printed;
  EXPECT_EQ(api_.PrintDatabase({{"f", {kInteger, {}}}},
                               [](std::stringstream& text) { printed = text.str(); }),
            0);
  EXPECT_EQ(printed, "ID = 1\na = 1\nb = NULL\nc = NULL\nd = NULL\n\nID = 1\nID_T = 1\nf = 3\n\n");
  log_.Clear();
  ScalarFields scalar = Schema();
  CompositeFields composite;
  EXPECT_EQ(api_.RetrieveRecord(2, &scalar, &composite), -4);
  EXPECT_THAT(log_.Lines(), IsEmpty()) << "an absent id is not an error";

  std::vector<uint32_t> ids = {42};
  const CompositeFields elements = {{"f", {kInteger, {Int(3)}}}, {"g", {kString, {Str("x")}}}};
  for (int32_t id : {2, 3, 4, 5})
    ASSERT_EQ(api_.StoreRecord(id, {{"a", Int(id < 4 ? 1 : 2)}}, elements), 0);
  // Only the side tables named in the filter are cleaned, on purpose.
  EXPECT_EQ(api_.DeleteRecords(&ids, {{"a", Int(1)}}, {{"g", {kString, {}}}}), 0);
  EXPECT_THAT(ids, ElementsAre(1u, 2u, 3u));  // cleared first
  EXPECT_EQ((std::vector<int>{Count("T"), Count("repeated_field_table_T_g"),
                              Count("repeated_field_table_T_f")}),
            (std::vector<int>{2, 2, 5}));
  // ClearTable carries on after failures: the first delete fails on the
  // missing side table and leaves its transaction open, the next at BEGIN.
  log_.Clear();
  EXPECT_EQ(api_.ClearTable({{"missing", {kInteger, {}}}}, &ids), -1);
  EXPECT_THAT(ids, ElementsAre(4u, 5u));
  EXPECT_EQ(log_.Count("ERROR! sqlite3_exec"), 2);
  // A filter without a set scalar is refused: DeleteRecords deletes nothing.
  EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Attribute(kInteger)}}, {{"f", {kInteger, {Int(3)}}}}),
            -1);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='near \"AND\": syntax error'"));
  EXPECT_EQ(api_.DeleteRecords(&ids, {}, {{"f", {kInteger, {Int(3)}}}}), 0);
  EXPECT_THAT(ids, IsEmpty());
  EXPECT_EQ(api_.PrintDatabase({{"missing", {kInteger, {}}}}, nullptr), -1);
  EXPECT_EQ(Count("T"), 2);
}

// SQLITE_BUSY gives -6, SQLITE_CORRUPT -7, anything else -1.
TEST_F(SqliteApiTest, ResultCodesAndErrorLines) {
  SqliteAPI unconnected(dir_.File("no/such/dir/db.sqlite"), "T", false);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_open: rc=14"));
  EXPECT_EQ(unconnected.StoreRecord(1, {}, {}), -1);

  int size = 5;
  EXPECT_EQ(api_.GetTableSize(&size), -1);
  EXPECT_EQ(size, -1);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='no such table: T'"));

  CreateDefaultTable();
  const std::string path = dir_.File("db.sqlite");
  int page_size = 0;
  {
    // With the write-ahead log a second writer times out while reads go on.
    db_test::RawDb other(path);
    other.Query("BEGIN EXCLUSIVE;");
    EXPECT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), -6);
    EXPECT_EQ(api_.GetTableSize(&size), 0);
    EXPECT_EQ(log_.Count("ERROR! sqlite3_exec: err_msg='database is locked'"), 1);
    page_size = std::stoi(*other.Query("PRAGMA page_size;").at(0).at(0));
  }  // closing rolls back
  EXPECT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), 0);

  // An invalid page type in page 2 (the root of T, after a checkpoint) makes it malformed.
  db_test::RawDb(path).Query("PRAGMA wal_checkpoint(TRUNCATE);");
  std::string bytes = db_test::ReadFile(path);
  bytes.replace(page_size, 16, 16, '\xFF');
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  std::vector<uint32_t> ids;
  EXPECT_EQ(SqliteAPI(path, "T", false).RetrieveRecords(&ids, {}, {}), -7);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='database disk image is malformed'"));
}

// A file held in rollback-journal mode keeps it (logged), and a reader waits for the writer.
TEST(SqliteJournal, FileHeldInRollbackModeKeepsItsMode) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  db_test::RawDb other(dir.File("db.sqlite"));
  other.Query("CREATE TABLE T(ID INTEGER PRIMARY KEY , a INTEGER); BEGIN EXCLUSIVE;");
  SqliteAPI api(dir.File("db.sqlite"), "T", false);
  EXPECT_TRUE(
      log.Contains("ERROR! Write-ahead log not set, the database keeps its journal mode: "
                   "err_msg='database is locked'"));
  int size = 0;
  EXPECT_EQ(api.GetTableSize(&size), -6);
  other.Query("END;");
  EXPECT_EQ(api.StoreRecord(1, {{"a", Int(1)}}, {}), 0);
  EXPECT_THAT(other.Query("PRAGMA journal_mode;"), ElementsAre(db_test::Row{"delete"}));
}

Row OwnerIndex(const std::string& field) {
  const std::string side = "repeated_field_table_T_" + field;
  return Row{"CREATE INDEX \"" + side + ":owner\" ON " + side + "(ID_T)"};
}

TEST_F(SqliteApiTest, TablesAndStoredValues) {
  CreateDefaultTable();
  ASSERT_EQ(api_.AddScalarField("e", Attribute(kString)), 0);
  ASSERT_EQ(api_.AddCompositeField("k", {kBytes, {}}), 0);
  db_test::RawDb raw(dir_.File("db.sqlite"));
  const std::string side = "CREATE TABLE repeated_field_table_T_";
  EXPECT_THAT(
      raw.Query("SELECT sql FROM sqlite_master ORDER BY name;"),
      ElementsAre(Row{"CREATE TABLE T(ID INTEGER PRIMARY KEY , a INTEGER,b TEXT,c REAL,d "
                      "BLOB, e TEXT)"},
                  Row{side + "f(ID INTEGER PRIMARY KEY, ID_T INTEGER, f INTEGER)"}, OwnerIndex("f"),
                  Row{side + "g(ID INTEGER PRIMARY KEY, ID_T INTEGER, g TEXT)"}, OwnerIndex("g"),
                  Row{side + "h(ID INTEGER PRIMARY KEY, ID_T INTEGER, h REAL)"}, OwnerIndex("h"),
                  Row{side + "k(ID INTEGER PRIMARY KEY, ID_T INTEGER, k BLOB)"}, OwnerIndex("k")));
  int synchronous = -1;
  ASSERT_EQ(api_.ExecuteQuery("PRAGMA synchronous;", CallbackSize, &synchronous), 0);
  EXPECT_EQ(synchronous, 1);  // NORMAL
  std::vector<uint32_t> ids;  // The first-column callback skips NULL.
  ASSERT_EQ(api_.ExecuteQuery("SELECT NULL UNION ALL SELECT 7;", CallbackSelectMultiple, &ids), 0);
  EXPECT_THAT(ids, ElementsAre(7u));

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
  EXPECT_THAT(raw.Query("SELECT ID_T || ':' || f FROM repeated_field_table_T_f UNION ALL "
                        "SELECT hex(g) FROM repeated_field_table_T_g UNION ALL "
                        "SELECT hex(k) FROM repeated_field_table_T_k;"),
              ElementsAre(Row{"12:7"}, Row{"12:-8"}, Row{"61FFFE62"}, Row{"FFFF"}, Row{""}));
}

TEST_F(SqliteApiTest, SharedInMemoryDatabase) {
  SqliteAPI first(dir_.File("mem"), "T", true);
  ASSERT_EQ(first.CreateTable({{"a", Attribute(kString)}}, {}), 0);
  int size = -1;
  EXPECT_EQ(SqliteAPI(dir_.File("mem"), "T", true).GetTableSize(&size), 0);
  EXPECT_EQ(SqliteAPI(dir_.File("other_mem"), "T", true).GetTableSize(&size), -1);
  EXPECT_FALSE(std::filesystem::exists(dir_.File("mem")));  // nothing on disk
  EXPECT_FALSE(log_.Contains("Write-ahead")) << "a memory database keeps its journal quietly";
  EXPECT_EQ(first.Disconnect(), 0);
  EXPECT_EQ(first.handle(), nullptr) << "closed, so that closing again does nothing";
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

}  // namespace
}  // namespace db
