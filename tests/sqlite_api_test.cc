// SqliteAPI driven directly: the statement pieces, the row callbacks, the
// exact statements that each operation sends (seen through SQLite's statement
// trace), result codes and error lines.

#include "sqlite_api.h"

#include <sqlite3.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/test_util.h"

namespace db {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

// --- Statement pieces.

TEST(SqliteStatementPieces, CompositeFieldTableNameJoinsWithUnderscore) {
  EXPECT_EQ(SqliteAPI::CompositeFieldTableName("T", "F"), "repeated_field_table_T_F");
  // Accepted collision: both pairs name the same side table.
  EXPECT_EQ(SqliteAPI::CompositeFieldTableName("a_b", "c"),
            SqliteAPI::CompositeFieldTableName("a", "b_c"));
}

TEST(SqliteStatementPieces, SqlTypes) {
  const struct {
    AttributeType type;
    const char* sql;
  } cases[] = {{kInteger, "INTEGER"}, {kString, "TEXT"}, {kFloat, "REAL"}, {kBytes, "BLOB"}};
  for (const auto& c : cases) {
    EXPECT_EQ(SqliteAPI::GetFieldSqlType(Attribute(c.type)), c.sql) << c.type;
    EXPECT_EQ(SqliteAPI::GetFieldSqlType(CompositeField(c.type, {})), c.sql) << c.type;
  }
  EXPECT_EQ(SqliteAPI::GetFieldSqlType(CompositeField(static_cast<AttributeType>(7), {})), "BLOB");
  // The Attribute overload follows the value held, not the declared kind.
  Attribute changed(kInteger);
  changed = "text";
  EXPECT_EQ(SqliteAPI::GetFieldSqlType(changed), "TEXT");
}

TEST(SqliteStatementPieces, ValueAsSql) {
  const struct {
    Attribute value;
    std::string sql;
  } cases[] = {
      {Int(42), "42"},
      {Int(-7), "-7"},
      {Flt(1.5f), "1.5"},
      {Flt(3.14159265f), "3.14159"},  // six significant digits are what is stored
      {Flt(1e7f), "1e+07"},
      {Str("plain"), "'plain'"},
      {Str("O'Brien"), "'O''Brien'"},
      {Str(""), "''"},
      {Str(std::string("a\0b", 3)),
       "'a\xFF\xFE"
       "b'"},
      {Str("\xFF"), "'\xFF\xFF'"},
      {Bytes({0x00, 0x41, 0xFF, 0x27}),
       "'\xFF\xFE"
       "A\xFF\xFF'''"},
      {Bytes({}), "''"},
  };
  for (const auto& c : cases) EXPECT_EQ(SqliteAPI::GetFieldValueAsSql(c.value), c.sql) << c.sql;
}

TEST(SqliteStatementPieces, FieldAsStringUndoesTheEscape) {
  const struct {
    AttributeType type;
    std::string text;
    std::string decoded;
  } cases[] = {
      {kString, "\xFF\xFE", std::string("\0", 1)},
      {kString,
       "a\xFF\xFF"
       "b",
       "a\xFF"
       "b"},
      {kBytes,
       "\xFF\xFE\xFF\xFF"
       "A",
       std::string("\0\xFF"
                   "A",
                   3)},
      {kBytes, "\xFFq", "q"},              // 0xFF before any other byte yields that byte
      {kString, "end\xFF", "end\xFF"},     // a lone trailing 0xFF is kept
      {kInteger, "\xFF\xFE", "\xFF\xFE"},  // other kinds are not touched
      {kFloat, "\xFF\xFF", "\xFF\xFF"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SqliteAPI::GetFieldAsString(Attribute(c.type), c.text), c.decoded) << c.text;
  }
}

TEST(SqliteStatementPieces, EveryByteSurvivesEncodeThenDecode) {
  std::vector<uint8_t> all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<uint8_t>(b));
  const std::string sql = SqliteAPI::GetFieldValueAsSql(Bytes(all));
  ASSERT_EQ(sql.find('\0'), std::string::npos);
  // What SQLite stores: the literal without its quotes, doubled quotes single.
  std::string stored;
  for (size_t i = 1; i + 1 < sql.size(); ++i) {
    stored.push_back(sql[i]);
    if (sql[i] == '\'') ++i;
  }
  const std::string decoded = SqliteAPI::GetFieldAsString(Attribute(kBytes), stored);
  EXPECT_EQ(std::vector<uint8_t>(decoded.begin(), decoded.end()), all);
}

