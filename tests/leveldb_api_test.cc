// LeveldbAPI: connection sharing, table-level and single-record operations,
// checked through the API and, byte for byte, through the stored keys.

#include "leveldb_api.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "support/test_util.h"

namespace db {
namespace {

using KeyValues = std::map<std::string, std::string>;

Attribute Int(int32_t v) {
  Attribute a(kInteger);
  a = v;
  return a;
}

Attribute Str(const char* v) {
  Attribute a(kString);
  a = v;
  return a;
}

ScalarFields Schema() {
  return {{"enabled", Attribute(kInteger)},
          {"label", Attribute(kString)},
          {"vlan", Attribute(kInteger)}};
}

CompositeFields CompositeSchema() { return {{"vlans", {kInteger, {}}}}; }

// Every key and value of a closed database, read with leveldb itself.
KeyValues Dump(const std::string& path) {
  leveldb::DB* raw = nullptr;
  leveldb::Options options;
  EXPECT_TRUE(leveldb::DB::Open(options, path, &raw).ok());
  std::unique_ptr<leveldb::DB> db(raw);
  KeyValues all;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(leveldb::ReadOptions()));
  for (it->SeekToFirst(); it->Valid(); it->Next())
    all[it->key().ToString()] = it->value().ToString();
  return all;
}

void PutRaw(const std::string& path, const std::string& key, const std::string& value) {
  leveldb::DB* db = LevelDbConnector::GetInstance().LookupConnection(path);
  ASSERT_NE(db, nullptr);
  ASSERT_TRUE(db->Put(leveldb::WriteOptions(), key, value).ok());
}

class LeveldbApiTest : public testing::Test {
 protected:
  std::unique_ptr<LeveldbAPI> Open(const std::string& table = "T") {
    return std::make_unique<LeveldbAPI>(dir_.File("db"), table);
  }
  std::unique_ptr<LeveldbAPI> Created(const std::string& table = "T") {
    auto api = Open(table);
    EXPECT_EQ(api->CreateTable(Schema(), CompositeSchema()), 0);
    return api;
  }
  std::string path() const { return dir_.File("db"); }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
};

TEST_F(LeveldbApiTest, UsersOfOnePathShareOneCountedHandle) {
  auto first = Open();
  auto second = Open();
  const LevelDbConnector::Connection* entry = LevelDbConnector::GetInstance().Find(path());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->count, 2u);
  // The first user lets go but the path stays open for the second, so both
  // still report connected.
  EXPECT_FALSE(first->Disconnect());
  EXPECT_TRUE(first->IsConnected());
  EXPECT_TRUE(second->IsConnected());
  EXPECT_EQ(entry->count, 1u);
  first.reset();  // Must not release the second user's share again.
  ASSERT_NE(LevelDbConnector::GetInstance().Find(path()), nullptr);
  EXPECT_EQ(second->CreateTable(Schema(), CompositeSchema()), 0);
  second.reset();
  EXPECT_EQ(LevelDbConnector::GetInstance().Find(path()), nullptr);
  // Closed for real: leveldb itself can take the lock again.
  EXPECT_EQ(Dump(path()).count("schema:T"), 1u);
}

