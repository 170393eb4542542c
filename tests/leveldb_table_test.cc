#include "leveldb_table.h"

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "support/test_util.h"

namespace db {
namespace {

using Records = std::map<std::string, std::string>;

template <class T>
Attribute Set(const T& v) {
  Attribute a;
  a = v;
  return a;
}

class LevelDbTableTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = dir_.File("db"); }
  void TearDown() override {
    while (!LevelDbConnector::GetInstance().ReleaseConnection(path_)) {
    }
  }

  void Connect() { ASSERT_NE(LevelDbConnector::GetInstance().AcquireConnection(path_), nullptr); }
  void Disconnect() { ASSERT_TRUE(LevelDbConnector::GetInstance().ReleaseConnection(path_)); }

  // Everything in the directory, read with a handle of our own (the cached
  // one must be released first).
  Records Dump() {
    EXPECT_EQ(LevelDbConnector::GetInstance().Find(path_), nullptr);
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* raw = nullptr;
    EXPECT_TRUE(leveldb::DB::Open(options, path_, &raw).ok());
    Records records;
    if (raw == nullptr) return records;
    std::unique_ptr<leveldb::Iterator> it(raw->NewIterator(leveldb::ReadOptions()));
    for (it->SeekToFirst(); it->Valid(); it->Next()) {
      records[it->key().ToString()] = it->value().ToString();
    }
    it.reset();
    delete raw;
    return records;
  }

  // Writes records directly, with a handle of our own.
  void Seed(const Records& records) {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* raw = nullptr;
    ASSERT_TRUE(leveldb::DB::Open(options, path_, &raw).ok());
    for (const auto& [key, value] : records) {
      ASSERT_TRUE(raw->Put(leveldb::WriteOptions(), key, value).ok());
    }
    delete raw;
  }

  static std::map<std::string, AttributeType> Types(const ScalarFields& f) {
    std::map<std::string, AttributeType> types;
    for (const auto& [name, attr] : f) types[name] = attr.type();
    return types;
  }
  static std::map<std::string, AttributeType> Types(const CompositeFields& f) {
    std::map<std::string, AttributeType> types;
    for (const auto& [name, field] : f) types[name] = field.first;
    return types;
  }

  db_test::TempDir dir_;
  std::string path_;
};

TEST_F(LevelDbTableTest, ConstantsAndKeys) {
  EXPECT_STREQ(LevelDbTable::kSchemaPrefix, "schema:");
  EXPECT_EQ(sizeof(LevelDbTable::kSchemaPrefix), 8u);
  EXPECT_EQ(LevelDbTable::kCompositePrefix, "repeated");
  EXPECT_EQ(LevelDbTable::kRepeatedPrefix, "repeated");
  EXPECT_EQ(LevelDbTable::kKeySeparator, ":");
  EXPECT_EQ(LevelDbTable::BuildCompositeKey("ports", 7, "vlans"), "vlans:ports:7");
  EXPECT_EQ(LevelDbTable::BuildCompositeKey("ports", 4294967295u, "vlans"),
            "vlans:ports:4294967295");

  LevelDbTable table("ports", path_);  // no database: stays not created
  EXPECT_FALSE(table.is_created());
  EXPECT_EQ(table.BuildSchemaKey("t"), "schema:t");
  EXPECT_EQ(table.BuildCompositeSchemaKey(), "schema:repeated:ports");
  EXPECT_EQ(table.AppendSchema("a", kFloat), "a:2");
  EXPECT_EQ(table.AppendSchema("a", static_cast<AttributeType>(-4)), "a:-4");

  // The key members keep the first name; only the built key follows.
  table.set_table_name("x");
  EXPECT_EQ(table.table_name(), "x");
  EXPECT_EQ(table.BuildCompositeSchemaKey(), "schema:repeated:x");
  EXPECT_EQ(table.scalar_schema_key(), "schema:ports");
  EXPECT_EQ(table.composite_schema_key(), "schema:repeated:ports");
}

