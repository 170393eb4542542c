// LeveldbAPI queries: filtered retrieval through the index and through a
// scan, deletion by filter, clearing a table and declaring an index.

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>

#include "leveldb_api.h"
#include "leveldb_connector.h"
#include "support/test_util.h"

namespace db {
namespace {

using Ids = std::vector<uint32_t>;

Attribute Int(int32_t v) {
  Attribute a(kInteger);
  a = v;
  return a;
}

Attribute Str(const std::string& v) {
  Attribute a(kString);
  a = v;
  return a;
}

ScalarFields Schema() {
  return {{"a", Attribute(kInteger)}, {"b", Attribute(kString)}, {"c", Attribute(kInteger)}};
}

CompositeFields CompositeSchema() { return {{"tags", {kInteger, {}}}}; }

ScalarFields Record(int32_t a, const std::string& b, int32_t c) {
  return {{"a", Int(a)}, {"b", Str(b)}, {"c", Int(c)}};
}

CompositeFields Tags(const std::vector<int32_t>& tags) {
  std::vector<Attribute> values;
  for (const int32_t tag : tags) values.push_back(Int(tag));
  return {{"tags", {kInteger, values}}};
}

class LeveldbQueryTest : public testing::Test {
 protected:
  std::unique_ptr<LeveldbAPI> Open(const std::string& table = "T") {
    return std::make_unique<LeveldbAPI>(path_, table);
  }
  std::unique_ptr<LeveldbAPI> Created(const std::string& table = "T") {
    auto api = Open(table);
    EXPECT_EQ(api->CreateTable(Schema(), CompositeSchema()), 0);
    return api;
  }
  std::string Get(const std::string& key) {
    std::string value;
    leveldb::DB* db = LevelDbConnector::GetInstance().LookupConnection(path_);
    return db->Get(leveldb::ReadOptions(), key, &value).ok() ? value : "(missing)";
  }
  void PutRaw(const std::string& key, const std::string& value) {
    leveldb::DB* db = LevelDbConnector::GetInstance().LookupConnection(path_);
    ASSERT_TRUE(db->Put(leveldb::WriteOptions(), key, value).ok());
  }
  static Ids Query(const LeveldbAPI& api, const ScalarFields& scalar,
                   const CompositeFields& composite = {}) {
    Ids ids = {12345};
    EXPECT_EQ(api.RetrieveRecords(&ids, scalar, composite), 0);
    return ids;
  }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
};

// A few thousand random records stored in an indexed and a plain table; every
// filter must give the same ids through the index, through a scan and by a
// direct evaluation of the generated records.
TEST_F(LeveldbQueryTest, IndexAndScanAgreeWithTheRecords) {
  struct Generated {
    int32_t a;
    std::string b;
    int32_t c;
    std::vector<int32_t> tags;
  };
  std::mt19937 rng(20240611);
  auto pick = [&rng](int32_t n) { return static_cast<int32_t>(rng() % static_cast<uint32_t>(n)); };
  const std::vector<std::string> words = {"x", "y", "z", "x,y", "10"};
  std::vector<Generated> records;
  for (int i = 0; i < 3000; ++i) {
    Generated g{pick(8), words[static_cast<size_t>(pick(5))], pick(40), {}};
    for (int32_t n = pick(4); n > 0; --n) g.tags.push_back(pick(12));
    records.push_back(g);
  }
  {
    auto indexed = Created("idx");
    auto plain = Created("plain");
    ASSERT_EQ(indexed->AddTableIndex("by_ab", {"a", "b"}), 0);
    for (uint32_t id = 1; id <= records.size(); ++id) {
      const Generated& g = records[id - 1];
      ASSERT_EQ(indexed->StoreRecord(id, Record(g.a, g.b, g.c), Tags(g.tags)), 0);
      ASSERT_EQ(plain->StoreRecord(id, Record(g.a, g.b, g.c), Tags(g.tags)), 0);
    }
  }

  struct Filter {
    int32_t a, c;   // -1: not filtered
    std::string b;  // empty: not filtered
    std::vector<int32_t> tags;
  };
  std::vector<Filter> filters;
  for (int i = 0; i < 60; ++i) {
    Filter f{pick(3) == 0 ? -1 : pick(9),
             pick(3) == 0 ? pick(40) : -1,
             pick(2) == 0 ? words[static_cast<size_t>(pick(5))] : "",
             {}};
    if (pick(3) == 0) f.tags = {pick(12), pick(12)};
    filters.push_back(f);
  }
  auto run = [&](const LeveldbAPI& indexed, const LeveldbAPI& plain) {
    for (const Filter& f : filters) {
      ScalarFields scalar = Schema();  // Unset attributes do not restrict.
      if (f.a >= 0) scalar["a"] = Int(f.a);
      if (f.c >= 0) scalar["c"] = Int(f.c);
      if (!f.b.empty()) scalar["b"] = Str(f.b);
      const CompositeFields composite = f.tags.empty() ? CompositeFields() : Tags(f.tags);
      Ids expected;
      for (uint32_t id = 1; id <= records.size(); ++id) {
        const Generated& g = records[id - 1];
        const bool tag_hit =
            f.tags.empty() || std::any_of(g.tags.begin(), g.tags.end(), [&](int32_t t) {
              return std::count(f.tags.begin(), f.tags.end(), t) != 0;
            });
        if ((f.a < 0 || g.a == f.a) && (f.c < 0 || g.c == f.c) && (f.b.empty() || g.b == f.b) &&
            tag_hit) {
          expected.push_back(id);
        }
      }
      EXPECT_EQ(Query(indexed, scalar, composite), expected);
      EXPECT_EQ(Query(plain, scalar, composite), expected);
    }
  };
  // Reopened: the index is rebuilt from the stored records.
  auto indexed = Open("idx");
  auto plain = Open("plain");
  ASSERT_EQ(indexed->index()->index_schema(), (std::vector<std::string>{"a", "b"}));
  ASSERT_FALSE(indexed->index()->index_entries().empty());
  run(*indexed, *plain);
  // Indexing the plain table answers the same.
  ASSERT_EQ(plain->AddTableIndex("by_c", {"c"}), 0);
  run(*indexed, *plain);
}

TEST_F(LeveldbQueryTest, IdsComeInNumericOrder) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(10, Record(1, "x", 1), {}), 0);
  ASSERT_EQ(api->StoreRecord(9, Record(1, "x", 1), {}), 0);
  EXPECT_EQ(Query(*api, {}), (Ids{9, 10}));
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}), (Ids{9, 10}));
  EXPECT_EQ(Query(*api, {{"b", Attribute(kString)}}), (Ids{9, 10}));
  ASSERT_EQ(api->AddTableIndex("i", {"a"}), 0);
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}), (Ids{9, 10}));
}

