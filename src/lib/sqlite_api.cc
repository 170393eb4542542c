#include "sqlite_api.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <unordered_set>

#include "float_text.h"
#include "logger.h"

namespace db {

namespace {

constexpr char kEscape = '\xFF';
constexpr char kEscapedNul = '\xFE';

// The open flags of a shared in-memory database: read-write, create, URI.
constexpr int kInMemoryOpenFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI;
static_assert(kInMemoryOpenFlags == 0x46, "flags of the shared in-memory open");

// How long a statement waits for another connection's lock before it gives
// up with SQLITE_BUSY.
constexpr int kBusyTimeoutMs = 100;

// Appended to a side table's name to name its owner index.
constexpr char kOwnerIndexSuffix[] = ":owner";

// Row callback: appends the first column of every row to a
// std::vector<std::string>.
int CollectFirstColumn(void* context, int argc, char** values, char**) {
  if (argc >= 1 && values[0] != nullptr) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(values[0]);
  }
  return 0;
}

// Converts one column text (already unescaped) into `attribute`, keeping its
// kind, and marks it set.
void AssignFromText(Attribute* attribute, const std::string& text) {
  switch (attribute->type()) {
    case kInteger:
      *attribute = static_cast<int32_t>(std::stoi(text));
      break;
    case kFloat:
      *attribute = TextToFloat(text);
      break;
    case kString:
      *attribute = text;
      break;
    case kBytes:
      *attribute = std::vector<uint8_t>(text.begin(), text.end());
      break;
  }
}

// Lets a row callback throw: sqlite3_exec is C and must not be unwound, so
// the exception is kept, the remaining rows are skipped, and the caller
// rethrows it once the statement has finished.
struct GuardedCallback {
  SqliteAPI::RowCallback callback;
  void* context;
  std::exception_ptr error;
};

int RunGuarded(void* context, int argc, char** values, char** names) {
  auto* guard = static_cast<GuardedCallback*>(context);
  if (guard->error) return 0;
  try {
    return guard->callback(guard->context, argc, values, names);
  } catch (...) {
    guard->error = std::current_exception();
  }
  return 0;
}

// The set scalar attributes of a filter.
ScalarFields SetScalars(const ScalarFields& scalar) {
  ScalarFields result;
  for (const auto& [name, attribute] : scalar) {
    if (attribute.is_set()) result.emplace(name, attribute);
  }
  return result;
}

// Column type of a field of kind `type`.
const char* SqlTypeOf(AttributeType type) {
  switch (type) {
    case kInteger:
      return "INTEGER";
    case kString:
      return "TEXT";
    case kFloat:
      return "REAL";
    default:
      return "BLOB";
  }
}

}  // namespace

int Callback(void*, int, char**, char**) { return 0; }

int CallbackPrint(void* context, int argc, char** values, char** names) {
  auto* text = static_cast<std::string*>(context);
  for (int i = 0; i < argc; ++i) {
    text->append(names[i]);
    text->append(" = ");
    text->append(values[i] != nullptr ? values[i] : "NULL");
    text->append("\n");
  }
  text->append("\n");
  return 0;
}

int CallbackSize(void* context, int argc, char** values, char**) {
  if (argc < 1 || values[0] == nullptr) return 0;
  *static_cast<int*>(context) = static_cast<int>(std::strtol(values[0], nullptr, 10));
  return 0;
}

int CallbackExistObject(void* context, int, char**, char**) {
  *static_cast<bool*>(context) = true;
  return 0;
}

int CallbackSelectMultiple(void* context, int argc, char** values, char**) {
  if (argc < 1 || values[0] == nullptr) return 0;
  static_cast<std::vector<uint32_t>*>(context)->push_back(
      static_cast<uint32_t>(std::strtoul(values[0], nullptr, 10)));
  return 0;
}

