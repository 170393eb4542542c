#include "leveldb_table.h"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "logger.h"

namespace db {

char LevelDbTable::kSchemaPrefix[8] = "schema:";
const std::string LevelDbTable::kCompositePrefix = "repeated";
const std::string LevelDbTable::kRepeatedPrefix = LevelDbTable::kCompositePrefix;
const std::string LevelDbTable::kKeySeparator = ":";

namespace {

const char kDisconnected[] = "Disconnected";

std::string SchemaEntry(const std::string& name, AttributeType type) {
  return name + LevelDbTable::kKeySeparator + std::to_string(static_cast<int32_t>(type));
}

// Splits a schema record "name:type,name:type," into its entries. The type
// text goes through std::stoi, whose exception on a corrupt number is let
// through: a damaged schema must not pass for a valid one.
template <class Insert>
void ParseSchemaRecord(const std::string& text, Insert insert) {
  std::istringstream in(text);
  std::string name;
  std::string type;
  while (std::getline(in, name, ':') && std::getline(in, type, ',')) {
    insert(name, static_cast<AttributeType>(std::stoi(type, nullptr, 10)));
  }
}

}  // namespace

LevelDbTable::LevelDbTable(const std::string& table_name, const std::string& db_name)
    : table_name_(table_name),
      scalar_schema_key_(BuildSchemaKey(table_name)),
      composite_schema_key_(BuildCompositeSchemaKey()),
      db_name_(db_name) {
  write_options_.sync = false;
  read_options_.verify_checksums = false;
  read_options_.fill_cache = true;
  read_options_.snapshot = nullptr;
  LoadSchema();
}

leveldb::DB* LevelDbTable::Database() const {
  return LevelDbConnector::GetInstance().LookupConnection(db_name_);
}

leveldb::Status LevelDbTable::ReadRecord(const std::string& key, std::string* value) const {
  leveldb::DB* db = Database();
  if (db == nullptr) return leveldb::Status::IOError(kDisconnected);
  return db->Get(read_options_, key, value);
}

void LevelDbTable::LoadSchema() {
  // Both records are read so that whatever they hold is in memory. A missing
  // composite record still counts as created while a missing scalar record
  // never does; this asymmetry is intended and relied upon.
  const leveldb::Status scalar = RetrieveScalarSchema();
  const leveldb::Status composite = RetrieveCompositeSchema();
  if (scalar.ok() && (composite.ok() || composite.IsNotFound())) created_ = true;
}

leveldb::Status LevelDbTable::RetrieveScalarSchema() {
  std::string value;
  leveldb::Status status = ReadRecord(scalar_schema_key_, &value);
  if (!status.ok()) return status;
  ParseSchemaRecord(value, [this](const std::string& name, AttributeType type) {
    scalar_schema_.emplace(name, Attribute(type));
  });
  return leveldb::Status::OK();
}

leveldb::Status LevelDbTable::RetrieveCompositeSchema() {
  std::string value;
  leveldb::Status status = ReadRecord(BuildCompositeSchemaKey(), &value);
  if (!status.ok()) return status;
  ParseSchemaRecord(value, [this](const std::string& name, AttributeType type) {
    composite_schema_.emplace(name, std::make_pair(type, std::vector<Attribute>()));
  });
  return leveldb::Status::OK();
}

leveldb::Status LevelDbTable::CreateSchema(const ScalarFields& scalar,
                                           const CompositeFields& composite) {
  leveldb::DB* db = Database();
  if (db == nullptr) return leveldb::Status::IOError(kDisconnected);
  leveldb::WriteBatch batch;
  batch.Put(scalar_schema_key_, ScalarSchemaAsString(scalar));
  // Only the kinds are kept in memory, never the given values.
  for (const auto& [name, attr] : scalar) scalar_schema_.emplace(name, Attribute(attr.type()));
  for (const auto& [name, field] : composite) {
    composite_schema_.emplace(name, std::make_pair(field.first, std::vector<Attribute>()));
  }
  // Written even when empty: its presence is what marks a complete table.
  batch.Put(BuildCompositeSchemaKey(), CompositeSchemaAsString(composite));
  leveldb::Status status = db->Write(leveldb::WriteOptions(), &batch);
  if (!status.ok()) {
    scalar_schema_.clear();
    composite_schema_.clear();
    return status;
  }
  created_ = true;
  return status;
}

leveldb::Status LevelDbTable::AppendColumn(leveldb::WriteBatch& batch, const std::string& name,
                                           AttributeType type) {
  leveldb::DB* db = Database();
  if (db == nullptr) return leveldb::Status::IOError(kDisconnected);
  scalar_schema_.emplace(name, Attribute(type));
  batch.Put(scalar_schema_key_, ScalarSchemaAsString(scalar_schema_));
  // The caller's rewritten records and the new schema commit in one write.
  leveldb::Status status = db->Write(write_options_, &batch);
  if (!status.ok()) {
    scalar_schema_.erase(name);
    return status;
  }
  return leveldb::Status::OK();
}

leveldb::Status LevelDbTable::AppendComposite(
    const std::string& name, std::pair<AttributeType, std::vector<Attribute>> field) {
  leveldb::DB* db = Database();
  if (db == nullptr) return leveldb::Status::IOError(kDisconnected);
  composite_schema_.emplace(name, std::move(field));
  const std::string text = CompositeSchemaAsString(composite_schema_);
  leveldb::Status status = db->Put(write_options_, BuildCompositeSchemaKey(), text);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Put composite_schema status='%s', Composite Schema='%s'",
                 status.ToString().c_str(), text.c_str());
    composite_schema_.erase(name);
    return status;
  }
  return leveldb::Status::OK();
}

