// DbObject's own bookkeeping, on a fake backend: construction checks and log
// lines, declarations and their forwarding, id allocation around stores and
// deletes, output resets, resynchronisation and traversal.

#include "db/db_object.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "id_generator.h"
#include "leveldb_api.h"
#include "sqlite_api.h"
#include "support/fake_backend.h"
#include "support/test_util.h"

namespace {

using db::Attribute;
using db::CompositeFields;
using db::ScalarFields;
using db_test::FakeBackend;
using db_test::FakeObject;
using testing::ElementsAre;

db::Attribute Int(int32_t v) {
  db::Attribute a(db::kInteger);
  a = v;
  return a;
}

db::Attribute Str(const std::string& v) {
  db::Attribute a(db::kString);
  a = v;
  return a;
}

// Scalar fields a (integer) and b (string), repeated field l (integer).
void DeclareStandardFields(db::DbObject* object) {
  ASSERT_EQ(object->AppendScalarAttribute("a", Attribute(db::kInteger), db::kDefault), 0);
  ASSERT_EQ(object->AppendScalarAttribute("b", Attribute(db::kString), db::kDefault), 0);
  ASSERT_EQ(object->AppendCompositeAttribute("l", Attribute(db::kInteger), db::kDefault), 0);
}

// Fills the current record with a = `a`, b = "x", l = {`a`}.
void SetRecord(db::DbObject* object, int32_t a) {
  object->ClearObject();
  object->scalar_fields()["a"] = a;
  object->scalar_fields()["b"] = "x";
  object->composite_fields()["l"].second.push_back(Int(a));
}

std::set<uint32_t> FreeIds() { return db::IdGenerator::GetInstance().free_ids(); }

// ---- Construction and destruction.

TEST(DbObjectConstructionTest, RefusesInvalidArgumentsBeforeMakingABackend) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  const std::string path = dir.File("ldb");
  struct Case {
    bool in_memory;
    int type;
    const char* message;
  };
  for (const Case& c :
       {Case{true, 1, "LevelDB does not support the in_memory parameter"},
        Case{false, 5, "Invalid database type"}, Case{true, -1, "Invalid database type"}}) {
    log.Clear();
    try {
      db::DbObject object(path, "t", c.in_memory, static_cast<db::DbType>(c.type));
      ADD_FAILURE() << "no exception for type " << c.type;
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
    const std::string line = "Initializing db=" + path +
                             ", table=t, in_memory=" + std::to_string(c.in_memory) +
                             ", type=" + std::to_string(c.type);
    EXPECT_EQ(log.Count(line), 1) << c.type;
    EXPECT_EQ(log.Lines().size(), 1u) << "only the start-up line is logged";
    EXPECT_FALSE(log.Contains("closing db"));
  }
  EXPECT_FALSE(std::filesystem::exists(path)) << "no LevelDB database may be opened";
}

TEST(DbObjectConstructionTest, LogsStartAndCloseAtInfoLevel) {
  db_test::LogCapture log;
  db_test::TempDir dir;
  {
    db::DbObject object(dir.File("x.db"), "tbl", false, db::kSqlite);
    EXPECT_EQ(log.Count("db_intf 10 src/lib/db_object.cc:"), 1);
    EXPECT_TRUE(log.Contains(" DbObject: Initializing db=" + dir.File("x.db") +
                             ", table=tbl, in_memory=0, type=0"));
  }
  EXPECT_TRUE(log.Contains(" ~DbObject: closing db"));
  EXPECT_EQ(log.Count("db_intf 10 src/lib/db_object.cc:"), 2);
}

TEST(DbObjectConstructionTest, CreateDbApiBuildsBackendByType) {
  db_test::TempDir dir;
  std::unique_ptr<db::DatabaseAPI> sqlite(
      db::DbObject::CreateDbApi(db::kSqlite, dir.File("s.db"), "t", false));
  EXPECT_NE(dynamic_cast<db::SqliteAPI*>(sqlite.get()), nullptr);
  // The in-memory refusal belongs to the DbObject constructor, not the factory.
  std::unique_ptr<db::DatabaseAPI> leveldb(
      db::DbObject::CreateDbApi(db::kLevelDb, dir.File("l"), "t", true));
  EXPECT_NE(dynamic_cast<db::LeveldbAPI*>(leveldb.get()), nullptr);
  EXPECT_EQ(leveldb->GetTableName(), "t");
  EXPECT_EQ(db::DbObject::CreateDbApi(static_cast<db::DbType>(2), "x", "t", false), nullptr);
}

TEST(DbObjectConstructionTest, ObjectWithoutBackendIsDisconnected) {
  FakeObject object(std::unique_ptr<FakeBackend>(), "none");
  EXPECT_FALSE(object.IsConnected());
  EXPECT_EQ(object.name(), "");
}

// ---- Declarations.

TEST(DbObjectSchemaTest, DuplicateDeclarationReturnsMinus3AndKeepsFirst) {
  FakeObject object;
  ASSERT_EQ(object.AppendScalarAttribute("f", Int(7), db::kHex), 0);
  EXPECT_EQ(object.AppendScalarAttribute("f", Str("s"), db::kMac), -3);
  EXPECT_EQ(object.scalar_fields().at("f"), Int(7));
  EXPECT_EQ(object.streamable_info().at("f").second, db::kHex);
  // Scalar and repeated names are checked per map.
  EXPECT_EQ(object.AppendCompositeAttribute("f", Attribute(db::kString), db::kDefault), 0);
  EXPECT_EQ(object.AppendCompositeAttribute("f", Attribute(db::kInteger), db::kDefault), -3);
  EXPECT_EQ(object.composite_fields().at("f").first, db::kString);
  EXPECT_EQ(object.streamable_info().at("f").second, db::kHex) << "existing entry is kept";
}

TEST(DbObjectSchemaTest, CompositeDeclarationFillsFieldsAndSchema) {
  FakeObject object;
  ASSERT_EQ(object.AppendCompositeAttribute("l", Int(4), db::kUnsigned), 0);
  const auto& field = object.composite_fields().at("l");
  EXPECT_EQ(field.first, db::kInteger);
  EXPECT_THAT(field.second, ElementsAre(Int(4)));
  const auto& schema = object.composite_schema().at("l");
  EXPECT_EQ(schema.first, db::kInteger);
  EXPECT_THAT(schema.second, ElementsAre(Attribute(db::kInteger)));
  EXPECT_EQ(object.streamable_info().at("l"), std::make_pair(std::string("l"), db::kUnsigned));
}

TEST(DbObjectSchemaTest, DeclarationsReachBackendOnlyAfterCreateObjTables) {
  FakeObject object;
  DeclareStandardFields(&object);
  object.DeclareTableIndex("idx_b", {"b"});
  object.DeclareTableIndex("idx_a", {"a", "b"});
  object.backend().ClearCalls();
  ASSERT_EQ(object.CreateObjTables(), 0);
  // Indexes are replayed in name order.
  EXPECT_THAT(object.backend().calls(),
              ElementsAre("CreateTable", "AddTableIndex idx_a a,b", "AddTableIndex idx_b b"));
  object.backend().ClearCalls();
  EXPECT_EQ(object.AppendScalarAttribute("c", Attribute(db::kFloat), db::kDefault), 0);
  EXPECT_EQ(object.AppendCompositeAttribute("m", Attribute(db::kBytes), db::kDefault), 0);
  object.backend().FailNext(-7);
  EXPECT_EQ(object.AppendScalarAttribute("d", Attribute(db::kFloat), db::kDefault), -7);
  EXPECT_THAT(object.backend().calls(),
              ElementsAre("AddScalarField c", "AddCompositeField m", "AddScalarField d"));
}

TEST(DbObjectSchemaTest, CreateObjTablesStopsAtFirstFailure) {
  FakeObject object;
  DeclareStandardFields(&object);
  object.DeclareTableIndex("i1", {"a"});
  object.DeclareTableIndex("i2", {"b"});
  object.backend().ClearCalls();
  object.backend().FailNext(-1, "AddTableIndex i1");
  EXPECT_EQ(object.CreateObjTables(), -1);
  EXPECT_THAT(object.backend().calls(), ElementsAre("CreateTable", "AddTableIndex i1 a"));

  FakeObject other;
  other.DeclareTableIndex("i1", {"a"});
  other.backend().FailNext(-6, "CreateTable");
  EXPECT_EQ(other.CreateObjTables(), -6);
  EXPECT_EQ(other.backend().CallCount("AddTableIndex"), 0);
  // The failed creation still counts: later declarations go to the backend.
  EXPECT_TRUE(other.tables_created());
  EXPECT_EQ(other.AppendScalarAttribute("z", Int(0), db::kDefault), 0);
  EXPECT_EQ(other.backend().CallCount("AddScalarField z"), 1);
}

TEST(DbObjectSchemaTest, AddTableIndexForwardsWithoutRecording) {
  FakeObject object;
  EXPECT_EQ(object.AddTableIndex("i", {"a"}), 0);
  EXPECT_EQ(object.backend().CallCount("AddTableIndex i a"), 1);
  EXPECT_TRUE(object.table_indexes().empty());
}

TEST(DbObjectSchemaTest, DeclarationsWhileDisconnectedAreKept) {
  FakeObject object;
  object.backend().set_connected(false);
  EXPECT_EQ(object.AppendScalarAttribute("a", Int(1), db::kDefault), -2);
  EXPECT_EQ(object.AppendCompositeAttribute("l", Int(1), db::kDefault), -2);
  EXPECT_EQ(object.scalar_fields().count("a"), 1u);
  EXPECT_EQ(object.composite_fields().count("l"), 1u);
  EXPECT_EQ(object.composite_schema().count("l"), 1u);
  EXPECT_EQ(object.streamable_info().size(), 2u);
  EXPECT_EQ(object.AppendScalarAttribute("a", Int(1), db::kDefault), -3);
}

TEST(DbObjectSchemaTest, ClearObjectKeepsFieldsAndTypes) {
  FakeObject object;
  DeclareStandardFields(&object);
  SetRecord(&object, 5);
  const size_t calls = object.backend().calls().size();
  object.ClearObject();
  EXPECT_EQ(object.scalar_fields().at("a"), Attribute(db::kInteger));
  EXPECT_EQ(object.scalar_fields().at("b"), Attribute(db::kString));
  EXPECT_EQ(object.composite_fields().at("l").first, db::kInteger);
  EXPECT_TRUE(object.composite_fields().at("l").second.empty());
  EXPECT_EQ(object.backend().calls().size(), calls) << "the backend is not involved";
}

TEST(DbObjectSchemaTest, SetCompositeSchemaRebuildsFromFields) {
  FakeObject object;
  object.composite_fields()["p"] = {db::kString, {Str("a"), Str("b")}};
  object.composite_fields()["q"] = {db::kBytes, {}};
  object.SetCompositeSchema();
  ASSERT_EQ(object.composite_schema().size(), 2u);
  EXPECT_THAT(object.composite_schema().at("p").second, ElementsAre(Attribute(db::kString)));
  EXPECT_EQ(object.composite_schema().at("q").first, db::kBytes);
  EXPECT_THAT(object.composite_schema().at("q").second, ElementsAre(Attribute(db::kBytes)));
}

TEST(DbObjectSchemaTest, NameForwardsToBackend) {
  FakeObject object;
  object.set_name("renamed");
  EXPECT_EQ(object.name(), "renamed");
  EXPECT_EQ(object.backend().GetTableName(), "renamed");
}

// ---- Id allocation around record operations.

TEST(DbObjectRecordTest, StoreWithNullIdConsumesNoId) {
  FakeObject object;
  DeclareStandardFields(&object);
  EXPECT_EQ(object.StoreObject(nullptr), -1);
  EXPECT_EQ(object.backend().CallCount("StoreRecord"), 0);
  uint32_t id = 0;
  ASSERT_EQ(object.StoreObject(&id), 0);
  EXPECT_EQ(id, 1u);
}

TEST(DbObjectRecordTest, RefusedStoreLeavesIdAndGivesItBack) {
  FakeObject object;
  DeclareStandardFields(&object);
  SetRecord(&object, 1);
  uint32_t id = 0;
  ASSERT_EQ(object.StoreObject(&id), 0);
  object.backend().FailNext(-6, "StoreRecord");
  uint32_t failed = 0;
  EXPECT_EQ(object.StoreObject(&failed), -6);
  EXPECT_EQ(failed, 2u);
  EXPECT_EQ(object.backend().records().count(2), 0u);
  uint32_t next = 0;
  ASSERT_EQ(object.StoreObject(&next), 0);
  EXPECT_EQ(next, 2u);
  // The record stored is the current one.
  EXPECT_EQ(object.backend().records().at(2).scalar.at("a"), Int(1));
}

TEST(DbObjectRecordTest, ObjectsOnDifferentTablesGetDistinctIds) {
  FakeObject first("one.db");
  FakeObject second("two.db");
  std::set<uint32_t> ids;
  for (int i = 0; i < 5; ++i) {
    uint32_t id = 0;
    ASSERT_EQ((i % 2 == 0 ? first : second).StoreObject(&id), 0);
    EXPECT_TRUE(ids.insert(id).second) << id;
  }
}

TEST(DbObjectRecordTest, DeleteSingleReleasesIdOnlyOnSuccess) {
  FakeObject object;
  DeclareStandardFields(&object);
  object.AppendCompositeAttribute("k", Attribute(db::kString), db::kDefault);
  uint32_t id1 = 0;
  uint32_t id2 = 0;
  ASSERT_EQ(object.StoreObject(&id1), 0);
  ASSERT_EQ(object.StoreObject(&id2), 0);
  object.backend().FailNext(-7, "DeleteRecord");
  EXPECT_EQ(object.DeleteSingleObject(id1), -7);
  EXPECT_TRUE(FreeIds().empty());
  object.backend().ClearCalls();
  EXPECT_EQ(object.DeleteSingleObject(id1), 0);
  // The names of all repeated fields, in name order.
  EXPECT_THAT(object.backend().calls(), ElementsAre("DeleteRecord 1 k,l"));
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{id1}));
}