TEST_F(LevelDbTableTest, SchemaRecordTexts) {
  EXPECT_EQ(LevelDbTable::ScalarSchemaAsString({}), "");
  EXPECT_EQ(LevelDbTable::CompositeSchemaAsString({}), "");
  EXPECT_EQ(LevelDbTable::ScalarSchemaAsString({{"b", Set(1.5f)}, {"a", Attribute(kBytes)}}),
            "a:3,b:2,");
  EXPECT_EQ(LevelDbTable::ScalarSchemaAsString(
                {{"enabled", Attribute(kInteger)}, {"label", Set(std::string("x"))}}),
            "enabled:0,label:1,");
  EXPECT_EQ(
      LevelDbTable::CompositeSchemaAsString({{"z", {kString, {Set(1)}}}, {"m", {kBytes, {}}}}),
      "m:3,z:1,");
}

TEST_F(LevelDbTableTest, CreateSchemaWritesBothRecordsAndReopens) {
  Connect();
  {
    LevelDbTable table("ports", path_);
    EXPECT_FALSE(table.is_created());
    ASSERT_TRUE(table
                    .CreateSchema({{"enabled", Set(1)}, {"label", Attribute(kString)}},
                                  {{"vlans", {kInteger, {Set(5)}}}})
                    .ok());
    EXPECT_TRUE(table.is_created());
    // Only the kinds are kept, never the given values.
    EXPECT_EQ(table.scalar_schema().at("enabled"), Attribute(kInteger));
    EXPECT_TRUE(table.composite_schema().at("vlans").second.empty());
    EXPECT_EQ(table.GetTableSchemaString(), "enabled:0,label:1,");
    EXPECT_EQ(table.GetTableCompositeSchemaString(), "vlans:0,");
  }
  Disconnect();
  EXPECT_EQ(Dump(), (Records{{"schema:ports", "enabled:0,label:1,"},
                             {"schema:repeated:ports", "vlans:0,"}}));

  Connect();
  LevelDbTable reopened("ports", path_);
  EXPECT_TRUE(reopened.is_created());
  EXPECT_EQ(Types(reopened.scalar_schema()),
            (std::map<std::string, AttributeType>{{"enabled", kInteger}, {"label", kString}}));
  EXPECT_FALSE(reopened.scalar_schema().at("label").is_set());
  EXPECT_EQ(Types(reopened.composite_schema()),
            (std::map<std::string, AttributeType>{{"vlans", kInteger}}));
}

TEST_F(LevelDbTableTest, EmptyCompositeSchemaIsStillWritten) {
  Connect();
  ASSERT_TRUE(LevelDbTable("t", path_).CreateSchema({{"a", Attribute(kString)}}, {}).ok());
  Disconnect();
  EXPECT_EQ(Dump(), (Records{{"schema:t", "a:1,"}, {"schema:repeated:t", ""}}));
  Connect();
  LevelDbTable reopened("t", path_);
  EXPECT_TRUE(reopened.is_created());
  EXPECT_TRUE(reopened.composite_schema().empty());
  EXPECT_EQ(reopened.scalar_schema().size(), 1u);
}

TEST_F(LevelDbTableTest, LoadSchemaAsymmetry) {
  struct Case {
    const char* name;
    Records stored;
    bool created;
    size_t scalars;
    size_t composites;
  } cases[] = {
      {"nothing stored", {}, false, 0, 0},
      {"scalar record only", {{"schema:t", "a:0,b:9,"}}, true, 2, 0},
      {"composite record only", {{"schema:repeated:t", "v:1,w:3,"}}, false, 0, 2},
      {"both", {{"schema:t", "a:0,"}, {"schema:repeated:t", "v:1,"}}, true, 1, 1},
      {"other table's records", {{"schema:u", "a:0,"}, {"schema:repeated:u", ""}}, false, 0, 0},
  };
  for (const Case& c : cases) {
    db_test::TempDir dir;
    path_ = dir.File("db");
    Seed(c.stored);
    Connect();
    {
      LevelDbTable table("t", path_);
      EXPECT_EQ(table.is_created(), c.created) << c.name;
      EXPECT_EQ(table.scalar_schema().size(), c.scalars) << c.name;
      EXPECT_EQ(table.composite_schema().size(), c.composites) << c.name;
    }
    Disconnect();
  }
  // An unknown type number gives an integer attribute.
  db_test::TempDir dir;
  path_ = dir.File("db");
  Seed({{"schema:t", "a:0,b:9,"}});
  Connect();
  EXPECT_EQ(LevelDbTable("t", path_).scalar_schema().at("b").type(), kInteger);
}

