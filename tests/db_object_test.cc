// DbObject's own bookkeeping on a fake backend that can fail any call.

#include "db/db_object.h"

#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "id_generator.h"
#include "support/test_util.h"

namespace {

using db::Attribute;
using db::CompositeFields;
using db::ScalarFields;
using db_test::Bytes;
using db_test::FreeIds;
using db_test::Int;
using testing::ElementsAre;
using Ids = std::set<uint32_t>;

std::string Join(std::string text, const std::vector<std::string>& names) {
  for (const auto& name : names) text += name + ",";
  return text;
}

// Holds `ids` (a = 1) and logs its calls; the next call starting with `fail_prefix` returns
// `fail_rc` once (a failing DeleteRecords has still removed every match).
class FakeBackend : public db::DatabaseAPI {
 public:
  explicit FakeBackend(const std::vector<uint32_t>& ids) {
    for (uint32_t id : ids) records[id] = {{{"a", Int(1)}}, {}};
  }
  int CreateTable(const ScalarFields&, const CompositeFields&) override {
    return Call("CreateTable");
  }
  int AddTableIndex(const std::string& name, const std::vector<std::string>& fields) override {
    return Call(Join("AddTableIndex " + name + " ", fields));
  }
  int AddScalarField(const std::string& name, const Attribute&) override {
    return Call("AddScalarField " + name);
  }
  int AddCompositeField(const std::string& name,
                        const std::pair<db::AttributeType, std::vector<Attribute>>&) override {
    return Call("AddCompositeField " + name);
  }
  int DestroyTable(const CompositeFields&) override { return Call("DestroyTable"); }
  int StoreRecord(uint32_t id, const ScalarFields& s, const CompositeFields& c) override {
    const int rc = Call("StoreRecord " + std::to_string(id));
    if (rc == 0) records[id] = {s, c};
    return rc;
  }
  int UpdateRecord(uint32_t, const ScalarFields&, const CompositeFields&) override { return 0; }
  int DeleteRecord(uint32_t id, const std::vector<std::string>& names) override {
    const int rc = Call(Join("DeleteRecord " + std::to_string(id) + " ", names));
    if (rc == 0) records.erase(id);
    return rc;
  }
  int DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& filter,
                    const CompositeFields&) override {
    *ids = Select(filter);
    for (uint32_t id : *ids) records.erase(id);
    return Call("DeleteRecords");
  }
  int ClearTable(const CompositeFields&, std::vector<uint32_t>* ids) override {
    return DeleteRecords(ids, {}, {});
  }
  int RetrieveRecord(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const override {
    if (int rc = Call("RetrieveRecord " + std::to_string(id))) return rc;
    if (records.count(id) == 0) return -4;
    for (const auto& [name, value] : records.at(id).first) (*scalar)[name] = value;
    for (const auto& [name, field] : records.at(id).second) (*composite)[name] = field;
    return 0;
  }
  int RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& filter,
                      const CompositeFields&) const override {
    if (int rc = Call("RetrieveRecords")) return rc;
    *ids = Select(filter);
    return 0;
  }
  int GetTableSize(int*) const override { return 0; }
  int PrintDatabase(const CompositeFields&, db::DatabasePrinter) const override { return 0; }
  bool IsConnected() const override { return connected; }
  void SetTableName(const std::string& name) override { table_ = name; }
  const std::string& GetTableName() const override { return table_; }

  std::map<uint32_t, std::pair<ScalarFields, CompositeFields>> records;
  mutable std::vector<std::string> calls;
  mutable int fail_rc = 0;
  std::string fail_prefix;
  bool connected = true;

 private:
  std::vector<uint32_t> Select(const ScalarFields& filter) const {
    std::vector<uint32_t> ids;
    for (const auto& [id, record] : records) {
      bool match = true;
      for (const auto& [name, want] : filter)
        match = match &&
                (!want.is_set() || (record.first.count(name) && record.first.at(name) == want));
      if (match) ids.push_back(id);
    }
    return ids;
  }
  int Call(const std::string& text) const {
    calls.push_back(text);
    return text.rfind(fail_prefix, 0) == 0 ? std::exchange(fail_rc, 0) : 0;
  }
  std::string table_ = "fake_table";
};

