// SqliteAPI: the SQLite backend. Tables, fields and records are mapped onto SQL
// text run with sqlite3_exec (no prepared statements):
//   main table T:           ID INTEGER PRIMARY KEY, then one column per scalar field
//   side table per field F: "repeated_field_table_" T "_" F with
//                           ID INTEGER PRIMARY KEY, ID_T INTEGER, F <type>

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

class SqliteAPI : public DatabaseAPI {
 public:
  // Opens `name` (a file path, or with `in_memory` the shared in-memory
  // database "file:NAME?mode=memory&cache=shared"). Never throws; a failed
  // open leaves the object unconnected.
  SqliteAPI(const std::string& name, const std::string& table, bool in_memory);
  ~SqliteAPI() override;

  int CreateTable(const ScalarFields& scalar_schema,
                  const CompositeFields& composite_schema) override;
  int AddTableIndex(const std::string& index_name,
                    const std::vector<std::string>& fields) override;
  int AddScalarField(const std::string& name, const Attribute& prototype) override;
  int AddCompositeField(const std::string& name,
                        const std::pair<AttributeType, std::vector<Attribute>>& field) override;
  int DestroyTable(const CompositeFields& composite_schema) override;
  int StoreRecord(uint32_t id, const ScalarFields& scalar,
                  const CompositeFields& composite) override;
  int DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) override;
  int DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                    const CompositeFields& composite_filter) override;
  int UpdateRecord(uint32_t id, const ScalarFields& scalar,
                   const CompositeFields& composite) override;
  int RetrieveRecord(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const override;
  int RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                      const CompositeFields& composite_filter) const override;
  int GetTableSize(int* size) const override;
  int PrintDatabase(const CompositeFields& composite_schema,
                    DatabasePrinter printer) const override;
  bool IsConnected() const override;
  int ClearTable(const CompositeFields& composite_schema, std::vector<uint32_t>* ids) override;
  void SetTableName(const std::string& name) override;
  const std::string& GetTableName() const override;

  void Connect(const std::string& name, bool in_memory);
  int Disconnect();
  // Runs one statement; 0, or -6 (busy), -7 (corrupt), -1 (any other error).
  int ExecuteQuery(const std::string& query, int (*callback)(void*, int, char**, char**),
                   void* context) const;
  int BeginTransaction() const;
  int EndTransaction() const;

 private:
  std::string table_name_;
  sqlite3* db_ = nullptr;
  bool connected_ = false;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_SQLITE_API_H_