TEST(DbObjectRecordTest, DeleteMultipleUsesCurrentRecordAndReleasesReportedIds) {
  FakeObject object;
  DeclareStandardFields(&object);
  for (int32_t a : {1, 2, 1, 1}) {
    SetRecord(&object, a);
    uint32_t id = 0;
    ASSERT_EQ(object.StoreObject(&id), 0);
  }
  object.ClearObject();
  object.scalar_fields()["a"] = 1;
  // The backend stops after the first record; what it removed goes back.
  object.backend().FailNext(-1, "DeleteRecords");
  EXPECT_EQ(object.DeleteMultipleObjects(), -1);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1}));
  EXPECT_EQ(object.DeleteMultipleObjects(), 0);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1, 3, 4}));
  EXPECT_EQ(object.backend().records().size(), 1u);
  EXPECT_EQ(object.backend().records().count(2), 1u);
}

TEST(DbObjectRecordTest, ClearAndDestroyReleaseIdsWhateverTheResult) {
  FakeObject object;
  DeclareStandardFields(&object);
  ASSERT_EQ(object.CreateObjTables(), 0);
  for (int i = 0; i < 3; ++i) {
    uint32_t id = 0;
    ASSERT_EQ(object.StoreObject(&id), 0);
  }
  object.backend().FailNext(-7, "ClearTable");
  EXPECT_EQ(object.ClearObjTable(), -7);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1}));
  object.backend().ClearCalls();
  object.backend().FailNext(-1, "DestroyTable");
  EXPECT_EQ(object.DestroyObjTables(), -1);
  EXPECT_THAT(object.backend().calls(), ElementsAre("ClearTable", "DestroyTable"));
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1, 2, 3}));
  EXPECT_TRUE(object.tables_created());
}

