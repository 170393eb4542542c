// SQLite backend: each DbObject operation beside raw SQLite doing the same
// storage work on the same table layout, in two forms:
//   Exec      sqlite3_exec of exactly the statement texts the library runs;
//   Prepared  prepared statements with bound values, one transaction per
//             operation and no existence check: what SQLite can do at best.
// Names: Sqlite{Mem,File}/<Operation>/{Lib,Exec,Prepared}. The raw connection
// to a file uses the library's durability settings (write-ahead log,
// synchronous=NORMAL).
//
// SqliteFile/{Store,Update,Delete}/Rollback: the library's own operations on
// a file kept in the rollback journal with full syncs, as files were before
// the library switched them to the write-ahead log.
//
// Scaling/Sqlite{Mem,File}/{Retrieve,Update,Delete}/{Lib,NoIndex}/N: one
// record's operation in a table of N records, with the side table's owner
// index (Lib) and without it (NoIndex, as in databases written before it).
//
// Records are preloaded with the library's own statement texts inside one
// transaction (ids taken from the library's allocator), so that a file
// database does not pay one commit per preloaded record.

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_util.h"
#include "sqlite_api.h"

namespace db_bench {
namespace {

constexpr uint32_t kPreloaded = 1000;
constexpr uint32_t kDeleteBatch = 500;

// ---- Statement texts, written out by hand as an application would.

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

std::string SideTable(const std::string& table) {
  return "repeated_field_table_" + table + "_" + kVlanField;
}

// "INSERT INTO T (ID, blob,mac,name,port,ratio) VALUES (id, ...);"
std::string InsertText(const std::string& table, uint32_t id, const RecordValues& v) {
  std::string sql = "INSERT INTO " + table + " (ID, blob,mac,name,port,ratio) VALUES (";
  sql += std::to_string(id);
  sql += ", " + Quoted(std::string(v.blob.begin(), v.blob.end())) + "," + Quoted(v.mac) + "," +
         Quoted(v.name) + "," + std::to_string(v.port) + "," + v.ratio_text + ");";
  return sql;
}

std::string InsertVlanText(const std::string& table, uint32_t id, int32_t vlan) {
  return "INSERT INTO " + SideTable(table) + "(ID_" + table + ", " + kVlanField + ") VALUES (" +
         std::to_string(id) + ", " + std::to_string(vlan) + ");";
}

std::string UpdateText(const std::string& table, uint32_t id, const RecordValues& v) {
  return "UPDATE " + table + " SET blob=" + Quoted(std::string(v.blob.begin(), v.blob.end())) +
         " , mac=" + Quoted(v.mac) + " , name=" + Quoted(v.name) +
         " , port=" + std::to_string(v.port) + " , ratio=" + v.ratio_text +
         "  WHERE ID=" + std::to_string(id) + ";";
}

std::string DeleteVlansText(const std::string& table, uint32_t id) {
  return "DELETE FROM " + SideTable(table) + " WHERE ID_" + table + "=" + std::to_string(id) + ";";
}

// The texts above must be the library's: checked once against its own
// statement builders.
void CheckTextsMatchLibrary() {
  const RecordValues v = MakeRecordValues(5);
  db::DbObject scratch(":memory:", "t", false, db::kSqlite);
  DeclareRecordSchema(&scratch);
  FillRecord(&scratch, 5);
  const db::ScalarFields& s = scratch.scalar_fields();
  const std::string lib_insert = "INSERT INTO t (ID, " + db::SqliteAPI::GetDatabaseFieldNames(s) +
                                 ") VALUES (9, " + db::SqliteAPI::GetDatabaseFieldValues(s) + ");";
  const std::string lib_update =
      "UPDATE t SET " + db::SqliteAPI::GenerateFieldValuesQuery(s, ",") + " WHERE ID=9;";
  if (lib_insert != InsertText("t", 9, v) || lib_update != UpdateText("t", 9, v)) {
    std::fprintf(stderr, "statement texts differ from the library's:\n%s\n%s\n%s\n%s\n",
                 lib_insert.c_str(), InsertText("t", 9, v).c_str(), lib_update.c_str(),
                 UpdateText("t", 9, v).c_str());
    std::abort();
  }
}

// ---- Raw connection helpers.

void Exec(sqlite3* db, const std::string& sql, sqlite3_callback callback = nullptr,
          void* context = nullptr) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), callback, context, &error) != SQLITE_OK) {
    std::fprintf(stderr, "sqlite3_exec failed: %s: %s\n", sql.c_str(), error ? error : "");
    std::abort();
  }
}

