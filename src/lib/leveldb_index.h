// LevelDbIndex: the in-memory secondary index of one LevelDB table.
//
// Only the list of indexed field names is persisted, under
// "schema:" T ":idx" (names joined by ",", no trailing comma). The entries map
// "field:value-text" to the ids holding that value and are rebuilt from the
// stored records whenever the index schema is loaded.
//
// The index never fails a record operation: maintenance only changes memory.
// Every operation that reads or writes the store looks the database up in
// LevelDbConnector on each call; without an open database it returns -2.

#ifndef DB_INTF_SRC_LIB_LEVELDB_INDEX_H_
#define DB_INTF_SRC_LIB_LEVELDB_INDEX_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/attribute.h"

namespace leveldb {
class DB;
class WriteBatch;
}  // namespace leveldb

namespace db {

// True when `key` is the scalar record key of `table` (table + ":" + decimal
// id that fits 32 bits); the id is stored in `*id`. Keys that merely share
// the prefix, such as the repeated-field keys of another table whose field is
// named like `table`, are not record keys.
bool ParseRecordKey(const std::string& key, const std::string& table, uint32_t* id);

class LevelDbIndex {
 public:
  using IndexEntries = std::map<std::string, std::set<uint32_t>>;
  using IdEntries = std::map<uint32_t, std::set<std::string>>;

  // Loads the persisted index schema and, if there is one, rebuilds the
  // entries from the table's records.
  LevelDbIndex(const std::string& table, const std::string& db_name);

  // Switches to the index of `table` and loads it. 0, or the failing code
  // (-4 when the table has no index, which is not logged); on failure the
  // table works without index.
  int LoadSchema(const std::string& table);
  // Reads the index schema record into `fields`.
  int RetrieveSchema(std::vector<std::string>& fields);
  // Parses a stored index schema: "," and blanks separate names; empty names
  // vanish.
  void RecoverIndexSchema(std::string text, std::vector<std::string>& fields);
  // Writes the index schema record and adopts `fields`; the entries are not
  // rebuilt (call LoadTable). `fields` must not be empty.
  int CreateIndex(const std::vector<std::string>& fields);
  // Merges `requested` into the current index schema. True when `result`
  // differs from what is indexed now. Until CreateIndex succeeded (also after
  // a load) the request replaces the list.
  bool IndexSchemaIntersection(const std::vector<std::string>& requested,
                               std::vector<std::string>& result);
  // Rebuilds the entries from every record of the table.
  int LoadTable();
  // Reads the table's scalar schema record into typed, unset attributes.
  // A corrupt type number throws.
  int GetScalarSchema(ScalarFields& schema);
  // Indexes the set fields of a stored record; the id is the text after the
  // last ":" of `key` (std::stoul; non-numeric text throws).
  void LoadRecord(const std::string& key, const ScalarFields& fields);
  // Indexes every indexed field present in `fields`, set or not.
  void StoreRecord(const ScalarFields& fields, uint32_t id);
  // Moves `id` to the new entry of every indexed field whose value changed.
  void UpdateRecord(const ScalarFields& old_fields, const ScalarFields& new_fields, uint32_t id);
  // Forgets every entry of the given ids; entries left without ids go.
  void DeleteIndexIds(const std::vector<uint32_t>* ids);
  // Narrows `ids` by the indexed part of `filter` and removes that part (and
  // every unset attribute) from `filter`. A value of an indexed field that no
  // record holds empties `ids`. `ids` is left as passed when no filter field
  // is found in the index.
  void FilterIds(std::set<uint32_t>& ids, ScalarFields& filter) const;
  // Adds the deletion of the index schema record to `batch`; writes nothing.
  void InsertDelSchemaOnBatch(leveldb::WriteBatch& batch);
  // Forgets the whole index in memory; the database is not touched.
  void DestroyTable();

  const std::vector<std::string>& index_schema() const { return index_schema_; }
  const IndexEntries& index_entries() const { return index_entries_; }
  const IdEntries& id_entries() const { return id_entries_; }
  bool is_created() const { return created_; }
  const std::string& index_schema_key() const { return index_schema_key_; }

 private:
  // The open database of db_name_, or null.
  leveldb::DB* Database() const;
  void AddEntry(const std::string& entry, uint32_t id);
  void RemoveEntry(const std::string& entry, uint32_t id);

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
