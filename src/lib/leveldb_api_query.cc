// LeveldbAPI: queries over many records, deletions by filter, clearing the
// table and declaring the secondary index.

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include "leveldb_api.h"
#include "logger.h"

namespace db {

namespace {

// Built on each use: a Status object of static lifetime would be freed at
// exit while objects held in statics may still need it.
leveldb::Status Disconnected() { return leveldb::Status::IOError("Disconnected"); }

}  // namespace

int LeveldbAPI::RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                                const CompositeFields& composite_filter) const {
  if (ids == nullptr) {
    DB_LOG_ERROR("ERROR: Invalid parameters");
    return kFailure;
  }
  ids->clear();
  if (!CheckTableExistence()) return kFailure;

  // Unset elements impose nothing; a repeated field left without elements is
  // no condition at all, as on SQLite.
  const CompositeFields wanted = SetElementsOf(composite_filter);
  std::list<uint32_t> found;
  if (scalar_filter.empty() && wanted.empty()) {
    const int r = RetrieveAllIds(found, table_name_);
    if (r != kOk) {
      DB_LOG_ERROR("ERROR: Failed to retrieve database ids, table='%s'", table_name_.c_str());
      return r;
    }
  } else if (scalar_filter.empty()) {
    // A query on repeated fields alone is not supported: refused with -1 and
    // no message. Deliberate.
    return kFailure;
  } else {
    if (!IsValidSchemaForRetrieveRecords(scalar_filter)) return kFailure;
    // A composite filter that does not fit the schema matches no record: the
    // answer is an empty result and success, not an error. Intended.
    if (!table_->IsValidCompositeSchema(wanted)) return kOk;
    ScalarFields filter = scalar_filter;
    CompleteScalarSchema(filter);
    int r = RetrieveIds(found, table_name_, filter);
    if (r == kOk && !wanted.empty()) r = RetrieveCompositeIds(found, table_name_, wanted);
    if (r != kOk) {
      DB_LOG_ERROR("ERROR: Failed to retrieve database ids, table='%s'", table_name_.c_str());
      return r;
    }
  }
  // Keys sort as text ("T:10" before "T:9"); callers get numeric order.
  found.sort();
  ids->insert(ids->end(), found.begin(), found.end());
  return kOk;
}

int LeveldbAPI::RetrieveAllIds(std::list<uint32_t>& ids, const std::string& table) const {
  leveldb::DB* db = Handle();
  if (db == nullptr) {
    DB_LOG_ERROR("ERROR: status='%s', table='%s'", Disconnected().ToString().c_str(),
                 table.c_str());
    return DbReturnCodeTranslate(Disconnected());
  }
  const std::string prefix = table + LevelDbTable::kKeySeparator;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(read_options_));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
    uint32_t id = 0;
    if (ParseRecordKey(it->key().ToString(), table, &id)) ids.push_back(id);
  }
  const leveldb::Status status = it->status();
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: status='%s', table='%s'", status.ToString().c_str(), table.c_str());
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::RetrieveIds(std::list<uint32_t>& ids, const std::string& table,
                            ScalarFields& filter) const {
  for (const auto& name : index_->index_schema()) {
    const auto field = filter.find(name);
    if (field != filter.end() && field->second.is_set()) {
      return RetrieveIdsFromIndex(ids, table, filter);
    }
  }
  return RetrieveIdsFromDatabase(ids, table, filter);
}