TEST(SqliteStatementPieces, FieldNamesAndValuesTakeSetFieldsOnly) {
  const ScalarFields fields = {
      {"a", Int(1)}, {"b", Str("x")}, {"c", Attribute(kFloat)}, {"d", Flt(2.5f)}};
  EXPECT_EQ(SqliteAPI::GetDatabaseFieldNames(fields), "a,b,d");
  EXPECT_EQ(SqliteAPI::GetDatabaseFieldValues(fields), "1,'x',2.5");
  const ScalarFields unset = {{"a", Attribute(kInteger)}};
  EXPECT_EQ(SqliteAPI::GetDatabaseFieldNames(unset), "");
  EXPECT_EQ(SqliteAPI::GetDatabaseFieldValues(unset), "");
  EXPECT_EQ(SqliteAPI::GetDatabaseFieldNames({}), "");
}

TEST(SqliteStatementPieces, FieldValuesQueryEndsInOneBlank) {
  const struct {
    ScalarFields fields;
    const char* separator;
    std::string query;
  } cases[] = {
      {{{"a", Int(1)}, {"b", Str("x")}}, ",", "a=1 , b='x' "},
      {{{"a", Int(1)}, {"b", Int(2)}}, "AND", "a=1 AND b=2 "},
      {{{"a", Int(1)}, {"b", Attribute(kInteger)}}, "AND", "a=1 "},
      {{{"a", Attribute(kInteger)}}, "AND", ""},
      {{}, ",", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SqliteAPI::GenerateFieldValuesQuery(c.fields, c.separator), c.query) << c.query;
  }
}

TEST(SqliteStatementPieces, CompositeFieldValuesQuery) {
  const CompositeFields filter = {{"f", {kInteger, {Int(1), Int(2)}}},
                                  {"g", {kString, {Str("it's")}}}};
  EXPECT_EQ(SqliteAPI::GenerateCompositeFieldValuesQuery(filter),
            "f IN (1, 2) AND g IN ('it''s') ");
  EXPECT_EQ(SqliteAPI::GenerateCompositeFieldValuesQuery({}), "");
}

// --- Row callbacks.

TEST(SqliteCallbacks, PrintWritesNullAndABlankLinePerRow) {
  std::string text;
  char id[] = "3";
  char id_name[] = "ID";
  char a_name[] = "a";
  char* values[] = {id, nullptr};
  char* names[] = {id_name, a_name};
  EXPECT_EQ(CallbackPrint(&text, 2, values, names), 0);
  EXPECT_EQ(CallbackPrint(&text, 2, values, names), 0);
  EXPECT_EQ(text, "ID = 3\na = NULL\n\nID = 3\na = NULL\n\n");
}

TEST(SqliteCallbacks, SizeExistAndMultiple) {
  char seven[] = "7";
  char four[] = "4294967295";
  char name[] = "ID";
  char* names[] = {name};
  char* row7[] = {seven};
  char* row_max[] = {four};

  int size = -1;
  EXPECT_EQ(CallbackSize(&size, 1, row7, names), 0);
  EXPECT_EQ(size, 7);

  bool exists = false;
  EXPECT_EQ(CallbackExistObject(&exists, 1, row7, names), 0);
  EXPECT_TRUE(exists);

  std::vector<uint32_t> ids;
  EXPECT_EQ(CallbackSelectMultiple(&ids, 1, row_max, names), 0);
  EXPECT_EQ(CallbackSelectMultiple(&ids, 1, row7, names), 0);
  EXPECT_EQ(CallbackSelectMultiple(&ids, 1, row_max, names), 0);
  EXPECT_EQ(CallbackSelectMultiple(&ids, 0, row7, names), 0);
  EXPECT_THAT(ids, ElementsAre(4294967295u, 7u));
}

