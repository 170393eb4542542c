#include "leveldb_api.h"

#include <exception>
#include <memory>

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "logger.h"

namespace db {

LeveldbAPI::LeveldbAPI(const std::string& path, const std::string& table)
    : path_(path), table_name_(table) {
  Connect(path_);
}

LeveldbAPI::~LeveldbAPI() { Disconnect(); }

// ---------------------------------------------------------------------------
// Connection

void LeveldbAPI::Connect(const std::string& path) {
  if (holds_use_) return;
  leveldb::DB* handle = LevelDbConnector::GetInstance().AcquireConnection(path);
  if (handle == nullptr) return;  // The connector logged the open failure.
  db_ = handle;
  holds_use_ = true;
  try {
    table_ = std::make_unique<LevelDbTable>(table_name_, path);
    index_ = std::make_unique<LevelDbIndex>(table_name_, path);
  } catch (...) {
    // A damaged schema record lets its conversion error out of the loading.
    // The use goes back first: otherwise no later release could close the
    // database, and its lock would stay taken for the life of the process.
    Disconnect();
    throw;
  }
}

bool LeveldbAPI::Disconnect() {
  // Only a use this object took is given back: releasing twice (DestroyTable,
  // then the destructor) would close the handle under the other users of
  // the path.
  if (!holds_use_) {
    db_ = nullptr;
    return true;
  }
  holds_use_ = false;
  const bool closed = LevelDbConnector::GetInstance().ReleaseConnection(path_);
  // With other users left the handle stays open and this object keeps it.
  if (closed) db_ = nullptr;
  return closed;
}

bool LeveldbAPI::IsConnected() const {
  // Whether the path is open for anyone, not whether this object holds it.
  const LevelDbConnector::Connection* entry = LevelDbConnector::GetInstance().Find(path_);
  return entry != nullptr && entry->count != 0;
}

leveldb::DB* LeveldbAPI::Handle() const {
  // A kept handle is used only while the connector still has it open: the
  // other users of the path may have closed it since.
  if (db_ == nullptr || LevelDbConnector::GetInstance().LookupConnection(path_) != db_) {
    return nullptr;
  }
  return db_;
}

int LeveldbAPI::DbReturnCodeTranslate(const leveldb::Status& status) {
  if (status.ok()) return kOk;
  if (status.IsNotFound()) return kNotFound;
  if (status.IsCorruption()) return kCorruption;
  return kFailure;
}

// ---------------------------------------------------------------------------
// Table level

bool LeveldbAPI::CheckTableExistence() const {
  if (table_ != nullptr && table_->is_created()) return true;
  DB_LOG_ERROR("ERROR: Table not created. Table='%s'", table_name_.c_str());
  return false;
}

bool LeveldbAPI::IsValidSchema(const ScalarFields& scalar, const CompositeFields& composite) const {
  return table_->IsValidSchema(scalar, composite);
}

ScalarFields LeveldbAPI::GetTableSchema() const {
  return table_ != nullptr ? table_->scalar_schema() : ScalarFields();
}

int LeveldbAPI::CreateTable(const ScalarFields& scalar_schema,
                            const CompositeFields& composite_schema) {
  Connect(path_);
  if (Handle() == nullptr) {
    DB_LOG_ERROR("ERROR: Db='%s' not connected", path_.c_str());
    return kFailure;
  }
  if (table_->is_created()) {
    DB_LOG_ERROR("ERROR: Table='%s' already exists", table_name_.c_str());
    return kFailure;
  }
  const leveldb::Status status = table_->CreateSchema(scalar_schema, composite_schema);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to create table='%s'. Put status='%s'", table_name_.c_str(),
                 status.ToString().c_str());
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::DestroyTable(const CompositeFields& composite_schema) {
  if (!CheckTableExistence()) return kFailure;
  const int r = ClearTable(composite_schema, nullptr);
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Failed to clear table='%s'.", table_name_.c_str());
    return r;
  }
  leveldb::DB* db = Handle();
  leveldb::Status status = leveldb::Status::IOError("Disconnected");
  if (db != nullptr) {
    leveldb::WriteBatch batch;
    table_->InsertDelSchemaOnBatch(batch);
    index_->InsertDelSchemaOnBatch(batch);
    status = db->Write(write_options_, &batch);
  }
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to destroy table='%s'. Status='%s'", table_name_.c_str(),
                 status.ToString().c_str());
  } else {
    table_->ClearSchema();
    index_->DestroyTable();
    Disconnect();
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::AddScalarField(const std::string& name, const Attribute& value) {
  if (!CheckTableExistence()) return kFailure;
  leveldb::DB* db = Handle();
  if (db == nullptr) {
    DB_LOG_ERROR("ERROR: Db='%s' not connected", path_.c_str());
    return kFailure;
  }
  ScalarFields schema = table_->scalar_schema();
  // Rewriting the records for a field they already hold would shift every
  // value after it.
  if (schema.count(name) != 0) {
    DB_LOG_ERROR("ERROR: Scalar attribute='%s' already exists, table='%s'", name.c_str(),
                 table_name_.c_str());
    return kFailure;
  }
  const AttributeType type = value.type();
  schema.emplace(name, Attribute(type));

  // Every stored record gets the new, empty, entry in the same batch that
  // changes the schema, so records and schema never disagree.
  leveldb::WriteBatch batch;
  const std::string prefix = table_name_ + LevelDbTable::kKeySeparator;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(read_options_));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
    const std::string key = it->key().ToString();
    uint32_t id = 0;
    if (!ParseRecordKey(key, table_name_, &id)) continue;
    std::string record = it->value().ToString();
    try {
      serializer_.AddScalarField(record, name, schema);
    } catch (const std::exception& e) {
      // Nothing is written: the table stays as it was. The conversion error
      // is the caller's to handle, as the encoding lets it pass.
      DB_LOG_ERROR("ERROR: Corrupt record, key='%s', value='%s', exception='%s'", key.c_str(),
                   record.c_str(), e.what());
      throw;
    }
    batch.Put(key, record);
  }
  const leveldb::Status iter_status = it->status();
  it.reset();
  if (!iter_status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to iterate over entries from table='%s'. Status='%s'",
                 table_name_.c_str(), iter_status.ToString().c_str());
    return DbReturnCodeTranslate(iter_status);
  }
  const leveldb::Status status = table_->AppendColumn(batch, name, type);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to add new scalar attribute='%s', table='%s'. Status='%s'",
                 name.c_str(), table_name_.c_str(), status.ToString().c_str());
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::AddCompositeField(const std::string& name,
                                  const std::pair<AttributeType, std::vector<Attribute>>& field) {
  const leveldb::Status status = table_ != nullptr ? table_->AppendComposite(name, field)
                                                   : leveldb::Status::IOError("Disconnected");
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to add new composite attribute='%s'. Status='%s'", name.c_str(),
                 status.ToString().c_str());
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::GetTableSize(int* size) const {
  if (size == nullptr) {
    DB_LOG_ERROR("ERROR: Invalid parameters");
    return kFailure;
  }
  *size = -1;
  if (!CheckTableExistence()) return kFailure;
  leveldb::DB* db = Handle();
  if (db == nullptr) {
    DB_LOG_ERROR("ERROR: Db='%s' not connected", path_.c_str());
    return kFailure;
  }
  // Every key with the prefix counts, as the debug commands always showed it.
  const std::string prefix = table_name_ + LevelDbTable::kKeySeparator;
  int32_t count = 0;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(read_options_));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) ++count;
  const leveldb::Status status = it->status();
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Failed to iterate over entries from table='%s'. Status='%s'",
                 table_name_.c_str(), status.ToString().c_str());
  }
  *size = count;
  return DbReturnCodeTranslate(status);
}