class FakeObject : public db::DbObject {
 public:
  explicit FakeObject(const std::string& db_name = "fake.db", const std::vector<uint32_t>& ids = {})
      : FakeObject(new FakeBackend(ids), db_name) {}
  FakeBackend& backend() { return *backend_; }
  void Fail(int rc, const std::string& prefix) {
    backend_->fail_rc = rc;
    backend_->fail_prefix = prefix;
  }

 private:
  FakeObject(FakeBackend* backend, const std::string& db_name)
      : db::DbObject(std::unique_ptr<db::DatabaseAPI>(backend), db_name), backend_(backend) {}
  FakeBackend* backend_;
};

// Integer fields: scalars a and b, repeated l.
void Declare(db::DbObject* object) {
  for (const char* name : {"a", "b"})
    ASSERT_EQ(object->AppendScalarAttribute(name, Attribute(db::kInteger), db::kDefault), 0);
  ASSERT_EQ(object->AppendCompositeAttribute("l", Attribute(db::kInteger), db::kDefault), 0);
}

class DbObjectTest : public testing::Test {
 protected:
  DbObjectTest() { Declare(&object_); }
  FakeBackend& backend() { return object_.backend(); }
  void Set(int32_t a, const std::vector<Attribute>& l) {
    object_.scalar_fields()["a"] = a;
    object_.scalar_fields()["b"] = 2;
    object_.composite_fields()["l"].second = l;
  }
  uint32_t Put(int32_t a) {
    Set(a, {Int(a)});
    uint32_t id = 0;
    EXPECT_EQ(object_.StoreObject(&id), 0);
    return id;
  }
  FakeObject object_;
};

TEST(DbObjectConstructionTest, LogsTheStartAndRefusesInvalidArguments) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  const std::string path = dir.File("ldb");
  EXPECT_THAT([&] { db::DbObject(path, "t", true, db::kLevelDb); },
              testing::ThrowsMessage<std::invalid_argument>(
                  "LevelDB does not support the in_memory parameter"));
  EXPECT_THAT([&] { db::DbObject(path, "t", false, static_cast<db::DbType>(5)); },
              testing::ThrowsMessage<std::invalid_argument>("Invalid database type"));
  EXPECT_EQ(log.Count("Initializing db=" + path + ", table=t, in_memory=1, type=1"), 1);
  EXPECT_EQ(log.Count("Initializing db=" + path + ", table=t, in_memory=0, type=5"), 1);
  EXPECT_FALSE(std::filesystem::exists(path)) << "no LevelDB database may be opened";
}

// Declarations reach the backend once the tables were created, indexes then in name order up
// to the first failure. Repeated names are apart from scalar ones.
TEST(DbObjectDeclarationTest, ForwardingAndDuplicates) {
  FakeObject object;
  ASSERT_EQ(object.AppendScalarAttribute("f", Int(7), db::kHex), 0);
  EXPECT_EQ(object.AppendScalarAttribute("f", Attribute(db::kString), db::kMac), -3);
  EXPECT_EQ(object.AppendCompositeAttribute("f", Int(4), db::kUnsigned), 0);
  EXPECT_EQ(object.AppendCompositeAttribute("f", Attribute(db::kString), db::kDefault), -3);
  object.DeclareTableIndex("idx_b", {"b"});
  object.DeclareTableIndex("idx_a", {"a", "b"});
  object.DeclareTableIndex("idx_c", {"c"});
  object.Fail(-5, "AddTableIndex idx_b");
  EXPECT_EQ(object.CreateObjTables(), -5);
  object.Fail(-7, "AddScalarField d");
  EXPECT_EQ(object.AppendScalarAttribute("c", Attribute(db::kFloat), db::kDefault), 0);
  EXPECT_EQ(object.AppendScalarAttribute("d", Attribute(db::kFloat), db::kDefault), -7);
  EXPECT_THAT(object.backend().calls,
              ElementsAre("RetrieveRecords", "CreateTable", "AddTableIndex idx_a a,b,",
                          "AddTableIndex idx_b b,", "AddScalarField c", "AddScalarField d"));
}