std::string LevelDbTable::AppendSchema(const std::string& name, AttributeType type) const {
  return SchemaEntry(name, type);
}

std::string LevelDbTable::BuildSchemaKey(const std::string& table) const {
  return kSchemaPrefix + table;
}

std::string LevelDbTable::BuildCompositeSchemaKey() const {
  return kSchemaPrefix + kCompositePrefix + kKeySeparator + table_name_;
}

std::string LevelDbTable::BuildCompositeKey(const std::string& table, uint32_t id,
                                            const std::string& field) {
  return field + kKeySeparator + table + kKeySeparator + std::to_string(id);
}

std::string LevelDbTable::ScalarSchemaAsString(const ScalarFields& fields) {
  std::string text;
  for (const auto& [name, attr] : fields) {
    text += SchemaEntry(name, attr.type());
    text += ',';
  }
  return text;
}

std::string LevelDbTable::CompositeSchemaAsString(const CompositeFields& fields) {
  std::string text;
  for (const auto& [name, field] : fields) {
    text += SchemaEntry(name, field.first);
    text += ',';
  }
  return text;
}

std::string LevelDbTable::GetTableSchemaString() const {
  // For display only: any failure simply shows as an empty schema.
  std::string value;
  ReadRecord(scalar_schema_key_, &value);
  return value;
}

std::string LevelDbTable::GetTableCompositeSchemaString() const {
  std::string value;
  ReadRecord(composite_schema_key_, &value);
  return value;
}

bool LevelDbTable::IsValidScalarSchema(const ScalarFields& fields) const {
  bool valid = fields.size() == scalar_schema_.size();
  for (auto f = fields.begin(), s = scalar_schema_.begin(); valid && f != fields.end(); ++f, ++s) {
    valid = f->first == s->first;
  }
  if (!valid) DB_LOG_ERROR("ERROR: Invalid scalar schema, table='%s'", table_name_.c_str());
  return valid;
}

bool LevelDbTable::IsValidCompositeSchema(const CompositeFields& fields) const {
  if (fields.empty()) return true;
  bool valid = fields.size() <= composite_schema_.size();
  auto s = composite_schema_.begin();
  for (auto f = fields.begin(); valid && f != fields.end(); ++f) {
    while (s != composite_schema_.end() && s->first < f->first) ++s;
    valid =
        s != composite_schema_.end() && s->first == f->first && s->second.first == f->second.first;
  }
  if (!valid) DB_LOG_ERROR("ERROR: Invalid composite schema, table='%s'", table_name_.c_str());
  return valid;
}

bool LevelDbTable::IsValidSchema(const ScalarFields& scalar,
                                 const CompositeFields& composite) const {
  return IsValidScalarSchema(scalar) && IsValidCompositeSchema(composite);
}

bool LevelDbTable::OutOfSchema(std::vector<std::string> names) const {
  for (const std::string& name : names) {
    if (scalar_schema_.find(name) == scalar_schema_.end()) return true;
  }
  return false;
}

void LevelDbTable::InsertDelSchemaOnBatch(leveldb::WriteBatch& batch) {
  batch.Delete(scalar_schema_key_);
  batch.Delete(BuildCompositeSchemaKey());
}

void LevelDbTable::ClearSchema() {
  scalar_schema_.clear();
  composite_schema_.clear();
  created_ = false;
}

}  // namespace db
