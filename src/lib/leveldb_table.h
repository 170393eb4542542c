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

#include <string>
#include <utility>
#include <vector>

#include <leveldb/options.h>
#include <leveldb/status.h>

#include "db/attribute.h"

namespace leveldb {
class WriteBatch;
}

namespace db {

class LevelDbTable {
 public:
  static const std::string kSchemaPrefix;     // "schema:"
  static const std::string kRepeatedPrefix;   // "repeated"
  static const std::string kKeySeparator;     // ":"

  // Loads the persisted schema; never fails (a missing schema leaves the table
  // not created).
  LevelDbTable(const std::string& table_name, const std::string& db_name);

  void LoadSchema();
  leveldb::Status CreateSchema(const ScalarFields& scalar, const CompositeFields& composite);
  leveldb::Status RetrieveScalarSchema();
  leveldb::Status RetrieveCompositeSchema();
  // Adds one scalar field; commits `batch` together with the new schema record.
  leveldb::Status AppendColumn(leveldb::WriteBatch& batch, const std::string& name,
                               AttributeType type);
  leveldb::Status AppendComposite(const std::string& name,
                                  std::pair<AttributeType, std::vector<Attribute>> field);
  std::string AppendSchema(const std::string& name, AttributeType type) const;
  std::string BuildSchemaKey(const std::string& table) const;
  std::string BuildCompositeSchemaKey() const;
  static std::string BuildCompositeKey(const std::string& table, unsigned id,
                                       const std::string& field);
  static std::string ScalarSchemaAsString(const ScalarFields& fields);
  static std::string CompositeSchemaAsString(const CompositeFields& fields);
  std::string GetTableSchemaString() const;
  std::string GetTableCompositeSchemaString() const;
  bool IsValidScalarSchema(const ScalarFields& fields) const;
  bool IsValidCompositeSchema(const CompositeFields& fields) const;
  bool IsValidSchema(const ScalarFields& scalar, const CompositeFields& composite) const;
  bool OutOfSchema(std::vector<std::string> names) const;
  void InsertDelSchemaOnBatch(leveldb::WriteBatch& batch);
  void ClearSchema();

  bool is_created() const { return created_; }
  const ScalarFields& scalar_schema() const { return scalar_schema_; }
  const CompositeFields& composite_schema() const { return composite_schema_; }
  const std::string& table_name() const { return table_name_; }
  void set_table_name(const std::string& name) { table_name_ = name; }
  const std::string& scalar_schema_key() const { return scalar_schema_key_; }
  const std::string& composite_schema_key() const { return composite_schema_key_; }

 private:
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
