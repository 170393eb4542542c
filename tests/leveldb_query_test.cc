#include <random>
#include <stdexcept>

#include <leveldb/db.h>

#include "leveldb_api.h"
#include "leveldb_connector.h"
#include "leveldb_index.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using db_test::GetRaw;
using db_test::PutRaw;
using db_test::Val;
using Ids = std::vector<uint32_t>;
using Names = std::vector<std::string>;

// Negative numbers and null texts leave the field unset.
ScalarFields Record(int32_t a = -1, const char* b = nullptr, int32_t c = -1) {
  ScalarFields r = {
      {"a", Attribute(kInteger)}, {"b", Attribute(kString)}, {"c", Attribute(kInteger)}};
  if (a >= 0) r["a"] = a;
  if (b != nullptr) r["b"] = b;
  if (c >= 0) r["c"] = c;
  return r;
}

CompositeFields Tags(const std::vector<int32_t>& tags) {
  CompositeFields f = {{"tags", {kInteger, {}}}};
  for (const int32_t tag : tags) f["tags"].second.push_back(Val(tag));
  return f;
}

class LeveldbQueryTest : public testing::Test {
 protected:
  std::unique_ptr<LeveldbAPI> Open(const std::string& table = "T") {
    return std::make_unique<LeveldbAPI>(path_, table);
  }
  std::unique_ptr<LeveldbAPI> Created(const std::string& table = "T") {
    auto api = Open(table);
    EXPECT_EQ(api->CreateTable(Record(), Tags({})), 0);
    return api;
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

// Random records in an indexed and a plain table: every filter gives the ids a
// direct evaluation of the records gives, through the index and a scan, after
// reopening (the index is rebuilt from the records) and after indexing more.
TEST_F(LeveldbQueryTest, IndexAndScanAgreeWithTheRecords) {
  struct Generated {
    int32_t a, c;   // Negative in a filter: not filtered.
    const char* b;  // Null in a filter: not filtered.
    std::vector<int32_t> tags;
  };
  std::mt19937 rng(20240611);
  auto pick = [&rng](uint32_t n) { return static_cast<int32_t>(rng() % n); };
  const char* const words[] = {"x", "y", "z", "x,y", "10"};
  std::vector<Generated> records(3000), filters(60);
  for (Generated& g : records) {
    g = {pick(8), pick(40), words[pick(5)], {}};
    for (int32_t n = pick(4); n > 0; --n) g.tags.push_back(pick(12));
  }
  for (Generated& f : filters) {
    f = {pick(9) - 1, pick(2) ? pick(40) : -1, pick(2) ? words[pick(5)] : nullptr, {}};
    if (pick(3) == 0) f.tags = {pick(12), pick(12)};
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
  auto indexed = Open("idx");
  auto plain = Open("plain");
  ASSERT_EQ(indexed->index()->index_schema(), (Names{"a", "b"}));
  for (int pass = 0; pass < 2; ++pass) {
    for (const Generated& f : filters) {
      Ids expected;
      for (uint32_t id = 1; id <= records.size(); ++id) {
        const Generated& g = records[id - 1];
        if ((f.a < 0 || g.a == f.a) && (f.c < 0 || g.c == f.c) &&
            (f.b == nullptr || std::string(g.b) == f.b) &&
            (f.tags.empty() || std::find_first_of(g.tags.begin(), g.tags.end(), f.tags.begin(),
                                                  f.tags.end()) != g.tags.end())) {
          expected.push_back(id);
        }
      }
      const CompositeFields tags = f.tags.empty() ? CompositeFields() : Tags(f.tags);
      EXPECT_EQ(Query(*indexed, Record(f.a, f.b, f.c), tags), expected);
      EXPECT_EQ(Query(*plain, Record(f.a, f.b, f.c), tags), expected);
    }
    ASSERT_EQ(plain->AddTableIndex("by_c", {"c"}), 0);  // Then again, partly indexed.
  }
}

// A record is selected only when every repeated field of the filter matches,
// not only the last one looked at.
TEST_F(LeveldbQueryTest, EveryRepeatedFieldOfTheFilterMustMatch) {
  auto two = [](int32_t p, int32_t q) {
    return CompositeFields{{"p", {kInteger, {Val(p)}}}, {"q", {kInteger, {Val(q)}}}};
  };
  auto api = Open();
  ASSERT_EQ(api->CreateTable(Record(), {{"p", {kInteger, {}}}, {"q", {kInteger, {}}}}), 0);
  ASSERT_EQ(api->StoreRecord(1, Record(1), two(1, 2)), 0);
  EXPECT_EQ(Query(*api, Record(), two(9, 2)), Ids{});
  EXPECT_EQ(Query(*api, Record(), two(1, 2)), Ids{1});
}

TEST_F(LeveldbQueryTest, OrderAndRefusedFilters) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(10, Record(1, "x", 1), Tags({5})), 0);
  ASSERT_EQ(api->StoreRecord(9, Record(1, "x", 1), {}), 0);
  EXPECT_EQ(Query(*api, {}), (Ids{9, 10}));
  log_.Clear();
  Ids ids = {7};
  EXPECT_EQ(api->RetrieveRecords(&ids, {}, Tags({5})), -1);  // Repeated fields alone.
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(log_.Lines().empty());
  // A repeated field the table lacks, or of another type: nothing, success.
  EXPECT_EQ(Query(*api, {{"a", Val(1)}}, {{"other", {kInteger, {Val(5)}}}}), Ids{});
  EXPECT_EQ(Query(*api, {{"a", Val(1)}}, {{"tags", {kString, {Val("5")}}}}), Ids{});
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"zz", Val(1)}}, {}), -1);
  EXPECT_EQ(log_.Count("ERROR: Invalid scalar field='zz', table='T'"), 1);
  EXPECT_EQ(api->PrintDatabase({}, nullptr), -2);
  // A damaged value lets the conversion error pass, on every path that meets it.
  PutRaw(path_, "tags:T:10", "3,5,5,5,1");
  EXPECT_THROW(Query(*api, {{"a", Val(1)}}, Tags({5})), std::out_of_range);
  PutRaw(path_, "T:2", "3,5,5,5,1");
  EXPECT_THROW(api->RetrieveRecords(&ids, {{"a", Val(1)}}, {}), std::out_of_range);
  EXPECT_EQ(log_.Count("ERROR: Corrupt record, key='T:2'"), 1);
  EXPECT_TRUE(ids.empty());
  ASSERT_EQ(api->AddTableIndex("i", {"a"}), 0);
  // A record the index lists but the store lacks fails the query, also with a
  // repeated-field condition after it.
  ASSERT_TRUE(LevelDbConnector::GetInstance().LookupConnection(path_)->Delete({}, "T:10").ok());
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"a", Val(1)}, {"c", Val(1)}}, Tags({5})), -4);
  EXPECT_EQ(Query(*api, {{"a", Val(1)}}), (Ids{9, 10}))
      << "what the index answers alone is not read";
  PutRaw(path_, "T:9", "3,5,5,5,1");
  EXPECT_THROW(Query(*api, {{"a", Val(1)}, {"c", Val(1)}}), std::out_of_range);
}