TEST(DbObjectRecordTest, UpdateLeavesAllocatorAlone) {
  FakeObject object;
  DeclareStandardFields(&object);
  uint32_t id = 0;
  ASSERT_EQ(object.StoreObject(&id), 0);
  SetRecord(&object, 9);
  EXPECT_EQ(object.UpdateObject(id), 0);
  EXPECT_EQ(object.backend().records().at(id).scalar.at("a"), Int(9));
  EXPECT_EQ(object.UpdateObject(77), -4);
  EXPECT_TRUE(FreeIds().empty());
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 1u);
}

// ---- Retrieval.

TEST(DbObjectRecordTest, RetrieveResetsRepeatedFieldsFromSchemaAndCopiesOut) {
  FakeObject object;
  DeclareStandardFields(&object);
  ASSERT_EQ(object.AppendCompositeAttribute("m", Attribute(db::kString), db::kDefault), 0);
  SetRecord(&object, 3);
  uint32_t id = 0;
  ASSERT_EQ(object.StoreObject(&id), 0);
  // The stored record has no "m"; the buffer must show the schema template.
  object.backend().records().at(id).composite.erase("m");
  object.composite_fields()["m"].second = {Str("stale")};

  ScalarFields scalar;
  CompositeFields composite;
  composite["other"] = {db::kInteger, {Int(1)}};
  composite["l"] = {db::kInteger, {Int(100), Int(200)}};
  ASSERT_EQ(object.RetrieveObject(id, &scalar, &composite), 0);
  EXPECT_EQ(scalar, object.scalar_fields());
  EXPECT_EQ(scalar.at("a"), Int(3));
  EXPECT_THAT(composite.at("l").second, ElementsAre(Int(3)));
  EXPECT_THAT(composite.at("m").second, ElementsAre(Attribute(db::kString)));
  EXPECT_THAT(composite.at("other").second, ElementsAre(Int(1))) << "other entries are kept";
  EXPECT_EQ(object.composite_fields().at("m").second, composite.at("m").second);

  // The object's own maps may be passed as outputs.
  EXPECT_EQ(object.RetrieveObject(id, &object.scalar_fields(), &object.composite_fields()), 0);
  EXPECT_EQ(object.RetrieveObject(99, &scalar, &composite), -4);
}