int CallbackSelectSingle(void* context, int argc, char** values, char** names) {
  auto* scalar = static_cast<ScalarFields*>(context);
  for (int i = 0; i < argc; ++i) {
    if (values[i] == nullptr) continue;
    auto it = scalar->find(names[i]);
    if (it == scalar->end()) continue;
    AssignFromText(&it->second, SqliteAPI::GetFieldAsString(it->second, values[i]));
  }
  return 0;
}

int CallbackSelectCompositeField(void* context, int argc, char** values, char**) {
  if (argc < 1 || values[0] == nullptr) return 0;
  auto* field = static_cast<CompositeField*>(context);
  Attribute element(field->first);
  AssignFromText(&element, SqliteAPI::GetFieldAsString(element, values[0]));
  field->second.push_back(std::move(element));
  return 0;
}

SqliteAPI::SqliteAPI(const std::string& name, const std::string& table, bool in_memory)
    : table_name_(table) {
  Connect(name, in_memory);
}

SqliteAPI::~SqliteAPI() { Disconnect(); }

void SqliteAPI::Connect(const std::string& name, bool in_memory) {
  int rc;
  if (in_memory) {
    // Shared cache: every connection of the process naming the same database
    // sees the same tables.
    const std::string path = "file:" + name + "?mode=memory&cache=shared";
    rc = sqlite3_open_v2(path.c_str(), &db_, kInMemoryOpenFlags, nullptr);
  } else {
    rc = sqlite3_open(name.c_str(), &db_);
  }
  if (rc != SQLITE_OK) {
    DB_LOG_ERROR("ERROR! sqlite3_open: rc=%d", rc);
    // A failed open may still have allocated a handle.
    sqlite3_close(db_);
    db_ = nullptr;
    connected_ = false;
    return;
  }
  connected_ = true;
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // A read-only connection (db-shell, a write-protected file) must leave the
  // file exactly as it is.
  if (sqlite3_db_readonly(db_, "main") == 1) return;
  if (!in_memory) UseWriteAheadLog();
  CreateMissingOwnerIndexes();
}

