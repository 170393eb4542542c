// LevelDbIndex: the in-memory secondary index of one LevelDB table.
//
// Only the list of indexed field names is persisted, under
// "schema:" T ":idx" (names joined by ",", no trailing comma). The entries map
// "field:value-text" to the ids holding that value and are rebuilt from the
// stored records whenever the index schema is loaded.

#ifndef DB_INTF_SRC_LIB_LEVELDB_INDEX_H_
#define DB_INTF_SRC_LIB_LEVELDB_INDEX_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/attribute.h"

namespace leveldb {
class WriteBatch;
}

namespace db {

class LevelDbIndex {
 public:
  using IndexEntries = std::map<std::string, std::set<unsigned>>;
  using IdEntries = std::map<unsigned, std::set<std::string>>;

  LevelDbIndex(const std::string& table, const std::string& db_name);

  int LoadSchema(const std::string& table);
  int RetrieveSchema(std::vector<std::string>& fields);
  void RecoverIndexSchema(std::string text, std::vector<std::string>& fields);
  int CreateIndex(const std::vector<std::string>& fields);
  bool IndexSchemaIntersection(const std::vector<std::string>& requested,
                               std::vector<std::string>& result);
  int LoadTable();
  int GetScalarSchema(ScalarFields& schema);
  void LoadRecord(const std::string& key, const ScalarFields& fields);
  void StoreRecord(const ScalarFields& fields, unsigned id);
  void UpdateRecord(const ScalarFields& old_fields, const ScalarFields& new_fields, unsigned id);
  void DeleteIndexIds(const std::vector<unsigned>* ids);
  // Narrows `ids` by the indexed part of `filter` and removes that part (and
  // every unset attribute) from `filter`.
  void FilterIds(std::set<unsigned>& ids, ScalarFields& filter);
  void InsertDelSchemaOnBatch(leveldb::WriteBatch& batch);
  void DestroyTable();

  const std::vector<std::string>& index_schema() const { return index_schema_; }
  const IndexEntries& index_entries() const { return index_entries_; }
  const IdEntries& id_entries() const { return id_entries_; }
  bool is_created() const { return created_; }

 private:
  std::string table_name_;
  std::string db_name_;
  std::string index_schema_key_;
  bool created_ = false;
  std::vector<std::string> index_schema_;
  IndexEntries index_entries_;
  IdEntries id_entries_;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_LEVELDB_INDEX_H_
