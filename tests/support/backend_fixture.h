// The shared object-level suite infrastructure: a fixture parameterised over
// every backend configuration (SQLite file, SQLite shared in-memory, LevelDB
// directory), each test on a fresh database, with a standard table that has a
// scalar field of every AttributeType and a repeated integer field.
//
// Use: TEST_P(BackendTest, ...) and
//   INSTANTIATE_TEST_SUITE_P(AllBackends, BackendTest,
//                            testing::ValuesIn(db_test::AllBackends()),
//                            db_test::BackendConfigName);

#ifndef DB_INTF_TESTS_SUPPORT_BACKEND_FIXTURE_H_
#define DB_INTF_TESTS_SUPPORT_BACKEND_FIXTURE_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/attribute.h"
#include "db/database_api.h"
#include "db/db_object.h"
#include "support/test_util.h"

namespace db {
// Readable failure messages for attributes: type, set state and printable text.
inline void PrintTo(const Attribute& value, std::ostream* os) {
  *os << "Attribute(type=" << static_cast<int>(value.type())
      << (value.is_set() ? ", " + value.ToPrintableString() : std::string(", unset")) << ")";
}
}  // namespace db

namespace db_test {

enum class BackendKind { kSqliteFile, kSqliteMemory, kLevelDb };

struct BackendConfig {
  BackendKind kind;
  const char* name;  // test name suffix
};

std::vector<BackendConfig> AllBackends();
std::string BackendConfigName(const testing::TestParamInfo<BackendConfig>& info);
void PrintTo(const BackendConfig& config, std::ostream* os);

// One record of the standard table.
struct StandardRecord {
  int32_t num = 0;
  int32_t grp = 0;
  std::string label = "x";
  float ratio = 0.5f;
  std::vector<uint8_t> raw = {1};
  std::vector<int32_t> ports;
};

// The standard table's fields: scalars grp, num (integer), label (string),
// ratio (float), raw (bytes); repeated field ports (integer).
extern const char* const kStandardTable;

class BackendTest : public testing::TestWithParam<BackendConfig> {
 protected:
  BackendTest();
  ~BackendTest() override;

  // A new object on this test's database (the same database on every call).
  std::unique_ptr<db::DbObject> MakeObject(const std::string& table = kStandardTable) const;
  // Declares the standard fields (without creating the tables).
  static void DeclareStandardFields(db::DbObject* object);
  // MakeObject, DeclareStandardFields and CreateObjTables.
  std::unique_ptr<db::DbObject> MakeStandardTable() const;
  // Replaces the object's current record by `record`, every field set.
  static void SetRecord(db::DbObject* object, const StandardRecord& record);
  // SetRecord then StoreObject; fails the test on a non-zero result.
  static uint32_t Store(db::DbObject* object, const StandardRecord& record);
  // The scalar map and the set elements of ports that `record` stands for.
  static db::ScalarFields ScalarsOf(const StandardRecord& record);
  static std::vector<db::Attribute> PortsOf(const StandardRecord& record);
  // Only the set elements of `values` (backends may leave the unset element of
  // the schema template in a retrieved repeated field).
  static std::vector<db::Attribute> SetElements(const std::vector<db::Attribute>& values);

  bool is_leveldb() const { return GetParam().kind == BackendKind::kLevelDb; }
  db::DbType type() const { return is_leveldb() ? db::kLevelDb : db::kSqlite; }
  bool in_memory() const { return GetParam().kind == BackendKind::kSqliteMemory; }
  const std::string& db_name() const { return db_name_; }
  LogCapture& log() { return log_; }

 private:
  LogCapture log_;
  TempDir dir_;
  std::string db_name_;
  // A shared in-memory SQLite database lives only while a connection is open;
  // this one keeps it alive across objects of one test.
  std::unique_ptr<db::DatabaseAPI> keep_alive_;
};

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_BACKEND_FIXTURE_H_