// An id goes back when its record is gone from storage, whatever the result.
TEST_F(DbObjectTest, IdsGoBackForRecordsThatWent) {
  EXPECT_EQ(object_.StoreObject(nullptr), -1);
  EXPECT_EQ(Put(1), 1u) << "a null id consumes no id";
  object_.Fail(-6, "StoreRecord");
  uint32_t failed = 0;
  EXPECT_EQ(object_.StoreObject(&failed), -6);
  EXPECT_EQ(failed, 2u);
  EXPECT_EQ(Put(5), 2u);
  EXPECT_EQ(object_.RetrieveObject(2, nullptr, nullptr), 0);  // Both outputs are optional.
  for (int32_t a : {1, 1}) Put(a);                            // ids 3 and 4
  object_.Fail(-7, "DeleteRecord 1");
  EXPECT_EQ(object_.DeleteSingleObject(1), -7);
  EXPECT_TRUE(FreeIds().empty());
  EXPECT_EQ(object_.DeleteSingleObject(3), 0);
  EXPECT_EQ(backend().calls.back(), "DeleteRecord 3 l,") << "every repeated field";
  object_.ClearObject();
  object_.scalar_fields()["a"] = 1;
  object_.Fail(-1, "DeleteRecords");
  EXPECT_EQ(object_.DeleteMultipleObjects(), -1);
  EXPECT_EQ(FreeIds(), (Ids{1, 3, 4}));
  object_.Fail(-7, "DeleteRecords");
  EXPECT_EQ(object_.ClearObjTable(), -7);
  EXPECT_EQ(FreeIds(), (Ids{1, 2, 3, 4}));
  Put(1);
  backend().calls.clear();
  object_.Fail(-1, "DestroyTable");
  EXPECT_EQ(object_.DestroyObjTables(), -1);
  EXPECT_THAT(backend().calls, ElementsAre("DeleteRecords", "DestroyTable"));
  EXPECT_EQ(FreeIds(), (Ids{1, 2, 3, 4}));
}

TEST_F(DbObjectTest, DisconnectedOperationsReturnMinus2AfterResettingOutputs) {
  backend().connected = false;
  backend().calls.clear();
  // Declarations are kept, but reported.
  EXPECT_EQ(object_.AppendScalarAttribute("s", Int(1), db::kDefault), -2);
  EXPECT_EQ(object_.AppendCompositeAttribute("r", Int(1), db::kDefault), -2);
  std::vector<uint32_t> ids{1, 2};
  int size = 12;
  uint32_t id = 0;
  const std::vector<int> results = {
      object_.RetrieveObjects(&ids),    object_.GetObjTableSize(&size),
      object_.StoreObject(&id),         object_.StoreObject(nullptr),
      object_.UpdateObject(1),          object_.RetrieveObject(1, nullptr, nullptr),
      object_.TraverseObjects(nullptr), object_.DeleteSingleObject(1),
      object_.DeleteMultipleObjects(),  object_.AddTableIndex("i", {"a"}),
      object_.ClearObjTable(),          object_.DestroyObjTables(),
      object_.PrintDatabase(nullptr)};
  EXPECT_THAT(results, testing::Each(-2));
  EXPECT_TRUE(ids.empty() && size == -1);
  // -1, not -2, is what resynchronisation has always reported.
  EXPECT_EQ(object_.ResynchronizeDb(false), -1);
  EXPECT_TRUE(backend().calls.empty());
  EXPECT_EQ(object_.RetrieveObjects(nullptr), -1);
  EXPECT_EQ(object_.GetObjTableSize(nullptr), -1);
}

std::vector<uint32_t> visited;
size_t stop_after = SIZE_MAX;

bool Visit(uint32_t id, const ScalarFields& scalar, const CompositeFields&) {
  visited.push_back(id);
  EXPECT_EQ(scalar.at("a"), Int(static_cast<int32_t>(id) * 10));
  return visited.size() < stop_after;
}

// Rows: filter on a (0: none), record failing to read, visits before stopping, result, ids.
TEST_F(DbObjectTest, TraversalFiltersByCurrentRecordStopsEarlyAndFails) {
  for (int32_t a : {10, 20, 30}) Put(a);
  const std::vector<std::tuple<int32_t, int, size_t, int, std::vector<uint32_t>>> cases = {
      {20, 0, SIZE_MAX, 0, {2}},
      {0, 0, 1, 0, {1}},
      {0, 2, SIZE_MAX, -8, {1}},
  };
  for (const auto& [a, fail, stop, rc, expected] : cases) {
    object_.ClearObject();
    if (a != 0) object_.scalar_fields()["a"] = a;
    if (fail > 0) object_.Fail(-4, "RetrieveRecord " + std::to_string(fail));
    visited.clear();
    stop_after = stop;
    EXPECT_EQ(a == 0 ? object_.TraverseObjects(ScalarFields(), CompositeFields(), Visit)
                     : object_.TraverseObjects(Visit),
              rc);
    EXPECT_EQ(visited, expected) << a << " " << fail << " " << stop;
  }
}

