#include "support/fake_backend.h"

#include <sstream>

namespace db_test {

namespace {

std::string Join(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) out += (out.empty() ? "" : ",") + name;
  return out;
}

// True when `stored` holds an element equal to one of the set elements of
// `wanted`; a filter without set elements imposes nothing.
bool SharesElement(const std::vector<db::Attribute>& stored,
                   const std::vector<db::Attribute>& wanted) {
  bool any_set = false;
  for (const auto& want : wanted) {
    if (!want.is_set()) continue;
    any_set = true;
    for (const auto& have : stored) {
      if (have == want) return true;
    }
  }
  return !any_set;
}

}  // namespace

FakeBackend::FakeBackend(const std::string& table) : table_(table) {}

FakeBackend::~FakeBackend() = default;

int FakeBackend::CallCount(const std::string& prefix) const {
  int n = 0;
  for (const auto& call : calls_) n += call.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
  return n;
}

bool FakeBackend::Enter(const std::string& call) const {
  calls_.push_back(call);
  if (!fail_next_ || call.compare(0, fail_prefix_.size(), fail_prefix_) != 0) return false;
  fail_next_ = false;
  return true;
}

bool FakeBackend::Matches(const Record& record, const db::ScalarFields& scalar_filter,
                          const db::CompositeFields& composite_filter) const {
  for (const auto& want : scalar_filter) {
    if (!want.second.is_set()) continue;
    auto have = record.scalar.find(want.first);
    if (have == record.scalar.end() || !(have->second == want.second)) return false;
  }
  for (const auto& want : composite_filter) {
    auto have = record.composite.find(want.first);
    const std::vector<db::Attribute> none;
    const auto& stored = have == record.composite.end() ? none : have->second.second;
    if (!SharesElement(stored, want.second.second)) return false;
  }
  return true;
}

int FakeBackend::CreateTable(const db::ScalarFields&, const db::CompositeFields&) {
  return Enter("CreateTable") ? fail_rc_ : 0;
}

int FakeBackend::AddTableIndex(const std::string& index_name,
                               const std::vector<std::string>& fields) {
  return Enter("AddTableIndex " + index_name + " " + Join(fields)) ? fail_rc_ : 0;
}

int FakeBackend::AddScalarField(const std::string& name, const db::Attribute&) {
  return Enter("AddScalarField " + name) ? fail_rc_ : 0;
}

int FakeBackend::AddCompositeField(
    const std::string& name, const std::pair<db::AttributeType, std::vector<db::Attribute>>&) {
  return Enter("AddCompositeField " + name) ? fail_rc_ : 0;
}

int FakeBackend::DestroyTable(const db::CompositeFields&) {
  return Enter("DestroyTable") ? fail_rc_ : 0;
}

int FakeBackend::StoreRecord(uint32_t id, const db::ScalarFields& scalar,
                             const db::CompositeFields& composite) {
  if (Enter("StoreRecord " + std::to_string(id))) return fail_rc_;
  if (records_.count(id) != 0) return -1;
  records_[id] = Record{scalar, composite};
  return 0;
}

int FakeBackend::DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) {
  if (Enter("DeleteRecord " + std::to_string(id) + " " + Join(composite_names))) return fail_rc_;
  records_.erase(id);
  return 0;
}

int FakeBackend::DeleteRecords(std::vector<uint32_t>* ids, const db::ScalarFields& scalar_filter,
                               const db::CompositeFields& composite_filter) {
  const bool fail = Enter("DeleteRecords");
  for (auto it = records_.begin(); it != records_.end();) {
    if (!Matches(it->second, scalar_filter, composite_filter)) {
      ++it;
      continue;
    }
    ids->push_back(it->first);
    it = records_.erase(it);
    if (fail) return fail_rc_;
  }
  return fail ? fail_rc_ : 0;
}

int FakeBackend::UpdateRecord(uint32_t id, const db::ScalarFields& scalar,
                              const db::CompositeFields& composite) {
  if (Enter("UpdateRecord " + std::to_string(id))) return fail_rc_;
  auto it = records_.find(id);
  if (it == records_.end()) return -4;
  it->second = Record{scalar, composite};
  return 0;
}

int FakeBackend::RetrieveRecord(uint32_t id, db::ScalarFields* scalar,
                                db::CompositeFields* composite) const {
  if (Enter("RetrieveRecord " + std::to_string(id))) return fail_rc_;
  auto it = records_.find(id);
  if (it == records_.end()) return -4;
  for (auto& field : *scalar) {
    auto stored = it->second.scalar.find(field.first);
    if (stored != it->second.scalar.end()) field.second = stored->second;
  }
  for (auto& field : *composite) {
    auto stored = it->second.composite.find(field.first);
    if (stored != it->second.composite.end()) field.second.second = stored->second.second;
  }
  return 0;
}

int FakeBackend::RetrieveRecords(std::vector<uint32_t>* ids, const db::ScalarFields& scalar_filter,
                                 const db::CompositeFields& composite_filter) const {
  if (Enter("RetrieveRecords")) return fail_rc_;
  for (const auto& record : records_) {
    if (Matches(record.second, scalar_filter, composite_filter)) ids->push_back(record.first);
  }
  return 0;
}

int FakeBackend::GetTableSize(int* size) const {
  *size = -1;
  if (Enter("GetTableSize")) return fail_rc_;
  *size = static_cast<int>(records_.size());
  return 0;
}

int FakeBackend::PrintDatabase(const db::CompositeFields& composite_schema,
                               db::DatabasePrinter printer) const {
  std::vector<std::string> names;
  for (const auto& field : composite_schema) names.push_back(field.first);
  if (Enter("PrintDatabase " + Join(names))) return fail_rc_;
  std::stringstream out;
  for (const auto& record : records_) out << "id=" << record.first << "\n";
  printer(out);
  return 0;
}

int FakeBackend::ClearTable(const db::CompositeFields&, std::vector<uint32_t>* ids) {
  const bool fail = Enter("ClearTable");
  for (auto it = records_.begin(); it != records_.end();) {
    if (ids != nullptr) ids->push_back(it->first);
    it = records_.erase(it);
    if (fail) return fail_rc_;
  }
  return fail ? fail_rc_ : 0;
}

void FakeBackend::SetTableName(const std::string& name) {
  calls_.push_back("SetTableName " + name);
  table_ = name;
}

}  // namespace db_test
