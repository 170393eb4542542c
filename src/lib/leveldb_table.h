// LevelDbTable: the schema records of one LevelDB table.
//
// Keys in the table's database:
//   "schema:" T              scalar schema record
//   "schema:repeated:" T     composite schema record
//   F ":" T ":" id           one repeated field of one record
// Schema record value: "name:type," per field in ascending name order, the
// trailing comma included; an empty map is the empty value (still written).
// Field names are not escaped: a name holding ":" or "," cannot be read back.

#ifndef DB_INTF_SRC_LIB_LEVELDB_TABLE_H_
#define DB_INTF_SRC_LIB_LEVELDB_TABLE_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <leveldb/options.h>
#include <leveldb/status.h>

#include "db/attribute.h"

namespace leveldb {
class DB;
class WriteBatch;
}  // namespace leveldb

namespace db {

class LevelDbTable {
 public:
  // "schema:". A plain writable array of eight bytes (terminating zero
  // included) so that the data symbol keeps its layout; never written to.
  static char kSchemaPrefix[8];
  static const std::string kCompositePrefix;  // "repeated"
  static const std::string kRepeatedPrefix;   // "repeated", same as kCompositePrefix
  static const std::string kKeySeparator;     // ":"

  // Loads the persisted schema; never fails (a missing schema leaves the table
  // not created).
  LevelDbTable(const std::string& table_name, const std::string& db_name);

  // Every operation that touches the store looks the database up in
  // LevelDbConnector on each call; without an open database it returns
  // IOError "Disconnected" and changes nothing.

  // Reads both schema records into memory. Created when the scalar record
  // exists and the composite record exists or is merely missing; fields read
  // from either record stay in memory even when the table is not created.
  // A corrupt type number throws std::invalid_argument / std::out_of_range.
  void LoadSchema();
  // Writes both schema records (the composite one even when empty) in one
  // batch and adds the fields to memory; on failure both maps are emptied.
  leveldb::Status CreateSchema(const ScalarFields& scalar, const CompositeFields& composite);
  // Read one schema record and add its fields (existing names are kept).
  // A failed read returns its status; a bad type number throws.
  leveldb::Status RetrieveScalarSchema();
  leveldb::Status RetrieveCompositeSchema();
  // Adds one scalar field; commits `batch` together with the new schema record.
  // On failure the name is erased from memory.
  leveldb::Status AppendColumn(leveldb::WriteBatch& batch, const std::string& name,
                               AttributeType type);
  // Adds one composite field and rewrites the composite schema record; on
  // failure logs and erases the name from memory.
  leveldb::Status AppendComposite(const std::string& name,
                                  std::pair<AttributeType, std::vector<Attribute>> field);
  // name + ":" + type in signed decimal.
  std::string AppendSchema(const std::string& name, AttributeType type) const;
  // "schema:" + table.
  std::string BuildSchemaKey(const std::string& table) const;
  // "schema:repeated:" + the current table name.
  std::string BuildCompositeSchemaKey() const;
  // field + ":" + table + ":" + id in unsigned decimal (note the argument order).
  static std::string BuildCompositeKey(const std::string& table, uint32_t id,
                                       const std::string& field);
  // "name:type," per field in name order; "" for an empty map.
  static std::string ScalarSchemaAsString(const ScalarFields& fields);
  static std::string CompositeSchemaAsString(const CompositeFields& fields);
  // The stored record under the key member; "" when missing, unreadable or
  // disconnected.
  std::string GetTableSchemaString() const;
  std::string GetTableCompositeSchemaString() const;
  // Same names in the same order as the scalar schema; types not compared.
  bool IsValidScalarSchema(const ScalarFields& fields) const;
  // Empty, or a subset of the composite schema with equal types.
  bool IsValidCompositeSchema(const CompositeFields& fields) const;
  // The scalar check, then the composite check.
  bool IsValidSchema(const ScalarFields& scalar, const CompositeFields& composite) const;
  // True when some name is not a scalar field.
  bool OutOfSchema(std::vector<std::string> names) const;
  // Adds the deletion of both schema records to `batch`; writes nothing.
  void InsertDelSchemaOnBatch(leveldb::WriteBatch& batch);
  // Forgets the schema in memory; the database is not touched.
  void ClearSchema();

  bool is_created() const { return created_; }
  const ScalarFields& scalar_schema() const { return scalar_schema_; }
  const CompositeFields& composite_schema() const { return composite_schema_; }
  const std::string& table_name() const { return table_name_; }
  void set_table_name(const std::string& name) { table_name_ = name; }
  const std::string& scalar_schema_key() const { return scalar_schema_key_; }
  const std::string& composite_schema_key() const { return composite_schema_key_; }

 private:
  // The open database of db_name_, or null.
  leveldb::DB* Database() const;
  leveldb::Status ReadRecord(const std::string& key, std::string* value) const;

  std::string table_name_;
  // Both keys are fixed at construction: after set_table_name the scalar schema
  // stays under the key of the first name.
  std::string scalar_schema_key_;
  std::string composite_schema_key_;
  std::string db_name_;
  bool created_ = false;
  ScalarFields scalar_schema_;
  CompositeFields composite_schema_;
  leveldb::WriteOptions write_options_;
  leveldb::ReadOptions read_options_;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_LEVELDB_TABLE_H_