void SqliteAPI::UseWriteAheadLog() {
  // ":memory:" and temporary databases have no file whose journal could change.
  const char* file = sqlite3_db_filename(db_, "main");
  if (file == nullptr || file[0] == '\0') return;
  std::vector<std::string> mode;
  char* err_msg = nullptr;
  const int rc = sqlite3_exec(db_, "PRAGMA journal_mode=WAL;", CollectFirstColumn, &mode, &err_msg);
  if (rc != SQLITE_OK || mode.empty() || mode[0] != "wal") {
    // Typically another connection holds the database in the rollback
    // journal's mode. This connection goes on in the mode the file has, with
    // SQLite's default full syncs; the next open tries again.
    const std::string reason = rc != SQLITE_OK ? (err_msg != nullptr ? err_msg : sqlite3_errstr(rc))
                                               : "journal_mode=" + (mode.empty() ? "" : mode[0]);
    DB_LOG_ERROR(
        "ERROR! Write-ahead log not set, the database keeps its journal mode: err_msg='%s'",
        reason.c_str());
    sqlite3_free(err_msg);
    return;
  }
  // In write-ahead mode NORMAL syncs the log only at checkpoints: a commit
  // that returned survives a crash of the process, and a power loss can lose
  // the last commits but not corrupt the file. Per connection, no I/O.
  sqlite3_exec(db_, "PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr);
}

void SqliteAPI::CreateMissingOwnerIndexes() {
  // Side tables are told by their owner column too: "repeated_field_table_a_"
  // is also the start of the side tables of a table "a_b".
  const std::string prefix = CompositeFieldTableName(table_name_, "");
  char* query = sqlite3_mprintf(
      "SELECT m.name FROM sqlite_master AS m WHERE m.type='table' AND substr(m.name,1,%d)='%q' "
      "AND EXISTS (SELECT 1 FROM pragma_table_info(m.name) AS c WHERE c.name='ID_%q') "
      "AND NOT EXISTS (SELECT 1 FROM sqlite_master AS i WHERE i.type='index' AND "
      "i.name=m.name||'%q');",
      static_cast<int>(prefix.size()), prefix.c_str(), table_name_.c_str(), kOwnerIndexSuffix);
  if (query == nullptr) return;
  std::vector<std::string> side_tables;
  ExecuteQuery(query, CollectFirstColumn, &side_tables);
  sqlite3_free(query);
  for (const std::string& side_table : side_tables) CreateOwnerIndex(side_table);
}

int SqliteAPI::CreateOwnerIndex(const std::string& side_table) {
  return ExecuteQuery("CREATE INDEX IF NOT EXISTS \"" + OwnerIndexName(side_table) + "\" ON " +
                          side_table + "(ID_" + table_name_ + ");",
                      Callback, nullptr);
}

int SqliteAPI::Disconnect() {
  const int rc = sqlite3_close(db_);
  if (rc == SQLITE_OK) db_ = nullptr;
  connected_ = false;
  return rc;
}

bool SqliteAPI::IsConnected() const { return connected_; }

void SqliteAPI::SetTableName(const std::string& name) { table_name_ = name; }

const std::string& SqliteAPI::GetTableName() const { return table_name_; }

int SqliteAPI::ExecuteQuery(const std::string& query, RowCallback callback, void* context) const {
  char* err_msg = nullptr;
  const int rc = sqlite3_exec(db_, query.c_str(), callback, context, &err_msg);
  if (rc == SQLITE_OK) return kOk;
  // A null handle fails before SQLite writes a message.
  DB_LOG_ERROR("ERROR! sqlite3_exec: err_msg='%s'",
               err_msg != nullptr ? err_msg : sqlite3_errstr(rc));
  sqlite3_free(err_msg);
  switch (rc) {
    case SQLITE_BUSY:
      return kBusy;
    case SQLITE_CORRUPT:
      return kCorruption;
    default:
      return kFailure;
  }
}

int SqliteAPI::BeginTransaction() const {
  return ExecuteQuery("BEGIN TRANSACTION", Callback, nullptr);
}

int SqliteAPI::EndTransaction() const { return ExecuteQuery("END TRANSACTION", Callback, nullptr); }

// --- Statement pieces.

std::string SqliteAPI::CompositeFieldTableName(const std::string& table, const std::string& field) {
  std::string name;
  name.reserve(128);
  // Joined by "_" only, so T "a_b" with F "c" and T "a" with F "b_c" share a
  // side table; names are expected not to collide that way.
  name.append("repeated_field_table_").append(table).append("_").append(field);
  return name;
}

std::string SqliteAPI::OwnerIndexName(const std::string& side_table) {
  return side_table + kOwnerIndexSuffix;
}

std::string SqliteAPI::GetFieldSqlType(const Attribute& attribute) {
  return SqlTypeOf(attribute.type());
}

std::string SqliteAPI::GetFieldSqlType(const CompositeField& field) {
  return SqlTypeOf(field.first);
}

std::string SqliteAPI::GetDatabaseFieldNames(const ScalarFields& scalar) {
  std::string names;
  names.reserve(256);
  for (const auto& [name, attribute] : scalar) {
    if (!attribute.is_set()) continue;
    names.append(name).append(",");
  }
  if (!names.empty()) names.pop_back();
  return names;
}

std::string SqliteAPI::GetDatabaseFieldValues(const ScalarFields& scalar) {
  std::string values;
  for (const auto& [name, attribute] : scalar) {
    if (!attribute.is_set()) continue;
    if (!values.empty()) values.append(",");
    values.append(GetFieldValueAsSql(attribute));
  }
  return values;
}

std::string SqliteAPI::GetFieldValueAsSql(const Attribute& attribute) {
  const std::string text = attribute.ToString();
  if (attribute.type() == kInteger || attribute.type() == kFloat) return text;
  std::string sql;
  sql.reserve(text.size() + 2);
  sql.push_back('\'');
  for (const char c : text) {
    if (c == '\'') {
      sql.append("''");
    } else if (c == '\0') {
      // Keeps NUL out of the statement text, which SQLite reads up to the
      // first NUL.
      sql.push_back(kEscape);
      sql.push_back(kEscapedNul);
    } else if (c == kEscape) {
      sql.push_back(kEscape);
      sql.push_back(kEscape);
    } else {
      sql.push_back(c);
    }
  }
  sql.push_back('\'');
  return sql;
}

std::string SqliteAPI::GetFieldAsString(const Attribute& attribute, const std::string& text) {
  if (attribute.type() != kString && attribute.type() != kBytes) return text;
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    // A lone 0xFF at the very end cannot come from our own escape; it is kept
    // as it is rather than dropped.
    if (text[i] == kEscape && i + 1 < text.size()) {
      ++i;
      decoded.push_back(text[i] == kEscapedNul ? '\0' : text[i]);
    } else {
      decoded.push_back(text[i]);
    }
  }
  return decoded;
}