TEST(DbObjectRecordTest, RetrieveObjectsUsesCurrentRecordAsFilter) {
  FakeObject object;
  DeclareStandardFields(&object);
  for (int32_t a : {1, 2, 1}) {
    SetRecord(&object, a);
    uint32_t id = 0;
    ASSERT_EQ(object.StoreObject(&id), 0);
  }
  std::vector<uint32_t> ids{42};
  object.ClearObject();
  ASSERT_EQ(object.RetrieveObjects(&ids), 0);
  EXPECT_THAT(ids, ElementsAre(1, 2, 3));
  object.scalar_fields()["a"] = 1;
  ASSERT_EQ(object.RetrieveObjects(&ids), 0);
  EXPECT_THAT(ids, ElementsAre(1, 3));
  ScalarFields filter{{"a", Int(2)}};
  ASSERT_EQ(object.RetrieveObjects(&ids, filter, CompositeFields()), 0);
  EXPECT_THAT(ids, ElementsAre(2));
}

TEST(DbObjectRecordTest, DisconnectedOperationsReturnMinus2AfterResettingOutputs) {
  FakeObject object;
  DeclareStandardFields(&object);
  object.backend().set_connected(false);
  object.backend().ClearCalls();

  std::vector<uint32_t> ids{1, 2};
  EXPECT_EQ(object.RetrieveObjects(&ids), -2);
  EXPECT_TRUE(ids.empty());
  ids = {3};
  EXPECT_EQ(object.RetrieveObjects(&ids, ScalarFields(), CompositeFields()), -2);
  EXPECT_TRUE(ids.empty());
  int size = 12;
  EXPECT_EQ(object.GetObjTableSize(&size), -2);
  EXPECT_EQ(size, -1);

  ScalarFields scalar;
  CompositeFields composite;
  const std::vector<std::pair<const char*, std::function<int()>>> operations = {
      {"StoreObject",
       [&] {
         uint32_t id = 0;
         return object.StoreObject(&id);
       }},
      {"StoreObject(null)", [&] { return object.StoreObject(nullptr); }},
      {"UpdateObject", [&] { return object.UpdateObject(1); }},
      {"RetrieveObject", [&] { return object.RetrieveObject(1, &scalar, &composite); }},
      {"TraverseObjects", [&] { return object.TraverseObjects(nullptr); }},
      {"DeleteSingleObject", [&] { return object.DeleteSingleObject(1); }},
      {"DeleteMultipleObjects", [&] { return object.DeleteMultipleObjects(); }},
      {"AddTableIndex", [&] { return object.AddTableIndex("i", {"a"}); }},
      {"ClearObjTable", [&] { return object.ClearObjTable(); }},
      {"DestroyObjTables", [&] { return object.DestroyObjTables(); }},
      {"PrintDatabase", [&] { return object.PrintDatabase(nullptr); }},
  };
  for (const auto& operation : operations) {
    EXPECT_EQ(operation.second(), -2) << operation.first;
  }
  // -1, not -2, is what resynchronisation has always reported.
  EXPECT_EQ(object.ResynchronizeDb(false), -1);
  EXPECT_TRUE(object.backend().calls().empty());
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 0u);
}

