// The LevelDB backend below DbObject: connections, schema records, record keys and refusals.

#include "leveldb_api.h"

#include <filesystem>
#include <random>
#include <stdexcept>
#include <tuple>

#include <leveldb/db.h>

#include "db/db_object.h"
#include "leveldb_connector.h"
#include "leveldb_index.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using db_test::Dump;
using db_test::KeyValues;
using db_test::PutRaw;
using db_test::Val;
using Ids = std::vector<uint32_t>;
using Names = std::vector<std::string>;

// A record of integer a, string b and integer c; negative numbers and null texts leave unset.
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

class LeveldbApiTest : public testing::Test {
 protected:
  auto Open(const std::string& table = "T") { return std::make_unique<LeveldbAPI>(path_, table); }
  auto Created(const std::string& table = "T") {
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

TEST_F(LeveldbApiTest, ConnectionSharingAndLockedPath) {
  auto first = Created();
  auto second = Open();
  EXPECT_FALSE(first->Disconnect());  // The path stays open for the second user.
  // Opened with the Bloom filter policy: the table file holds its filter.
  LevelDbConnector::GetInstance().LookupConnection(path_)->CompactRange(nullptr, nullptr);
  std::string tables;
  for (const auto& entry : std::filesystem::directory_iterator(path_))
    if (entry.path().extension() == ".ldb") tables += db_test::ReadFile(entry.path().string());
  EXPECT_NE(tables.find("filter.leveldb.BuiltinBloomFilter2"), std::string::npos);
  second.reset();  // Closes the path: the handle first kept is gone.
  EXPECT_EQ(first->StoreRecord(1, Record(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Write status='IO error: Disconnected', table='T', id=1"));
  auto third = Open();
  EXPECT_TRUE(first->Disconnect());  // Must not release the third user's share.
  EXPECT_TRUE(third->IsConnected());
  EXPECT_TRUE(third->Disconnect());  // The last user closes the path.

  leveldb::DB* raw = nullptr;  // Held by leveldb itself: every operation fails.
  ASSERT_TRUE(leveldb::DB::Open(leveldb::Options(), path_, &raw).ok());
  std::unique_ptr<leveldb::DB> holder(raw);
  auto api = Open();
  EXPECT_EQ(log_.Count("ERROR: Open status='IO error: lock "), 1);
  EXPECT_FALSE(api->IsConnected());
  EXPECT_EQ(api->CreateTable(Record(), Tags({})), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Db='" + path_ + "' not connected"));
  holder.reset();  // Once the other opener is gone, a later user connects.
  EXPECT_TRUE(Open()->IsConnected());
}

TEST_F(LeveldbApiTest, RecordsLiveUnderTheirKeysTillTheirTableIsDestroyed) {
  {
    auto api = Created();
    auto gone = Created("O");
    ASSERT_EQ(gone->AddTableIndex("i", {"c"}), 0);
    ASSERT_EQ(gone->StoreRecord(1, Record(), Tags({1})), 0);
    EXPECT_EQ(gone->DestroyTable(Tags({})), 0);
    EXPECT_EQ(gone->StoreRecord(2, Record(), {}), -1);
    EXPECT_EQ(Open("E")->CreateTable({{"a", Val(1.5f)}, {"b", Attribute(kBytes)}}, {}), 0);
    EXPECT_EQ(api->StoreRecord(7, Record(1, "x,y"), Tags({10, 20})), 0);
    EXPECT_EQ(api->StoreRecord(4000000000u, Record(), Tags({})), 0);
    EXPECT_EQ(api->StoreRecord(8, Record(), Tags({1})), 0);
    EXPECT_EQ(api->DeleteRecord(8, {}), 0);  // With its repeated fields.
    EXPECT_EQ(api->DeleteRecord(9, {"tags"}), 0);
    PutRaw(path_, "T:other:1", "1,1,5");  // Repeated field of a table "other".
    int size = 0;                         // Every key with the table's prefix counts.
    ASSERT_EQ(api->GetTableSize(&size), 0);
    EXPECT_EQ(size, 3);
    EXPECT_EQ(api->AddTableIndex("i", {"a", "tags"}), -1);  // Repeated fields cannot be indexed.
    log_.Clear();
    ASSERT_EQ(api->AddTableIndex("i", {"b", "a"}), 0);
    ASSERT_EQ(api->AddTableIndex("j", {"a"}), 0);     // Already listed: the list stays.
    ASSERT_EQ(api->AddScalarField("bb", Val(0)), 0);  // Every record holds it unset.
    EXPECT_TRUE(log_.Lines().empty()) << "successful changes log nothing";
    EXPECT_EQ(api->AddScalarField("bb", Val(0)), -1);
  }
  EXPECT_EQ(Dump(path_), (KeyValues{{"T:4000000000", "4,0,0,0,0,,,,"},
                                    {"T:7", "4,1,3,0,0,1,x,y,,"},
                                    {"T:other:1", "1,1,5"},
                                    {"schema:E", "a:2,b:3,"},
                                    {"schema:T", "a:0,b:1,bb:0,c:0,"},
                                    {"schema:T:idx", "b,a"},
                                    {"schema:repeated:E", ""},
                                    {"schema:repeated:T", "tags:0,"},
                                    {"tags:T:7", "2,2,2,10,20"}}));
}

TEST_F(LeveldbApiTest, RefusedRecordOperationsAndRecordsWithoutElements) {
  auto api = Created();
  EXPECT_FALSE(log_.Contains("ERROR")) << "a successful creation logs nothing";
  ASSERT_EQ(api->StoreRecord(3, Record(-1, nullptr, 5), {}), 0);
  ScalarFields scalars = Record();
  CompositeFields composites;
  // Every scalar field must be named; repeated fields must exist with their type.
  const std::vector<std::tuple<int, int, std::string>> refusals = {
      {api->StoreRecord(3, Record(), {}), -1, "ERROR: Record already exist, table='T', id=3"},
      {api->RetrieveRecord(9, &scalars, &composites), -4,
       "ERROR: Get status='NotFound: ', table='T', id=9"},
      {api->RetrieveRecord(3, nullptr, &composites), -1, "ERROR: Invalid parameters"},
      {api->UpdateRecord(9, Record(), {}), -4, "ERROR: Failed to retrieve object, table='T', id=9"},
      {api->StoreRecord(1, {{"c", Val(1)}}, {}), -1, "ERROR: Invalid scalar schema, table='T'"},
      {api->StoreRecord(1, Record(), {{"tags", {kString, {Val("1")}}}}), -1,
       "ERROR: Invalid composite schema, table='T'"},
      {api->CreateTable(Record(), {}), -1, "ERROR: Table='T' already exists"}};
  for (const auto& [code, want, line] : refusals) {
    EXPECT_EQ(code, want) << line;
    EXPECT_TRUE(log_.Contains(line)) << line;
  }
  EXPECT_EQ(api->UpdateRecord(3, {{"c", Val(1)}}, {}), -1);
  EXPECT_EQ(api->StoreRecord(1, Record(), {{"other", {kInteger, {Val(1)}}}}), -1);
  ASSERT_EQ(api->StoreRecord(1, Record(), Tags({10, 20})), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(), {}), 0);
  ASSERT_EQ(api->UpdateRecord(1, Record(-1, "new"), Tags({})), 0);  // Keeps the stored elements.
  composites = Tags({99});
  ASSERT_EQ(api->RetrieveRecord(1, &scalars, &composites), 0);
  EXPECT_EQ(scalars, Record(-1, "new"));
  EXPECT_EQ(composites, Tags({10, 20}));
  composites = Tags({99});  // Nothing stored: left as passed.
  EXPECT_EQ(api->RetrieveRecord(2, &scalars, &composites), 0);
  EXPECT_EQ(composites, Tags({99}));
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', composite_table='tags:T', id=2"));
}

TEST_F(LeveldbApiTest, EveryOperationOnATableNeverCreatedFails) {
  // Only the scalar schema record makes a table; an index list without it loads no index.
  db_test::Seed(path_, {{"schema:repeated:T", "v:1,"}, {"schema:T:idx", "a"}});
  auto api = Open();
  ScalarFields scalars = Record();
  CompositeFields composites;
  std::vector<uint32_t> ids;
  int size = 0;
  const std::vector<int> codes = {api->DestroyTable({}),
                                  api->AddScalarField("n", Val(1)),
                                  api->StoreRecord(1, Record(), {}),
                                  api->UpdateRecord(1, Record(), {}),
                                  api->DeleteRecord(1, {}),
                                  api->RetrieveRecord(1, &scalars, &composites),
                                  api->RetrieveRecords(&ids, {}, {}),
                                  api->DeleteRecords(&ids, {}, {}),
                                  api->GetTableSize(&size),
                                  api->ClearTable({}, &ids),
                                  api->AddTableIndex("i", {"c"})};
  EXPECT_EQ(codes, std::vector<int>(11, -1));
  EXPECT_EQ(log_.Count("ERROR: Table not created. Table='T'"), 11);
  EXPECT_GE(log_.Count("12 src/lib/leveldb_api"), 11);
  EXPECT_EQ(size, -1);
  EXPECT_TRUE(api->index()->index_schema().empty());
  EXPECT_TRUE(log_.Contains("ERROR: Failed to load table index, table='T', schema=a"));
}

// Daemons keep objects in statics. This one is destroyed at exit after the
// library's first-use singletons would be; it must still close cleanly.
db_test::TempDir static_dir;
std::unique_ptr<DbObject> static_object;

TEST(LevelDbConnectorTest, ObjectHeldInAStaticClosesAtExit) {
  db_test::InitLibrary();
  static_object = std::make_unique<DbObject>(static_dir.File("db"), "T", false, kLevelDb);
  EXPECT_TRUE(static_object->IsConnected());
}

// Random records: every filter, through the index or a scan, gives the ids a direct evaluation
// gives, after reopening (the index is rebuilt from the records) and after indexing more.
TEST_F(LeveldbApiTest, IndexAndScanAgreeWithTheRecords) {
  std::mt19937 rng(20240611);
  auto pick = [&rng](uint32_t n) { return static_cast<int32_t>(rng() % n); };
  const char* const words[] = {"x", "y", "z", "x,y", "10"};
  std::vector<std::pair<ScalarFields, std::vector<int32_t>>> records;
  {
    auto indexed = Created("idx");
    ASSERT_EQ(indexed->AddTableIndex("by_ab", {"a", "b"}), 0);
    for (uint32_t id = 1; id <= 3000; ++id) {
      std::vector<int32_t> tags;
      for (int32_t n = pick(4); n > 0; --n) tags.push_back(pick(12));
      records.emplace_back(Record(pick(8), words[pick(5)], pick(40)), tags);
      ASSERT_EQ(indexed->StoreRecord(id, records.back().first, Tags(tags)), 0);
    }
  }
  auto indexed = Open("idx");
  ASSERT_EQ(indexed->index()->index_schema(), (Names{"a", "b"}));
  for (int round = 0; round < 120; ++round) {
    const ScalarFields filter =
        Record(pick(9) - 1, pick(2) ? words[pick(5)] : nullptr, pick(2) ? pick(40) : -1);
    std::vector<int32_t> tags;
    if (pick(3) == 0) tags = {pick(12), pick(12)};
    Ids expected;
    for (uint32_t id = 1; id <= records.size(); ++id) {
      const auto& [fields, stored] = records[id - 1];
      bool match = tags.empty() || std::find_first_of(stored.begin(), stored.end(), tags.begin(),
                                                      tags.end()) != stored.end();
      for (const auto& [name, value] : filter)
        match = match && (!value.is_set() || fields.at(name) == value);
      if (match) expected.push_back(id);
    }
    const CompositeFields tag_filter = tags.empty() ? CompositeFields() : Tags(tags);
    EXPECT_EQ(Query(*indexed, filter, tag_filter), expected);
    if (round == 60) {
      ASSERT_EQ(indexed->AddTableIndex("by_c", {"c"}), 0);
    }
  }
}

// A record is selected only when every repeated field of the filter matches, not only the last.
TEST_F(LeveldbApiTest, EveryRepeatedFieldOfTheFilterMustMatch) {
  auto two = [](int32_t p, int32_t q) {
    return CompositeFields{{"p", {kInteger, {Val(p)}}}, {"q", {kInteger, {Val(q)}}}};
  };
  auto api = Open();
  ASSERT_EQ(api->CreateTable(Record(), two(0, 0)), 0);
  ASSERT_EQ(api->StoreRecord(1, Record(1), two(1, 2)), 0);
  EXPECT_EQ(Query(*api, Record(), two(9, 2)), Ids{});
  EXPECT_EQ(Query(*api, Record(), two(1, 2)), Ids{1});
}

TEST_F(LeveldbApiTest, OrderAndRefusedFilters) {
  auto api = Created();
  ASSERT_EQ(api->StoreRecord(10, Record(1, "x", 1), Tags({5})), 0);
  ASSERT_EQ(api->StoreRecord(9, Record(1, "x", 1), {}), 0);
  PutRaw(path_, "T:", "1,1,5");  // Not record keys: no digits, or more than ten.
  PutRaw(path_, "T:00000000001", "1,1,5");
  EXPECT_EQ(Query(*api, {}), (Ids{9, 10}));
  log_.Clear();
  Ids ids = {7};
  EXPECT_EQ(api->RetrieveRecords(&ids, {}, Tags({5})), -1);  // Repeated fields alone.
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"zz", Val(1)}}, {}), -1);
  EXPECT_EQ(log_.Count("ERROR: Invalid scalar field='zz', table='T'"), 1);
  // A damaged value lets the conversion error pass, on every path that meets it.
  PutRaw(path_, "tags:T:10", "3,5,5,5,1");
  EXPECT_THROW(Query(*api, {{"a", Val(1)}}, Tags({5})), std::out_of_range);
  PutRaw(path_, "T:2", "3,5,5,5,1");
  EXPECT_THROW(api->RetrieveRecords(&ids, {{"a", Val(1)}}, {}), std::out_of_range);
  EXPECT_EQ(log_.Count("ERROR: Corrupt record, key='T:2'"), 1);
  ASSERT_EQ(api->AddTableIndex("i", {"a"}), 0);
  // An id the index lists but the store lacks fails the query.
  ASSERT_TRUE(LevelDbConnector::GetInstance().LookupConnection(path_)->Delete({}, "T:10").ok());
  EXPECT_EQ(api->RetrieveRecords(&ids, {{"a", Val(1)}, {"c", Val(1)}}, Tags({5})), -4);
}

}  // namespace
}  // namespace db