std::string SqliteAPI::GenerateFieldValuesQuery(const ScalarFields& scalar,
                                                const std::string& separator) {
  std::string query;
  query.reserve(2048);
  for (const auto& [name, attribute] : scalar) {
    if (!attribute.is_set()) continue;
    query.append(name).append("=").append(GetFieldValueAsSql(attribute));
    query.append(" ").append(separator).append(" ");
  }
  // Drops the last separator and its blank; the blank before it stays.
  if (!query.empty()) query.erase(query.size() - separator.size() - 1);
  return query;
}

std::string SqliteAPI::GenerateCompositeFieldValuesQuery(const CompositeFields& composite) {
  std::string query;
  bool first_field = true;
  for (const auto& [name, field] : composite) {
    if (!first_field) query.append("AND ");
    first_field = false;
    query.append(name).append(" IN (");
    bool first_value = true;
    for (const Attribute& element : field.second) {
      if (!first_value) query.append(", ");
      first_value = false;
      query.append(GetFieldValueAsSql(element));
    }
    query.append(") ");
  }
  return query;
}

// --- Schema.

int SqliteAPI::CreateTable(const ScalarFields& scalar_schema,
                           const CompositeFields& composite_schema) {
  std::string query = "CREATE TABLE " + table_name_ + "(ID INTEGER PRIMARY KEY ";
  if (!scalar_schema.empty()) {
    query.append(", ");
    bool first = true;
    for (const auto& [name, attribute] : scalar_schema) {
      if (!first) query.append(",");
      first = false;
      query.append(name).append(" ").append(GetFieldSqlType(attribute));
    }
  }
  query.append(");");
  const int rc = ExecuteQuery(query, Callback, nullptr);
  if (rc != kOk) return rc;
  return CreateCompositeFieldsTables(composite_schema);
}

int SqliteAPI::CreateCompositeFieldsTables(const CompositeFields& composite_schema) {
  for (const auto& [name, field] : composite_schema) {
    const int rc = AddCompositeField(name, field);
    if (rc != kOk) return rc;
  }
  return kOk;
}

int SqliteAPI::AddCompositeField(const std::string& name, const CompositeField& field) {
  const std::string side_table = CompositeFieldTableName(table_name_, name);
  const std::string query = "CREATE TABLE " + side_table + "(ID INTEGER PRIMARY KEY, ID_" +
                            table_name_ + " INTEGER, " + name + " " + GetFieldSqlType(field) + ");";
  const int rc = ExecuteQuery(query, Callback, nullptr);
  if (rc != kOk) return rc;
  // The field exists now. Without its index (the failure is logged) it only
  // reads slower, and the next open of the table creates it.
  CreateOwnerIndex(side_table);
  return kOk;
}

