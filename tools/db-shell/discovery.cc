#include "discovery.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include <leveldb/db.h>
#include <leveldb/env.h>
#include <leveldb/iterator.h>
#include <leveldb/options.h>
#include <sqlite3.h>

namespace db_shell {

namespace {

// Prefix of the side table that holds one repeated field of a main table.
constexpr char kSideTablePrefix[] = "repeated_field_table_";
// LevelDB schema record keys: "schema:" T, "schema:repeated:" T and the
// index record "schema:" T ":idx".
constexpr char kSchemaPrefix[] = "schema:";
constexpr char kRepeatedPrefix[] = "repeated:";
constexpr char kIndexSuffix[] = ":idx";

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool AllDigits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

Discovery Failed(const std::string& error) {
  Discovery result;
  result.error = error;
  return result;
}

// ---- SQLite.

struct Column {
  std::string name;
  std::string type;
};

struct SqliteCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};

struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

using SqliteHandle = std::unique_ptr<sqlite3, SqliteCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

std::string ColumnText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

// Runs `sql` and hands every row to `row`; returns the final SQLite code.
template <class RowFn>
int Query(sqlite3* db, const std::string& sql, RowFn row) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr);
  Statement statement(raw);
  if (rc != SQLITE_OK) return rc;
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) row(statement.get());
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

std::string QuoteIdentifier(const std::string& name) {
  std::string quoted = "\"";
  for (char c : name) {
    quoted += c;
    if (c == '"') quoted += '"';
  }
  return quoted + "\"";
}

// True when `columns` describe the side table `name` of main table `owner`
// for the field in the third column: (ID, ID_<owner>, <field>).
bool IsSideTableOf(const std::string& name, const std::vector<Column>& columns,
                   const std::string& owner) {
  return columns.size() == 3 && columns[0].name == "ID" && columns[1].name == "ID_" + owner &&
         name == kSideTablePrefix + owner + "_" + columns[2].name;
}

}  // namespace

const char* TypeName(db::AttributeType type) {
  switch (type) {
    case db::kInteger:
      return "integer";
    case db::kString:
      return "string";
    case db::kFloat:
      return "float";
    case db::kBytes:
      return "bytes";
  }
  return "unknown";
}

bool SqlTypeToAttributeType(const std::string& sql_type, db::AttributeType* type) {
  std::string upper = sql_type;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  static const std::map<std::string, db::AttributeType> kTypes = {
      {"INTEGER", db::kInteger}, {"TEXT", db::kString}, {"REAL", db::kFloat}, {"BLOB", db::kBytes}};
  auto found = kTypes.find(upper);
  if (found == kTypes.end()) return false;
  *type = found->second;
  return true;
}

void EnableSqliteUris() { sqlite3_config(SQLITE_CONFIG_URI, 1); }

std::string SqliteReadOnlyName(const std::string& path) {
  std::error_code ignored;
  const std::string absolute = std::filesystem::absolute(path, ignored).string();
  // An empty authority ("file://" then the absolute path) keeps a path that
  // starts with "//" a path. Only "%", "?" and "#" have a meaning of their own
  // in the path part.
  std::string name = "file://";
  for (const char c : absolute) {
    if (c == '%' || c == '?' || c == '#') {
      char escaped[4];
      snprintf(escaped, sizeof(escaped), "%%%02X", static_cast<unsigned char>(c));
      name += escaped;
    } else {
      name += c;
    }
  }
  return name + "?mode=ro";
}