// ---- Traversal.

std::vector<uint32_t>* visited = nullptr;
size_t stop_after = 0;

bool Visit(uint32_t id, const ScalarFields& scalar, const CompositeFields& composite) {
  visited->push_back(id);
  EXPECT_EQ(scalar.at("a").Get<int32_t>(), static_cast<int32_t>(id * 10));
  EXPECT_THAT(composite.at("l").second, ElementsAre(Int(static_cast<int32_t>(id * 10))));
  return visited->size() < stop_after;
}

class DbObjectTraverseTest : public testing::Test {
 protected:
  void SetUp() override {
    visited = &visited_;
    stop_after = SIZE_MAX;
    DeclareStandardFields(&object_);
    for (int32_t a : {10, 20, 30}) {
      SetRecord(&object_, a);
      uint32_t id = 0;
      ASSERT_EQ(object_.StoreObject(&id), 0);
    }
  }

  FakeObject object_;
  std::vector<uint32_t> visited_;
};

TEST_F(DbObjectTraverseTest, VisitsEveryMatchingRecordInOrder) {
  object_.ClearObject();
  EXPECT_EQ(object_.TraverseObjects(Visit), 0);
  EXPECT_THAT(visited_, ElementsAre(1, 2, 3));
  // The current record is the last record visited.
  EXPECT_EQ(object_.scalar_fields().at("a"), Int(30));

  visited_.clear();
  EXPECT_EQ(object_.TraverseObjects(ScalarFields{{"a", Int(20)}}, CompositeFields(), Visit), 0);
  EXPECT_THAT(visited_, ElementsAre(2));
}