int SqliteAPI::AddScalarField(const std::string& name, const Attribute& prototype) {
  const std::string query =
      "ALTER TABLE " + table_name_ + " ADD " + name + " " + GetFieldSqlType(prototype) + ";";
  return ExecuteQuery(query, Callback, nullptr);
}

int SqliteAPI::AddTableIndex(const std::string& index_name,
                             const std::vector<std::string>& fields) {
  std::string query;
  query.reserve(512);
  query.append("CREATE INDEX ").append(index_name).append(" ON ").append(table_name_).append(" (");
  for (const std::string& field : fields) query.append(field).append(",");
  // With no field this removes the "(" and the statement fails; callers
  // always name at least one field.
  query.pop_back();
  query.append(");");
  return ExecuteQuery(query, Callback, nullptr);
}

int SqliteAPI::DestroyTable(const CompositeFields& composite_schema) {
  // A failure inside the transaction returns at once and leaves it open, as
  // every multi-statement write of this backend does; the next
  // "END TRANSACTION" closes it.
  int rc = BeginTransaction();
  if (rc != kOk) return rc;
  for (const auto& entry : composite_schema) {
    rc = ExecuteQuery("DROP TABLE " + CompositeFieldTableName(table_name_, entry.first) + ";",
                      Callback, nullptr);
    if (rc != kOk) return rc;
  }
  rc = EndTransaction();
  if (rc != kOk) return rc;
  return ExecuteQuery("DROP TABLE " + table_name_ + ";", Callback, nullptr);
}

// --- Writes.

int SqliteAPI::StoreRecord(uint32_t id, const ScalarFields& scalar,
                           const CompositeFields& composite) {
  std::string query = "INSERT INTO " + table_name_ + " (ID";
  const std::string names = GetDatabaseFieldNames(scalar);
  if (!names.empty()) query.append(", ").append(names);
  query.append(") VALUES (").append(std::to_string(id));
  const std::string values = GetDatabaseFieldValues(scalar);
  if (!values.empty()) query.append(", ").append(values);
  query.append(");");
  const int rc = ExecuteQuery(query, Callback, nullptr);
  if (rc != kOk) return rc;
  return StoreCompositeFieldsOnDatabase(id, composite);
}

int SqliteAPI::StoreCompositeFieldsOnDatabase(uint32_t id, const CompositeFields& composite) {
  // Left open on a failure, see DestroyTable.
  int rc = BeginTransaction();
  if (rc != kOk) return rc;
  const std::string id_text = std::to_string(id);
  for (const auto& [name, field] : composite) {
    const std::string prefix = "INSERT INTO " + CompositeFieldTableName(table_name_, name) +
                               "(ID_" + table_name_ + ", " + name + ") VALUES (" + id_text + ", ";
    for (const Attribute& element : field.second) {
      // Only set values are written; an unset element is a placeholder.
      if (!element.is_set()) continue;
      rc = ExecuteQuery(prefix + GetFieldValueAsSql(element) + ");", Callback, nullptr);
      if (rc != kOk) return rc;
    }
  }
  return EndTransaction();
}

int SqliteAPI::RemoveCompositeField(const std::string& field, uint32_t id) {
  const std::string query = "DELETE FROM " + CompositeFieldTableName(table_name_, field) +
                            " WHERE ID_" + table_name_ + "=" + std::to_string(id) + ";";
  return ExecuteQuery(query, Callback, nullptr);
}

int SqliteAPI::UpdateRecord(uint32_t id, const ScalarFields& scalar,
                            const CompositeFields& composite) {
  int rc;
  const std::string assignments = GenerateFieldValuesQuery(scalar, ",");
  // Only set fields are updated; with none there is nothing to set.
  if (!assignments.empty()) {
    rc = ExecuteQuery(
        "UPDATE " + table_name_ + " SET " + assignments + " WHERE ID=" + std::to_string(id) + ";",
        Callback, nullptr);
    if (rc != kOk) return rc;
  }
  if (composite.empty()) return kOk;
  // The scalar update above stays when the repeated fields fail; a failure
  // inside the transaction leaves it open, see DestroyTable.
  rc = BeginTransaction();
  if (rc != kOk) return rc;
  for (const auto& entry : composite) {
    rc = RemoveCompositeField(entry.first, id);
    if (rc != kOk) return rc;
  }
  rc = EndTransaction();
  if (rc != kOk) return rc;
  return StoreCompositeFieldsOnDatabase(id, composite);
}