TEST(SqliteCallbacks, SelectSingleConvertsByTheSchemaKind) {
  ScalarFields record = {{"i", Attribute(kInteger)},
                         {"f", Attribute(kFloat)},
                         {"s", Attribute(kString)},
                         {"b", Attribute(kBytes)},
                         {"n", Int(9)}};
  char id[] = "12", i[] = "-5", f[] = "2.5", s[] = "it's\xFF\xFE", b[] = "\xFF\xFF\x01";
  char id_name[] = "ID", i_name[] = "i", f_name[] = "f", s_name[] = "s", b_name[] = "b",
       n_name[] = "n";
  char* values[] = {id, i, f, s, b, nullptr};
  char* names[] = {id_name, i_name, f_name, s_name, b_name, n_name};
  EXPECT_EQ(CallbackSelectSingle(&record, 6, values, names), 0);
  EXPECT_EQ(record.count("ID"), 0u);
  EXPECT_EQ(record.at("i"), Int(-5));
  EXPECT_EQ(record.at("f"), Flt(2.5f));
  EXPECT_EQ(record.at("s"), Str(std::string("it's\0", 5)));
  EXPECT_EQ(record.at("b"), Bytes({0xFF, 0x01}));
  EXPECT_EQ(record.at("n"), Int(9));  // null column: left as it was
}

TEST(SqliteCallbacks, SelectSingleLetsConversionErrorsThrough) {
  ScalarFields record = {{"i", Attribute(kInteger)}};
  char text[] = "abc", name[] = "i";
  char* values[] = {text};
  char* names[] = {name};
  EXPECT_THROW(CallbackSelectSingle(&record, 1, values, names), std::invalid_argument);
  EXPECT_FALSE(record.at("i").is_set());
}

TEST(SqliteCallbacks, SelectCompositeFieldAppendsSetElements) {
  CompositeField field(kString, {});
  char one[] = "a\xFF\xFE", two[] = "b", name[] = "f";
  char* names[] = {name};
  char* row1[] = {one};
  char* row2[] = {two};
  CallbackSelectCompositeField(&field, 1, row1, names);
  CallbackSelectCompositeField(&field, 1, row2, names);
  EXPECT_THAT(field.second, ElementsAre(Str(std::string("a\0", 2)), Str("b")));
}

// --- Operations against a database.

// Collects the statements that SQLite runs on the backend's connection.
class StatementLog {
 public:
  explicit StatementLog(sqlite3* handle) : handle_(handle) {
    sqlite3_trace_v2(handle_, SQLITE_TRACE_STMT, &StatementLog::Trace, this);
  }
  ~StatementLog() { sqlite3_trace_v2(handle_, 0, nullptr, nullptr); }
  // The statements seen so far; forgets them.
  std::vector<std::string> Take() { return std::move(statements_); }

 private:
  static int Trace(unsigned, void* context, void*, void* sql) {
    static_cast<StatementLog*>(context)->statements_.push_back(static_cast<const char*>(sql));
    return 0;
  }
  sqlite3* handle_;
  std::vector<std::string> statements_;
};

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
    return {{"f", {kInteger, {Attribute(kInteger)}}}, {"g", {kString, {Attribute(kString)}}}};
  }
  int Count(const std::string& table) {
    int size = -1;
    SqliteAPI other(dir_.File("db.sqlite"), table, false);
    other.GetTableSize(&size);
    return size;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  SqliteAPI api_;
};

TEST_F(SqliteApiTest, SchemaStatements) {
  StatementLog trace(api_.handle());
  ASSERT_EQ(api_.CreateTable({}, {}), 0);
  EXPECT_THAT(trace.Take(), ElementsAre("CREATE TABLE T(ID INTEGER PRIMARY KEY );"));

  api_.SetTableName("U");
  ASSERT_EQ(api_.CreateTable(Schema(), CompositeSchema()), 0);
  EXPECT_THAT(
      trace.Take(),
      ElementsAre("CREATE TABLE U(ID INTEGER PRIMARY KEY , a INTEGER,b TEXT,c REAL,d BLOB);",
                  "CREATE TABLE repeated_field_table_U_f(ID INTEGER PRIMARY KEY, ID_U "
                  "INTEGER, f INTEGER);",
                  "CREATE TABLE repeated_field_table_U_g(ID INTEGER PRIMARY KEY, ID_U "
                  "INTEGER, g TEXT);"));

  EXPECT_EQ(api_.AddScalarField("e", Attribute(kBytes)), 0);
  EXPECT_EQ(api_.AddCompositeField("h", {kFloat, {}}), 0);
  EXPECT_EQ(api_.AddTableIndex("idx", {"a", "b"}), 0);
  EXPECT_EQ(api_.AddTableIndex("idx1", {"c"}), 0);
  EXPECT_THAT(trace.Take(),
              ElementsAre("ALTER TABLE U ADD e BLOB;",
                          "CREATE TABLE repeated_field_table_U_h(ID INTEGER PRIMARY KEY, ID_U "
                          "INTEGER, h REAL);",
                          "CREATE INDEX idx ON U (a,b);", "CREATE INDEX idx1 ON U (c);"));

  EXPECT_EQ(api_.DestroyTable({{"f", {kInteger, {}}}, {"g", {kString, {}}}}), 0);
  EXPECT_THAT(trace.Take(), ElementsAre("BEGIN TRANSACTION", "DROP TABLE repeated_field_table_U_f;",
                                        "DROP TABLE repeated_field_table_U_g;", "END TRANSACTION",
                                        "DROP TABLE U;"));
}