int CopyRow(void* context, int argc, char** values, char**) {
  auto* out = static_cast<std::string*>(context);
  for (int i = 0; i < argc; ++i) out->append(values[i] != nullptr ? values[i] : "");
  return 0;
}

int MarkFound(void* context, int, char**, char**) {
  *static_cast<bool*>(context) = true;
  return 0;
}

int CollectId(void* context, int, char** values, char**) {
  static_cast<std::vector<uint32_t>*>(context)->push_back(
      static_cast<uint32_t>(std::strtoul(values[0], nullptr, 10)));
  return 0;
}

sqlite3_stmt* Prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "prepare failed: %s: %s\n", sql.c_str(), sqlite3_errmsg(db));
    std::abort();
  }
  return stmt;
}

bool Step(sqlite3_stmt* stmt) {
  const int rc = sqlite3_step(stmt);
  sqlite3_reset(stmt);
  return rc == SQLITE_DONE || rc == SQLITE_ROW;
}

// Prepared statements on one table, with bound values.
struct PreparedTable {
  sqlite3_stmt* begin;
  sqlite3_stmt* commit;
  sqlite3_stmt* insert;
  sqlite3_stmt* insert_vlan;
  sqlite3_stmt* update;
  sqlite3_stmt* delete_vlans;
  sqlite3_stmt* delete_record;
  sqlite3_stmt* select;
  sqlite3_stmt* select_vlans;
  sqlite3_stmt* query_port;

  PreparedTable(sqlite3* db, const std::string& t) {
    const std::string side = SideTable(t);
    begin = Prepare(db, "BEGIN TRANSACTION");
    commit = Prepare(db, "END TRANSACTION");
    insert =
        Prepare(db, "INSERT INTO " + t + " (ID,blob,mac,name,port,ratio) VALUES (?,?,?,?,?,?)");
    insert_vlan =
        Prepare(db, "INSERT INTO " + side + "(ID_" + t + "," + kVlanField + ") VALUES (?,?)");
    update = Prepare(db, "UPDATE " + t + " SET blob=?,mac=?,name=?,port=?,ratio=? WHERE ID=?");
    delete_vlans = Prepare(db, "DELETE FROM " + side + " WHERE ID_" + t + "=?");
    delete_record = Prepare(db, "DELETE FROM " + t + " WHERE ID=?");
    select = Prepare(db, "SELECT * FROM " + t + " WHERE ID=?");
    select_vlans = Prepare(
        db, "SELECT " + std::string(kVlanField) + " FROM " + side + " WHERE ID_" + t + "=?");
    query_port = Prepare(db, "SELECT ID FROM " + t + " WHERE port=?");
  }
  ~PreparedTable() {
    for (sqlite3_stmt* s : {begin, commit, insert, insert_vlan, update, delete_vlans, delete_record,
                            select, select_vlans, query_port}) {
      sqlite3_finalize(s);
    }
  }

  // Binds the scalar values in the column order blob, mac, name, port, ratio
  // starting at parameter `first`.
  static void BindScalars(sqlite3_stmt* stmt, int first, const RecordValues& v) {
    sqlite3_bind_text(stmt, first, reinterpret_cast<const char*>(v.blob.data()),
                      static_cast<int>(v.blob.size()), SQLITE_STATIC);
    sqlite3_bind_text(stmt, first + 1, v.mac.data(), static_cast<int>(v.mac.size()), SQLITE_STATIC);
    sqlite3_bind_text(stmt, first + 2, v.name.data(), static_cast<int>(v.name.size()),
                      SQLITE_STATIC);
    sqlite3_bind_int(stmt, first + 3, v.port);
    sqlite3_bind_double(stmt, first + 4, v.ratio);
  }

  bool InsertVlans(uint32_t id, const RecordValues& v) {
    for (int32_t vlan : v.vlans) {
      sqlite3_bind_int64(insert_vlan, 1, id);
      sqlite3_bind_int(insert_vlan, 2, vlan);
      if (!Step(insert_vlan)) return false;
    }
    return true;
  }