int SqliteAPI::DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) {
  // Left open on a failure, see DestroyTable.
  int rc = BeginTransaction();
  if (rc != kOk) return rc;
  for (const std::string& name : composite_names) {
    rc = RemoveCompositeField(name, id);
    if (rc != kOk) return rc;
  }
  rc = EndTransaction();
  if (rc != kOk) return rc;
  return ExecuteQuery("DELETE FROM " + table_name_ + " WHERE ID=" + std::to_string(id) + ";",
                      Callback, nullptr);
}

int SqliteAPI::DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                             const CompositeFields& composite_filter) {
  // Only the ids deleted by this call come back: the caller releases every id
  // listed, and a stale one would be handed out again while still stored.
  if (ids != nullptr) ids->clear();
  std::vector<std::string> names;
  for (const auto& entry : composite_filter) names.push_back(entry.first);
  std::vector<uint32_t> found;
  // A failed query leaves `found` empty, so nothing is deleted.
  RetrieveRecords(&found, scalar_filter, composite_filter);
  // Deliberately only the side tables named in the composite filter are
  // cleaned: with a scalar-only filter the repeated rows of the deleted
  // records stay behind.
  for (const uint32_t id : found) {
    const int rc = DeleteRecord(id, names);
    if (rc != kOk) return rc;
    if (ids != nullptr) ids->push_back(id);
  }
  return kOk;
}

int SqliteAPI::ClearTable(const CompositeFields& composite_schema, std::vector<uint32_t>* ids) {
  std::vector<std::string> names;
  for (const auto& entry : composite_schema) names.push_back(entry.first);
  std::vector<uint32_t> local;
  std::vector<uint32_t>* found = ids != nullptr ? ids : &local;
  RetrieveRecords(found, ScalarFields(), CompositeFields());
  // Carries on after a failing delete so that as much as possible goes; the
  // result is that of the last delete.
  int rc = kOk;
  for (const uint32_t id : *found) rc = DeleteRecord(id, names);
  return rc;
}

int SqliteAPI::ObjectExistsInDatabase(uint32_t id) const {
  bool exists = false;
  const int rc =
      ExecuteQuery("SELECT ID FROM " + table_name_ + " WHERE ID=" + std::to_string(id) + ";",
                   CallbackExistObject, &exists);
  if (rc != kOk) return rc;
  return exists ? kOk : kNotFound;
}

// --- Reads.

int SqliteAPI::GetTableSize(int* size) const {
  *size = -1;
  return ExecuteQuery("SELECT COUNT(*) FROM " + table_name_ + ";", CallbackSize, size);
}

