// The LevelDB backend below DbObject: connections, schema records, record keys and refusals.

#include "leveldb_api.h"

#include <filesystem>
#include <random>
#include <stdexcept>
#include <tuple>

#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "db/db_object.h"
#include "leveldb_connector.h"
#include "leveldb_index.h"
#include "leveldb_table.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using db_test::Dump;
using db_test::GetRaw;
using db_test::KeyValues;
using db_test::PutRaw;
using db_test::Val;
using Ids = std::vector<uint32_t>;
using Names = std::vector<std::string>;

// A record of integer x, string y and integer z; negative numbers and null texts leave unset.
ScalarFields Fields(const char* x, const char* y, const char* z, int32_t a, const char* b,
                    int32_t c) {
  ScalarFields r = {{x, Attribute(kInteger)}, {y, Attribute(kString)}, {z, Attribute(kInteger)}};
  if (a >= 0) r[x] = a;
  if (b != nullptr) r[y] = b;
  if (c >= 0) r[z] = c;
  return r;
}
ScalarFields Schema(int32_t a = -1, const char* b = nullptr, int32_t c = -1) {
  return Fields("enabled", "label", "vlan", a, b, c);
}
ScalarFields Record(int32_t a = -1, const char* b = nullptr, int32_t c = -1) {
  return Fields("a", "b", "c", a, b, c);
}

CompositeFields Vlans(std::vector<Attribute> values = {}) {
  return {{"vlans", {kInteger, std::move(values)}}};
}

class LeveldbApiTest : public testing::Test {
 protected:
  auto Open(const std::string& table = "T") { return std::make_unique<LeveldbAPI>(path_, table); }
  auto Created(const std::string& table = "T") {
    auto api = Open(table);
    EXPECT_EQ(api->CreateTable(Schema(), Vlans()), 0);
    return api;
  }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
};