  bool Store(uint32_t id, const RecordValues& v) {
    if (!Step(begin)) return false;
    sqlite3_bind_int64(insert, 1, id);
    BindScalars(insert, 2, v);
    const bool ok = Step(insert) && InsertVlans(id, v);
    return Step(commit) && ok;
  }

  bool Update(uint32_t id, const RecordValues& v) {
    if (!Step(begin)) return false;
    BindScalars(update, 1, v);
    sqlite3_bind_int64(update, 6, id);
    sqlite3_bind_int64(delete_vlans, 1, id);
    const bool ok = Step(update) && Step(delete_vlans) && InsertVlans(id, v);
    return Step(commit) && ok;
  }

  bool Delete(uint32_t id) {
    if (!Step(begin)) return false;
    sqlite3_bind_int64(delete_vlans, 1, id);
    sqlite3_bind_int64(delete_record, 1, id);
    const bool ok = Step(delete_vlans) && Step(delete_record);
    return Step(commit) && ok;
  }

  // Reads the record's columns and repeated values into `out`.
  bool Retrieve(uint32_t id, std::string* out) {
    out->clear();
    sqlite3_bind_int64(select, 1, id);
    bool found = false;
    while (sqlite3_step(select) == SQLITE_ROW) {
      found = true;
      for (int i = 0; i < sqlite3_column_count(select); ++i) {
        const unsigned char* text = sqlite3_column_text(select, i);
        if (text != nullptr) out->append(reinterpret_cast<const char*>(text));
      }
    }
    sqlite3_reset(select);
    sqlite3_bind_int64(select_vlans, 1, id);
    while (sqlite3_step(select_vlans) == SQLITE_ROW) {
      out->append(reinterpret_cast<const char*>(sqlite3_column_text(select_vlans, 0)));
    }
    sqlite3_reset(select_vlans);
    return found;
  }

  void QueryPort(int32_t port, std::vector<uint32_t>* ids) {
    ids->clear();
    sqlite3_bind_int(query_port, 1, port);
    while (sqlite3_step(query_port) == SQLITE_ROW) {
      ids->push_back(static_cast<uint32_t>(sqlite3_column_int64(query_port, 0)));
    }
    sqlite3_reset(query_port);
  }
};

// The databases of the benchmarks.
enum class Db {
  kMem,       // shared in-memory
  kFile,      // a file as the library keeps it: write-ahead log
  kRollback,  // a file kept in the rollback journal with full syncs
};

// A DbObject whose connection puts its file back into the rollback journal
// with full syncs, SQLite's defaults.
class RollbackJournalObject : public db::DbObject {
 public:
  RollbackJournalObject(const std::string& file, const std::string& table)
      : DbObject(Open(file, table), file) {}

 private:
  static std::unique_ptr<db::DatabaseAPI> Open(const std::string& file, const std::string& table) {
    auto api = std::make_unique<db::SqliteAPI>(file, table, false);
    Exec(api->handle(), "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL;");
    return api;
  }
};

// One SQLite database, the library's objects on it and one raw connection.
struct SqliteSetup {
  Db kind;
  bool in_memory;
  ScratchDir dir;
  std::string name;
  sqlite3* raw = nullptr;
  std::map<std::string, std::unique_ptr<db::DbObject>> objects;
  std::map<std::string, std::vector<uint32_t>> preloaded;
  std::map<std::string, uint32_t> raw_ids;

  explicit SqliteSetup(Db db) : kind(db), in_memory(db == Db::kMem) {
    InitLibraryQuietly();
    CheckTextsMatchLibrary();
    static int databases = 0;
    name = in_memory ? "bench_mem_" + std::to_string(databases++) : dir.File("bench.sqlite");
    // The library's first object opens (and for a file creates) the database.
    Table("anchor");
    int rc;
    if (in_memory) {
      const std::string uri = "file:" + name + "?mode=memory&cache=shared";
      rc = sqlite3_open_v2(uri.c_str(), &raw,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI, nullptr);
    } else {
      rc = sqlite3_open(name.c_str(), &raw);
    }
    if (rc != SQLITE_OK) std::abort();
    sqlite3_busy_timeout(raw, 100);
    // The raw side writes with the durability of the library's connections.
    if (kind == Db::kFile) Exec(raw, "PRAGMA synchronous=NORMAL;");
  }

  ~SqliteSetup() { sqlite3_close(raw); }
  SqliteSetup(const SqliteSetup&) = delete;
  SqliteSetup& operator=(const SqliteSetup&) = delete;