TEST_F(SqliteApiTest, SchemaFailures) {
  CreateDefaultTable();
  log_.Clear();
  // The main table exists: nothing else is attempted.
  StatementLog trace(api_.handle());
  EXPECT_EQ(api_.CreateTable(Schema(), {{"z", {kInteger, {}}}}), -1);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='table T already exists'"));
  EXPECT_EQ(Count("repeated_field_table_T_z"), -1);
  log_.Clear();
  // An empty index list loses its "(" and fails.
  EXPECT_EQ(api_.AddTableIndex("idx", {}), -1);
  EXPECT_EQ(api_.AddScalarField("a", Attribute(kInteger)), -1);
  EXPECT_EQ(api_.AddCompositeField("f", {kInteger, {}}), -1);
  EXPECT_THAT(trace.Take(), IsEmpty());  // none of them got past SQLite's parser
  EXPECT_EQ(log_.Count("ERROR! sqlite3_exec: err_msg="), 3);
}

TEST_F(SqliteApiTest, RecordStatements) {
  CreateDefaultTable();
  StatementLog trace(api_.handle());
  ScalarFields record = {{"a", Int(1)}, {"b", Str("x")}, {"c", Attribute(kFloat)}};
  CompositeFields composite = {{"f", {kInteger, {Int(10), Attribute(kInteger), Int(11)}}},
                               {"g", {kString, {}}}};
  ASSERT_EQ(api_.StoreRecord(5, record, composite), 0);
  EXPECT_THAT(trace.Take(),
              ElementsAre("INSERT INTO T (ID, a,b) VALUES (5, 1,'x');", "BEGIN TRANSACTION",
                          "INSERT INTO repeated_field_table_T_f(ID_T, f) VALUES (5, 10);",
                          "INSERT INTO repeated_field_table_T_f(ID_T, f) VALUES (5, 11);",
                          "END TRANSACTION"));

  ASSERT_EQ(api_.StoreRecord(6, {{"a", Attribute(kInteger)}}, {}), 0);
  EXPECT_THAT(trace.Take(), ElementsAre("INSERT INTO T (ID) VALUES (6);", "BEGIN TRANSACTION",
                                        "END TRANSACTION"));

  ASSERT_EQ(api_.UpdateRecord(5, {{"a", Int(2)}, {"b", Str("y")}}, {{"g", {kString, {Str("z")}}}}),
            0);
  EXPECT_THAT(trace.Take(),
              ElementsAre("UPDATE T SET a=2 , b='y'  WHERE ID=5;", "BEGIN TRANSACTION",
                          "DELETE FROM repeated_field_table_T_g WHERE ID_T=5;", "END TRANSACTION",
                          "BEGIN TRANSACTION",
                          "INSERT INTO repeated_field_table_T_g(ID_T, g) VALUES (5, 'z');",
                          "END TRANSACTION"));

  // Neither an unset scalar nor an empty composite map leads to a statement.
  ASSERT_EQ(api_.UpdateRecord(5, {{"a", Attribute(kInteger)}}, {}), 0);
  EXPECT_THAT(trace.Take(), IsEmpty());

  ASSERT_EQ(api_.DeleteRecord(6, {"f", "g"}), 0);
  EXPECT_THAT(trace.Take(),
              ElementsAre("BEGIN TRANSACTION", "DELETE FROM repeated_field_table_T_f WHERE ID_T=6;",
                          "DELETE FROM repeated_field_table_T_g WHERE ID_T=6;", "END TRANSACTION",
                          "DELETE FROM T WHERE ID=6;"));
}