TEST_F(LeveldbQueryTest, DeletionsLeaveStoreAndIndexInStep) {
  auto api = Created();
  ASSERT_EQ(api->AddTableIndex("i", {"a", "b"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Record(1, "x", 1), Tags({1})), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(2), Tags({2})), 0);
  ASSERT_EQ(api->StoreRecord(3, Record(1, "y", 1), {}), 0);
  EXPECT_EQ(api->index()->index_entries().at("b:(unset)"), std::set<uint32_t>{2});
  ASSERT_EQ(api->UpdateRecord(3, Record(1, "z", 1), {}), 0);
  EXPECT_EQ(Query(*api, {{"b", Val("y")}}), Ids{});
  EXPECT_EQ(Query(*api, {{"b", Val("z")}, {"c", Val(1)}}), Ids{3});

  Ids ids = {99};
  EXPECT_EQ(api->DeleteRecords(&ids, {{"a", Val(1)}}, {}), 0);
  EXPECT_EQ(ids, (Ids{1, 3}));
  EXPECT_EQ(GetRaw(path_, "T:1") + GetRaw(path_, "tags:T:1"), "(missing)(missing)");
  EXPECT_EQ(api->index()->index_entries().count("a:1"), 0u);

  ASSERT_EQ(api->StoreRecord(10, Record(), {}), 0);
  PutRaw(path_, "T:other:9", "1,1,5");  // Repeated field of a table "other".
  EXPECT_EQ(api->ClearTable(Tags({}), &ids), 0);
  EXPECT_EQ(ids, (Ids{10, 2}));  // Key order.
  EXPECT_EQ(GetRaw(path_, "tags:T:2") + GetRaw(path_, "T:other:9"), "(missing)1,1,5");
  EXPECT_TRUE(api->index()->index_entries().empty());
}