  // A new table of the record layout, created by the library; returns its
  // object.
  // Benchmark functions run several times; the table is made on the first.
  db::DbObject* Table(const std::string& table) {
    std::unique_ptr<db::DbObject>& object = objects[table];
    if (object != nullptr) return object.get();
    if (kind == Db::kRollback) {
      // Its connection switches the file to the write-ahead log as it opens
      // and back at once; every other connection is idle meanwhile.
      object = std::make_unique<RollbackJournalObject>(name, table);
    } else {
      object = std::make_unique<db::DbObject>(name, table, in_memory, db::kSqlite);
    }
    DeclareRecordSchema(object.get());
    if (object->CreateObjTables() != db::kOk) std::abort();
    if (raw != nullptr) CheckJournal();
    return object.get();
  }

  // Aborts unless the file is in the journal mode of its kind.
  void CheckJournal() {
    std::string mode;
    Exec(raw, "PRAGMA journal_mode;", CopyRow, &mode);
    const char* expected = kind == Db::kMem ? "memory" : kind == Db::kFile ? "wal" : "delete";
    if (mode != expected) {
      std::fprintf(stderr, "journal mode %s, expected %s\n", mode.c_str(), expected);
      std::abort();
    }
  }

  // Preload() once per table; later calls return the same ids.
  const std::vector<uint32_t>& PreloadOnce(const std::string& table, uint32_t count) {
    std::vector<uint32_t>& ids = preloaded[table];
    if (ids.empty()) ids = Preload(table, count);
    return ids;
  }

  // Next id of a raw store into `table`; raw stores do not use the allocator.
  uint32_t NextRawId(const std::string& table) { return ++raw_ids[table]; }

  // Stores records 0..count-1 in `table` in one transaction, with the
  // library's statement texts and ids from the library's allocator.
  std::vector<uint32_t> Preload(const std::string& table, uint32_t count) {
    std::vector<uint32_t> ids;
    Exec(raw, "BEGIN TRANSACTION");
    for (uint32_t n = 0; n < count; ++n) {
      const uint32_t id = db::DbObject::GetNextId();
      const RecordValues v = MakeRecordValues(n);
      Exec(raw, InsertText(table, id, v));
      for (int32_t vlan : v.vlans) Exec(raw, InsertVlanText(table, id, vlan));
      ids.push_back(id);
    }
    Exec(raw, "END TRANSACTION");
    return ids;
  }
};

SqliteSetup& Setup(Db db) {
  // Each is destroyed at exit, before the library's own statics, and removes
  // its files.
  switch (db) {
    case Db::kMem: {
      static SqliteSetup memory(Db::kMem);
      return memory;
    }
    case Db::kFile: {
      static SqliteSetup file(Db::kFile);
      return file;
    }
    case Db::kRollback:
      break;
  }
  static SqliteSetup rollback(Db::kRollback);
  return rollback;
}

void CheckRc(benchmark::State& state, int rc) {
  if (rc != db::kOk) state.SkipWithError(("library call failed, rc=" + std::to_string(rc)).c_str());
}

void CheckOk(benchmark::State& state, bool ok) {
  if (!ok) state.SkipWithError("raw statement failed");
}

// ---- StoreObject: INSERT, then the repeated values in their own transaction.

void StoreLib(benchmark::State& state, Db db) {
  db::DbObject* object = Setup(db).Table("store_lib");
  FillRecord(object, 7);
  for (auto _ : state) {
    uint32_t id = 0;
    CheckRc(state, object->StoreObject(&id));
  }
}

void StoreExec(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("store_exec");
  const RecordValues v = MakeRecordValues(7);
  for (auto _ : state) {
    const uint32_t id = setup.NextRawId("store_exec");
    Exec(setup.raw, InsertText("store_exec", id, v));
    Exec(setup.raw, "BEGIN TRANSACTION");
    for (int32_t vlan : v.vlans) Exec(setup.raw, InsertVlanText("store_exec", id, vlan));
    Exec(setup.raw, "END TRANSACTION");
  }
}

void StorePrepared(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("store_prep");
  PreparedTable table(setup.raw, "store_prep");
  const RecordValues v = MakeRecordValues(7);
  for (auto _ : state) CheckOk(state, table.Store(setup.NextRawId("store_prep"), v));
}

// ---- RetrieveObject: existence SELECT, SELECT *, and the repeated values
// inside a transaction.