TEST_F(SqliteApiTest, ReadStatements) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(4000000000u, {{"a", Int(1)}, {"b", Str("x")}},
                             {{"f", {kInteger, {Int(3)}}}}),
            0);
  StatementLog trace(api_.handle());

  int size = -1;
  EXPECT_EQ(api_.GetTableSize(&size), 0);
  EXPECT_EQ(size, 1);
  ScalarFields scalar = Schema();
  CompositeFields composite = {{"f", {kInteger, {}}}};
  EXPECT_EQ(api_.RetrieveRecord(4000000000u, &scalar, &composite), 0);
  EXPECT_THAT(trace.Take(),
              ElementsAre("SELECT COUNT(*) FROM T;", "SELECT ID FROM T WHERE ID=4000000000;",
                          "SELECT * FROM T WHERE ID=4000000000;", "BEGIN TRANSACTION",
                          "SELECT f FROM repeated_field_table_T_f WHERE ID_T=4000000000;",
                          "END TRANSACTION"));

  const struct {
    ScalarFields scalar;
    CompositeFields composite;
    std::string statement;
  } cases[] = {
      {{}, {}, "SELECT ID FROM T;"},
      {{{"a", Attribute(kInteger)}},
       {{"f", {kInteger, {Attribute(kInteger)}}}},
       "SELECT ID FROM T;"},  // unset attributes impose nothing
      {{{"a", Int(1)}, {"b", Str("x")}}, {}, "SELECT ID FROM T WHERE a=1 AND b='x' ;"},
      {{{"a", Int(1)}},
       {{"f", {kInteger, {Int(3), Int(4)}}}, {"g", {kString, {}}}},
       "SELECT T.ID FROM T INNER JOIN repeated_field_table_T_f ON "
       "T.ID=repeated_field_table_T_f.ID_T WHERE T.a=1  AND (repeated_field_table_T_f.f IN (3, "
       "4) );"},
  };
  for (const auto& c : cases) {
    std::vector<uint32_t> ids = {77};
    EXPECT_EQ(api_.RetrieveRecords(&ids, c.scalar, c.composite), 0) << c.statement;
    EXPECT_THAT(ids, ElementsAre(4000000000u)) << c.statement;
    EXPECT_THAT(trace.Take(), ElementsAre(c.statement));
  }
}

TEST_F(SqliteApiTest, CompositeFilterWithoutScalarConditionIsRefused) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3)}}}}), 0);
  log_.Clear();
  std::vector<uint32_t> ids;
  EXPECT_EQ(api_.RetrieveRecords(&ids, {}, {{"f", {kInteger, {Int(3)}}}}), -1);
  EXPECT_THAT(ids, IsEmpty());
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='near \"AND\": syntax error'"));
  // An unset scalar is no condition either.
  EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Attribute(kInteger)}}, {{"f", {kInteger, {Int(3)}}}}),
            -1);
  // DeleteRecords deletes nothing then.
  EXPECT_EQ(api_.DeleteRecords(&ids, {}, {{"f", {kInteger, {Int(3)}}}}), 0);
  EXPECT_THAT(ids, IsEmpty());
  EXPECT_EQ(Count("T"), 1);
}

TEST_F(SqliteApiTest, RoundTripOfEveryKind) {
  CreateDefaultTable();
  const ScalarFields stored = {{"a", Int(-123)},
                               {"b", Str(std::string("O'Brien\0\xFF", 9))},
                               {"c", Flt(3.14159265f)},
                               {"d", Bytes({0x00, 0xFF, 0xFE, 0x27, 0x00})}};
  const CompositeFields composite = {{"f", {kInteger, {Int(1), Int(-2)}}},
                                     {"g", {kString, {Str("x'); DROP TABLE T; --"), Str("")}}}};
  ASSERT_EQ(api_.StoreRecord(8, stored, composite), 0);

  ScalarFields scalar = Schema();
  CompositeFields read = CompositeSchema();  // one placeholder element each
  ASSERT_EQ(api_.RetrieveRecord(8, &scalar, &read), 0);
  ScalarFields expected = stored;
  expected["c"] = Flt(3.14159f);  // six significant digits
  EXPECT_EQ(scalar, expected);
  EXPECT_EQ(read, composite);
}

