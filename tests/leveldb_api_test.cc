#include "leveldb_api.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include "leveldb_connector.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using db_test::Set;

// A record of the table; negative numbers and null texts leave fields unset.
ScalarFields Schema(int32_t enabled = -1, const char* label = nullptr, int32_t vlan = -1) {
  ScalarFields r = {{"enabled", Attribute(kInteger)},
                    {"label", Attribute(kString)},
                    {"vlan", Attribute(kInteger)}};
  if (enabled >= 0) r["enabled"] = enabled;
  if (label != nullptr) r["label"] = label;
  if (vlan >= 0) r["vlan"] = vlan;
  return r;
}

CompositeFields Vlans(std::vector<Attribute> values = {}) {
  return {{"vlans", {kInteger, std::move(values)}}};
}

class LeveldbApiTest : public testing::Test {
 protected:
  std::unique_ptr<LeveldbAPI> Open(const std::string& table = "T") {
    return std::make_unique<LeveldbAPI>(path_, table);
  }
  std::unique_ptr<LeveldbAPI> Created(const std::string& table = "T") {
    auto api = Open(table);
    EXPECT_EQ(api->CreateTable(Schema(), Vlans()), 0);
    return api;
  }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
};

TEST_F(LeveldbApiTest, ConnectionSharingAndLockedPath) {
  auto first = Open();
  auto second = Open();
  EXPECT_FALSE(first->Disconnect());  // The path stays open for the second user.
  EXPECT_TRUE(first->IsConnected());
  first.reset();  // Must not release the second user's share again.
  EXPECT_EQ(LevelDbConnector::GetInstance().Find(path_)->count, 1u);
  second.reset();

  leveldb::DB* raw = nullptr;  // Held by leveldb itself: every operation fails.
  ASSERT_TRUE(leveldb::DB::Open(leveldb::Options(), path_, &raw).ok());
  std::unique_ptr<leveldb::DB> holder(raw);
  auto api = Open();
  EXPECT_EQ(log_.Count("ERROR: Open status='IO error: lock "), 1);
  EXPECT_EQ(LevelDbConnector::GetInstance().Find(path_), nullptr);  // Nothing cached.
  EXPECT_FALSE(api->IsConnected());
  EXPECT_EQ(api->CreateTable(Schema(), Vlans()), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Db='" + path_ + "' not connected"));
  EXPECT_EQ(api->StoreRecord(1, Schema(), {}), -1);
  holder.reset();  // Once the other opener is gone, a later user connects.
  EXPECT_TRUE(Open()->IsConnected());
}

TEST_F(LeveldbApiTest, RecordsLiveUnderTheirKeys) {
  {
    auto api = Created();
    EXPECT_EQ(api->StoreRecord(7, Schema(1, "x,y"), Vlans({Set(10), Set(20)})), 0);
    EXPECT_EQ(api->StoreRecord(4000000000u, Schema(), Vlans()), 0);
    EXPECT_EQ(api->StoreRecord(8, Schema(), Vlans({Set(1)})), 0);
    EXPECT_EQ(api->DeleteRecord(8, {}), 0);  // With its repeated fields.
    EXPECT_EQ(api->DeleteRecord(9, {"vlans"}), 0);
    db_test::PutRaw(path_, "T:other:1", "1,1,5");  // Repeated field of a table "other".
    int size = 0;                                  // Every key with the table's prefix counts.
    ASSERT_EQ(api->GetTableSize(&size), 0);
    EXPECT_EQ(size, 3);
  }
  EXPECT_EQ(db_test::Dump(path_), (db_test::KeyValues{{"T:4000000000", "3,0,0,0,,,"},
                                                      {"T:7", "3,1,3,0,1,x,y,"},
                                                      {"T:other:1", "1,1,5"},
                                                      {"schema:T", "enabled:0,label:1,vlan:0,"},
                                                      {"schema:repeated:T", "vlans:0,"},
                                                      {"vlans:T:7", "2,2,2,10,20"}}));
}

TEST_F(LeveldbApiTest, RefusedRecordOperations) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(3, Schema(-1, nullptr, 5), {}), 0);
  EXPECT_EQ(api->StoreRecord(3, Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Record already exist, table='T', id=3"));
  ScalarFields scalars = Schema();
  CompositeFields composites;
  ASSERT_EQ(api->RetrieveRecord(3, &scalars, &composites), 0);
  EXPECT_EQ(scalars, Schema(-1, nullptr, 5));
  EXPECT_EQ(api->RetrieveRecord(9, &scalars, &composites), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', table='T', id=9"));
  EXPECT_EQ(api->UpdateRecord(9, Schema(), {}), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Failed to retrieve object, table='T', id=9"));
  // Every scalar field must be named; repeated fields must exist.
  EXPECT_EQ(api->StoreRecord(1, {{"vlan", Set(1)}}, {}), -1);
  EXPECT_EQ(api->StoreRecord(1, Schema(), {{"other", {kInteger, {Set(1)}}}}), -1);
  EXPECT_EQ(api->CreateTable(Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Table='T' already exists"));
}

TEST_F(LeveldbApiTest, EveryOperationOnATableNeverCreatedFails) {
  auto api = Open();
  ScalarFields scalars = Schema();
  CompositeFields composites;
  std::vector<uint32_t> ids;
  int size = 0;
  const std::vector<int> codes = {api->DestroyTable({}),
                                  api->AddScalarField("n", Set(1)),
                                  api->StoreRecord(1, Schema(), {}),
                                  api->UpdateRecord(1, Schema(), {}),
                                  api->DeleteRecord(1, {}),
                                  api->RetrieveRecord(1, &scalars, &composites),
                                  api->RetrieveRecords(&ids, {}, {}),
                                  api->DeleteRecords(&ids, {}, {}),
                                  api->GetTableSize(&size),
                                  api->ClearTable({}, &ids),
                                  api->AddTableIndex("i", {"vlan"})};
  EXPECT_EQ(codes, std::vector<int>(11, -1));
  EXPECT_EQ(log_.Count("ERROR: Table not created. Table='T'"), 11);
  EXPECT_GE(log_.Count("12 src/lib/leveldb_api"), 11);
  EXPECT_EQ(size, -1);
}

TEST_F(LeveldbApiTest, RepeatedFieldsWithoutElements) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Schema(), Vlans({Set(10), Set(20)})), 0);
  ASSERT_EQ(api->StoreRecord(2, Schema(), {}), 0);
  ASSERT_EQ(api->UpdateRecord(1, Schema(-1, "new"), Vlans()), 0);  // Keeps the stored elements.
  ScalarFields scalars = Schema();
  CompositeFields composites = Vlans({Set(99)});
  ASSERT_EQ(api->RetrieveRecord(1, &scalars, &composites), 0);
  EXPECT_EQ(scalars, Schema(-1, "new"));
  EXPECT_EQ(composites, Vlans({Set(10), Set(20)}));
  composites = Vlans({Set(99)});  // Nothing stored: left as passed.
  EXPECT_EQ(api->RetrieveRecord(2, &scalars, &composites), 0);
  EXPECT_EQ(composites, Vlans({Set(99)}));
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', composite_table='vlans:T', id=2"));
}

TEST_F(LeveldbApiTest, AddScalarFieldRewritesEveryRecordAndTheSchema) {
  {
    auto api = Created();
    ScalarFields record = Schema(1, nullptr, 2);
    ASSERT_EQ(api->StoreRecord(1, record, {}), 0);
    db_test::PutRaw(path_, "T:other:1", "1,1,5");
    ASSERT_EQ(api->AddScalarField("mtu", Set(0)), 0);
    ScalarFields back = Schema();
    back.emplace("mtu", Attribute(kInteger));
    CompositeFields composites;
    ASSERT_EQ(api->RetrieveRecord(1, &back, &composites), 0);
    record.emplace("mtu", Attribute(kInteger));  // The old record reads it unset.
    EXPECT_EQ(back, record);
    EXPECT_EQ(api->AddScalarField("mtu", Set(0)), -1);

    db_test::PutRaw(path_, "T:2", "x,1,a");
    EXPECT_EQ(api->RetrieveRecord(2, &back, &composites), 0);  // A corrupt record reads empty
    EXPECT_TRUE(back.empty());
    // and lets adding fail with the conversion error, changing nothing.
    EXPECT_THROW(api->AddScalarField("x", Set(0)), std::invalid_argument);
    EXPECT_EQ(api->table()->scalar_schema().count("x"), 0u);
  }
  const db_test::KeyValues all = db_test::Dump(path_);
  EXPECT_EQ(all.at("T:1"), "4,1,0,0,1,1,,,2");
  EXPECT_EQ(all.at("schema:T"), "enabled:0,label:1,mtu:0,vlan:0,");
  EXPECT_EQ(all.at("T:other:1"), "1,1,5");
}

TEST_F(LeveldbApiTest, DestroyTableRemovesEverythingAndDisconnects) {
  auto api = Created();
  auto other = Created("O");
  ASSERT_EQ(api->AddTableIndex("i", {"vlan"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Schema(), Vlans({Set(1)})), 0);
  ASSERT_EQ(other->StoreRecord(1, Schema(), {}), 0);
  EXPECT_EQ(api->DestroyTable(Vlans()), 0);
  EXPECT_EQ(api->StoreRecord(2, Schema(), {}), -1);
  other.reset();  // Last user: the database closes.
  EXPECT_FALSE(api->IsConnected());
  EXPECT_EQ(db_test::Dump(path_), (db_test::KeyValues{{"O:1", "3,0,0,0,,,"},
                                                      {"schema:O", "enabled:0,label:1,vlan:0,"},
                                                      {"schema:repeated:O", "vlans:0,"}}));
}

}  // namespace
}  // namespace db