TEST_F(LeveldbQueryTest, IndexSchemaRecord) {
  auto api = Created();
  EXPECT_EQ(api->AddTableIndex("i", {}), -1);
  EXPECT_EQ(api->AddTableIndex("i", {"a", "tags"}), -1);  // Repeated fields cannot be indexed.
  EXPECT_EQ(api->AddTableIndex("i", {"c", "a"}), 0);
  EXPECT_EQ(api->AddTableIndex("j", {"a"}), 0);
  EXPECT_EQ(GetRaw(path_, "schema:T:idx"), "c,a");

  LevelDbIndex index("T", path_);  // Loaded, not created: a request replaces the list.
  EXPECT_EQ(index.index_schema(), (Names{"c", "a"}));
  Names merged;
  EXPECT_TRUE(index.IndexSchemaIntersection({"b"}, merged));
  EXPECT_EQ(merged, Names{"b"});
  ASSERT_EQ(index.CreateIndex(merged), 0);
  EXPECT_EQ(GetRaw(path_, "schema:T:idx"), "b");
  EXPECT_TRUE(index.IndexSchemaIntersection({"c", "b", "a"}, merged));
  EXPECT_EQ(merged, (Names{"b", "c", "a"}));
  EXPECT_FALSE(index.IndexSchemaIntersection({"b"}, merged));
  EXPECT_FALSE(index.IndexSchemaIntersection({}, merged));

  Names fields = {"stale"};  // Commas and blanks separate names; empty ones vanish.
  index.RecoverIndexSchema(" a ,,my field,", fields);
  EXPECT_EQ(fields, (Names{"a", "my", "field"}));
}

TEST_F(LeveldbQueryTest, ReloadIndexesTheSetFieldsOfDecodableRecordsOfTheTable) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(1, Record(10, "a"), {}), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(10), {}), 0);
  ASSERT_EQ(api->StoreRecord(5, Record(20, "b"), {}), 0);
  PutRaw(path_, "T:4", "x,1");
  PutRaw(path_, "T:other:6", "3,0,2,2,,ab,10");
  PutRaw(path_, "schema:T:idx", "a,b");
  LevelDbIndex index("T", path_);
  EXPECT_FALSE(index.is_created());
  EXPECT_EQ(
      index.index_entries(),
      (LevelDbIndex::IndexEntries{{"a:10", {1, 2}}, {"a:20", {5}}, {"b:a", {1}}, {"b:b", {5}}}));
  EXPECT_EQ(index.id_entries().at(2), std::set<std::string>{"a:10"});

  PutRaw(path_, "schema:U:idx", "a");  // But no table schema record.
  LevelDbIndex orphan("U", path_);
  EXPECT_TRUE(orphan.index_schema().empty());
  EXPECT_TRUE(log_.Contains("ERROR: Failed to load table index, table='U', schema=a"));

  LevelDbIndex unopened("T", dir_.File("never-opened"));
  EXPECT_EQ(unopened.CreateIndex({"a"}), -2);
  EXPECT_EQ(unopened.LoadTable(), -2);
}

}  // namespace
}  // namespace db