TEST_F(SqliteApiTest, NullColumnsReadBackUnset) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), 0);
  ASSERT_EQ(api_.AddScalarField("e", Attribute(kString)), 0);
  ScalarFields scalar = {{"a", Int(50)}, {"b", Str("stale")}, {"e", Str("stale")}};
  CompositeFields composite;
  ASSERT_EQ(api_.RetrieveRecord(1, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("a"), Int(1));
  EXPECT_FALSE(scalar.at("b").is_set());
  EXPECT_FALSE(scalar.at("e").is_set());
  EXPECT_EQ(scalar.at("e").type(), kString);
}

TEST_F(SqliteApiTest, AbsentIdIsNotFoundAndLeavesMapsAlone) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3)}}}}), 0);
  ScalarFields scalar = {{"a", Int(99)}};
  CompositeFields composite = {{"f", {kInteger, {Int(42)}}}};
  const ScalarFields scalar_before = scalar;
  const CompositeFields composite_before = composite;
  log_.Clear();
  EXPECT_EQ(api_.RetrieveRecord(2, &scalar, &composite), -4);
  EXPECT_EQ(scalar, scalar_before);
  EXPECT_EQ(composite, composite_before);
  EXPECT_EQ(api_.ObjectExistsInDatabase(2), -4);
  EXPECT_EQ(api_.ObjectExistsInDatabase(1), 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());  // not finding is not an error
}

TEST_F(SqliteApiTest, SizeOfMissingTable) {
  log_.Clear();
  int size = 5;
  EXPECT_EQ(api_.GetTableSize(&size), -1);
  EXPECT_EQ(size, -1);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='no such table: T'"));
}

TEST_F(SqliteApiTest, EmptyTable) {
  CreateDefaultTable();
  int size = -1;
  EXPECT_EQ(api_.GetTableSize(&size), 0);
  EXPECT_EQ(size, 0);
  std::vector<uint32_t> ids;
  EXPECT_EQ(api_.RetrieveRecords(&ids, {}, {}), 0);
  EXPECT_THAT(ids, IsEmpty());
  EXPECT_EQ(api_.ClearTable(CompositeSchema(), &ids), 0);
}

TEST_F(SqliteApiTest, CompositeFilterMatchesAnySharedElementOnce) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3), Int(4)}}}}), 0);
  ASSERT_EQ(api_.StoreRecord(2, {{"a", Int(1)}}, {{"f", {kInteger, {Int(5)}}}}), 0);
  ASSERT_EQ(api_.StoreRecord(3, {{"a", Int(2)}}, {{"f", {kInteger, {Int(3)}}}}), 0);
  std::vector<uint32_t> ids;
  EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3), Int(4)}}}}), 0);
  EXPECT_THAT(ids, ElementsAre(1u));
  EXPECT_EQ(api_.RetrieveRecords(&ids, {{"a", Int(1)}}, {{"f", {kInteger, {Int(4), Int(5)}}}}), 0);
  EXPECT_THAT(ids, ElementsAre(1u, 2u));
}

TEST_F(SqliteApiTest, UpdateReplacesNamedRepeatedFieldsOnly) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}, {"b", Str("keep")}},
                             {{"f", {kInteger, {Int(3), Int(4)}}}, {"g", {kString, {Str("x")}}}}),
            0);
  ASSERT_EQ(api_.UpdateRecord(1, {{"a", Int(2)}}, {{"f", {kInteger, {Int(9)}}}}), 0);
  ScalarFields scalar = Schema();
  CompositeFields composite = CompositeSchema();
  ASSERT_EQ(api_.RetrieveRecord(1, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("a"), Int(2));
  EXPECT_EQ(scalar.at("b"), Str("keep"));
  EXPECT_THAT(composite.at("f").second, ElementsAre(Int(9)));
  EXPECT_THAT(composite.at("g").second, ElementsAre(Str("x")));

  // An empty vector empties the field.
  ASSERT_EQ(api_.UpdateRecord(1, {}, {{"f", {kInteger, {}}}}), 0);
  ASSERT_EQ(api_.RetrieveRecord(1, &scalar, &composite), 0);
  EXPECT_THAT(composite.at("f").second, IsEmpty());
  EXPECT_THAT(composite.at("g").second, ElementsAre(Str("x")));
}