Discovery DiscoverSqlite(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    return Failed(path + ": cannot open SQLite database: " + strerror(errno));
  }
  if (S_ISDIR(info.st_mode)) return Failed(path + ": is a directory, not a SQLite database file");

  // Read-only and without SQLITE_OPEN_CREATE: this connection can neither
  // create nor change the file.
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  SqliteHandle db(raw);
  if (rc != SQLITE_OK) {
    return Failed(path + ": cannot open SQLite database: " +
                  (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
  }
  sqlite3_busy_timeout(db.get(), 100);

  std::vector<std::string> names;
  rc = Query(db.get(), "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name;",
             [&names](sqlite3_stmt* row) { names.push_back(ColumnText(row, 0)); });
  if (rc == SQLITE_NOTADB) return Failed(path + ": not a SQLite database");
  if (rc != SQLITE_OK) {
    return Failed(path + ": cannot read SQLite database: " + sqlite3_errmsg(db.get()));
  }

  std::map<std::string, std::vector<Column>> columns;
  for (const std::string& name : names) {
    if (StartsWith(name, "sqlite_")) continue;  // SQLite's own tables
    std::vector<Column>& table_columns = columns[name];
    rc = Query(db.get(), "PRAGMA table_info(" + QuoteIdentifier(name) + ");",
               [&table_columns](sqlite3_stmt* row) {
                 table_columns.push_back({ColumnText(row, 1), ColumnText(row, 2)});
               });
    if (rc != SQLITE_OK) {
      return Failed(path + ": cannot read table " + name + ": " + sqlite3_errmsg(db.get()));
    }
  }

  // A side table is recognised by its shape, not by its name alone: its name
  // joins owner and field with "_", so the name by itself is ambiguous.
  std::map<std::string, std::vector<FieldSchema>> repeated;
  std::set<std::string> side_tables;
  Discovery result;
  for (const auto& table : columns) {
    if (!StartsWith(table.first, kSideTablePrefix)) continue;
    for (const auto& owner : columns) {
      if (owner.first == table.first || !IsSideTableOf(table.first, table.second, owner.first)) {
        continue;
      }
      side_tables.insert(table.first);
      const Column& field = table.second[2];
      db::AttributeType type;
      if (!SqlTypeToAttributeType(field.type, &type)) {
        result.warnings.push_back("table " + owner.first + ": repeated field " + field.name +
                                  " has column type '" + field.type + "'; table left out");
        repeated[owner.first].push_back({field.name, static_cast<db::AttributeType>(-1)});
      } else {
        repeated[owner.first].push_back({field.name, type});
      }
      break;
    }
  }

  for (const auto& table : columns) {
    if (side_tables.count(table.first) != 0) continue;
    const std::vector<Column>& table_columns = table.second;
    if (table_columns.empty() || table_columns[0].name != "ID") {
      result.warnings.push_back("table " + table.first +
                                ": no ID column first, not a table of the library; left out");
      continue;
    }
    TableSchema schema;
    schema.name = table.first;
    bool usable = true;
    for (size_t i = 1; i < table_columns.size(); ++i) {
      db::AttributeType type;
      if (!SqlTypeToAttributeType(table_columns[i].type, &type)) {
        result.warnings.push_back("table " + table.first + ": field " + table_columns[i].name +
                                  " has column type '" + table_columns[i].type +
                                  "'; table left out");
        usable = false;
        break;
      }
      schema.scalar_fields.push_back({table_columns[i].name, type});
    }
    for (const FieldSchema& field : repeated[table.first]) {
      if (field.type < db::kInteger || field.type > db::kBytes) usable = false;
      schema.repeated_fields.push_back(field);
    }
    if (!usable) continue;
    auto by_name = [](const FieldSchema& a, const FieldSchema& b) { return a.name < b.name; };
    std::sort(schema.scalar_fields.begin(), schema.scalar_fields.end(), by_name);
    std::sort(schema.repeated_fields.begin(), schema.repeated_fields.end(), by_name);
    result.tables.push_back(std::move(schema));
  }
  return result;
}

// ---- LevelDB.

namespace {

// Keeps LevelDB from rotating its LOG file for the discovery handle.
class SilentLogger : public leveldb::Logger {
 public:
  void Logv(const char* /*format*/, va_list /*ap*/) override {}
};

}  // namespace

bool ParseSchemaRecord(const std::string& text, std::vector<FieldSchema>* fields) {
  fields->clear();
  size_t pos = 0;
  while (pos < text.size()) {
    size_t comma = text.find(',', pos);
    // Every entry ends with a comma, the last one too.
    if (comma == std::string::npos) return false;
    const std::string entry = text.substr(pos, comma - pos);
    pos = comma + 1;
    size_t colon = entry.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    const std::string number = entry.substr(colon + 1);
    if (number.empty() || number.size() > 2 || !AllDigits(number)) return false;
    const int value = std::atoi(number.c_str());
    if (value > db::kBytes) return false;
    fields->push_back({entry.substr(0, colon), static_cast<db::AttributeType>(value)});
  }
  return true;
}

std::string LevelDbDirectoryProblem(const std::string& dir) {
  struct stat info;
  if (stat(dir.c_str(), &info) != 0) {
    return dir + ": cannot open LevelDB database: " + strerror(errno);
  }
  if (!S_ISDIR(info.st_mode)) return dir + ": not a directory, not a LevelDB database";
  // LevelDB's Open writes a LOCK and a LOG file into any directory it is
  // given, even when it then finds no database there; so look first.
  if (stat((dir + "/CURRENT").c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return dir + ": not a LevelDB database (no CURRENT file)";
  }
  return std::string();
}

Discovery DiscoverLevelDb(const std::string& dir, const std::string& name) {
  SilentLogger logger;
  leveldb::Options options;
  options.create_if_missing = false;
  options.info_log = &logger;
  leveldb::DB* raw = nullptr;
  leveldb::Status status = leveldb::DB::Open(options, dir, &raw);
  std::unique_ptr<leveldb::DB> db(raw);
  if (!status.ok()) return Failed(name + ": cannot open LevelDB database: " + status.ToString());

  std::map<std::string, std::string> scalar_records;
  std::map<std::string, std::string> repeated_records;
  {
    std::unique_ptr<leveldb::Iterator> it(db->NewIterator(leveldb::ReadOptions()));
    for (it->Seek(kSchemaPrefix); it->Valid() && it->key().starts_with(kSchemaPrefix); it->Next()) {
      const std::string key = it->key().ToString();
      const std::string rest = key.substr(strlen(kSchemaPrefix));
      if (StartsWith(rest, kRepeatedPrefix)) {
        repeated_records[rest.substr(strlen(kRepeatedPrefix))] = it->value().ToString();
      } else if (!EndsWith(rest, kIndexSuffix) && rest.find(':') == std::string::npos) {
        scalar_records[rest] = it->value().ToString();
      }
      // Anything else holding a ":" is an index record or the record key of a
      // repeated field named "schema".
    }
    if (!it->status().ok()) {
      return Failed(name + ": cannot read LevelDB database: " + it->status().ToString());
    }
  }
  db.reset();

  Discovery result;
  for (const auto& record : scalar_records) {
    TableSchema schema;
    schema.name = record.first;
    if (!ParseSchemaRecord(record.second, &schema.scalar_fields)) {
      // The records of a table named "schema" have keys "schema:<id>"; they
      // are data, not schema records, and need no warning.
      if (!(AllDigits(record.first) && scalar_records.count("schema") != 0)) {
        result.warnings.push_back("table " + record.first + ": unreadable schema record '" +
                                  record.second + "'; left out");
      }
      continue;
    }
    auto repeated = repeated_records.find(record.first);
    if (repeated != repeated_records.end() &&
        !ParseSchemaRecord(repeated->second, &schema.repeated_fields)) {
      result.warnings.push_back("table " + record.first + ": unreadable repeated schema record '" +
                                repeated->second + "'; left out");
      continue;
    }
    result.tables.push_back(std::move(schema));
  }
  return result;
}

}  // namespace db_shell
