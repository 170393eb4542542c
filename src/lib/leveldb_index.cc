#include "leveldb_index.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include "leveldb_api.h"
#include "leveldb_connector.h"
#include "leveldb_table.h"
#include "logger.h"
#include "serializer.h"

namespace db {

namespace {

constexpr char kIndexSuffix[] = ":idx";
constexpr char kEntrySeparator[] = ":";

// name + ":" + value.ToString(), built in one buffer.
std::string EntryText(const std::string& name, const Attribute& value) {
  std::string entry = name;
  entry += kEntrySeparator;
  Serializer::AppendValueText(entry, value);
  return entry;
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += name + ",";
  if (!text.empty()) text.pop_back();
  return text;
}

}  // namespace

bool ParseRecordKey(const std::string& key, const std::string& table, uint32_t* id) {
  const std::string prefix = table + LevelDbTable::kKeySeparator;
  // Ten digits hold every 32-bit id.
  constexpr size_t kMaxDigits = 10;
  if (key.size() <= prefix.size() || key.size() - prefix.size() > kMaxDigits) return false;
  if (key.compare(0, prefix.size(), prefix) != 0) return false;
  uint64_t value = 0;
  for (size_t i = prefix.size(); i < key.size(); ++i) {
    const char c = key[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > UINT32_MAX) return false;
  *id = static_cast<uint32_t>(value);
  return true;
}

LevelDbIndex::LevelDbIndex(const std::string& table, const std::string& db_name)
    : table_name_(table), db_name_(db_name) {
  LoadSchema(table);
}

leveldb::DB* LevelDbIndex::Database() const {
  return LevelDbConnector::GetInstance().LookupConnection(db_name_);
}

int LevelDbIndex::LoadSchema(const std::string& table) {
  // The index follows the table's current name, so that a renamed table
  // indexes the records its queries read.
  table_name_ = table;
  index_schema_key_ = LevelDbTable::kSchemaPrefix + table + kIndexSuffix;
  int r = RetrieveSchema(index_schema_);
  if (r != kOk) {
    // A table without index has no record: that is the normal case.
    if (r != kNotFound) {
      DB_LOG_ERROR("ERROR: Failed to retrieve index schema, table='%s'", table_name_.c_str());
    }
    index_schema_.clear();
    index_entries_.clear();
    id_entries_.clear();
    return r;
  }
  r = LoadTable();
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Failed to load table index, table='%s', schema=%s", table_name_.c_str(),
                 JoinNames(index_schema_).c_str());
    // The table keeps working, only without index.
    index_schema_.clear();
    return r;
  }
  return kOk;
}

int LevelDbIndex::RetrieveSchema(std::vector<std::string>& fields) {
  leveldb::DB* db = Database();
  if (db == nullptr) return kNotConnected;
  std::string value;
  const leveldb::Status status = db->Get(leveldb::ReadOptions(), index_schema_key_, &value);
  if (status.ok()) {
    RecoverIndexSchema(value, fields);
  } else if (!status.IsNotFound()) {
    DB_LOG_ERROR("ERROR: Get status='%s', Table='%s'", status.ToString().c_str(),
                 table_name_.c_str());
  }
  return LeveldbAPI::DbReturnCodeTranslate(status);
}

void LevelDbIndex::RecoverIndexSchema(std::string text, std::vector<std::string>& fields) {
  fields.clear();
  std::replace(text.begin(), text.end(), ',', ' ');
  std::istringstream in(text);
  for (std::string name; in >> name;) fields.push_back(name);
}

int LevelDbIndex::CreateIndex(const std::vector<std::string>& fields) {
  leveldb::DB* db = Database();
  if (db == nullptr) return kNotConnected;
  const leveldb::Status status =
      db->Put(leveldb::WriteOptions(), index_schema_key_, JoinNames(fields));
  if (status.ok()) {
    index_schema_ = fields;
    created_ = true;
  } else {
    DB_LOG_ERROR("ERROR: Put status='%s', table='%s'", status.ToString().c_str(),
                 table_name_.c_str());
  }
  return LeveldbAPI::DbReturnCodeTranslate(status);
}

bool LevelDbIndex::IndexSchemaIntersection(const std::vector<std::string>& requested,
                                           std::vector<std::string>& result) {
  // Loading does not set created_, so the first request after a reload
  // replaces the persisted list instead of extending it: the first declaration
  // of a process defines the index. Intended, and kept.
  if (!created_) {
    result = requested;
    return true;
  }
  result = index_schema_;
  bool appended = false;
  for (const auto& name : requested) {
    if (std::find(result.begin(), result.end(), name) != result.end()) continue;
    result.push_back(name);
    appended = true;
  }
  return appended;
}

int LevelDbIndex::LoadTable() {
  leveldb::DB* db = Database();
  if (db == nullptr) return kNotConnected;
  index_entries_.clear();
  id_entries_.clear();

  ScalarFields schema;
  const int r = GetScalarSchema(schema);
  if (r != kOk) {
    DB_LOG_ERROR("ERROR: Fail to get scalar schema from DB, table='%s'", table_name_.c_str());
    return r;
  }

  const Serializer serializer;
  const std::string prefix = table_name_ + LevelDbTable::kKeySeparator;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(leveldb::ReadOptions()));
  for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
    const std::string key = it->key().ToString();
    uint32_t id = 0;
    if (!ParseRecordKey(key, table_name_, &id)) continue;
    // A fresh copy per record: a value that fails to decode empties the map it
    // was decoded into, and must not blank the records after it.
    ScalarFields record = schema;
    serializer.DeserializeScalar(it->value().ToString(), record);
    LoadRecord(key, record);
  }
  const leveldb::Status status = it->status();
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: status='%s', table='%s'", status.ToString().c_str(), table_name_.c_str());
  }
  return LeveldbAPI::DbReturnCodeTranslate(status);
}