// The first object of a database name resynchronises; stored ids below last_id leave the free set.
TEST(DbObjectIdTest, ResynchronisationReuseAndWrap) {
  FakeObject first("shared.db", {2});
  EXPECT_THAT(first.backend().calls, ElementsAre("RetrieveRecords"));
  FakeObject second("shared.db", {50});
  EXPECT_THAT(second.backend().calls, testing::IsEmpty());
  FakeObject third("other.db", {3, 6});
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 6u);
  EXPECT_EQ(FreeIds(), (Ids{1, 4, 5}));
  db::IdGenerator::GetInstance().Reset();
  for (int i = 0; i < 6; ++i) db::DbObject::GetNextId();
  for (uint32_t id : {2, 4}) db::DbObject::ReleaseId(id);
  FakeObject below("below.db", {4});
  EXPECT_EQ(FreeIds(), (Ids{2}));
  for (uint32_t id : {3, 1}) {  // Touching ranges merge, both ways.
    db::DbObject::ReleaseId(id);
    EXPECT_EQ(db::IdGenerator::GetInstance().free_ranges().size(), 1u) << id;
  }
  EXPECT_EQ(below.ResynchronizeDb(false), 3) << "ids handed out less those free: 6 - 3";

  // A released id goes out again once however often it was released; the counter wraps to 0.
  db::IdGenerator::GetInstance().Reset();
  db::IdGenerator::GetInstance().set_last_id(UINT32_MAX - 1);
  for (uint32_t id : {UINT32_MAX, 0u, 1u}) EXPECT_EQ(db::DbObject::GetNextId(), id);
  db::DbObject::ReleaseId(0);
  db::DbObject::ReleaseId(0);
  for (uint32_t id : {0u, 2u}) EXPECT_EQ(db::DbObject::GetNextId(), id);
}

TEST_F(DbObjectTest, TextRenderings) {
  const Attribute unset(db::kInteger);
  const std::vector<std::pair<std::vector<Attribute>, std::string>> cases = {
      {{Int(1), Int(2), unset}, "l: 1, 2, \n"},  // the separator stays before the break
      {{Int(1), unset, Int(3)}, "l: 1, 3\n"},
  };
  for (const auto& [elements, line] : cases) {
    Set(1, elements);
    EXPECT_EQ(object_.ToString(), "a: 1\nb: 2\n" + line);
  }
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: 2") << "no repeated fields in the summary";
  object_.scalar_fields()["b"] = Attribute(db::kInteger);
  EXPECT_EQ(object_.ToStringWithSeparator("|"), "a: 1|b: (unset)|");
  Set(255, {Int(255), Int(16)});
  object_.ChangeAttributeStreamableType("a", db::kHex);
  object_.ChangeAttributeStreamableType("l", db::kHex);
  EXPECT_EQ(object_.ToString(), "a: 0xff\nb: 2\nl: 0xff, 0x10\n");
  // An empty display name hides the field, but not from the field list.
  ASSERT_EQ(object_.AppendCompositeAttribute("m", Int(7), db::kDefault), 0);
  object_.ChangeAttributeStreamableName("a", "");
  object_.ChangeAttributeStreamableName("l", "");
  object_.ChangeAttributeStreamableName("b", "Beta");
  EXPECT_EQ(object_.ToString(), "Beta: 2\nm: 7\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(object_.TraverseAttributes(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Fields:\n    a\n    b\nRepeated Fields:\n    l\n    m\n");

  // Formats 3 and 4 render as 2 (IP address); the debug commands' tests reach the others.
  const Attribute ip = Bytes({192, 168, 1, 1}), hex = Bytes({0x0A, 0xFF});
  const std::vector<std::tuple<int, Attribute, std::string>> formats = {
      {1, Int(-1), "0xffffffff"}, {1, hex, "0x0AFF"},   {3, ip, "192.168.1.1"},
      {2, hex, "(invalid)"},      {5, ip, "(invalid)"}, {6, ip, "(invalid)"},
      {0, Int(-1), "-1"},         {-1, hex, "0x0AFF"},  {6, Attribute(db::kBytes), "(unset)"},
  };
  for (const auto& [format, value, expected] : formats) {
    EXPECT_EQ(db::DbObject::RenderValue(value, static_cast<db::PrintFormat>(format)), expected)
        << format;
  }
}

}  // namespace