void RetrieveLib(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  db::DbObject* object = setup.Table("rd_lib");
  const std::vector<uint32_t>& ids = setup.PreloadOnce("rd_lib", kPreloaded);
  db::ScalarFields scalar;
  db::CompositeFields composite;
  size_t i = 0;
  for (auto _ : state)
    CheckRc(state, object->RetrieveObject(ids[i++ % ids.size()], &scalar, &composite));
}

const std::vector<uint32_t>& RawReadTable(SqliteSetup& setup) {
  setup.Table("rd_raw");
  return setup.PreloadOnce("rd_raw", kPreloaded);
}

void RetrieveExec(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  const std::vector<uint32_t>& ids = RawReadTable(setup);
  const std::string side = SideTable("rd_raw");
  std::string row;
  size_t i = 0;
  for (auto _ : state) {
    const std::string id = std::to_string(ids[i++ % ids.size()]);
    bool found = false;
    row.clear();
    Exec(setup.raw, "SELECT ID FROM rd_raw WHERE ID=" + id + ";", MarkFound, &found);
    Exec(setup.raw, "SELECT * FROM rd_raw WHERE ID=" + id + ";", CopyRow, &row);
    Exec(setup.raw, "BEGIN TRANSACTION");
    Exec(setup.raw, "SELECT vlans FROM " + side + " WHERE ID_rd_raw=" + id + ";", CopyRow, &row);
    Exec(setup.raw, "END TRANSACTION");
    CheckOk(state, found);
  }
}

void RetrievePrepared(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  const std::vector<uint32_t>& ids = RawReadTable(setup);
  PreparedTable table(setup.raw, "rd_raw");
  std::string row;
  size_t i = 0;
  for (auto _ : state) CheckOk(state, table.Retrieve(ids[i++ % ids.size()], &row));
}

// ---- UpdateObject: UPDATE, delete of the repeated values in one
// transaction, their insertion in another.

void UpdateLib(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  db::DbObject* object = setup.Table("upd_lib");
  const std::vector<uint32_t>& ids = setup.PreloadOnce("upd_lib", kPreloaded);
  FillRecord(object, 7);
  size_t i = 0;
  for (auto _ : state) CheckRc(state, object->UpdateObject(ids[i++ % ids.size()]));
}

void UpdateExec(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("upd_exec");
  const std::vector<uint32_t>& ids = setup.PreloadOnce("upd_exec", kPreloaded);
  const RecordValues v = MakeRecordValues(7);
  size_t i = 0;
  for (auto _ : state) {
    const uint32_t id = ids[i++ % ids.size()];
    Exec(setup.raw, UpdateText("upd_exec", id, v));
    Exec(setup.raw, "BEGIN TRANSACTION");
    Exec(setup.raw, DeleteVlansText("upd_exec", id));
    Exec(setup.raw, "END TRANSACTION");
    Exec(setup.raw, "BEGIN TRANSACTION");
    for (int32_t vlan : v.vlans) Exec(setup.raw, InsertVlanText("upd_exec", id, vlan));
    Exec(setup.raw, "END TRANSACTION");
  }
}

void UpdatePrepared(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("upd_prep");
  const std::vector<uint32_t>& ids = setup.PreloadOnce("upd_prep", kPreloaded);
  PreparedTable table(setup.raw, "upd_prep");
  const RecordValues v = MakeRecordValues(7);
  size_t i = 0;
  for (auto _ : state) CheckOk(state, table.Update(ids[i++ % ids.size()], v));
}

// ---- DeleteSingleObject: delete of the repeated values in a transaction,
// then of the record. Records are refilled outside the timed region.

template <class DeleteFn>
void DeleteLoop(benchmark::State& state, SqliteSetup& setup, const std::string& table,
                DeleteFn delete_fn) {
  std::vector<uint32_t> ids;
  size_t next = 0;
  for (auto _ : state) {
    if (next == ids.size()) {
      state.PauseTiming();
      ids = setup.Preload(table, kDeleteBatch);
      next = 0;
      state.ResumeTiming();
    }
    delete_fn(ids[next++]);
  }
}

void DeleteLib(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  db::DbObject* object = setup.Table("del_lib");
  DeleteLoop(state, setup, "del_lib",
             [&](uint32_t id) { CheckRc(state, object->DeleteSingleObject(id)); });
}