int LevelDbIndex::GetScalarSchema(ScalarFields& schema) {
  leveldb::DB* db = Database();
  if (db == nullptr) return kNotConnected;
  std::string value;
  const leveldb::Status status =
      db->Get(leveldb::ReadOptions(), LevelDbTable::kSchemaPrefix + table_name_, &value);
  if (!status.ok()) {
    DB_LOG_ERROR("ERROR: Get status='%s', Table='%s'", status.ToString().c_str(),
                 table_name_.c_str());
    return LeveldbAPI::DbReturnCodeTranslate(status);
  }
  std::istringstream in(value);
  std::string name;
  std::string type;
  while (std::getline(in, name, ':') && std::getline(in, type, ',')) {
    schema.emplace(name, Attribute(static_cast<AttributeType>(std::stoi(type, nullptr, 10))));
  }
  return kOk;
}

void LevelDbIndex::LoadRecord(const std::string& key, const ScalarFields& fields) {
  if (index_schema_.empty()) return;
  const size_t colon = key.rfind(kEntrySeparator);
  const std::string id_text = colon == std::string::npos ? key : key.substr(colon + 1);
  const uint32_t id = static_cast<uint32_t>(std::stoul(id_text, nullptr, 10));
  for (const auto& name : index_schema_) {
    const auto field = fields.find(name);
    if (field == fields.end() || !field->second.is_set()) continue;
    AddEntry(EntryText(name, field->second), id);
  }
}

void LevelDbIndex::StoreRecord(const ScalarFields& fields, uint32_t id) {
  // Unlike a reload, a new record is indexed with its unset fields too (as
  // "name:(unset)"); filters drop unset attributes, so they never look these up.
  for (const auto& name : index_schema_) {
    const auto field = fields.find(name);
    if (field == fields.end()) continue;
    AddEntry(EntryText(name, field->second), id);
  }
}

void LevelDbIndex::UpdateRecord(const ScalarFields& old_fields, const ScalarFields& new_fields,
                                uint32_t id) {
  for (const auto& name : index_schema_) {
    const auto old_field = old_fields.find(name);
    const auto new_field = new_fields.find(name);
    if (old_field == old_fields.end() || new_field == new_fields.end()) continue;
    if (old_field->second == new_field->second) continue;
    RemoveEntry(EntryText(name, old_field->second), id);
    AddEntry(EntryText(name, new_field->second), id);
  }
}

void LevelDbIndex::DeleteIndexIds(const std::vector<uint32_t>* ids) {
  if (ids == nullptr) return;
  for (const uint32_t id : *ids) {
    const auto entries = id_entries_.find(id);
    if (entries == id_entries_.end()) continue;
    for (const auto& entry : entries->second) {
      const auto holders = index_entries_.find(entry);
      if (holders == index_entries_.end()) continue;
      holders->second.erase(id);
      if (holders->second.empty()) index_entries_.erase(holders);
    }
    id_entries_.erase(entries);
  }
}

void LevelDbIndex::FilterIds(std::set<uint32_t>& ids, ScalarFields& filter) const {
  for (auto it = filter.begin(); it != filter.end();) {
    it = it->second.is_set() ? std::next(it) : filter.erase(it);
  }
  bool first_hit = true;
  for (auto it = filter.begin(); it != filter.end();) {
    const auto holders = index_entries_.find(EntryText(it->first, it->second));
    if (holders == index_entries_.end()) {
      const bool indexed =
          std::find(index_schema_.begin(), index_schema_.end(), it->first) != index_schema_.end();
      if (indexed) {
        // No record holds this value of an indexed field: nothing can match.
        ids.clear();
        return;
      }
      // Left for the caller to test against the stored records.
      ++it;
      continue;
    }
    if (first_hit) {
      ids = holders->second;
      first_hit = false;
    } else {
      for (auto id = ids.begin(); id != ids.end();) {
        id = holders->second.count(*id) != 0 ? std::next(id) : ids.erase(id);
      }
    }
    it = filter.erase(it);
    if (ids.empty()) return;
  }
}

void LevelDbIndex::InsertDelSchemaOnBatch(leveldb::WriteBatch& batch) {
  batch.Delete(index_schema_key_);
}

void LevelDbIndex::DestroyTable() {
  created_ = false;
  index_schema_.clear();
  index_entries_.clear();
  id_entries_.clear();
}

void LevelDbIndex::AddEntry(const std::string& entry, uint32_t id) {
  // New records mostly take ids above every stored one: the end is then the
  // right place, found without a search (a wrong hint costs one search).
  std::set<uint32_t>& holders = index_entries_[entry];
  holders.insert(holders.end(), id);
  id_entries_.try_emplace(id_entries_.end(), id)->second.insert(entry);
}

void LevelDbIndex::RemoveEntry(const std::string& entry, uint32_t id) {
  const auto holders = index_entries_.find(entry);
  if (holders != index_entries_.end()) {
    holders->second.erase(id);
    if (holders->second.empty()) index_entries_.erase(holders);
  }
  const auto entries = id_entries_.find(id);
  if (entries != id_entries_.end()) entries->second.erase(entry);
}

}  // namespace db