void LeveldbAPI::SetTableName(const std::string& name) {
  table_name_ = name;
  if (table_ != nullptr) table_->set_table_name(name);
  if (index_ != nullptr) {
    index_->DestroyTable();
    index_->LoadSchema(name);
  }
}

const std::string& LeveldbAPI::GetTableName() const { return table_name_; }

// ---------------------------------------------------------------------------
// Single records

int LeveldbAPI::CheckObjectExistence(leveldb::DB* db, const std::string& key) {
  if (db == nullptr) return kFailure;
  std::string value;
  return DbReturnCodeTranslate(db->Get(read_options_, key, &value));
}

int LeveldbAPI::RetrieveRecordScalar(const std::string& table, std::string& value,
                                     uint32_t id) const {
  leveldb::DB* db = Handle();
  const leveldb::Status status =
      db != nullptr ? db->Get(read_options_, Serializer::ScalarKey(table, id), &value)
                    : leveldb::Status::IOError("Disconnected");
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Get status='%s', table='%s', id=%d", status.ToString().c_str(),
                 table.c_str(), static_cast<int>(id));
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::RetrieveRecordComposite(const std::string& table, const std::string& field,
                                        uint32_t id, std::string& value) const {
  leveldb::DB* db = Handle();
  const leveldb::Status status =
      db != nullptr
          ? db->Get(read_options_, LevelDbTable::BuildCompositeKey(table, id, field), &value)
          : leveldb::Status::IOError("Disconnected");
  if (!status.ok()) {
    const std::string composite_table = field + LevelDbTable::kKeySeparator + table;
    DB_LOG_ERROR("ERROR: Get status='%s', composite_table='%s', id=%d", status.ToString().c_str(),
                 composite_table.c_str(), static_cast<int>(id));
  }
  return DbReturnCodeTranslate(status);
}

