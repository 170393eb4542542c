// SqliteAPI: the SQLite backend. Tables, fields and records are mapped onto SQL
// text run with sqlite3_exec (no prepared statements):
//   main table T:           ID INTEGER PRIMARY KEY, then one column per scalar field
//   side table per field F: "repeated_field_table_" T "_" F with
//                           ID INTEGER PRIMARY KEY, ID_T INTEGER, F <type>
//   owner index per side table S: "S:owner" on ID_T, so that the elements of
//                           one record are found without a scan
//
// A file database is switched to the write-ahead log with synchronous=NORMAL
// when it is opened: a process crash loses no returned write, a power loss may
// lose the last writes but never corrupts the file, and readers go on while
// one connection writes. A read-only connection changes nothing at all.
//
// Values are written as SQL text: integers and floats as their ToString()
// text, strings and byte vectors quoted, with quotes doubled and the bytes 0x00
// and 0xFF escaped as FF FE and FF FF, so no NUL ever reaches the SQL text.
//
// Every operation returns 0 or a DatabaseAPI result code; every failing
// statement logs "ERROR! sqlite3_exec: err_msg='...'". Table and field names
// are inserted as they stand and must be valid SQL identifiers.

#ifndef DB_INTF_SRC_LIB_SQLITE_API_H_
#define DB_INTF_SRC_LIB_SQLITE_API_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "db/attribute.h"
#include "db/database_api.h"

struct sqlite3;

namespace db {

// One repeated field: element type and elements.
using CompositeField = std::pair<AttributeType, std::vector<Attribute>>;

// sqlite3_exec row callbacks (context, column count, column texts, column
// names). All return 0: they never abort a query.

// Ignores its rows.
int Callback(void* context, int argc, char** values, char** names);
// `context` is a std::string*: appends "name = text\n" per column ("NULL" for a
// null text) and one "\n" after the row.
int CallbackPrint(void* context, int argc, char** values, char** names);
// `context` is an int*: stores the first column as a decimal number.
int CallbackSize(void* context, int argc, char** values, char** names);
// `context` is a bool*: set to true by any row.
int CallbackExistObject(void* context, int argc, char** values, char** names);
// `context` is a std::vector<uint32_t>*: appends the first column as an id
// (RetrieveRecords then keeps each id once, in first-seen order).
int CallbackSelectMultiple(void* context, int argc, char** values, char** names);
// `context` is a ScalarFields* holding the scalar schema: every non-null
// column named like a key is decoded, converted by the kind of the Attribute
// in the map and stored there, marked set. Other columns are ignored. A text
// that does not convert throws std::invalid_argument or std::out_of_range.
int CallbackSelectSingle(void* context, int argc, char** values, char** names);
// `context` is a CompositeField*: appends the first column, converted by the
// field's element type, as a set Attribute. Throws as CallbackSelectSingle.
int CallbackSelectCompositeField(void* context, int argc, char** values, char** names);

class SqliteAPI : public DatabaseAPI {
 public:
  using RowCallback = int (*)(void*, int, char**, char**);

  // Opens `name` (a file path, or with `in_memory` the shared in-memory
  // database "file:NAME?mode=memory&cache=shared"). Never throws; a failed
  // open leaves the object unconnected. A writable connection then switches a
  // file to the write-ahead log (a failure is logged and the file keeps its
  // mode) and creates the owner indexes that this table's side tables lack.
  SqliteAPI(const std::string& name, const std::string& table, bool in_memory);
  ~SqliteAPI() override;

  SqliteAPI(const SqliteAPI&) = delete;
  SqliteAPI& operator=(const SqliteAPI&) = delete;

