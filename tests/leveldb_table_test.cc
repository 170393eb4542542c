#include "leveldb_table.h"

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "leveldb_connector.h"
#include "support/leveldb_util.h"
#include "support/test_util.h"

namespace db {
namespace {

using db_test::Dump;
using db_test::KeyValues;
using db_test::Set;

class LevelDbTableTest : public ::testing::Test {
 protected:
  void TearDown() override {
    while (!LevelDbConnector::GetInstance().ReleaseConnection(path_)) {
    }
  }
  void Connect() { ASSERT_NE(LevelDbConnector::GetInstance().AcquireConnection(path_), nullptr); }
  void Disconnect() { ASSERT_TRUE(LevelDbConnector::GetInstance().ReleaseConnection(path_)); }

  db_test::TempDir dir_;
  db_test::LogCapture log_;
  std::string path_ = dir_.File("db");
};

TEST_F(LevelDbTableTest, CreateSchemaWritesBothRecordsAndReloads) {
  EXPECT_EQ(sizeof(LevelDbTable::kSchemaPrefix), 8u);
  Connect();
  {
    LevelDbTable table("T", path_);
    ASSERT_TRUE(table
                    .CreateSchema({{"b", Set(1.5f)}, {"a", Attribute(kBytes)}},
                                  {{"z", {kString, {Set("v")}}}, {"m", {kInteger, {}}}})
                    .ok());
    EXPECT_TRUE(table.is_created());
    ASSERT_TRUE(LevelDbTable("E", path_).CreateSchema({{"a", Attribute(kString)}}, {}).ok());
  }
  Disconnect();
  EXPECT_EQ(Dump(path_), (KeyValues{{"schema:T", "a:3,b:2,"},
                                    {"schema:repeated:T", "m:0,z:1,"},
                                    {"schema:E", "a:1,"},
                                    {"schema:repeated:E", ""}}));
  Connect();
  LevelDbTable reloaded("T", path_);  // Only the kinds were kept, never the values.
  EXPECT_TRUE(reloaded.is_created());
  EXPECT_EQ(reloaded.scalar_schema(),
            (ScalarFields{{"a", Attribute(kBytes)}, {"b", Attribute(kFloat)}}));
  EXPECT_EQ(reloaded.composite_schema(),
            (CompositeFields{{"m", {kInteger, {}}}, {"z", {kString, {}}}}));
}

TEST_F(LevelDbTableTest, LoadAsymmetry) {
  // Only the scalar record makes a table created; an unknown type number
  // gives an integer, a type that is no number throws out of loading.
  db_test::Seed(
      path_,
      {{"schema:s", "a:0,b:9,"}, {"schema:repeated:c", "v:1,w:3,"}, {"schema:bad", "a:0,b:x,"}});
  Connect();
  const std::vector<std::tuple<const char*, bool, size_t, size_t>> cases = {
      {"none", false, 0, 0}, {"s", true, 2, 0}, {"c", false, 0, 2}};
  for (const auto& [name, created, scalars, composites] : cases) {
    LevelDbTable table(name, path_);
    EXPECT_EQ(table.is_created(), created) << name;
    EXPECT_EQ(table.scalar_schema().size(), scalars) << name;
    EXPECT_EQ(table.composite_schema().size(), composites) << name;
  }
  EXPECT_EQ(LevelDbTable("s", path_).scalar_schema().at("b"), Attribute(kInteger));
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
  EXPECT_TRUE(table.IsValidScalarSchema({{"a", Set("x")}, {"b", Set(2.0f)}}));
  EXPECT_FALSE(table.IsValidScalarSchema({{"a", Set(1)}, {"c", Set(1)}}));
  EXPECT_EQ(log_.Count("ERROR: Invalid scalar schema, table='T'"), 1);
  EXPECT_TRUE(table.IsValidCompositeSchema({{"m", {kInteger, {}}}, {"x", {kBytes, {Set(1)}}}}));
  for (const CompositeFields& fields :
       {CompositeFields{{"p", {kBytes, {}}}}, {{"x", {kBytes, {}}}, {"y", {kBytes, {}}}}}) {
    EXPECT_FALSE(table.IsValidCompositeSchema(fields));
  }
  EXPECT_FALSE(table.IsValidSchema({}, {{"n", {kInteger, {}}}}));
  EXPECT_EQ(log_.Count("ERROR: Invalid composite schema, table='T'"), 2);
}

TEST_F(LevelDbTableTest, DeletionBatchUsesTheFirstScalarKeyAndTheCurrentCompositeKey) {
  Connect();
  LevelDbTable table("ports", path_);
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}}, {}).ok());
  table.set_table_name("x");  // The key members keep the first name.
  EXPECT_EQ(table.scalar_schema_key(), "schema:ports");
  EXPECT_EQ(table.composite_schema_key(), "schema:repeated:ports");
  leveldb::WriteBatch batch;
  table.InsertDelSchemaOnBatch(batch);
  db_test::PutRaw(path_, "schema:repeated:x", "");
  ASSERT_TRUE(LevelDbConnector::GetInstance().LookupConnection(path_)->Write({}, &batch).ok());
  EXPECT_EQ(db_test::GetRaw(path_, "schema:ports"), "(missing)");
  EXPECT_EQ(db_test::GetRaw(path_, "schema:repeated:x"), "(missing)");
  EXPECT_EQ(db_test::GetRaw(path_, "schema:repeated:ports"), "");
  table.ClearSchema();
  EXPECT_FALSE(table.is_created());
  EXPECT_TRUE(table.scalar_schema().empty());
}

TEST_F(LevelDbTableTest, ClosedDatabaseAnswersDisconnected) {
  Connect();
  LevelDbTable table("t", path_);
  ASSERT_TRUE(table.CreateSchema({{"a", Attribute(kInteger)}}, {{"v", {kString, {}}}}).ok());
  Disconnect();
  leveldb::WriteBatch batch;
  batch.Put("t:1", "1,0,");
  for (const leveldb::Status& status :
       {table.CreateSchema({{"b", Attribute(kString)}}, {}), table.AppendColumn(batch, "c", kFloat),
        table.AppendComposite("x", {kInteger, {}}), table.RetrieveScalarSchema(),
        table.RetrieveCompositeSchema()}) {
    EXPECT_TRUE(status.IsIOError());
    EXPECT_EQ(status.ToString(), "IO error: Disconnected");
  }
  EXPECT_EQ(table.scalar_schema(), (ScalarFields{{"a", Attribute(kInteger)}}));
  EXPECT_EQ(table.composite_schema(), (CompositeFields{{"v", {kString, {}}}}));
  EXPECT_EQ(Dump(path_), (KeyValues{{"schema:t", "a:0,"}, {"schema:repeated:t", "v:1,"}}));
  EXPECT_FALSE(LevelDbTable("t", path_).is_created());  // Built while disconnected: loads nothing.
}

}  // namespace
}  // namespace db
