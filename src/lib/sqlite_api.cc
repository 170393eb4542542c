// Placeholder until the SQLite backend lands: every operation fails.
#include "sqlite_api.h"

namespace db {

SqliteAPI::SqliteAPI(const std::string&, const std::string& table, bool) : table_name_(table) {}
SqliteAPI::~SqliteAPI() = default;
int SqliteAPI::CreateTable(const ScalarFields&, const CompositeFields&) { return -1; }
int SqliteAPI::AddTableIndex(const std::string&, const std::vector<std::string>&) { return -1; }
int SqliteAPI::AddScalarField(const std::string&, const Attribute&) { return -1; }
int SqliteAPI::AddCompositeField(const std::string&,
                                 const std::pair<AttributeType, std::vector<Attribute>>&) {
  return -1;
}
int SqliteAPI::DestroyTable(const CompositeFields&) { return -1; }
int SqliteAPI::StoreRecord(uint32_t, const ScalarFields&, const CompositeFields&) { return -1; }
int SqliteAPI::DeleteRecord(uint32_t, const std::vector<std::string>&) { return -1; }
int SqliteAPI::DeleteRecords(std::vector<uint32_t>*, const ScalarFields&, const CompositeFields&) {
  return -1;
}
int SqliteAPI::UpdateRecord(uint32_t, const ScalarFields&, const CompositeFields&) { return -1; }
int SqliteAPI::RetrieveRecord(uint32_t, ScalarFields*, CompositeFields*) const { return -1; }
int SqliteAPI::RetrieveRecords(std::vector<uint32_t>*, const ScalarFields&,
                               const CompositeFields&) const {
  return -1;
}
int SqliteAPI::GetTableSize(int* size) const {
  *size = -1;
  return -1;
}
int SqliteAPI::PrintDatabase(const CompositeFields&, DatabasePrinter) const { return -1; }
bool SqliteAPI::IsConnected() const { return connected_; }
int SqliteAPI::ClearTable(const CompositeFields&, std::vector<uint32_t>*) { return -1; }
void SqliteAPI::SetTableName(const std::string& name) { table_name_ = name; }
const std::string& SqliteAPI::GetTableName() const { return table_name_; }

}  // namespace db
