// LevelDbIndex: the persisted index schema record, rebuilding the entries from
// stored records, entry maintenance and narrowing a filter.

#include "leveldb_index.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "leveldb_table.h"
#include "serializer.h"
#include "support/test_util.h"

namespace db {
namespace {

using Ids = std::set<uint32_t>;
using Names = std::vector<std::string>;

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

ScalarFields Record(int32_t vlan, const char* name) {
  ScalarFields record = {
      {"mtu", Attribute(kInteger)}, {"name", Attribute(kString)}, {"vlan", Attribute(kInteger)}};
  if (vlan >= 0) record["vlan"] = Int(vlan);
  if (name != nullptr) record["name"] = Str(name);
  return record;
}

class LevelDbIndexTest : public testing::Test {
 protected:
  void SetUp() override {
    db_ = LevelDbConnector::GetInstance().AcquireConnection(path_);
    ASSERT_NE(db_, nullptr);
  }
  void TearDown() override { LevelDbConnector::GetInstance().ReleaseConnection(path_); }

  // The table schema record and records written as LeveldbAPI writes them.
  void CreateTable() {
    LevelDbTable table("T", path_);
    ASSERT_TRUE(table.CreateSchema(Record(-1, nullptr), {}).ok());
  }
  void Put(uint32_t id, const ScalarFields& record) {
    leveldb::WriteBatch batch;
    Serializer().PutOnBatch(batch, "T", id, record, {});
    ASSERT_TRUE(db_->Write(leveldb::WriteOptions(), &batch).ok());
  }
  void PutRaw(const std::string& key, const std::string& value) {
    ASSERT_TRUE(db_->Put(leveldb::WriteOptions(), key, value).ok());
  }
  std::string Get(const std::string& key) {
    std::string value;
    const leveldb::Status status = db_->Get(leveldb::ReadOptions(), key, &value);
    return status.ok() ? value : status.ToString();
  }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
  leveldb::DB* db_ = nullptr;
};

TEST_F(LevelDbIndexTest, TableWithoutIndexLoadsQuietly) {
  CreateTable();
  LevelDbIndex index("T", path_);
  EXPECT_TRUE(index.index_schema().empty());
  EXPECT_FALSE(index.is_created());
  EXPECT_EQ(index.index_schema_key(), "schema:T:idx");
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(LevelDbIndexTest, RecoverIndexSchemaSplitsOnCommasAndBlanks) {
  const std::vector<std::pair<std::string, Names>> cases = {
      {"vlan,name", {"vlan", "name"}},
      {"vlan,,name,", {"vlan", "name"}},
      {" vlan , name", {"vlan", "name"}},
      {"my field,x", {"my", "field", "x"}},
      {"", {}},
  };
  LevelDbIndex index("T", path_);
  for (const auto& [text, names] : cases) {
    Names fields = {"stale"};
    index.RecoverIndexSchema(text, fields);
    EXPECT_EQ(fields, names) << text;
  }
}

TEST_F(LevelDbIndexTest, CreateIndexWritesTheNamesWithoutTrailingComma) {
  CreateTable();
  LevelDbIndex index("T", path_);
  ASSERT_EQ(index.CreateIndex({"vlan", "name"}), 0);
  EXPECT_TRUE(index.is_created());
  EXPECT_EQ(Get("schema:T:idx"), "vlan,name");
  leveldb::WriteBatch batch;
  index.InsertDelSchemaOnBatch(batch);
  ASSERT_TRUE(db_->Write(leveldb::WriteOptions(), &batch).ok());
  EXPECT_EQ(Get("schema:T:idx"), "NotFound: ");
}

TEST_F(LevelDbIndexTest, ReloadRebuildsEntriesFromStoredRecords) {
  CreateTable();
  Put(1, Record(10, "a"));
  Put(2, Record(10, nullptr));
  Put(3, Record(20, "a"));
  PutRaw("T:4", "x,1");                   // Undecodable: indexes nothing.
  Put(5, Record(20, "b"));                // Still indexed after the bad record.
  PutRaw("T:other:6", "3,0,2,2,,ab,10");  // Another table's repeated field.
  PutRaw("schema:T:idx", "vlan,name");

  LevelDbIndex index("T", path_);
  EXPECT_EQ(index.index_schema(), (Names{"vlan", "name"}));
  EXPECT_FALSE(index.is_created());
  const LevelDbIndex::IndexEntries expected = {
      {"name:a", {1, 3}}, {"name:b", {5}}, {"vlan:10", {1, 2}}, {"vlan:20", {3, 5}}};
  EXPECT_EQ(index.index_entries(), expected);
  EXPECT_EQ(index.id_entries().at(2), std::set<std::string>{"vlan:10"});
  EXPECT_EQ(index.id_entries().count(4), 0u);
}

TEST_F(LevelDbIndexTest, LoadFailureLeavesTheTableWithoutIndex) {
  PutRaw("schema:T:idx", "vlan,name");  // But no table schema record.
  LevelDbIndex index("T", path_);
  EXPECT_TRUE(index.index_schema().empty());
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', Table='T'"));
  EXPECT_TRUE(log_.Contains("ERROR: Fail to get scalar schema from DB, table='T'"));
  EXPECT_TRUE(log_.Contains("ERROR: Failed to load table index, table='T', schema=vlan,name"));
  EXPECT_TRUE(log_.Contains(" 12 src/lib/leveldb_index.cc:"));
}

TEST_F(LevelDbIndexTest, RequestsMergeOnlyAfterCreateIndex) {
  CreateTable();
  PutRaw("schema:T:idx", "mtu");
  LevelDbIndex index("T", path_);
  Names merged;
  // Loaded, not created: the request replaces the persisted list.
  EXPECT_TRUE(index.IndexSchemaIntersection({"vlan"}, merged));
  EXPECT_EQ(merged, Names{"vlan"});
  ASSERT_EQ(index.CreateIndex(merged), 0);
  EXPECT_EQ(Get("schema:T:idx"), "vlan");
  EXPECT_TRUE(index.IndexSchemaIntersection({"name", "vlan", "mtu"}, merged));
  EXPECT_EQ(merged, (Names{"vlan", "name", "mtu"}));
  EXPECT_FALSE(index.IndexSchemaIntersection({"vlan"}, merged));
  EXPECT_FALSE(index.IndexSchemaIntersection({}, merged));
}

TEST_F(LevelDbIndexTest, MaintenanceKeepsBothMapsInStep) {
  CreateTable();
  LevelDbIndex index("T", path_);
  ASSERT_EQ(index.CreateIndex({"vlan", "name"}), 0);
  index.StoreRecord(Record(10, nullptr), 1);  // Unset fields are indexed too.
  index.StoreRecord(Record(10, "a"), 2);
  EXPECT_EQ(index.index_entries().at("name:(unset)"), Ids{1});

  const auto before = index.index_entries();
  index.UpdateRecord(Record(10, "a"), Record(10, "a"), 2);
  EXPECT_EQ(index.index_entries(), before);

  index.UpdateRecord(Record(10, "a"), Record(30, "a"), 2);
  EXPECT_EQ(index.index_entries().at("vlan:10"), Ids{1});
  EXPECT_EQ(index.index_entries().at("vlan:30"), Ids{2});
  EXPECT_EQ(index.id_entries().at(2), (std::set<std::string>{"name:a", "vlan:30"}));

  const std::vector<uint32_t> gone = {2, 77};
  index.DeleteIndexIds(&gone);
  index.DeleteIndexIds(nullptr);
  const LevelDbIndex::IndexEntries expected = {{"name:(unset)", {1}}, {"vlan:10", {1}}};
  EXPECT_EQ(index.index_entries(), expected);
  EXPECT_EQ(index.id_entries().count(2), 0u);

  index.DestroyTable();
  EXPECT_TRUE(index.index_entries().empty() && index.id_entries().empty());
  EXPECT_FALSE(index.is_created());
}

TEST_F(LevelDbIndexTest, FilterIdsNarrowsByIndexedFieldsOnly) {
  CreateTable();
  LevelDbIndex index("T", path_);
  ASSERT_EQ(index.CreateIndex({"vlan", "name"}), 0);
  index.StoreRecord(Record(10, "a"), 1);
  index.StoreRecord(Record(10, "b"), 2);
  index.StoreRecord(Record(20, "a"), 3);
  struct Case {
    ScalarFields filter;
    Ids ids;
    Names left;
  };
  const Ids passed = {100};
  const std::vector<Case> cases = {
      {{{"vlan", Int(10)}}, {1, 2}, {}},
      {{{"vlan", Int(10)}, {"name", Str("a")}}, {1}, {}},
      {{{"vlan", Int(20)}, {"name", Str("b")}}, {}, {}},
      // A value no record holds matches nothing, whatever the other fields.
      {{{"vlan", Int(99)}, {"mtu", Int(1)}}, {}, {"mtu", "vlan"}},
      // Only non-indexed fields: ids untouched, unset attributes dropped.
      {{{"mtu", Int(1)}, {"name", Attribute(kString)}}, passed, {"mtu"}},
      {{{"mtu", Int(1)}, {"vlan", Int(20)}}, {3}, {"mtu"}},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    Ids ids = passed;
    ScalarFields filter = cases[i].filter;
    index.FilterIds(ids, filter);
    EXPECT_EQ(ids, cases[i].ids) << i;
    Names left;
    for (const auto& field : filter) left.push_back(field.first);
    EXPECT_EQ(left, cases[i].left) << i;
  }
}

TEST_F(LevelDbIndexTest, DisconnectedDatabaseReturnsMinusTwo) {
  LevelDbIndex index("T", dir_.File("never-opened"));
  Names fields;
  EXPECT_EQ(index.RetrieveSchema(fields), -2);
  EXPECT_EQ(index.CreateIndex({"vlan"}), -2);
  EXPECT_EQ(index.LoadTable(), -2);
  ScalarFields schema;
  EXPECT_EQ(index.GetScalarSchema(schema), -2);
  EXPECT_FALSE(index.is_created());
}

}  // namespace
}  // namespace db