int LeveldbAPI::RetrieveIdsFromDatabase(std::list<uint32_t>& ids, const std::string& table,
                                        ScalarFields& filter) const {
  leveldb::DB* db = Handle();
  if (db == nullptr) {
    DB_LOG_ERROR("ERROR: status='%s', table='%s'", Disconnected().ToString().c_str(),
                 table.c_str());
    return DbReturnCodeTranslate(Disconnected());
  }
  const std::string prefix = table + LevelDbTable::kKeySeparator;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(read_options_));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
    const std::string key = it->key().ToString();
    uint32_t id = 0;
    if (!ParseRecordKey(key, table, &id)) continue;
    const std::string value = it->value().ToString();
    try {
      if (serializer_.ScalarIsPresent(filter, value)) ids.push_back(id);
    } catch (const std::exception& e) {
      // Logged here; the conversion error of a damaged value is the caller's.
      DB_LOG_ERROR("ERROR: Corrupt record, key='%s', value='%s', exception='%s'", key.c_str(),
                   value.c_str(), e.what());
      throw;
    }
  }
  const leveldb::Status status = it->status();
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: status='%s', table='%s'", status.ToString().c_str(), table.c_str());
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::RetrieveIdsFromIndex(std::list<uint32_t>& ids, const std::string& table,
                                     ScalarFields& filter) const {
  const ScalarFields whole_filter = filter;
  std::set<uint32_t> candidates;
  index_->FilterIds(candidates, filter);
  // What FilterIds left in the filter are set fields the index could not
  // answer; the candidates are checked against the stored records for them.
  if (!candidates.empty() && !filter.empty()) {
    const int r = FilterIdsOnDatabase(table, whole_filter, candidates);
    if (r != kOk) {
      DB_LOG_ERROR("ERROR: Could not filter from ids database, table='%s'", table.c_str());
      return r;
    }
  }
  ids.assign(candidates.begin(), candidates.end());
  return kOk;
}

int LeveldbAPI::FilterIdsOnDatabase(const std::string& table, const ScalarFields& filter,
                                    std::set<uint32_t>& ids) const {
  leveldb::DB* db = Handle();
  for (auto id = ids.begin(); id != ids.end();) {
    std::string value;
    const leveldb::Status status =
        db != nullptr ? db->Get(read_options_, Serializer::ScalarKey(table, *id), &value)
                      : Disconnected();
    if (!status.ok()) {
      DB_LOG_ERROR("ERROR: Status='%s', table='%s'", status.ToString().c_str(), table.c_str());
      return DbReturnCodeTranslate(status);
    }
    bool present = false;
    try {
      present = serializer_.ScalarIsPresent(filter, value);
    } catch (const std::exception& e) {
      DB_LOG_ERROR("ERROR: Corrupt record, key='%s', value='%s', exception='%s'",
                   Serializer::ScalarKey(table, *id).c_str(), value.c_str(), e.what());
      throw;
    }
    id = present ? std::next(id) : ids.erase(id);
  }
  return kOk;
}

int LeveldbAPI::RetrieveCompositeIds(std::list<uint32_t>& ids, const std::string& table,
                                     const CompositeFields& filter) const {
  for (auto id = ids.begin(); id != ids.end();) {
    bool keep = true;
    for (const auto& field : filter) {
      std::string value;
      // A record stored without elements for the field has no key: no match.
      if (RetrieveRecordComposite(table, field.first, *id, value) != kOk) {
        keep = false;
        break;
      }
      try {
        keep = serializer_.AtLeastOneIsEqual(field.second, value);
      } catch (const std::exception& e) {
        const std::string key = LevelDbTable::BuildCompositeKey(table, *id, field.first);
        DB_LOG_ERROR("ERROR: Corrupt record, key='%s', value='%s', exception='%s'", key.c_str(),
                     value.c_str(), e.what());
        throw;
      }
      if (!keep) break;
    }
    id = keep ? std::next(id) : ids.erase(id);
  }
  return kOk;
}

bool LeveldbAPI::IsValidSchemaForRetrieveRecords(const ScalarFields& filter) const {
  const ScalarFields& schema = table_->scalar_schema();
  for (const auto& field : filter) {
    if (schema.count(field.first) == 0) {
      DB_LOG_ERROR("ERROR: Invalid scalar field='%s', table='%s'", field.first.c_str(),
                   table_name_.c_str());
      return false;
    }
  }
  return true;
}

void LeveldbAPI::CompleteScalarSchema(ScalarFields& filter) const {
  // Stored values are decoded by position in the schema, so the filter must
  // name every field; the added ones are unset and match anything.
  const ScalarFields& schema = table_->scalar_schema();
  if (filter.size() >= schema.size()) return;
  for (const auto& field : schema) filter.emplace(field.first, Attribute(field.second.type()));
}

bool LeveldbAPI::CompareValue(const ScalarFields& record, const ScalarFields& filter) const {
  for (const auto& field : filter) {
    if (!field.second.is_set()) continue;
    const auto stored = record.find(field.first);
    if (stored == record.end() || stored->second != field.second) return false;
  }
  return true;
}