void DeleteExec(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("del_exec");
  DeleteLoop(state, setup, "del_exec", [&](uint32_t id) {
    Exec(setup.raw, "BEGIN TRANSACTION");
    Exec(setup.raw, DeleteVlansText("del_exec", id));
    Exec(setup.raw, "END TRANSACTION");
    Exec(setup.raw, "DELETE FROM del_exec WHERE ID=" + std::to_string(id) + ";");
    // The library gives the id back to its allocator; so does this side.
    db::DbObject::ReleaseId(id);
  });
}

void DeletePrepared(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  setup.Table("del_prep");
  PreparedTable table(setup.raw, "del_prep");
  DeleteLoop(state, setup, "del_prep", [&](uint32_t id) {
    CheckOk(state, table.Delete(id));
    db::DbObject::ReleaseId(id);
  });
}

// ---- RetrieveObjects on one scalar field ("port", 1/kPortValues of the
// records match).

void QueryLib(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  db::DbObject* object = setup.Table("q_lib");
  setup.PreloadOnce("q_lib", kPreloaded);
  const db::ScalarFields filter = OneFieldFilter(kPortField, 3);
  const db::CompositeFields none;
  std::vector<uint32_t> ids;
  for (auto _ : state) CheckRc(state, object->RetrieveObjects(&ids, filter, none));
  state.counters["matches"] = static_cast<double>(ids.size());
}

void QueryExec(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  RawReadTable(setup);
  std::vector<uint32_t> ids;
  for (auto _ : state) {
    ids.clear();
    Exec(setup.raw, "SELECT ID FROM rd_raw WHERE port=3 ;", CollectId, &ids);
  }
  state.counters["matches"] = static_cast<double>(ids.size());
}

void QueryPrepared(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  RawReadTable(setup);
  PreparedTable table(setup.raw, "rd_raw");
  std::vector<uint32_t> ids;
  for (auto _ : state) table.QueryPort(3, &ids);
  state.counters["matches"] = static_cast<double>(ids.size());
}

// ---- What required statements cost on their own: the existence SELECT
// before each read, and an empty BEGIN/END TRANSACTION pair.

void CostExistence(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  const std::vector<uint32_t>& ids = RawReadTable(setup);
  size_t i = 0;
  for (auto _ : state) {
    bool found = false;
    Exec(setup.raw, "SELECT ID FROM rd_raw WHERE ID=" + std::to_string(ids[i++ % ids.size()]) + ";",
         MarkFound, &found);
    CheckOk(state, found);
  }
}

void CostTransaction(benchmark::State& state, Db db) {
  SqliteSetup& setup = Setup(db);
  for (auto _ : state) {
    Exec(setup.raw, "BEGIN TRANSACTION");
    Exec(setup.raw, "END TRANSACTION");
  }
}

// ---- Scaling: one record's retrieve, update and delete in a table of N
// records, with and without the owner index of its side table.

constexpr uint32_t kScales[] = {1000, 10000, 100000};

// The table of `records` records, preloaded once, with its owner index
// created (`indexed`) or dropped through the raw connection.
db::DbObject* ScaledTable(SqliteSetup& setup, uint32_t records, bool indexed,
                          const std::vector<uint32_t>** ids) {
  const std::string table = "scale_" + std::to_string(records);
  db::DbObject* object = setup.Table(table);
  *ids = &setup.PreloadOnce(table, records);
  const std::string side = SideTable(table);
  const std::string index = "\"" + db::SqliteAPI::OwnerIndexName(side) + "\"";
  Exec(setup.raw,
       indexed ? "CREATE INDEX IF NOT EXISTS " + index + " ON " + side + "(ID_" + table + ");"
               : "DROP INDEX IF EXISTS " + index + ";");
  return object;
}

void ScaleRetrieve(benchmark::State& state, Db db, bool indexed) {
  const std::vector<uint32_t>* ids = nullptr;
  db::DbObject* object =
      ScaledTable(Setup(db), static_cast<uint32_t>(state.range(0)), indexed, &ids);
  db::ScalarFields scalar;
  db::CompositeFields composite;
  size_t i = 0;
  for (auto _ : state) {
    CheckRc(state, object->RetrieveObject((*ids)[i++ % ids->size()], &scalar, &composite));
  }
}