TEST_F(LeveldbQueryTest, FiltersTheBackendDoesNotServe) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), Tags({5})), 0);
  log_.Clear();
  Ids ids = {7};
  // Repeated fields alone: refused without a message.
  EXPECT_EQ(api->RetrieveRecords(&ids, {}, Tags({5})), -1);
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(log_.Lines().empty());
  // A repeated field the table lacks, or of another type: nothing, success.
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}, {{"other", {kInteger, {Int(5)}}}}), Ids{});
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}, {{"tags", {kString, {Str("5")}}}}), Ids{});
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"zz", Int(1)}}, {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Invalid scalar field='zz', table='T'"));
  EXPECT_EQ(api->PrintDatabase({}, nullptr), -2);
}

TEST_F(LeveldbQueryTest, RecordWithoutStoredElementsFailsARepeatedFilter) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), Tags({})), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(1, "x", 1), Tags({3, 4})), 0);
  ASSERT_EQ(api->StoreRecord(3, Record(1, "x", 1), Tags({6})), 0);
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}, Tags({4, 6})), (Ids{2, 3}));
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}, Tags({})), (Ids{1, 2, 3}));
}

TEST_F(LeveldbQueryTest, CorruptRecordFailsTheScanWithCorruption) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), {}), 0);
  PutRaw("T:2", "3,5,5,5,1");
  Ids ids;
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"a", Int(1)}}, {}), -7);
  EXPECT_TRUE(log_.Contains("ERROR: Failed to retrieve database ids, table='T'"));
  EXPECT_TRUE(ids.empty());
}