int SqliteAPI::RetrieveRecord(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const {
  int rc = ObjectExistsInDatabase(id);
  if (rc != kOk) return rc;
  // A NULL column (a field not set at store time, or added later) reads back
  // as unset rather than keeping what the caller's map held.
  for (auto& entry : *scalar) entry.second = Attribute(entry.second.type());
  GuardedCallback guard{CallbackSelectSingle, scalar, nullptr};
  rc = ExecuteQuery("SELECT * FROM " + table_name_ + " WHERE ID=" + std::to_string(id) + ";",
                    RunGuarded, &guard);
  if (guard.error) std::rethrow_exception(guard.error);
  if (rc != kOk) return rc;
  return RetrieveCompositeField(id, composite);
}

int SqliteAPI::RetrieveCompositeField(uint32_t id, CompositeFields* composite) const {
  // Left open on a failure, see DestroyTable.
  int rc = BeginTransaction();
  if (rc != kOk) return rc;
  const std::string id_text = std::to_string(id);
  for (auto& [name, field] : *composite) {
    field.second.clear();
    GuardedCallback guard{CallbackSelectCompositeField, &field, nullptr};
    rc = ExecuteQuery("SELECT " + name + " FROM " + CompositeFieldTableName(table_name_, name) +
                          " WHERE ID_" + table_name_ + "=" + id_text + ";",
                      RunGuarded, &guard);
    if (guard.error) {
      // The exception goes to the caller; the read transaction is not left
      // behind it.
      EndTransaction();
      std::rethrow_exception(guard.error);
    }
    if (rc != kOk) return rc;
  }
  return EndTransaction();
}

int SqliteAPI::RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                               const CompositeFields& composite_filter) const {
  // Only set attributes restrict: unset scalars and unset elements are left
  // out before the statement is built.
  const ScalarFields scalar = SetScalars(scalar_filter);
  const CompositeFields composite = SetElementsOf(composite_filter);
  ids->clear();
  std::string query;
  query.reserve(8192);
  if (composite.empty()) {
    query.append("SELECT ID FROM ").append(table_name_);
    if (!scalar.empty()) query.append(" WHERE ").append(GenerateFieldValuesQuery(scalar, "AND"));
    query.append(";");
  } else {
    ScalarFields qualified_scalar;
    for (const auto& [name, attribute] : scalar) {
      qualified_scalar.emplace(table_name_ + "." + name, attribute);
    }
    CompositeFields qualified_composite;
    for (const auto& [name, field] : composite) {
      qualified_composite.emplace(CompositeFieldTableName(table_name_, name) + "." + name, field);
    }
    query.append("SELECT ").append(table_name_).append(".ID FROM ").append(table_name_);
    for (const auto& entry : composite) {
      const std::string side = CompositeFieldTableName(table_name_, entry.first);
      query.append(" INNER JOIN ").append(side).append(" ON ").append(table_name_);
      query.append(".ID=").append(side).append(".ID_").append(table_name_);
    }
    query.append(" WHERE ");
    if (!scalar.empty()) query.append(GenerateFieldValuesQuery(qualified_scalar, "AND"));
    // The " AND " is written even without a scalar condition before it, so a
    // filter on repeated fields alone is refused by SQLite (-1). Such a filter
    // must come with at least one scalar field; this is kept on purpose.
    query.append(" AND ").append("(").append(
        GenerateCompositeFieldValuesQuery(qualified_composite));
    query.append(");");
  }
  const int rc = ExecuteQuery(query, CallbackSelectMultiple, ids);
  // The join yields one row per matching element: each id is kept once, in
  // the order first seen. One pass, so that reading every id of a large table
  // (as resynchronisation does) stays linear.
  std::unordered_set<uint32_t> seen;
  seen.reserve(ids->size());
  size_t kept = 0;
  for (const uint32_t id : *ids) {
    if (seen.insert(id).second) (*ids)[kept++] = id;
  }
  ids->resize(kept);
  return rc;
}

int SqliteAPI::PrintDatabase(const CompositeFields& composite_schema,
                             DatabasePrinter printer) const {
  std::string text;
  int rc = ExecuteQuery("SELECT * FROM " + table_name_ + ";", CallbackPrint, &text);
  if (rc != kOk) return rc;
  // Left open on a failure, see DestroyTable.
  rc = BeginTransaction();
  if (rc != kOk) return rc;
  for (const auto& entry : composite_schema) {
    rc = ExecuteQuery("SELECT * FROM " + CompositeFieldTableName(table_name_, entry.first) + ";",
                      CallbackPrint, &text);
    if (rc != kOk) return rc;
  }
  rc = EndTransaction();
  if (rc != kOk) return rc;
  std::stringstream stream(text);
  if (printer != nullptr) printer(stream);
  return kOk;
}

}  // namespace db