TEST_F(LevelDbTableTest, CorruptTypeNumberThrowsOutOfLoading) {
  Seed({{"schema:t", "a:0,b:x,"}});
  Connect();
  EXPECT_THROW(LevelDbTable("t", path_), std::invalid_argument);
}

TEST_F(LevelDbTableTest, AppendColumnCommitsCallersBatch) {
  Connect();
  LevelDbTable table("t", path_);
  ASSERT_TRUE(table.CreateSchema({{"z", Attribute(kInteger)}}, {}).ok());
  leveldb::WriteBatch batch;
  batch.Put("t:1", "2,0,0,,");
  ASSERT_TRUE(table.AppendColumn(batch, "m", kFloat).ok());
  EXPECT_EQ(table.scalar_schema().at("m").type(), kFloat);
  // An existing name keeps its kind.
  leveldb::WriteBatch again;
  ASSERT_TRUE(table.AppendColumn(again, "z", kString).ok());
  EXPECT_EQ(table.scalar_schema().at("z").type(), kInteger);

  ASSERT_TRUE(table.AppendComposite("w", {kBytes, {}}).ok());
  ASSERT_TRUE(table.AppendComposite("v", {kString, {}}).ok());
  EXPECT_EQ(Types(table.composite_schema()),
            (std::map<std::string, AttributeType>{{"v", kString}, {"w", kBytes}}));
  Disconnect();
  EXPECT_EQ(
      Dump(),
      (Records{{"schema:t", "m:2,z:0,"}, {"schema:repeated:t", "v:1,w:3,"}, {"t:1", "2,0,0,,"}}));
}

TEST_F(LevelDbTableTest, ScalarValidation) {
  db_test::LogCapture log;
  Connect();
  LevelDbTable table("ports", path_);
  EXPECT_TRUE(table.IsValidScalarSchema({}));  // both empty
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}, {"b", Attribute(kString)}}, {}).ok());
  struct Case {
    const char* name;
    ScalarFields fields;
    bool valid;
  } cases[] = {
      {"same names", {{"a", Set(1)}, {"b", Attribute(kString)}}, true},
      {"wrong kinds", {{"a", Set(std::string("x"))}, {"b", Set(2.0f)}}, true},
      {"missing field", {{"a", Set(1)}}, false},
      {"extra field", {{"a", Set(1)}, {"b", Set(1)}, {"c", Set(1)}}, false},
      {"other name", {{"a", Set(1)}, {"c", Set(1)}}, false},
      {"empty", {}, false},
  };
  for (const Case& c : cases) {
    log.Clear();
    EXPECT_EQ(table.IsValidScalarSchema(c.fields), c.valid) << c.name;
    EXPECT_EQ(log.Count("ERROR: Invalid scalar schema, table='ports'"), c.valid ? 0 : 1) << c.name;
  }
}

TEST_F(LevelDbTableTest, CompositeValidation) {
  db_test::LogCapture log;
  Connect();
  LevelDbTable table("ports", path_);
  ASSERT_TRUE(table
                  .CreateSchema({{"a", Attribute(kInteger)}},
                                {{"m", {kInteger, {}}}, {"p", {kString, {}}}, {"x", {kBytes, {}}}})
                  .ok());
  struct Case {
    const char* name;
    CompositeFields fields;
    bool valid;
  } cases[] = {
      {"empty", {}, true},
      {"all", {{"m", {kInteger, {}}}, {"p", {kString, {}}}, {"x", {kBytes, {Set(1)}}}}, true},
      {"subset", {{"p", {kString, {}}}}, true},
      {"subset skipping", {{"m", {kInteger, {}}}, {"x", {kBytes, {}}}}, true},
      {"type differs", {{"p", {kBytes, {}}}}, false},
      {"unknown field", {{"n", {kInteger, {}}}}, false},
      {"after the last", {{"x", {kBytes, {}}}, {"y", {kBytes, {}}}}, false},
      {"too many",
       {{"m", {kInteger, {}}}, {"p", {kString, {}}}, {"x", {kBytes, {}}}, {"y", {kBytes, {}}}},
       false},
  };
  for (const Case& c : cases) {
    log.Clear();
    EXPECT_EQ(table.IsValidCompositeSchema(c.fields), c.valid) << c.name;
    EXPECT_EQ(log.Count("ERROR: Invalid composite schema, table='ports'"), c.valid ? 0 : 1)
        << c.name;
  }

  // The composite check runs only after the scalar check passed.
  log.Clear();
  EXPECT_FALSE(table.IsValidSchema({}, {{"n", {kInteger, {}}}}));
  EXPECT_EQ(log.Count("ERROR: Invalid scalar schema"), 1);
  EXPECT_EQ(log.Count("ERROR: Invalid composite schema"), 0);
  EXPECT_FALSE(table.IsValidSchema({{"a", Set(1)}}, {{"n", {kInteger, {}}}}));
  EXPECT_EQ(log.Count("ERROR: Invalid composite schema"), 1);
  EXPECT_TRUE(table.IsValidSchema({{"a", Set(1)}}, {{"m", {kInteger, {}}}}));
  EXPECT_TRUE(log.Contains("src/lib/leveldb_table.cc"));
}