TEST_F(LeveldbQueryTest, DeleteRecordsRemovesMatchesFromStoreAndIndex) {
  auto api = Created();
  ASSERT_EQ(api->AddTableIndex("i", {"a"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), Tags({1})), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(2, "x", 1), Tags({2})), 0);
  ASSERT_EQ(api->StoreRecord(3, Record(1, "y", 1), Tags({3})), 0);
  Ids ids = {99};
  EXPECT_EQ(api->DeleteRecords(&ids, {{"a", Int(7)}}, {}), 0);
  EXPECT_TRUE(ids.empty());
  EXPECT_EQ(Query(*api, {}), (Ids{1, 2, 3}));

  EXPECT_EQ(api->DeleteRecords(&ids, {{"a", Int(1)}}, {}), 0);
  EXPECT_EQ(ids, (Ids{1, 3}));
  EXPECT_EQ(Get("T:1") + Get("tags:T:1") + Get("T:3"), "(missing)(missing)(missing)");
  EXPECT_EQ(Get("tags:T:2"), "1,1,2");
  EXPECT_EQ(api->index()->index_entries().count("a:1"), 0u);
  EXPECT_EQ(Query(*api, {{"a", Int(1)}}), Ids{});

  EXPECT_EQ(api->DeleteRecords(&ids, {}, Tags({2})), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Failed to retrieve records, table='T', scalar_attribute={ }"));
}

TEST_F(LeveldbQueryTest, UpdatedValueMovesInTheIndex) {
  auto api = Created();
  ASSERT_EQ(api->AddTableIndex("i", {"b"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), {}), 0);
  ASSERT_EQ(api->UpdateRecord(1, Record(1, "y", 1), {}), 0);
  EXPECT_EQ(Query(*api, {{"b", Str("x")}}), Ids{});
  EXPECT_EQ(Query(*api, {{"b", Str("y")}, {"c", Int(1)}}), Ids{1});
  EXPECT_EQ(Query(*api, {{"b", Str("y")}, {"c", Int(2)}}), Ids{});
}

TEST_F(LeveldbQueryTest, ClearTableRemovesOnlyThisTablesRecords) {
  auto api = Created();
  ASSERT_EQ(api->AddTableIndex("i", {"a"}), 0);
  ASSERT_EQ(api->StoreRecord(9, Record(1, "x", 1), Tags({1})), 0);
  ASSERT_EQ(api->StoreRecord(10, Record(1, "x", 1), {}), 0);
  PutRaw("T:other:9", "1,1,5");  // Repeated field of a table "other".
  Ids ids;
  EXPECT_EQ(api->ClearTable(CompositeSchema(), &ids), 0);
  EXPECT_EQ(ids, (Ids{10, 9}));  // Key order.
  EXPECT_EQ(Get("T:9") + Get("tags:T:9"), "(missing)(missing)");
  EXPECT_EQ(Get("T:other:9"), "1,1,5");
  EXPECT_TRUE(api->index()->index_entries().empty());
  EXPECT_EQ(Get("schema:T"), "a:0,b:1,c:0,");
  ASSERT_EQ(api->StoreRecord(3, Record(1, "x", 1), {}), 0);
  EXPECT_EQ(api->ClearTable(CompositeSchema(), nullptr), 0);
  EXPECT_EQ(Query(*api, {}), Ids{});
}

TEST_F(LeveldbQueryTest, AddTableIndexChecksItsFieldsAndPersistsTheList) {
  auto api = Created();
  EXPECT_EQ(api->AddTableIndex("i", {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Invalid parameters"));
  EXPECT_EQ(api->AddTableIndex("i", {"a", "tags"}), -1);
  EXPECT_TRUE(api->index()->index_schema().empty());
  EXPECT_EQ(api->AddTableIndex("i", {"c", "a"}), 0);
  EXPECT_EQ(api->AddTableIndex("j", {"a"}), 0);
  EXPECT_EQ(Get("schema:T:idx"), "c,a");
}

}  // namespace
}  // namespace db