TEST_F(DbObjectTraverseTest, CallbackReturningFalseStops) {
  stop_after = 1;
  object_.ClearObject();
  EXPECT_EQ(object_.TraverseObjects(Visit), 0);
  EXPECT_THAT(visited_, ElementsAre(1));
}

TEST_F(DbObjectTraverseTest, UnloadableRecordEndsWithMinus8) {
  object_.backend().FailNext(-4, "RetrieveRecord 2");
  EXPECT_EQ(object_.TraverseObjects(ScalarFields(), CompositeFields(), Visit), -8);
  EXPECT_THAT(visited_, ElementsAre(1));
}

TEST_F(DbObjectTraverseTest, FailedIdQueryIsReturned) {
  object_.backend().FailNext(-6, "RetrieveRecords");
  EXPECT_EQ(object_.TraverseObjects(ScalarFields(), CompositeFields(), Visit), -6);
  EXPECT_TRUE(visited_.empty());
}

// ---- Resynchronisation.

std::unique_ptr<FakeBackend> SeededBackend(const std::vector<uint32_t>& ids) {
  auto backend = std::make_unique<FakeBackend>();
  for (uint32_t id : ids) backend->records()[id] = FakeBackend::Record{{{"a", Int(1)}}, {}};
  return backend;
}

TEST(DbObjectResynchronizeTest, FirstObjectOfProcessCountsFromOne) {
  FakeObject object(SeededBackend({5, 9, 2}), "seeded.db");
  db::IdGenerator& generator = db::IdGenerator::GetInstance();
  EXPECT_EQ(generator.last_id(), 9u);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1, 3, 4, 6, 7, 8}));
  EXPECT_EQ(object.ResynchronizeDb(true), 3);
  EXPECT_EQ(generator.last_id(), 9u);
  EXPECT_EQ(db::DbObject::GetNextId(), 1u);
}