TEST_F(LeveldbApiTest, PathThatCannotBeOpenedLeavesEveryOperationFailing) {
  leveldb::DB* raw = nullptr;
  leveldb::Options options;
  options.create_if_missing = true;
  ASSERT_TRUE(leveldb::DB::Open(options, path(), &raw).ok());
  std::unique_ptr<leveldb::DB> holder(raw);  // Holds the directory lock.

  auto api = Open();
  EXPECT_TRUE(log_.Contains("ERROR: Open status='IO error: lock "));
  EXPECT_FALSE(api->IsConnected());
  EXPECT_EQ(api->table(), nullptr);
  EXPECT_EQ(api->CreateTable(Schema(), CompositeSchema()), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Db='" + path() + "' not connected"));
  ScalarFields scalars = Schema();
  CompositeFields composites;
  std::vector<uint32_t> ids{1};
  int size = 0;
  EXPECT_EQ(api->StoreRecord(1, Schema(), {}), -1);
  EXPECT_EQ(api->UpdateRecord(1, Schema(), {}), -1);
  EXPECT_EQ(api->RetrieveRecord(1, &scalars, &composites), -1);
  EXPECT_EQ(api->RetrieveRecords(&ids, {}, {}), -1);
  EXPECT_TRUE(ids.empty());
  EXPECT_EQ(api->GetTableSize(&size), -1);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(api->AddCompositeField("x", {kInteger, {}}), -1);
  EXPECT_EQ(api->AddTableIndex("i", {"vlan"}), -1);
  api->SetTableName("U");
  EXPECT_EQ(api->GetTableName(), "U");
  EXPECT_EQ(api->DeleteRecord(1, {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Table not created. Table='U'"));
}

TEST_F(LeveldbApiTest, RecordIsStoredUnderItsKeysInTheValueFormat) {
  {
    auto api = Created();
    ScalarFields record = Schema();
    record["enabled"] = Int(1);
    record["label"] = Str("x,y");
    EXPECT_EQ(api->StoreRecord(7, record, {{"vlans", {kInteger, {Int(10), Int(20)}}}}), 0);
    EXPECT_EQ(api->StoreRecord(4000000000u, Schema(), {{"vlans", {kInteger, {}}}}), 0);
  }
  const KeyValues expected = {
      {"T:4000000000", "3,0,0,0,,,"},
      {"T:7", "3,1,3,0,1,x,y,"},
      {"schema:T", "enabled:0,label:1,vlan:0,"},
      {"schema:repeated:T", "vlans:0,"},
      {"vlans:T:7", "2,2,2,10,20"},
  };
  EXPECT_EQ(Dump(path()), expected);
}

TEST_F(LeveldbApiTest, StoringAnExistingIdIsRefusedAndKeepsTheRecord) {
  auto api = Created();
  ScalarFields record = Schema();
  record["vlan"] = Int(5);
  ASSERT_EQ(api->StoreRecord(3, record, {}), 0);
  record["vlan"] = Int(6);
  EXPECT_EQ(api->StoreRecord(3, record, {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Record already exist, table='T', id=3"));
  ScalarFields back = Schema();
  CompositeFields composites;
  ASSERT_EQ(api->RetrieveRecord(3, &back, &composites), 0);
  EXPECT_EQ(back["vlan"], Int(5));
}

TEST_F(LeveldbApiTest, MissingIdsAndWrongShapes) {
  auto api = Created();
  ScalarFields scalars = Schema();
  CompositeFields composites = CompositeSchema();
  EXPECT_EQ(api->RetrieveRecord(9, &scalars, &composites), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', table='T', id=9"));
  EXPECT_EQ(api->UpdateRecord(9, Schema(), {}), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Failed to retrieve object, table='T', id=9"));
  EXPECT_EQ(api->DeleteRecord(9, {"vlans"}), 0);
  // A record must name every scalar field; repeated fields must exist.
  EXPECT_EQ(api->StoreRecord(1, {{"vlan", Int(1)}}, {}), -1);
  EXPECT_EQ(api->StoreRecord(1, Schema(), {{"other", {kInteger, {Int(1)}}}}), -1);
  EXPECT_EQ(api->CreateTable(Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Table='T' already exists"));
}

TEST_F(LeveldbApiTest, EveryOperationOnATableNeverCreatedFails) {
  auto api = Open();
  ScalarFields scalars = Schema();
  CompositeFields composites;
  std::vector<uint32_t> ids;
  int size = 0;
  const std::vector<std::pair<const char*, std::function<int()>>> operations = {
      {"DestroyTable", [&] { return api->DestroyTable({}); }},
      {"AddScalarField", [&] { return api->AddScalarField("n", Int(1)); }},
      {"StoreRecord", [&] { return api->StoreRecord(1, Schema(), {}); }},
      {"UpdateRecord", [&] { return api->UpdateRecord(1, Schema(), {}); }},
      {"DeleteRecord", [&] { return api->DeleteRecord(1, {}); }},
      {"RetrieveRecord", [&] { return api->RetrieveRecord(1, &scalars, &composites); }},
      {"RetrieveRecords", [&] { return api->RetrieveRecords(&ids, {}, {}); }},
      {"DeleteRecords", [&] { return api->DeleteRecords(&ids, {}, {}); }},
      {"GetTableSize", [&] { return api->GetTableSize(&size); }},
      {"ClearTable", [&] { return api->ClearTable({}, &ids); }},
      {"AddTableIndex", [&] { return api->AddTableIndex("i", {"vlan"}); }},
  };
  for (const auto& [name, operation] : operations) {
    log_.Clear();
    EXPECT_EQ(operation(), -1) << name;
    EXPECT_TRUE(log_.Contains("12 src/lib/leveldb_api")) << name;
    EXPECT_TRUE(log_.Contains("ERROR: Table not created. Table='T'")) << name;
  }
  EXPECT_EQ(size, -1);
}

TEST_F(LeveldbApiTest, UpdateKeepsRepeatedFieldsGivenEmptyAndReplacesTheOthers) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Schema(), {{"vlans", {kInteger, {Int(10), Int(20)}}}}), 0);
  ScalarFields record = Schema();
  record["label"] = Str("new");
  ASSERT_EQ(api->UpdateRecord(1, record, {{"vlans", {kInteger, {}}}}), 0);
  ScalarFields scalars = Schema();
  CompositeFields composites = CompositeSchema();
  ASSERT_EQ(api->RetrieveRecord(1, &scalars, &composites), 0);
  EXPECT_EQ(scalars["label"], Str("new"));
  EXPECT_EQ(composites["vlans"].second, (std::vector<Attribute>{Int(10), Int(20)}));

  ASSERT_EQ(api->UpdateRecord(1, record, {{"vlans", {kInteger, {Int(30)}}}}), 0);
  ASSERT_EQ(api->RetrieveRecord(1, &scalars, &composites), 0);
  EXPECT_EQ(composites["vlans"].second, (std::vector<Attribute>{Int(30)}));
}

TEST_F(LeveldbApiTest, RepeatedFieldWithoutStoredElementsIsLeftAsPassed) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(2, Schema(), {}), 0);
  ScalarFields scalars = Schema();
  CompositeFields composites = {{"vlans", {kInteger, {Int(99)}}}};
  EXPECT_EQ(api->RetrieveRecord(2, &scalars, &composites), 0);
  EXPECT_EQ(composites["vlans"].second, std::vector<Attribute>{Int(99)});
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', composite_table='vlans:T', id=2"));
}

TEST_F(LeveldbApiTest, DeleteRecordRemovesTheRecordAndItsRepeatedFields) {
  {
    auto api = Created();
    ASSERT_EQ(api->StoreRecord(1, Schema(), {{"vlans", {kInteger, {Int(1)}}}}), 0);
    ASSERT_EQ(api->StoreRecord(2, Schema(), {{"vlans", {kInteger, {Int(2)}}}}), 0);
    EXPECT_EQ(api->DeleteRecord(1, {}), 0);
  }
  const KeyValues all = Dump(path());
  EXPECT_EQ(all.count("T:1") + all.count("vlans:T:1"), 0u);
  EXPECT_EQ(all.count("T:2") + all.count("vlans:T:2"), 2u);
}

TEST_F(LeveldbApiTest, TableSizeCountsEveryKeyWithTheTablePrefix) {
  auto api = Created();
  int size = 0;
  ASSERT_EQ(api->GetTableSize(&size), 0);
  EXPECT_EQ(size, 0);
  ASSERT_EQ(api->StoreRecord(9, Schema(), {{"vlans", {kInteger, {Int(1)}}}}), 0);
  ASSERT_EQ(api->StoreRecord(10, Schema(), {}), 0);
  ASSERT_EQ(api->GetTableSize(&size), 0);
  EXPECT_EQ(size, 2);  // "vlans:T:9" begins with the field name.
  // A repeated field of another table named like this table shares the prefix.
  PutRaw(path(), "T:other:1", "1,1,5");
  ASSERT_EQ(api->GetTableSize(&size), 0);
  EXPECT_EQ(size, 3);
}

TEST_F(LeveldbApiTest, AddScalarFieldRewritesEveryRecordAndTheSchema) {
  {
    auto api = Created();
    ScalarFields record = Schema();
    record["enabled"] = Int(1);
    record["vlan"] = Int(2);
    ASSERT_EQ(api->StoreRecord(1, record, {}), 0);
    // A repeated field of another table that shares the key prefix.
    PutRaw(path(), "T:other:1", "1,1,5");
    ASSERT_EQ(api->AddScalarField("mtu", Int(0)), 0);
    ScalarFields back = Schema();
    back.emplace("mtu", Attribute(kInteger));
    CompositeFields composites;
    ASSERT_EQ(api->RetrieveRecord(1, &back, &composites), 0);
    EXPECT_FALSE(back["mtu"].is_set());
    EXPECT_EQ(back["vlan"], Int(2));
    EXPECT_EQ(api->AddScalarField("mtu", Int(0)), -1);
  }
  const KeyValues all = Dump(path());
  EXPECT_EQ(all.at("T:1"), "4,1,0,0,1,1,,,2");
  EXPECT_EQ(all.at("schema:T"), "enabled:0,label:1,mtu:0,vlan:0,");
  EXPECT_EQ(all.at("T:other:1"), "1,1,5");
}

TEST_F(LeveldbApiTest, AddScalarFieldOnACorruptRecordChangesNothing) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Schema(), {}), 0);
  PutRaw(path(), "T:2", "x,1,a");
  EXPECT_EQ(api->AddScalarField("mtu", Int(0)), -7);
  EXPECT_EQ(api->table()->scalar_schema().count("mtu"), 0u);
  ScalarFields back = Schema();
  CompositeFields composites;
  EXPECT_EQ(api->RetrieveRecord(1, &back, &composites), 0);
  EXPECT_EQ(back.size(), 3u);
}

TEST_F(LeveldbApiTest, CorruptStoredValueReadsBackAsAnEmptyRecord) {
  auto api = Created();
  PutRaw(path(), "T:5", "3,1,1,1,x,y,z");
  ScalarFields scalars = Schema();
  CompositeFields composites;
  EXPECT_EQ(api->RetrieveRecord(5, &scalars, &composites), 0);
  EXPECT_TRUE(scalars.empty());
  EXPECT_TRUE(
      log_.Contains("ERROR: Failed to deserialize the scalar attribute='enabled', value='x'"));
}

TEST_F(LeveldbApiTest, DestroyTableRemovesEverythingAndDisconnects) {
  auto api = Created();
  auto other = Created("O");
  ASSERT_EQ(api->AddTableIndex("i", {"vlan"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Schema(), {{"vlans", {kInteger, {Int(1)}}}}), 0);
  ASSERT_EQ(other->StoreRecord(1, Schema(), {}), 0);
  EXPECT_EQ(api->DestroyTable(CompositeSchema()), 0);
  EXPECT_TRUE(api->index()->index_schema().empty());
  EXPECT_EQ(api->StoreRecord(2, Schema(), {}), -1);
  other.reset();  // Last user: the database closes.
  EXPECT_FALSE(api->IsConnected());
  const KeyValues expected = {{"O:1", "3,0,0,0,,,"},
                              {"schema:O", "enabled:0,label:1,vlan:0,"},
                              {"schema:repeated:O", "vlans:0,"}};
  EXPECT_EQ(Dump(path()), expected);
  // Creating it again reconnects.
  EXPECT_EQ(api->CreateTable(Schema(), {}), 0);
  EXPECT_TRUE(api->IsConnected());
  EXPECT_EQ(api->StoreRecord(2, Schema(), {}), 0);
}

TEST_F(LeveldbApiTest, ReturnCodeTranslation) {
  const std::vector<std::pair<leveldb::Status, int>> cases = {
      {leveldb::Status::OK(), 0},
      {leveldb::Status::NotFound("k"), -4},
      {leveldb::Status::Corruption("c"), -7},
      {leveldb::Status::IOError("io"), -1},
      {leveldb::Status::NotSupported("n"), -1},
      {leveldb::Status::InvalidArgument("a"), -1},
  };
  for (const auto& [status, code] : cases) {
    EXPECT_EQ(LeveldbAPI::DbReturnCodeTranslate(status), code) << status.ToString();
  }
}

TEST_F(LeveldbApiTest, SetTableNameReloadsTheIndexOfTheNewName) {
  auto indexed = Created("A");
  ASSERT_EQ(indexed->AddTableIndex("i", {"vlan"}), 0);
  ScalarFields record = Schema();
  record["vlan"] = Int(4);
  ASSERT_EQ(indexed->StoreRecord(1, record, {}), 0);
  auto api = Created("B");
  EXPECT_TRUE(api->index()->index_schema().empty());
  api->SetTableName("A");
  EXPECT_EQ(api->GetTableName(), "A");
  EXPECT_EQ(api->index()->index_schema(), std::vector<std::string>{"vlan"});
  EXPECT_EQ(api->index()->index_entries().at("vlan:4"), std::set<uint32_t>{1});
}

}  // namespace
}  // namespace db