void ScaleUpdate(benchmark::State& state, Db db, bool indexed) {
  const std::vector<uint32_t>* ids = nullptr;
  db::DbObject* object =
      ScaledTable(Setup(db), static_cast<uint32_t>(state.range(0)), indexed, &ids);
  FillRecord(object, 7);
  size_t i = 0;
  for (auto _ : state) CheckRc(state, object->UpdateObject((*ids)[i++ % ids->size()]));
}

// Each deleted record is stored again, untimed, so the table keeps its size.
void ScaleDelete(benchmark::State& state, Db db, bool indexed) {
  SqliteSetup& setup = Setup(db);
  const std::vector<uint32_t>* ids = nullptr;
  const uint32_t records = static_cast<uint32_t>(state.range(0));
  db::DbObject* object = ScaledTable(setup, records, indexed, &ids);
  const std::string table = "scale_" + std::to_string(records);
  size_t i = 0;
  for (auto _ : state) {
    const size_t n = i++ % ids->size();
    const uint32_t id = (*ids)[n];
    CheckRc(state, object->DeleteSingleObject(id));
    state.PauseTiming();
    const RecordValues v = MakeRecordValues(static_cast<uint32_t>(n));
    Exec(setup.raw, "BEGIN TRANSACTION");
    Exec(setup.raw, InsertText(table, id, v));
    for (int32_t vlan : v.vlans) Exec(setup.raw, InsertVlanText(table, id, vlan));
    Exec(setup.raw, "END TRANSACTION");
    state.ResumeTiming();
  }
}

void RegisterAll() {
  struct Op {
    const char* name;
    void (*lib)(benchmark::State&, Db);
    void (*exec)(benchmark::State&, Db);
    void (*prepared)(benchmark::State&, Db);
  };
  const Op ops[] = {
      {"Store", StoreLib, StoreExec, StorePrepared},
      {"Retrieve", RetrieveLib, RetrieveExec, RetrievePrepared},
      {"Update", UpdateLib, UpdateExec, UpdatePrepared},
      {"Delete", DeleteLib, DeleteExec, DeletePrepared},
      {"QueryField", QueryLib, QueryExec, QueryPrepared},
  };
  for (const Db db : {Db::kMem, Db::kFile}) {
    const std::string prefix = db == Db::kMem ? "SqliteMem/" : "SqliteFile/";
    benchmark::RegisterBenchmark((prefix + "Cost/ExistenceSelect").c_str(), CostExistence, db)
        ->UseRealTime();
    benchmark::RegisterBenchmark((prefix + "Cost/EmptyTransaction").c_str(), CostTransaction, db)
        ->UseRealTime();
    for (const Op& op : ops) {
      const std::string name = prefix + op.name;
      benchmark::RegisterBenchmark((name + "/Lib").c_str(), op.lib, db)->UseRealTime();
      benchmark::RegisterBenchmark((name + "/Exec").c_str(), op.exec, db)->UseRealTime();
      benchmark::RegisterBenchmark((name + "/Prepared").c_str(), op.prepared, db)->UseRealTime();
      // The writes again, on a file in the rollback journal.
      if (db == Db::kFile && op.lib != RetrieveLib && op.lib != QueryLib) {
        benchmark::RegisterBenchmark((name + "/Rollback").c_str(), op.lib, Db::kRollback)
            ->UseRealTime();
      }
    }
  }
  using ScaleFn = void (*)(benchmark::State&, Db, bool);
  const std::pair<const char*, ScaleFn> scale_ops[] = {
      {"Retrieve", ScaleRetrieve}, {"Update", ScaleUpdate}, {"Delete", ScaleDelete}};
  for (const Db db : {Db::kMem, Db::kFile}) {
    const std::string prefix = db == Db::kMem ? "Scaling/SqliteMem/" : "Scaling/SqliteFile/";
    for (const uint32_t records : kScales) {
      // The indexed runs first: each table's index is dropped once, after them.
      for (const bool indexed : {true, false}) {
        for (const auto& [name, fn] : scale_ops) {
          const std::string kind = indexed ? "/Lib" : "/NoIndex";
          benchmark::RegisterBenchmark((prefix + name + kind).c_str(), fn, db, indexed)
              ->Arg(records)
              ->Unit(benchmark::kMicrosecond)
              ->UseRealTime();
        }
      }
    }
  }
}

}  // namespace
}  // namespace db_bench

int main(int argc, char** argv) {
  db_bench::RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