TEST_F(SqliteApiTest, FailureInsideTransactionLeavesItOpen) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, {}), 0);
  log_.Clear();
  // "h" has no side table: the removal fails after BEGIN, after the scalar
  // update went through.
  EXPECT_EQ(api_.UpdateRecord(1, {{"a", Int(2)}}, {{"h", {kInteger, {Int(1)}}}}), -1);
  EXPECT_TRUE(
      log_.Contains("ERROR! sqlite3_exec: err_msg='no such table: repeated_field_table_T_h'"));
  EXPECT_EQ(api_.BeginTransaction(), -1);
  EXPECT_TRUE(log_.Contains(
      "ERROR! sqlite3_exec: err_msg='cannot start a transaction within a transaction'"));
  EXPECT_EQ(api_.EndTransaction(), 0);
  EXPECT_EQ(api_.BeginTransaction(), 0);
  EXPECT_EQ(api_.EndTransaction(), 0);
  ScalarFields scalar = Schema();
  CompositeFields composite;
  ASSERT_EQ(api_.RetrieveRecord(1, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("a"), Int(2));
}

TEST_F(SqliteApiTest, DestroyTableFailureKeepsMainTable) {
  CreateDefaultTable();
  EXPECT_EQ(api_.DestroyTable({{"missing", {kInteger, {}}}}), -1);
  EXPECT_EQ(api_.EndTransaction(), 0);
  EXPECT_EQ(Count("T"), 0);
  EXPECT_EQ(api_.DestroyTable(CompositeSchema()), 0);
  EXPECT_EQ(Count("T"), -1);
  EXPECT_EQ(Count("repeated_field_table_T_f"), -1);
}

TEST_F(SqliteApiTest, DeleteRecordsCleansOnlyNamedSideTables) {
  CreateDefaultTable();
  const CompositeFields composite = {{"f", {kInteger, {Int(3)}}}, {"g", {kString, {Str("x")}}}};
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}}, composite), 0);
  ASSERT_EQ(api_.StoreRecord(2, {{"a", Int(1)}}, composite), 0);
  ASSERT_EQ(api_.StoreRecord(3, {{"a", Int(2)}}, composite), 0);

  std::vector<uint32_t> ids = {42};
  EXPECT_EQ(api_.DeleteRecords(&ids, {{"a", Int(1)}}, {{"g", {kString, {}}}}), 0);
  EXPECT_THAT(ids, ElementsAre(42u, 1u, 2u));  // appended
  EXPECT_EQ(Count("T"), 1);
  EXPECT_EQ(Count("repeated_field_table_T_g"), 1);
  EXPECT_EQ(Count("repeated_field_table_T_f"), 3);  // left behind deliberately

  ids.clear();
  EXPECT_EQ(api_.DeleteRecords(&ids, {{"a", Int(9)}}, {}), 0);
  EXPECT_THAT(ids, IsEmpty());
}

