#include "support/backend_fixture.h"

#include "sqlite_api.h"

namespace db_test {

const char* const kStandardTable = "records";

std::vector<BackendConfig> AllBackends() {
  return {{BackendKind::kSqliteFile, "SqliteFile"},
          {BackendKind::kSqliteMemory, "SqliteMemory"},
          {BackendKind::kLevelDb, "LevelDb"}};
}

std::string BackendConfigName(const testing::TestParamInfo<BackendConfig>& info) {
  return info.param.name;
}

void PrintTo(const BackendConfig& config, std::ostream* os) { *os << config.name; }

BackendTest::BackendTest() {
  switch (GetParam().kind) {
    case BackendKind::kSqliteFile:
      db_name_ = dir_.File("test.db");
      break;
    case BackendKind::kSqliteMemory: {
      // The temporary directory's name is unique, so no two tests share memory.
      db_name_ = "mem_" + dir_.path().substr(dir_.path().rfind('/') + 1);
      keep_alive_ = std::make_unique<db::SqliteAPI>(db_name_, "keep_alive", true);
      break;
    }
    case BackendKind::kLevelDb:
      db_name_ = dir_.File("leveldb");
      break;
  }
}

BackendTest::~BackendTest() = default;

std::unique_ptr<db::DbObject> BackendTest::MakeObject(const std::string& table) const {
  return std::make_unique<db::DbObject>(db_name_, table, in_memory(), type());
}

void BackendTest::DeclareStandardFields(db::DbObject* object) {
  ASSERT_EQ(object->AppendScalarAttribute("grp", db::Attribute(db::kInteger), db::kDefault), 0);
  ASSERT_EQ(object->AppendScalarAttribute("num", db::Attribute(db::kInteger), db::kDefault), 0);
  ASSERT_EQ(object->AppendScalarAttribute("label", db::Attribute(db::kString), db::kDefault), 0);
  ASSERT_EQ(object->AppendScalarAttribute("ratio", db::Attribute(db::kFloat), db::kDefault), 0);
  ASSERT_EQ(object->AppendScalarAttribute("raw", db::Attribute(db::kBytes), db::kDefault), 0);
  ASSERT_EQ(object->AppendCompositeAttribute("ports", db::Attribute(db::kInteger), db::kDefault),
            0);
}

std::unique_ptr<db::DbObject> BackendTest::MakeStandardTable() const {
  std::unique_ptr<db::DbObject> object = MakeObject();
  DeclareStandardFields(object.get());
  EXPECT_EQ(object->CreateObjTables(), 0);
  return object;
}

db::ScalarFields BackendTest::ScalarsOf(const StandardRecord& record) {
  db::ScalarFields fields;
  fields["grp"] = record.grp;
  fields["num"] = record.num;
  fields["label"] = record.label;
  fields["ratio"] = record.ratio;
  fields["raw"] = record.raw;
  return fields;
}

std::vector<db::Attribute> BackendTest::PortsOf(const StandardRecord& record) {
  std::vector<db::Attribute> ports;
  for (int32_t port : record.ports) {
    db::Attribute value(db::kInteger);
    value = port;
    ports.push_back(value);
  }
  return ports;
}

std::vector<db::Attribute> BackendTest::SetElements(const std::vector<db::Attribute>& values) {
  std::vector<db::Attribute> set;
  for (const auto& value : values) {
    if (value.is_set()) set.push_back(value);
  }
  return set;
}

void BackendTest::SetRecord(db::DbObject* object, const StandardRecord& record) {
  object->ClearObject();
  for (const auto& field : ScalarsOf(record)) object->scalar_fields()[field.first] = field.second;
  object->composite_fields()["ports"].second = PortsOf(record);
}

uint32_t BackendTest::Store(db::DbObject* object, const StandardRecord& record) {
  SetRecord(object, record);
  uint32_t id = 0;
  EXPECT_EQ(object->StoreObject(&id), 0) << "num " << record.num;
  return id;
}

}  // namespace db_test