TEST_F(LevelDbTableTest, OutOfSchema) {
  Connect();
  LevelDbTable table("t", path_);
  EXPECT_FALSE(table.OutOfSchema({}));
  EXPECT_TRUE(table.OutOfSchema({"a"}));  // empty schema
  ASSERT_TRUE(table
                  .CreateSchema({{"a", Attribute(kInteger)}, {"b", Attribute(kString)}},
                                {{"v", {kInteger, {}}}})
                  .ok());
  EXPECT_FALSE(table.OutOfSchema({"b", "a"}));
  EXPECT_TRUE(table.OutOfSchema({"a", "v"}));  // repeated fields cannot be indexed
  EXPECT_TRUE(table.OutOfSchema({"c"}));
}

TEST_F(LevelDbTableTest, DeletionBatchAndClearSchema) {
  Connect();
  LevelDbTable table("ports", path_);
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}}, {}).ok());
  table.set_table_name("x");
  leveldb::WriteBatch batch;
  table.InsertDelSchemaOnBatch(batch);
  struct Deletes : leveldb::WriteBatch::Handler {
    std::vector<std::string> keys;
    void Put(const leveldb::Slice&, const leveldb::Slice&) override { keys.push_back("put"); }
    void Delete(const leveldb::Slice& key) override { keys.push_back(key.ToString()); }
  } deletes;
  ASSERT_TRUE(batch.Iterate(&deletes).ok());
  EXPECT_EQ(deletes.keys, (std::vector<std::string>{"schema:ports", "schema:repeated:x"}));

  table.ClearSchema();
  EXPECT_FALSE(table.is_created());
  EXPECT_TRUE(table.scalar_schema().empty());
  EXPECT_TRUE(table.composite_schema().empty());
  EXPECT_EQ(table.GetTableSchemaString(), "a:0,");  // the store is untouched
}

TEST_F(LevelDbTableTest, ClosedDatabaseAnswersDisconnected) {
  Connect();
  LevelDbTable table("t", path_);
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}}, {{"v", {kString, {}}}}).ok());
  Disconnect();

  auto expect_disconnected = [](const leveldb::Status& s) {
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_EQ(s.ToString(), "IO error: Disconnected");
  };
  expect_disconnected(table.CreateSchema({{"b", Attribute(kString)}}, {{"w", {kBytes, {}}}}));
  leveldb::WriteBatch batch;
  batch.Put("t:1", "1,0,");
  expect_disconnected(table.AppendColumn(batch, "c", kFloat));
  expect_disconnected(table.AppendComposite("x", {kInteger, {}}));
  expect_disconnected(table.RetrieveScalarSchema());
  expect_disconnected(table.RetrieveCompositeSchema());
  EXPECT_EQ(table.GetTableSchemaString(), "");
  EXPECT_EQ(table.GetTableCompositeSchemaString(), "");
  EXPECT_TRUE(table.is_created());
  EXPECT_EQ(Types(table.scalar_schema()), (std::map<std::string, AttributeType>{{"a", kInteger}}));
  EXPECT_EQ(Types(table.composite_schema()),
            (std::map<std::string, AttributeType>{{"v", kString}}));
  EXPECT_EQ(Dump(), (Records{{"schema:t", "a:0,"}, {"schema:repeated:t", "v:1,"}}));

  // A table built while disconnected loads nothing.
  LevelDbTable orphan("t", path_);
  EXPECT_FALSE(orphan.is_created());
  EXPECT_TRUE(orphan.scalar_schema().empty());
}

}  // namespace
}  // namespace db