TEST_F(SqliteApiTest, ClearTableCarriesOnAfterFailures) {
  CreateDefaultTable();
  for (uint32_t id = 1; id <= 3; ++id) {
    ASSERT_EQ(api_.StoreRecord(id, {{"a", Int(1)}}, {{"f", {kInteger, {Int(3)}}}}), 0);
  }
  log_.Clear();
  std::vector<uint32_t> ids;
  // "missing" has no side table, so every delete fails (the first one leaves
  // its transaction open, which makes the later BEGINs fail).
  CompositeFields schema = CompositeSchema();
  schema["missing"] = {kInteger, {}};
  EXPECT_EQ(api_.ClearTable(schema, &ids), -1);
  EXPECT_THAT(ids, ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(log_.Count("ERROR! sqlite3_exec"), 3);
  ASSERT_EQ(api_.EndTransaction(), 0);

  ids.clear();
  EXPECT_EQ(api_.ClearTable(CompositeSchema(), &ids), 0);
  EXPECT_THAT(ids, ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(Count("T"), 0);
  EXPECT_EQ(Count("repeated_field_table_T_f"), 0);
}

TEST_F(SqliteApiTest, PrintDatabaseDumpsMainAndSideTables) {
  CreateDefaultTable();
  ASSERT_EQ(api_.StoreRecord(1, {{"a", Int(1)}, {"b", Str("x")}}, {{"f", {kInteger, {Int(3)}}}}),
            0);
  static std::string printed;
  printed.clear();
  EXPECT_EQ(api_.PrintDatabase({{"f", {kInteger, {}}}},
                               [](std::stringstream& text) { printed = text.str(); }),
            0);
  EXPECT_EQ(printed,
            "ID = 1\na = 1\nb = x\nc = NULL\nd = NULL\n\n"
            "ID = 1\nID_T = 1\nf = 3\n\n");
  EXPECT_EQ(api_.PrintDatabase({{"missing", {kInteger, {}}}}, nullptr), -1);
}

TEST_F(SqliteApiTest, ConversionErrorReachesTheCallerAndLeavesNoTransaction) {
  CreateDefaultTable();
  ASSERT_EQ(sqlite3_exec(api_.handle(), "INSERT INTO T (ID, a) VALUES (1, 'abc');", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(api_.handle(),
                         "INSERT INTO repeated_field_table_T_f (ID_T, f) VALUES (2, 'abc');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  ASSERT_EQ(api_.StoreRecord(2, {}, {}), 0);
  ScalarFields scalar = Schema();
  CompositeFields composite = CompositeSchema();
  EXPECT_THROW(api_.RetrieveRecord(1, &scalar, &composite), std::invalid_argument);
  EXPECT_THROW(api_.RetrieveRecord(2, &scalar, &composite), std::invalid_argument);
  EXPECT_EQ(api_.BeginTransaction(), 0);
  EXPECT_EQ(api_.EndTransaction(), 0);
}

TEST_F(SqliteApiTest, CorruptDatabaseGivesMinusSeven) {
  CreateDefaultTable();
  for (uint32_t id = 1; id <= 50; ++id) ASSERT_EQ(api_.StoreRecord(id, {{"a", Int(1)}}, {}), 0);
  const std::string path = dir_.File("db.sqlite");
  {
    // Page 2 holds the root of T; an invalid page type makes it malformed.
    SqliteAPI probe(path, "T", false);
    int page_size = 0;
    ASSERT_EQ(probe.ExecuteQuery("PRAGMA page_size;", CallbackSize, &page_size), 0);
    ASSERT_GT(page_size, 0);
    FILE* file = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(file, nullptr);
    std::fseek(file, page_size, SEEK_SET);
    const unsigned char garbage[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::fwrite(garbage, 1, sizeof(garbage), file);
    std::fclose(file);
  }
  SqliteAPI reopened(path, "T", false);
  log_.Clear();
  std::vector<uint32_t> ids;
  EXPECT_EQ(reopened.RetrieveRecords(&ids, {}, {}), -7);
  EXPECT_TRUE(log_.Contains("ERROR! sqlite3_exec: err_msg='database disk image is malformed'"));
}

TEST(SqliteApiConnection, FailedOpenIsLoggedAndLeavesTheObjectUnconnected) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  SqliteAPI api(dir.File("no/such/dir/db.sqlite"), "T", false);
  EXPECT_FALSE(api.IsConnected());
  EXPECT_EQ(api.handle(), nullptr);
  EXPECT_TRUE(log.Contains("ERROR! sqlite3_open: rc=14"));
  EXPECT_TRUE(log.Contains("src/lib/sqlite_api.cc"));
  log.Clear();
  int size = 3;
  EXPECT_EQ(api.GetTableSize(&size), -1);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(api.StoreRecord(1, {}, {}), -1);
  EXPECT_EQ(log.Count("ERROR! sqlite3_exec: err_msg="), 2);
  EXPECT_EQ(api.GetTableName(), "T");
}

TEST(SqliteApiConnection, DisconnectClosesTheHandle) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  SqliteAPI api(dir.File("db.sqlite"), "T", false);
  ASSERT_TRUE(api.IsConnected());
  EXPECT_EQ(api.Disconnect(), SQLITE_OK);
  EXPECT_FALSE(api.IsConnected());
  EXPECT_EQ(api.CreateTable({}, {}), -1);
  api.Connect(dir.File("db.sqlite"), false);
  EXPECT_TRUE(api.IsConnected());
  EXPECT_EQ(api.CreateTable({}, {}), 0);
}

}  // namespace
}  // namespace db
