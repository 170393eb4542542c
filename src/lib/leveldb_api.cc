// Placeholder until the LevelDB backend lands: every operation fails.
#include "leveldb_api.h"

namespace db {

LeveldbAPI::LeveldbAPI(const std::string& path, const std::string& table)
    : path_(path), table_name_(table) {}
LeveldbAPI::~LeveldbAPI() = default;
int LeveldbAPI::CreateTable(const ScalarFields&, const CompositeFields&) { return -1; }
int LeveldbAPI::AddTableIndex(const std::string&, const std::vector<std::string>&) { return -1; }
int LeveldbAPI::AddScalarField(const std::string&, const Attribute&) { return -1; }
int LeveldbAPI::AddCompositeField(const std::string&,
                                  const std::pair<AttributeType, std::vector<Attribute>>&) {
  return -1;
}
int LeveldbAPI::DestroyTable(const CompositeFields&) { return -1; }
int LeveldbAPI::StoreRecord(uint32_t, const ScalarFields&, const CompositeFields&) { return -1; }
int LeveldbAPI::DeleteRecord(uint32_t, const std::vector<std::string>&) { return -1; }
int LeveldbAPI::DeleteRecords(std::vector<uint32_t>*, const ScalarFields&,
                              const CompositeFields&) {
  return -1;
}
int LeveldbAPI::UpdateRecord(uint32_t, const ScalarFields&, const CompositeFields&) { return -1; }
int LeveldbAPI::RetrieveRecord(uint32_t, ScalarFields*, CompositeFields*) const { return -1; }
int LeveldbAPI::RetrieveRecords(std::vector<uint32_t>*, const ScalarFields&,
                                const CompositeFields&) const {
  return -1;
}
int LeveldbAPI::GetTableSize(int* size) const {
  *size = -1;
  return -1;
}
int LeveldbAPI::PrintDatabase(const CompositeFields&, DatabasePrinter) const { return -2; }
bool LeveldbAPI::IsConnected() const { return false; }
int LeveldbAPI::ClearTable(const CompositeFields&, std::vector<uint32_t>*) { return -1; }
void LeveldbAPI::SetTableName(const std::string& name) { table_name_ = name; }
const std::string& LeveldbAPI::GetTableName() const { return table_name_; }

}  // namespace db