void LeveldbAPI::PutCompositeKeysOnBatch(leveldb::WriteBatch& batch, uint32_t id) const {
  for (const auto& field : table_->composite_schema()) {
    batch.Delete(LevelDbTable::BuildCompositeKey(table_name_, id, field.first));
  }
}

leveldb::Status LeveldbAPI::WriteRecord(leveldb::DB* db, const std::string& key,
                                        const ScalarFields& scalars,
                                        const CompositeFields& composites) {
  if (db == nullptr) return leveldb::Status::IOError("Disconnected");
  // One batch kept for every record: it keeps its memory from one write to
  // the next.
  batch_.Clear();
  serializer_.PutOnBatch(batch_, key, scalars, composites);
  return db->Write(write_options_, &batch_);
}

int LeveldbAPI::StoreRecord(uint32_t id, const ScalarFields& scalars,
                            const CompositeFields& composites) {
  // The handle and the key serve both the existence check and the write.
  leveldb::DB* db = Handle();
  const std::string key = Serializer::ScalarKey(table_name_, id);
  // A read error is not proof that the id is taken: the store goes on.
  if (CheckObjectExistence(db, key) == kOk) {
    DB_LOG_ERROR("ERROR: Record already exist, table='%s', id=%d", table_name_.c_str(),
                 static_cast<int>(id));
    return kFailure;
  }
  if (!CheckTableExistence() || !IsValidSchema(scalars, composites)) return kFailure;
  const leveldb::Status status = WriteRecord(db, key, scalars, composites);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Write status='%s', table='%s', id=%d", status.ToString().c_str(),
                 table_name_.c_str(), static_cast<int>(id));
  } else {
    index_->StoreRecord(scalars, id);
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::UpdateRecord(uint32_t id, const ScalarFields& scalars,
                             const CompositeFields& composites) {
  if (!CheckTableExistence() || !IsValidSchema(scalars, composites)) return kFailure;
  ScalarFields old_scalars = table_->scalar_schema();
  CompositeFields old_composites = table_->composite_schema();
  const int r = RetrieveRecord(id, &old_scalars, &old_composites);
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Failed to retrieve object, table='%s', id=%d", table_name_.c_str(),
                 static_cast<int>(id));
    return r;
  }
  // A repeated field given with an empty vector is neither written nor
  // deleted, so it keeps its stored elements: callers update the scalar part
  // alone by passing empty vectors. Intended.
  const leveldb::Status status =
      WriteRecord(Handle(), Serializer::ScalarKey(table_name_, id), scalars, composites);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Write status='%s', table='%s', id=%d", status.ToString().c_str(),
                 table_name_.c_str(), static_cast<int>(id));
  } else {
    index_->UpdateRecord(old_scalars, scalars, id);
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::DeleteRecord(uint32_t id, const std::vector<std::string>& /*names*/) {
  if (!CheckTableExistence()) return kFailure;
  leveldb::DB* db = Handle();
  leveldb::Status status = leveldb::Status::IOError("Disconnected");
  if (db != nullptr) {
    leveldb::WriteBatch batch;
    batch.Delete(Serializer::ScalarKey(table_name_, id));
    PutCompositeKeysOnBatch(batch, id);
    status = db->Write(write_options_, &batch);
  }
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Delete ='%s', table='%s', id=%d", status.ToString().c_str(),
                 table_name_.c_str(), static_cast<int>(id));
  } else {
    const std::vector<uint32_t> ids{id};
    index_->DeleteIndexIds(&ids);
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::RetrieveRecord(uint32_t id, ScalarFields* scalars,
                               CompositeFields* composites) const {
  if (!CheckTableExistence()) return kFailure;
  if (scalars == nullptr || composites == nullptr) {
    DB_LOG_ERROR("ERROR: Invalid parameters");
    return kFailure;
  }
  if (!IsValidSchema(*scalars, *composites)) return kFailure;
  std::string value;
  const int r = RetrieveRecordScalar(table_name_, value, id);
  if (r != kOk) return r;
  serializer_.DeserializeScalar(value, *scalars);
  for (auto& entry : *composites) {
    // A repeated field stored with no elements has no key; the entry then
    // stays as the caller passed it.
    if (RetrieveRecordComposite(table_name_, entry.first, id, value) != kOk) continue;
    serializer_.DeserializeComposite(value, entry.second);
  }
  return kOk;
}

}  // namespace db