TEST(DbObjectResynchronizeTest, OnlyFirstObjectOfADatabaseNameResynchronises) {
  FakeObject first(SeededBackend({2}), "shared.db");
  EXPECT_EQ(first.backend().CallCount("RetrieveRecords"), 1);
  // Another table of the same database: not resynchronised on construction.
  FakeObject second(SeededBackend({50}), "shared.db");
  EXPECT_EQ(second.backend().CallCount("RetrieveRecords"), 0);
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 2u);
  // A later database starts after what was handed out, not from 1.
  FakeObject third(SeededBackend({3, 6}), "other.db");
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 6u);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1, 4, 5}));
  // Resynchronising the second table by hand brings in its ids.
  EXPECT_EQ(second.ResynchronizeDb(false), 50 - 46);
  EXPECT_EQ(FreeIds().count(6), 0u);
  EXPECT_EQ(FreeIds().count(7), 1u);
  EXPECT_EQ(FreeIds().count(49), 1u);
}

TEST(DbObjectResynchronizeTest, StoredIdsBelowLastIdAreTakenOutOfFreeSet) {
  for (int i = 0; i < 6; ++i) db::DbObject::GetNextId();
  db::DbObject::ReleaseId(2);
  db::DbObject::ReleaseId(4);
  FakeObject object(SeededBackend({4}), "below.db");
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 6u);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{2}));
  EXPECT_EQ(object.ResynchronizeDb(false), 5);
}

TEST(DbObjectResynchronizeTest, EmptyOrUnreadableTableReturnsZeroAndClearsRecord) {
  FakeObject object(SeededBackend({}), "empty.db");
  DeclareStandardFields(&object);
  SetRecord(&object, 8);
  EXPECT_EQ(object.ResynchronizeDb(false), 0);
  EXPECT_FALSE(object.scalar_fields().at("a").is_set());
  EXPECT_TRUE(object.composite_fields().at("l").second.empty());

  object.backend().records()[7] = FakeBackend::Record{};
  object.backend().FailNext(-1, "RetrieveRecords");
  EXPECT_EQ(object.ResynchronizeDb(true), 0);
  EXPECT_EQ(db::IdGenerator::GetInstance().last_id(), 0u);
  EXPECT_EQ(object.ResynchronizeDb(true), 7 - 6);
}

// ---- Whole-table dump.

std::string printed;

void Printer(std::stringstream& out) { printed += out.str(); }

TEST(DbObjectPrintTest, PrintDatabaseHandsSchemaAndPrinterToBackend) {
  FakeObject object;
  DeclareStandardFields(&object);
  uint32_t id = 0;
  ASSERT_EQ(object.StoreObject(&id), 0);
  object.backend().ClearCalls();
  EXPECT_EQ(object.PrintDatabase(Printer), 0);
  EXPECT_THAT(object.backend().calls(), ElementsAre("PrintDatabase l"));
  EXPECT_EQ(printed, "id=1\n");
  object.backend().FailNext(-2);
  EXPECT_EQ(object.PrintDatabase(Printer), -2);
}

}  // namespace