bool LeveldbAPI::CompositeIntersectionIsEmpty(const CompositeFields& a,
                                              const CompositeFields& b) const {
  for (const auto& field : b) {
    const auto other = a.find(field.first);
    if (other == a.end()) continue;
    for (const auto& element : field.second.second) {
      const auto& elements = other->second.second;
      if (std::find(elements.begin(), elements.end(), element) != elements.end()) return false;
    }
  }
  return true;
}

int LeveldbAPI::DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                              const CompositeFields& composite_filter) {
  const int r = RetrieveRecords(ids, scalar_filter, composite_filter);
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Failed to retrieve records, table='%s', scalar_attribute=%s",
                 table_name_.c_str(), ScalarFieldsMapToString(scalar_filter).c_str());
    return r;
  }
  leveldb::DB* db = Handle();
  leveldb::Status status = Disconnected();
  if (db != nullptr) {
    leveldb::WriteBatch batch;
    for (const uint32_t id : *ids) {
      batch.Delete(Serializer::ScalarKey(table_name_, id));
      PutCompositeKeysOnBatch(batch, id);
    }
    status = db->Write(write_options_, &batch);
  }
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Batch delete status='%s', table='%s'", status.ToString().c_str(),
                 table_name_.c_str());
    // Nothing was deleted: no id may go back to the allocator.
    ids->clear();
  } else {
    index_->DeleteIndexIds(ids);
  }
  return DbReturnCodeTranslate(status);
}

int LeveldbAPI::ClearTable(const CompositeFields& /*composite_schema*/,
                           std::vector<uint32_t>* ids) {
  if (ids != nullptr) ids->clear();
  if (!CheckTableExistence()) return kFailure;
  leveldb::DB* db = Handle();
  if (db == nullptr) {
    DB_LOG_ERROR("ERROR: Status='%s', table='%s'", Disconnected().ToString().c_str(),
                 table_name_.c_str());
    return DbReturnCodeTranslate(Disconnected());
  }
  leveldb::WriteBatch batch;
  std::vector<uint32_t> removed;
  const std::string prefix = table_name_ + LevelDbTable::kKeySeparator;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(read_options_));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
    const std::string key = it->key().ToString();
    // Only this table's records: a repeated-field key of another table whose
    // field is named like this table shares the prefix and must survive.
    uint32_t id = 0;
    if (!ParseRecordKey(key, table_name_, &id)) continue;
    batch.Delete(key);
    PutCompositeKeysOnBatch(batch, id);
    removed.push_back(id);
  }
  leveldb::Status status = it->status();
  it.reset();
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Status='%s', table='%s'", status.ToString().c_str(), table_name_.c_str());
    return DbReturnCodeTranslate(status);
  }
  status = db->Write(write_options_, &batch);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Write status='%s', table='%s'", status.ToString().c_str(),
                 table_name_.c_str());
    return DbReturnCodeTranslate(status);
  }
  // The removed records leave the index as well, so that queries through it
  // do not return them.
  index_->DeleteIndexIds(&removed);
  if (ids != nullptr) *ids = std::move(removed);
  return kOk;
}

int LeveldbAPI::AddTableIndex(const std::string& /*name*/, const std::vector<std::string>& fields) {
  if (fields.empty()) {
    DB_LOG_ERROR("ERROR: Invalid parameters");
    return kFailure;
  }
  if (!CheckTableExistence()) return kFailure;
  if (table_->OutOfSchema(fields)) {
    DB_LOG_ERROR("ERROR: Index field not in scalar schema, table='%s'", table_name_.c_str());
    return kFailure;
  }
  std::vector<std::string> merged;
  if (!index_->IndexSchemaIntersection(fields, merged)) return kOk;  // Already indexed.
  const int r = index_->CreateIndex(merged);
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Failed to create index, table='%s'", table_name_.c_str());
    return r;
  }
  return index_->LoadTable();
}

int LeveldbAPI::PrintDatabase(const CompositeFields& /*composite_schema*/,
                              DatabasePrinter /*printer*/) const {
  return kNotConnected;  // Not supported by this backend.
}

}  // namespace db
