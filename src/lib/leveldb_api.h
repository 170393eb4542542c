// LeveldbAPI: the LevelDB backend for one table of one database path.
//
// Keys: the scalar record of id N is T ":" N, each repeated field F of it is
// F ":" T ":" N (ids in unsigned decimal, so key order is not numeric order).
// A record and its repeated fields are written in one WriteBatch; the
// in-memory index is updated after the write.

#ifndef DB_INTF_SRC_LIB_LEVELDB_API_H_
#define DB_INTF_SRC_LIB_LEVELDB_API_H_

#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <leveldb/options.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>

#include "db/attribute.h"
#include "db/database_api.h"
#include "leveldb_index.h"
#include "leveldb_table.h"
#include "serializer.h"

namespace leveldb {
class DB;
}  // namespace leveldb

namespace db {

class LeveldbAPI : public DatabaseAPI {
 public:
  LeveldbAPI(const std::string& path, const std::string& table);
  ~LeveldbAPI() override;

  int CreateTable(const ScalarFields& scalar_schema,
                  const CompositeFields& composite_schema) override;
  int AddTableIndex(const std::string& name, const std::vector<std::string>& fields) override;
  int AddScalarField(const std::string& name, const Attribute& value) override;
  int AddCompositeField(const std::string& name,
                        const std::pair<AttributeType, std::vector<Attribute>>& field) override;
  int DestroyTable(const CompositeFields& composite_schema) override;
  int StoreRecord(uint32_t id, const ScalarFields& scalars,
                  const CompositeFields& composites) override;
  // `names` is accepted and not used: every repeated field of the schema goes.
  int DeleteRecord(uint32_t id, const std::vector<std::string>& names) override;
  int DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                    const CompositeFields& composite_filter) override;
  int UpdateRecord(uint32_t id, const ScalarFields& scalars,
                   const CompositeFields& composites) override;
  int RetrieveRecord(uint32_t id, ScalarFields* scalars,
                     CompositeFields* composites) const override;
  int RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                      const CompositeFields& composite_filter) const override;
  int GetTableSize(int* size) const override;
  // Not supported by this backend: always -2.
  int PrintDatabase(const CompositeFields& composite_schema,
                    DatabasePrinter printer) const override;
  // True when the path's entry exists in the connector with a non-zero count.
  bool IsConnected() const override;
  int ClearTable(const CompositeFields& composite_schema, std::vector<uint32_t>* ids) override;
  void SetTableName(const std::string& name) override;
  const std::string& GetTableName() const override;

  // Takes one use of the shared handle of `path` and builds a new LevelDbTable
  // and LevelDbIndex, which load the persisted schema and index. Does nothing
  // while this object holds a use; stays unconnected when the open fails.
  void Connect(const std::string& path);
  // Gives this object's use back. True when the handle was closed now or there
  // was nothing to release; false when other users keep it open (this object
  // then keeps the handle).
  bool Disconnect();
  // ok 0, NotFound -4, Corruption -7, any other status -1.
  static int DbReturnCodeTranslate(const leveldb::Status& status);

  // The schema and index objects; null until a connection was first made.
  const LevelDbTable* table() const { return table_.get(); }
  const LevelDbIndex* index() const { return index_.get(); }

 private:
  // The held handle while the connector still has it open, else null.
  leveldb::DB* Handle() const;
  bool CheckTableExistence() const;
  // 0 when the record under `key` (its ScalarKey) exists, -4 when not,
  // another code on a read error or without handle.
  int CheckObjectExistence(leveldb::DB* db, const std::string& key);
  int RetrieveRecordScalar(const std::string& table, std::string& value, uint32_t id) const;
  int RetrieveRecordComposite(const std::string& table, const std::string& field, uint32_t id,
                              std::string& value) const;
  void PutCompositeKeysOnBatch(leveldb::WriteBatch& batch, uint32_t id) const;
  // Writes the given fields of the record under `key` (its ScalarKey) in one
  // batch; IOError "Disconnected" without handle.
  leveldb::Status WriteRecord(leveldb::DB* db, const std::string& key, const ScalarFields& scalars,
                              const CompositeFields& composites);
  bool IsValidSchema(const ScalarFields& scalar, const CompositeFields& composite) const;
  ScalarFields GetTableSchema() const;
  int RetrieveAllIds(std::list<uint32_t>& ids, const std::string& table) const;
  int RetrieveIds(std::list<uint32_t>& ids, const std::string& table, ScalarFields& filter) const;
  int RetrieveIdsFromIndex(std::list<uint32_t>& ids, const std::string& table,
                           ScalarFields& filter) const;
  int RetrieveIdsFromDatabase(std::list<uint32_t>& ids, const std::string& table,
                              ScalarFields& filter) const;
  int FilterIdsOnDatabase(const std::string& table, const ScalarFields& filter,
                          std::set<uint32_t>& ids) const;
  int RetrieveCompositeIds(std::list<uint32_t>& ids, const std::string& table,
                           const CompositeFields& filter) const;
  bool IsValidSchemaForRetrieveRecords(const ScalarFields& filter) const;
  void CompleteScalarSchema(ScalarFields& filter) const;

  std::unique_ptr<LevelDbTable> table_;
  std::unique_ptr<LevelDbIndex> index_;
  Serializer serializer_;
  std::string path_;
  leveldb::DB* db_ = nullptr;
  // True while this object counts as one user of the connector's handle.
  bool holds_use_ = false;
  std::string table_name_;
  leveldb::ReadOptions read_options_;
  leveldb::WriteOptions write_options_;
  // The batch of WriteRecord, cleared before each use.
  leveldb::WriteBatch batch_;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_LEVELDB_API_H_
