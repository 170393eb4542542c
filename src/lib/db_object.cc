#include "db/db_object.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <stdexcept>

#include "id_generator.h"
#include "leveldb_api.h"
#include "logger.h"
#include "sqlite_api.h"

namespace db {

namespace {

// Every database name for which an object was constructed in this process.
// Never destroyed, so that objects may be built until the process ends.
std::set<std::string>& SeenDatabases() {
  static std::set<std::string>* const seen_databases = new std::set<std::string>();
  return *seen_databases;
}

}  // namespace

// ---- Construction and destruction.

DbObject::DbObject(const std::string& db_name, const std::string& table_name, bool in_memory,
                   DbType type) {
  DB_LOG_INFO("Initializing db=%s, table=%s, in_memory=%d, type=%d", db_name.c_str(),
              table_name.c_str(), static_cast<int>(in_memory), static_cast<int>(type));
  if (type == kLevelDb && in_memory) {
    throw std::invalid_argument("LevelDB does not support the in_memory parameter");
  }
  db_api_.reset(CreateDbApi(type, db_name, table_name, in_memory));
  if (db_api_ == nullptr) throw std::invalid_argument("Invalid database type");
  RegisterDatabase(db_name);
}

DbObject::DbObject(std::unique_ptr<DatabaseAPI> api, const std::string& db_name)
    : db_api_(std::move(api)) {
  RegisterDatabase(db_name);
}

void DbObject::RegisterDatabase(const std::string& db_name) {
  std::set<std::string>& seen = SeenDatabases();
  if (seen.count(db_name) != 0) return;
  // Only the database name counts, not the table: a second table of a database
  // already seen is not resynchronised here. Its owner calls
  // ResynchronizeDb(false) itself, which keeps start-up to one scan per database.
  ResynchronizeDb(seen.empty());
  seen.insert(db_name);
}

DbObject::~DbObject() {
  if (db_api_ != nullptr) {
    DB_LOG_INFO("closing db");
    db_api_.reset();
  }
}

DatabaseAPI* DbObject::CreateDbApi(DbType type, const std::string& db_name,
                                   const std::string& table_name, bool in_memory) {
  switch (type) {
    case kSqlite:
      return new SqliteAPI(db_name, table_name, in_memory);
    case kLevelDb:
      // LevelDB has no in-memory mode; the constructor refuses that combination.
      return new LeveldbAPI(db_name, table_name);
  }
  return nullptr;
}

std::string DbObject::GetExtraInfo() const { return std::string(); }

std::string DbObject::GetExtraInfo() { return std::string(); }

// ---- Schema and lifecycle.

int DbObject::AppendScalarAttribute(const std::string& name, const Attribute& prototype,
                                    PrintFormat format) {
  if (!scalar_schema_.emplace(name, prototype).second) return kAlreadyDeclared;
  streamable_info_.emplace(name, std::make_pair(name, format));
  scalar_fields_.emplace(name, prototype);
  // The declaration stays in the object even when the backend is gone.
  if (!IsConnected()) return kNotConnected;
  if (!tables_created_) return kOk;
  return db_api_->AddScalarField(name, prototype);
}

int DbObject::AppendCompositeAttribute(const std::string& name, const Attribute& prototype,
                                       PrintFormat format) {
  if (composite_fields_.count(name) != 0) return kAlreadyDeclared;
  streamable_info_.emplace(name, std::make_pair(name, format));
  const AttributeType type = prototype.type();
  auto inserted =
      composite_fields_.emplace(name, std::make_pair(type, std::vector<Attribute>{prototype}));
  composite_schema_.emplace(name, std::make_pair(type, std::vector<Attribute>{Attribute(type)}));
  if (!IsConnected()) return kNotConnected;
  if (!tables_created_) return kOk;
  return db_api_->AddCompositeField(name, inserted.first->second);
}

void DbObject::SetCompositeSchema() {
  composite_schema_.clear();
  for (const auto& entry : composite_fields_) {
    const AttributeType type = entry.second.first;
    composite_schema_.emplace(entry.first,
                              std::make_pair(type, std::vector<Attribute>{Attribute(type)}));
  }
}

void DbObject::DeclareTableIndex(const std::string& index_name,
                                 const std::vector<std::string>& fields) {
  table_indexes_[index_name] = fields;
}

int DbObject::CreateObjTables() {
  // Set before anything can fail: later declarations go to the backend even
  // when the creation failed, so that the backend reports them.
  tables_created_ = true;
  CompleteCurrentRecord();
  int rc =
      db_api_ == nullptr ? kNotConnected : db_api_->CreateTable(scalar_fields_, composite_fields_);
  if (rc != kOk) return rc;
  for (const auto& index : table_indexes_) {
    rc = db_api_->AddTableIndex(index.first, index.second);
    if (rc != kOk) return rc;
  }
  return kOk;
}

int DbObject::AddTableIndex(const std::string& index_name, const std::vector<std::string>& fields) {
  if (!IsConnected()) return kNotConnected;
  return db_api_->AddTableIndex(index_name, fields);
}

int DbObject::DestroyObjTables() {
  if (!IsConnected()) return kNotConnected;
  // Its result does not matter here; what counts is that the ids go back.
  ClearObjTable();
  return db_api_->DestroyTable(composite_fields_);
}

int DbObject::ClearObjTable() {
  if (!IsConnected()) return kNotConnected;
  std::vector<uint32_t> removed;
  int rc = db_api_->ClearTable(composite_fields_, &removed);
  // Whatever was removed is gone from storage, even when the clear failed later.
  for (uint32_t id : removed) ReleaseId(id);
  return rc;
}

void DbObject::ClearObject() {
  for (auto& entry : scalar_fields_) entry.second = Attribute(entry.second.type());
  for (auto& entry : composite_fields_) entry.second.second.clear();
  CompleteCurrentRecord();
  for (const auto& entry : composite_schema_) {
    composite_fields_.try_emplace(entry.first, entry.second.first, std::vector<Attribute>());
  }
}

void DbObject::CompleteCurrentRecord() const {
  for (const auto& entry : scalar_schema_) {
    scalar_fields_.try_emplace(entry.first, entry.second.type());
  }
}

int DbObject::ResynchronizeDb(bool first_object) {
  // -1 rather than -2: callers of this operation have always tested for -1.
  if (!IsConnected()) return kFailure;
  ClearObject();
  std::vector<uint32_t> ids;
  int rc = db_api_->RetrieveRecords(&ids, ScalarFields(), CompositeFields());
  if (rc != kOk || ids.empty()) return kOk;

  IdGenerator& generator = IdGenerator::GetInstance();
  const uint32_t max_id = *std::max_element(ids.begin(), ids.end());
  if (generator.last_id() < max_id) {
    // Every id below the largest stored one is free unless stored; the first
    // object of a process counts from 1, later ones from what was handed out.
    // The gap is one range, however large the largest id.
    const uint32_t start = first_object ? 1 : generator.last_id() + 1;
    generator.set_last_id(max_id);
    generator.ReleaseRange(start, max_id - 1);
  }
  for (uint32_t id : ids) generator.Take(id);
  return static_cast<int>(static_cast<int64_t>(generator.last_id()) -
                          static_cast<int64_t>(generator.free_count()));
}

bool DbObject::IsConnected() const { return db_api_ != nullptr && db_api_->IsConnected(); }

std::string DbObject::name() const {
  return db_api_ == nullptr ? std::string() : db_api_->GetTableName();
}

void DbObject::set_name(const std::string& name) {
  if (db_api_ != nullptr) db_api_->SetTableName(name);
}

// ---- Record operations.

int DbObject::StoreObject(uint32_t* id) {
  if (!IsConnected()) return kNotConnected;
  if (id == nullptr) return kFailure;
  CompleteCurrentRecord();
  *id = GetNextId();
  int rc = db_api_->StoreRecord(*id, scalar_fields_, composite_fields_);
  // The id goes back to be handed out first next time, but the caller still
  // sees which id the failed store used.
  if (rc != kOk) ReleaseId(*id);
  return rc;
}

int DbObject::UpdateObject(uint32_t id) {
  if (!IsConnected()) return kNotConnected;
  CompleteCurrentRecord();
  return db_api_->UpdateRecord(id, scalar_fields_, composite_fields_);
}

int DbObject::RetrieveObject(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const {
  if (!IsConnected()) return kNotConnected;
  // The schema tells the backend every field and its type, also after a read
  // that emptied the record (a LevelDB value that does not decode).
  CompleteCurrentRecord();
  composite_fields_ = composite_schema_;
  int rc = db_api_->RetrieveRecord(id, &scalar_fields_, &composite_fields_);
  if (rc != kOk) return rc;
  if (scalar != nullptr && scalar != &scalar_fields_) *scalar = scalar_fields_;
  if (composite_fields_.empty() || composite == nullptr || composite == &composite_fields_) {
    return kOk;
  }
  for (const auto& entry : composite_fields_) (*composite)[entry.first] = entry.second;
  return kOk;
}

int DbObject::RetrieveObjects(std::vector<uint32_t>* ids) const {
  return RetrieveObjects(ids, scalar_fields_, composite_fields_);
}

int DbObject::RetrieveObjects(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                              const CompositeFields& composite_filter) const {
  if (ids == nullptr) return kFailure;
  ids->clear();
  if (!IsConnected()) return kNotConnected;
  return db_api_->RetrieveRecords(ids, scalar_filter, composite_filter);
}

int DbObject::TraverseObjects(const ScalarFields& scalar_filter,
                              const CompositeFields& composite_filter,
                              TraverseCallback callback) const {
  std::vector<uint32_t> ids;
  int rc = RetrieveObjects(&ids, scalar_filter, composite_filter);
  if (rc != kOk) return rc;
  for (uint32_t id : ids) {
    ScalarFields scalar;
    CompositeFields composite;
    if (RetrieveObject(id, &scalar, &composite) != kOk) return kTraversalLoad;
    if (callback != nullptr && !callback(id, scalar, composite)) return kOk;
  }
  return kOk;
}

int DbObject::TraverseObjects(TraverseCallback callback) const {
  // The filters are read once, before the first record overwrites the buffers.
  return TraverseObjects(scalar_fields_, composite_fields_, callback);
}

int DbObject::DeleteSingleObject(uint32_t id) {
  if (!IsConnected()) return kNotConnected;
  std::vector<std::string> names;
  names.reserve(composite_fields_.size());
  for (const auto& entry : composite_fields_) names.push_back(entry.first);
  int rc = db_api_->DeleteRecord(id, names);
  // A failed delete keeps the id allocated: the record may still be stored.
  if (rc == kOk) ReleaseId(id);
  return rc;
}

int DbObject::DeleteMultipleObjects() {
  if (!IsConnected()) return kNotConnected;
  std::vector<uint32_t> deleted;
  int rc = db_api_->DeleteRecords(&deleted, scalar_fields_, composite_fields_);
  // The backend reports exactly what it removed, also when it stopped early.
  for (uint32_t id : deleted) ReleaseId(id);
  return rc;
}

int DbObject::GetObjTableSize(int* size) const {
  if (size == nullptr) return kFailure;
  *size = -1;
  if (!IsConnected()) return kNotConnected;
  return db_api_->GetTableSize(size);
}

// ---- Text rendering.

std::string DbObject::RenderValue(const Attribute& value, PrintFormat format) {
  switch (format) {
    case kHex:
      return value.ToHexString();
    case kIpAddress:
    case kIpAddressAlt1:
    case kIpAddressAlt2:
      return value.ToIpString();
    case kIpPrefixLen:
      return value.ToIpPrefixLenString();
    case kMac:
      return value.ToMacString();
    case kLimId:
      return value.ToLimIdString();
    case kUnsigned:
      return value.ToUnsigned();
    case kDefault:
      break;
  }
  return value.ToPrintableString();
}

std::string DbObject::ToStringWithSeparator(const std::string& separator) const {
  std::string result;
  for (const auto& field : scalar_fields_) {
    auto info = streamable_info_.find(field.first);
    // An empty display name hides the field.
    if (info == streamable_info_.end() || info->second.first.empty()) continue;
    result += info->second.first;
    result += ": ";
    result += RenderValue(field.second, info->second.second);
    result += separator;
  }
  return result;
}

std::string DbObject::ToString() const {
  std::string result = ToStringWithSeparator("\n");
  if (composite_fields_.empty()) return result + GetExtraInfo();
  for (const auto& field : composite_fields_) {
    auto info = streamable_info_.find(field.first);
    if (info == streamable_info_.end() || info->second.first.empty()) continue;
    result += info->second.first;
    result += ": ";
    const std::vector<Attribute>& elements = field.second.second;
    bool line_ended = false;
    for (size_t i = 0; i < elements.size(); ++i) {
      if (!elements[i].is_set()) continue;
      result += RenderValue(elements[i], info->second.second);
      if (i + 1 < elements.size()) {
        result += ", ";
      } else {
        result += "\n";
        line_ended = true;
      }
    }
    // Output readers rely on this exact form: an unset last element leaves the
    // ", " of the element before it in front of the line break.
    if (!line_ended) result += "\n";
  }
  return result + GetExtraInfo();
}

std::string DbObject::ToStringSummarized() const {
  std::string result = ToStringWithSeparator(", ");
  if (result.size() > 2) result.erase(result.size() - 2);
  return result;
}

int DbObject::TraverseAttributes() const {
  std::cout << "Fields:\n";
  for (const auto& field : scalar_fields_) std::cout << "    " << field.first << "\n";
  std::cout << "Repeated Fields:\n";
  for (const auto& field : composite_fields_) std::cout << "    " << field.first << "\n";
  std::cout.flush();
  return kOk;
}

int DbObject::PrintDatabase(DatabasePrinter printer) const {
  if (!IsConnected()) return kNotConnected;
  return db_api_->PrintDatabase(composite_schema_, printer);
}

void DbObject::ChangeAttributeStreamableName(const std::string& field,
                                             const std::string& display_name) {
  auto info = streamable_info_.find(field);
  if (info != streamable_info_.end()) info->second.first = display_name;
}

void DbObject::ChangeAttributeStreamableType(const std::string& field, const PrintFormat& format) {
  auto info = streamable_info_.find(field);
  if (info != streamable_info_.end()) info->second.second = format;
}

// ---- Identifier allocation.

uint32_t DbObject::GetNextId() { return IdGenerator::GetInstance().Next(); }

void DbObject::ReleaseId(uint32_t id) { IdGenerator::GetInstance().Release(id); }

}  // namespace db