  // CREATE TABLE of the main table, then one side table per repeated field.
  int CreateTable(const ScalarFields& scalar_schema,
                  const CompositeFields& composite_schema) override;
  // CREATE INDEX over `fields` (at least one).
  int AddTableIndex(const std::string& index_name, const std::vector<std::string>& fields) override;
  // ALTER TABLE ... ADD: stored records hold NULL, read back as unset.
  int AddScalarField(const std::string& name, const Attribute& prototype) override;
  // Creates the side table of the repeated field `name`, then its owner
  // index (a failure of the index is logged; the result is the table's).
  int AddCompositeField(const std::string& name, const CompositeField& field) override;
  // Drops the side tables, then the main table.
  int DestroyTable(const CompositeFields& composite_schema) override;
  // One INSERT of the set scalar fields, then one INSERT per set element of
  // every repeated field inside one transaction.
  int StoreRecord(uint32_t id, const ScalarFields& scalar,
                  const CompositeFields& composite) override;
  // Removes the rows of the side tables named in `composite_names`, then the
  // record itself. An absent id is not an error.
  int DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) override;
  // Deletes every record matching the filters. Only the side tables of the
  // fields named in `composite_filter` are cleaned.
  int DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                    const CompositeFields& composite_filter) override;
  // Sets the set scalar fields; every repeated field named in `composite` is
  // replaced by the set elements given (an empty vector empties it).
  int UpdateRecord(uint32_t id, const ScalarFields& scalar,
                   const CompositeFields& composite) override;
  // -4 and both maps untouched when the id is absent.
  int RetrieveRecord(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const override;
  // A composite filter without any set scalar field is refused (-1).
  int RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                      const CompositeFields& composite_filter) const override;
  int GetTableSize(int* size) const override;
  // Hands the rows of the main table and of every side table, one
  // "column = value" line each, to `printer`.
  int PrintDatabase(const CompositeFields& composite_schema,
                    DatabasePrinter printer) const override;
  bool IsConnected() const override;
  // Deletes every record, carrying on after a failing one; returns the result
  // of the last delete (0 for an empty table).
  int ClearTable(const CompositeFields& composite_schema, std::vector<uint32_t>* ids) override;
  void SetTableName(const std::string& name) override;
  const std::string& GetTableName() const override;

  void Connect(const std::string& name, bool in_memory);
  // Closes the handle; returns the sqlite3_close result.
  int Disconnect();
  // Runs one statement; 0, or -6 (busy), -7 (corrupt), -1 (any other error).
  int ExecuteQuery(const std::string& query, RowCallback callback, void* context) const;
  int BeginTransaction() const;
  int EndTransaction() const;

  // The raw connection (null when not connected), for tools and tests.
  sqlite3* handle() const { return db_; }

  // Statement pieces.

  // "repeated_field_table_" + table + "_" + field.
  static std::string CompositeFieldTableName(const std::string& table, const std::string& field);
  // side_table + ":owner": the index on a side table's owner column. No
  // identifier written without quotes can hold ":", so this name never meets
  // an application's index or a table of the library.
  static std::string OwnerIndexName(const std::string& side_table);
  // "INTEGER", "TEXT", "REAL" or "BLOB" by the kind of the value held.
  static std::string GetFieldSqlType(const Attribute& attribute);
  // By the element type: 0 "INTEGER", 1 "TEXT", 2 "REAL", anything else "BLOB".
  static std::string GetFieldSqlType(const CompositeField& field);
  // Names of the set fields joined by ","; empty when none is set.
  static std::string GetDatabaseFieldNames(const ScalarFields& scalar);
  // GetFieldValueAsSql of the set fields joined by ",".
  static std::string GetDatabaseFieldValues(const ScalarFields& scalar);
  // A value as SQL text: integers and floats unquoted, strings and bytes
  // quoted and escaped.
  static std::string GetFieldValueAsSql(const Attribute& attribute);
  // Undoes the escape of GetFieldValueAsSql for strings and bytes; other kinds
  // are returned unchanged.
  static std::string GetFieldAsString(const Attribute& attribute, const std::string& text);
  // For every set field: F "=" value " " separator " ", with the last
  // separator and its blank removed (so the text ends in one blank).
  static std::string GenerateFieldValuesQuery(const ScalarFields& scalar,
                                              const std::string& separator);
  // For every field: F " IN (" values joined by ", " ") ", fields joined by
  // "AND ". Every element is listed; callers pass set elements only.
  static std::string GenerateCompositeFieldValuesQuery(const CompositeFields& composite);

  // Record pieces.

  // AddCompositeField for every field in key order; stops at the first error.
  int CreateCompositeFieldsTables(const CompositeFields& composite_schema);
  // Inserts the set elements of every repeated field of record `id`.
  int StoreCompositeFieldsOnDatabase(uint32_t id, const CompositeFields& composite);
  // Deletes the rows of record `id` from the side table of `field`.
  int RemoveCompositeField(const std::string& field, uint32_t id);
  // 0 when record `id` exists, -4 when not, another code on a failure.
  int ObjectExistsInDatabase(uint32_t id) const;
  // Replaces the elements of every field of `*composite` by the stored ones.
  int RetrieveCompositeField(uint32_t id, CompositeFields* composite) const;

 private:
  // PRAGMA journal_mode=WAL and synchronous=NORMAL on a file database.
  void UseWriteAheadLog();
  // The owner index of every side table of this table that has none: the
  // tables of a database written before these indexes existed.
  void CreateMissingOwnerIndexes();
  int CreateOwnerIndex(const std::string& side_table);

  std::string table_name_;
  sqlite3* db_ = nullptr;
  bool connected_ = false;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_SQLITE_API_H_
