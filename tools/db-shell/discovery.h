// Finding the tables of an existing database without changing it.
//
// db-shell must never create a database: the library's backends create a
// missing SQLite file or LevelDB directory when they connect. So the path is
// checked and the stored schema is read here, with SQLite and LevelDB used
// directly, before any DbObject is built.

#ifndef DB_INTF_TOOLS_DB_SHELL_DISCOVERY_H_
#define DB_INTF_TOOLS_DB_SHELL_DISCOVERY_H_

#include <string>
#include <vector>

#include "db/attribute.h"

namespace db_shell {

struct FieldSchema {
  std::string name;
  db::AttributeType type;
};

// One table as stored: its scalar fields and its repeated fields, each in
// ascending name order.
struct TableSchema {
  std::string name;
  std::vector<FieldSchema> scalar_fields;
  std::vector<FieldSchema> repeated_fields;
};

// What discovery found. `error` is empty on success; otherwise it is a
// one-line reason why the database cannot be opened and `tables` is empty.
// `warnings` name tables that were left out because they do not look like
// tables the library wrote.
struct Discovery {
  std::vector<TableSchema> tables;
  std::vector<std::string> warnings;
  std::string error;
};

// Lets SQLite take "file:" URIs as database names where its build does not
// already. Call before anything else uses SQLite.
void EnableSqliteUris();

// The name under which the library opens the SQLite file `path` read-only (a
// "file:" URI with mode=ro): such a connection changes nothing in the file, so
// the library neither switches its journal nor adds indexes.
std::string SqliteReadOnlyName(const std::string& path);

// Reads the tables of the SQLite file `path` through a read-only connection,
// which is closed again before returning.
Discovery DiscoverSqlite(const std::string& path);

// Reads the schema records of the LevelDB database in directory `dir`, a
// private copy checked by LevelDbCopy (opening writes into the directory). The
// handle is closed before returning, since LevelDB admits one open handle per
// directory and the DbObjects need theirs. Messages name the database `name`.
Discovery DiscoverLevelDb(const std::string& dir, const std::string& name);

// Why `dir` is not a LevelDB database that can be opened (missing, not a
// directory, no CURRENT file), as one line naming `dir`; empty when it is one.
std::string LevelDbDirectoryProblem(const std::string& dir);

// "integer", "string", "float" or "bytes".
const char* TypeName(db::AttributeType type);

// Parses a LevelDB schema record value ("name:type,name:type,"). False when
// the text is not in that form or a type is not 0 to 3.
bool ParseSchemaRecord(const std::string& text, std::vector<FieldSchema>* fields);

// The SQLite column type of a library table ("INTEGER", "TEXT", "REAL",
// "BLOB", any letter case) as an AttributeType; false for any other type.
bool SqlTypeToAttributeType(const std::string& sql_type, db::AttributeType* type);

}  // namespace db_shell

#endif  // DB_INTF_TOOLS_DB_SHELL_DISCOVERY_H_