TEST_F(LeveldbApiTest, ConnectionSharingAndLockedPath) {
  auto first = Created();
  auto second = Open();
  EXPECT_FALSE(first->Disconnect());  // The path stays open for the second user.
  EXPECT_TRUE(first->IsConnected());
  second.reset();  // Closes the path: the handle first kept is gone.
  EXPECT_EQ(first->StoreRecord(1, Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Write status='IO error: Disconnected', table='T', id=1"));
  auto third = Open();
  EXPECT_TRUE(first->Disconnect());  // Must not release the third user's share.
  EXPECT_EQ(LevelDbConnector::GetInstance().Find(path_)->count, 1u);
  third.reset();

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
    EXPECT_EQ(api->StoreRecord(7, Schema(1, "x,y"), Vlans({Val(10), Val(20)})), 0);
    EXPECT_EQ(api->StoreRecord(4000000000u, Schema(), Vlans()), 0);
    EXPECT_EQ(api->StoreRecord(8, Schema(), Vlans({Val(1)})), 0);
    EXPECT_EQ(api->DeleteRecord(8, {}), 0);  // With its repeated fields.
    EXPECT_EQ(api->DeleteRecord(9, {"vlans"}), 0);
    PutRaw(path_, "T:other:1", "1,1,5");  // Repeated field of a table "other".
    int size = 0;                         // Every key with the table's prefix counts.
    ASSERT_EQ(api->GetTableSize(&size), 0);
    EXPECT_EQ(size, 3);
  }
  EXPECT_EQ(Dump(path_), (KeyValues{{"T:4000000000", "3,0,0,0,,,"},
                                    {"T:7", "3,1,3,0,1,x,y,"},
                                    {"T:other:1", "1,1,5"},
                                    {"schema:T", "enabled:0,label:1,vlan:0,"},
                                    {"schema:repeated:T", "vlans:0,"},
                                    {"vlans:T:7", "2,2,2,10,20"}}));
}

TEST_F(LeveldbApiTest, RefusedRecordOperationsAndRecordsWithoutElements) {
  auto api = Created();
  EXPECT_FALSE(log_.Contains("ERROR")) << "a successful creation logs nothing";
  ASSERT_EQ(api->StoreRecord(3, Schema(-1, nullptr, 5), {}), 0);
  EXPECT_EQ(api->StoreRecord(3, Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Record already exist, table='T', id=3"));
  ScalarFields scalars = Schema();
  CompositeFields composites;
  ASSERT_EQ(api->RetrieveRecord(3, &scalars, &composites), 0);
  EXPECT_EQ(scalars, Schema(-1, nullptr, 5));
  EXPECT_EQ(api->RetrieveRecord(9, &scalars, &composites), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', table='T', id=9"));
  EXPECT_EQ(api->RetrieveRecord(3, nullptr, &composites), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Invalid parameters"));
  EXPECT_EQ(api->UpdateRecord(3, {{"vlan", Val(1)}}, {}), -1);
  EXPECT_EQ(api->UpdateRecord(9, Schema(), {}), -4);
  EXPECT_TRUE(log_.Contains("ERROR: Failed to retrieve object, table='T', id=9"));
  // Every scalar field must be named; repeated fields must exist.
  EXPECT_EQ(api->StoreRecord(1, {{"vlan", Val(1)}}, {}), -1);
  EXPECT_EQ(api->StoreRecord(1, Schema(), {{"other", {kInteger, {Val(1)}}}}), -1);
  EXPECT_EQ(api->CreateTable(Schema(), {}), -1);
  EXPECT_TRUE(log_.Contains("ERROR: Table='T' already exists"));
  ASSERT_EQ(api->StoreRecord(1, Schema(), Vlans({Val(10), Val(20)})), 0);
  ASSERT_EQ(api->StoreRecord(2, Schema(), {}), 0);
  ASSERT_EQ(api->UpdateRecord(1, Schema(-1, "new"), Vlans()), 0);  // Keeps the stored elements.
  scalars = Schema();
  composites = Vlans({Val(99)});
  ASSERT_EQ(api->RetrieveRecord(1, &scalars, &composites), 0);
  EXPECT_EQ(scalars, Schema(-1, "new"));
  EXPECT_EQ(composites, Vlans({Val(10), Val(20)}));
  composites = Vlans({Val(99)});  // Nothing stored: left as passed.
  EXPECT_EQ(api->RetrieveRecord(2, &scalars, &composites), 0);
  EXPECT_EQ(composites, Vlans({Val(99)}));
  EXPECT_TRUE(log_.Contains("ERROR: Get status='NotFound: ', composite_table='vlans:T', id=2"));
}

TEST_F(LeveldbApiTest, EveryOperationOnATableNeverCreatedFails) {
  auto api = Open();
  ScalarFields scalars = Schema();
  CompositeFields composites;
  std::vector<uint32_t> ids;
  int size = 0;
  const std::vector<int> codes = {api->DestroyTable({}),
                                  api->AddScalarField("n", Val(1)),
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

TEST_F(LeveldbApiTest, AddScalarFieldRewritesEveryRecordAndTheSchema) {
  {
    auto api = Created();
    ScalarFields record = Schema(1, nullptr, 2);
    ASSERT_EQ(api->StoreRecord(1, record, {}), 0);
    PutRaw(path_, "T:other:1", "1,1,5");
    ASSERT_EQ(api->AddScalarField("mtu", Val(0)), 0);
    ScalarFields back = Schema();
    back.emplace("mtu", Attribute(kInteger));
    CompositeFields composites;
    ASSERT_EQ(api->RetrieveRecord(1, &back, &composites), 0);
    record.emplace("mtu", Attribute(kInteger));  // The old record reads it unset.
    EXPECT_EQ(back, record);
    EXPECT_EQ(api->AddScalarField("mtu", Val(0)), -1);

    PutRaw(path_, "T:2", "x,1,a");
    EXPECT_EQ(api->RetrieveRecord(2, &back, &composites), 0);  // A corrupt record reads empty
    EXPECT_TRUE(back.empty());
    // and lets adding fail with the conversion error, changing nothing.
    EXPECT_THROW(api->AddScalarField("x", Val(0)), std::invalid_argument);
    EXPECT_EQ(api->table()->scalar_schema().count("x"), 0u);
  }
  const KeyValues all = Dump(path_);
  EXPECT_EQ(all.at("T:1"), "4,1,0,0,1,1,,,2");
  EXPECT_EQ(all.at("schema:T"), "enabled:0,label:1,mtu:0,vlan:0,");
  EXPECT_EQ(all.at("T:other:1"), "1,1,5");
}

TEST_F(LeveldbApiTest, DestroyTableRemovesEverythingAndDisconnects) {
  auto api = Created();
  auto other = Created("O");
  ASSERT_EQ(api->AddTableIndex("i", {"vlan"}), 0);
  ASSERT_EQ(api->StoreRecord(1, Schema(), Vlans({Val(1)})), 0);
  ASSERT_EQ(other->StoreRecord(1, Schema(), {}), 0);
  EXPECT_EQ(api->DestroyTable(Vlans()), 0);
  EXPECT_EQ(api->StoreRecord(2, Schema(), {}), -1);
  other.reset();  // Last user: the database closes.
  EXPECT_FALSE(api->IsConnected());
  EXPECT_EQ(Dump(path_), (KeyValues{{"O:1", "3,0,0,0,,,"},
                                    {"schema:O", "enabled:0,label:1,vlan:0,"},
                                    {"schema:repeated:O", "vlans:0,"}}));
}

TEST(LevelDbConnectorTest, AcquiresShareOneCountedHandleUntilTheLastRelease) {
  db_test::TempDir dir;
  const std::string path = dir.File("db");
  LevelDbConnector& connector = LevelDbConnector::GetInstance();
  leveldb::DB* first = connector.AcquireConnection(path);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(path));  // Created when missing.
  EXPECT_EQ(connector.AcquireConnection(path), first);
  EXPECT_EQ(connector.LookupConnection(path), first);  // Lookups never count.
  EXPECT_EQ(connector.Find(path)->count, 2u);
  ASSERT_TRUE(first->Put(leveldb::WriteOptions(), "k", "v").ok());
  // Opened with the Bloom filter policy: the table file holds its filter.
  first->CompactRange(nullptr, nullptr);
  std::string tables;
  for (const auto& entry : std::filesystem::directory_iterator(path))
    if (entry.path().extension() == ".ldb") tables += db_test::ReadFile(entry.path().string());
  EXPECT_NE(tables.find("filter.leveldb.BuiltinBloomFilter2"), std::string::npos);

  EXPECT_FALSE(connector.ReleaseConnection(path));  // One user remains.
  EXPECT_EQ(connector.Find(path)->count, 1u);
  EXPECT_TRUE(connector.ReleaseConnection(path));  // The last one closes.
  EXPECT_EQ(connector.LookupConnection(path), nullptr);
  // Closed for real: leveldb itself takes the lock again.
  EXPECT_EQ(Dump(path), (KeyValues{{"k", "v"}}));

  // Surplus releases answer true and change nothing.
  ASSERT_NE(connector.AcquireConnection(path), nullptr);
  EXPECT_TRUE(connector.ReleaseConnection(dir.File("never-acquired")));
  EXPECT_EQ(connector.Find(path)->count, 1u);
  EXPECT_TRUE(connector.ReleaseConnection(path));
  EXPECT_TRUE(connector.ReleaseConnection(path));
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

class LevelDbTableTest : public ::testing::Test {
 protected:
  void TearDown() override {
    while (!LevelDbConnector::GetInstance().ReleaseConnection(path_)) continue;
  }
  void Connect() { ASSERT_NE(LevelDbConnector::GetInstance().AcquireConnection(path_), nullptr); }
  void Disconnect() { ASSERT_TRUE(LevelDbConnector::GetInstance().ReleaseConnection(path_)); }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
};

// Only the scalar record makes a table created; an unknown type number reads as integer.
TEST_F(LevelDbTableTest, SchemaRecordsAndLoadAsymmetry) {
  db_test::Seed(
      path_,
      {{"schema:s", "a:0,b:9,"}, {"schema:repeated:c", "v:1,w:3,"}, {"schema:bad", "a:0,b:x,"}});
  Connect();
  ASSERT_TRUE(LevelDbTable("T", path_)
                  .CreateSchema({{"b", Val(1.5f)}, {"a", Attribute(kBytes)}},
                                {{"z", {kString, {Val("v")}}}, {"m", {kInteger, {}}}})
                  .ok());
  ASSERT_TRUE(LevelDbTable("E", path_).CreateSchema({{"a", Attribute(kString)}}, {}).ok());
  for (const auto& [key, value] : KeyValues{{"schema:T", "a:3,b:2,"},
                                            {"schema:repeated:T", "m:0,z:1,"},
                                            {"schema:E", "a:1,"},
                                            {"schema:repeated:E", ""}})
    EXPECT_EQ(GetRaw(path_, key), value) << key;
  const std::vector<std::tuple<const char*, bool, size_t, size_t>> cases = {
      {"none", false, 0, 0}, {"s", true, 2, 0}, {"c", false, 0, 2}, {"T", true, 2, 2}};
  for (const auto& [name, created, scalars, composites] : cases) {
    LevelDbTable table(name, path_);
    EXPECT_EQ(table.is_created(), created) << name;
    EXPECT_EQ(table.scalar_schema().size(), scalars) << name;
    EXPECT_EQ(table.composite_schema().size(), composites) << name;
  }
  EXPECT_EQ(LevelDbTable("s", path_).scalar_schema().at("b"), Attribute(kInteger));
  EXPECT_EQ(LevelDbTable("T", path_).composite_schema(),
            (CompositeFields{{"m", {kInteger, {}}}, {"z", {kString, {}}}}));
  EXPECT_THROW(LevelDbTable("bad", path_), std::invalid_argument);
}

TEST_F(LevelDbTableTest, Validation) {
  Connect();
  LevelDbTable table("T", path_);
  ASSERT_TRUE(table
                  .CreateSchema({{"a", Attribute(kInteger)}, {"b", Attribute(kString)}},
                                {{"m", {kInteger, {}}}, {"p", {kString, {}}}, {"x", {kBytes, {}}}})
                  .ok());
  // Scalar fields must match by name only; repeated fields by name and type,
  // any subset in order. The composite check runs only after the scalar one.
  EXPECT_TRUE(table.IsValidScalarSchema({{"a", Val("x")}, {"b", Val(2.0f)}}));
  EXPECT_FALSE(table.IsValidScalarSchema({{"a", Val(1)}, {"c", Val(1)}}));
  EXPECT_EQ(log_.Count("ERROR: Invalid scalar schema, table='T'"), 1);
  EXPECT_TRUE(table.IsValidCompositeSchema({{"m", {kInteger, {}}}, {"x", {kBytes, {Val(1)}}}}));
  EXPECT_FALSE(table.IsValidCompositeSchema({{"p", {kBytes, {}}}}));
  EXPECT_FALSE(table.IsValidCompositeSchema({{"x", {kBytes, {}}}, {"y", {kBytes, {}}}}));
  EXPECT_FALSE(table.IsValidSchema({}, {{"n", {kInteger, {}}}}));
  EXPECT_EQ(log_.Count("ERROR: Invalid composite schema, table='T'"), 2);
}

TEST_F(LevelDbTableTest, DeletionBatchKeysAndClosedDatabase) {
  Connect();
  LevelDbTable table("ports", path_);
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}}, {}).ok());
  table.set_table_name("x");  // The key members keep the first name.
  EXPECT_EQ(table.scalar_schema_key(), "schema:ports");
  EXPECT_EQ(table.composite_schema_key(), "schema:repeated:ports");
  leveldb::WriteBatch batch;
  table.InsertDelSchemaOnBatch(batch);
  PutRaw(path_, "schema:repeated:x", "");
  ASSERT_TRUE(LevelDbConnector::GetInstance().LookupConnection(path_)->Write({}, &batch).ok());
  EXPECT_EQ(GetRaw(path_, "schema:ports"), "(missing)");
  EXPECT_EQ(GetRaw(path_, "schema:repeated:x"), "(missing)");
  EXPECT_EQ(GetRaw(path_, "schema:repeated:ports"), "");
  table.ClearSchema();
  EXPECT_FALSE(table.is_created());
  EXPECT_TRUE(table.scalar_schema().empty());

  // A closed database answers disconnected.
  LevelDbTable closed("t", path_);
  ASSERT_TRUE(closed.CreateSchema({{"a", Attribute(kInteger)}}, {{"v", {kString, {}}}}).ok());
  Disconnect();
  batch.Clear();
  batch.Put("t:1", "1,0,");
  for (const leveldb::Status& status :
       {closed.CreateSchema({{"b", Attribute(kString)}}, {}),
        closed.AppendColumn(batch, "c", kFloat), closed.AppendComposite("x", {kInteger, {}}),
        closed.RetrieveScalarSchema(), closed.RetrieveCompositeSchema()}) {
    EXPECT_TRUE(status.IsIOError());
    EXPECT_EQ(status.ToString(), "IO error: Disconnected");
  }
  EXPECT_EQ(closed.scalar_schema(), (ScalarFields{{"a", Attribute(kInteger)}}));
  EXPECT_EQ(closed.composite_schema(), (CompositeFields{{"v", {kString, {}}}}));
  EXPECT_EQ(Dump(path_), (KeyValues{{"schema:repeated:ports", ""},
                                    {"schema:t", "a:0,"},
                                    {"schema:repeated:t", "v:1,"}}));
  EXPECT_FALSE(LevelDbTable("t", path_).is_created());  // Built while disconnected: loads nothing.
}

CompositeFields Tags(const std::vector<int32_t>& tags) {
  CompositeFields f = {{"tags", {kInteger, {}}}};
  for (const int32_t tag : tags) f["tags"].second.push_back(Val(tag));
  return f;
}

// Tables of fields a, b, c and repeated tags.
class LeveldbQueryTest : public LeveldbApiTest {
 protected:
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
  PutRaw(path_, "T:", "1,1,5");  // Not record keys: no digits, or more than ten.
  PutRaw(path_, "T:00000000001", "1,1,5");
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

TEST_F(LeveldbQueryTest, IndexSchemaRecordAndReload) {
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

  // Reloading indexes the set fields of the decodable records of the table.
  ASSERT_EQ(api->StoreRecord(1, Record(10, "a"), {}), 0);
  ASSERT_EQ(api->StoreRecord(2, Record(10), {}), 0);
  ASSERT_EQ(api->StoreRecord(5, Record(20, "b"), {}), 0);
  PutRaw(path_, "T:4", "x,1");
  PutRaw(path_, "T:other:6", "3,0,2,2,,ab,10");
  PutRaw(path_, "schema:T:idx", "a,b");
  LevelDbIndex reloaded("T", path_);
  EXPECT_FALSE(reloaded.is_created());
  EXPECT_EQ(
      reloaded.index_entries(),
      (LevelDbIndex::IndexEntries{{"a:10", {1, 2}}, {"a:20", {5}}, {"b:a", {1}}, {"b:b", {5}}}));
  EXPECT_EQ(reloaded.id_entries().at(2), std::set<std::string>{"a:10"});

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
