// DbObject on every backend configuration; where backends differ on purpose, per backend.

#include <iterator>

#include "db/db_object.h"
#include "sqlite_api.h"
#include "support/test_util.h"

namespace db_test {
namespace {

using db::Attribute;
using db::CompositeFields;
using db::ScalarFields;
using testing::ElementsAre;
using testing::IsEmpty;

// A record: scalars num, grp, label, ratio, raw and repeated integers ports.
struct Rec {
  int32_t num = 0;
  int32_t grp = 0;
  std::string label = "x";
  float ratio = 0.5f;
  std::vector<uint8_t> raw = {1};
  std::vector<int32_t> ports;
};

ScalarFields ScalarsOf(const Rec& r) {
  return {{"num", Val(r.num)},
          {"grp", Val(r.grp)},
          {"label", Val(r.label)},
          {"ratio", Val(r.ratio)},
          {"raw", Val(r.raw)}};
}

void SetRecord(db::DbObject* object, const Rec& r) {
  object->ClearObject();
  for (const auto& field : ScalarsOf(r)) object->scalar_fields()[field.first] = field.second;
  for (int32_t port : r.ports) object->composite_fields()["ports"].second.push_back(Val(port));
}

uint32_t Store(db::DbObject* object, const Rec& r) {
  SetRecord(object, r);
  uint32_t id = 0;
  EXPECT_EQ(object->StoreObject(&id), 0) << "num " << r.num;
  return id;
}

void ExpectStored(const db::DbObject& object, uint32_t id, const Rec& r) {
  ScalarFields scalar;
  CompositeFields composite;
  ASSERT_EQ(object.RetrieveObject(id, &scalar, &composite), 0) << id;
  EXPECT_EQ(scalar, ScalarsOf(r)) << id;
  std::vector<Attribute> ports;
  for (int32_t port : r.ports) ports.push_back(Val(port));
  EXPECT_EQ(SetOnly(composite.at("ports").second), ports) << id;
}

std::vector<uint32_t> Ids(const db::DbObject& object, const ScalarFields& scalar = {},
                          const CompositeFields& composite = {}) {
  std::vector<uint32_t> ids{77};
  EXPECT_EQ(object.RetrieveObjects(&ids, scalar, composite), 0);
  std::sort(ids.begin(), ids.end());
  return ids;
}

int Size(const db::DbObject& object) {
  int size = -5;
  EXPECT_EQ(object.GetObjTableSize(&size), 0);
  return size;
}

// The parameter names the configuration: "SqliteFile", "SqliteMemory" or "LevelDb".
class BackendTest : public testing::TestWithParam<const char*> {
 protected:
  BackendTest() {
    db_name_ = dir_.File(is_leveldb() ? "leveldb" : "test.db");
    if (!in_memory()) return;
    // A shared in-memory database lives while a connection holds it.
    db_name_ = "mem_" + dir_.path().substr(dir_.path().rfind('/') + 1);
    keep_alive_ = std::make_unique<db::SqliteAPI>(db_name_, "keep_alive", true);
  }

  bool is_leveldb() const { return GetParam() == std::string("LevelDb"); }
  bool in_memory() const { return GetParam() == std::string("SqliteMemory"); }

  std::unique_ptr<db::DbObject> Open(bool create = true) const {
    auto object = std::make_unique<db::DbObject>(db_name_, "records", in_memory(),
                                                 is_leveldb() ? db::kLevelDb : db::kSqlite);
    for (const auto& [name, value] : ScalarsOf(Rec{}))
      EXPECT_EQ(object->AppendScalarAttribute(name, Attribute(value.type()), db::kDefault), 0);
    EXPECT_EQ(object->AppendCompositeAttribute("ports", Attribute(db::kInteger), db::kDefault), 0);
    object->DeclareTableIndex("by_grp", {"grp"});  // filters on grp go through it
    EXPECT_EQ(create ? object->CreateObjTables() : 0, 0);
    return object;
  }

  LogCapture log_;
  TempDir dir_;
  std::string db_name_;
  std::unique_ptr<db::DatabaseAPI> keep_alive_;
};

// Texts that could end a quoted SQL text, a statement or a stored length, 1 MB texts, integer
// limits and a subnormal float come back exactly, stored and updated, changing no other record.
TEST_P(BackendTest, EveryTypeAndHostileValuesRoundTripAndUpdate) {
  auto object = Open(false);
  ASSERT_EQ(object->AppendCompositeAttribute("notes", Attribute(db::kString), db::kDefault), 0);
  ASSERT_EQ(object->CreateObjTables(), 0);
  std::string big(1 << 20, 'q');
  for (size_t i = 0; i < big.size(); i += 4093) big[i] = "'\0\xFF\xFE;-,"[i % 7];
  const std::string texts[] = {"O'Brien, \"quoted\", 'twice''",
                               "x'); DELETE FROM records; --",
                               std::string("a\0b", 3),
                               "\xFF\xFE\xFF",
                               "a,b,,c;--,",
                               big};
  const float ratios[] = {2.5f, -0.125f, 1e+07f, 1e-40f};
  std::vector<Rec> stored(std::size(texts));
  auto write = [&](size_t i, bool reversed) {
    const std::string text = reversed ? std::string(texts[i].rbegin(), texts[i].rend()) : texts[i];
    const int32_t num = i % 2 == 0 ? INT32_MAX : INT32_MIN;
    const int32_t grp = static_cast<int32_t>(i) - 1;
    stored[i] = {num, grp, text, ratios[i % 4], {text.begin(), text.end()}, {INT32_MIN, 0, num}};
    SetRecord(object.get(), stored[i]);
    object->composite_fields()["notes"].second = {Val(text), Val("'" + text)};
    const uint32_t id = static_cast<uint32_t>(i + 1);
    uint32_t new_id = 0;
    ASSERT_EQ(reversed ? object->UpdateObject(id) : object->StoreObject(&new_id), 0);
    EXPECT_THAT(Ids(*object, {{"label", Val(text)}}), ElementsAre(id)) << "matches itself only";
  };
  for (bool reversed : {false, true}) {
    for (size_t i = 0; i < std::size(texts); ++i) write(i, reversed);
    for (size_t i = 0; i < std::size(texts); ++i) {
      object->ClearObject();
      ExpectStored(*object, static_cast<uint32_t>(i + 1), stored[i]);
      EXPECT_THAT(object->composite_fields().at("notes").second,
                  ElementsAre(Val(stored[i].label), Val("'" + stored[i].label)));
    }
  }
  ScalarFields scalar;
  CompositeFields composite;
  EXPECT_EQ(object->RetrieveObject(42, &scalar, &composite), -4);
  // LevelDB's value format cannot tell an empty text from an absent one: it reads back unset.
  const uint32_t blank = Store(object.get(), Rec{1, 1, "", 1.0f, {1}, {}});
  ASSERT_EQ(object->RetrieveObject(blank, &scalar, &composite), 0);
  EXPECT_EQ(scalar.at("label"), is_leveldb() ? Attribute(db::kString) : Val(std::string()));
  EXPECT_EQ(Size(*object), 1 + static_cast<int>(std::size(texts)));
}

// Set scalar fields must all be equal; a repeated field matches on a shared
// element. Neither backend answers a filter on repeated fields alone. Deletes release their ids.
TEST_P(BackendTest, FiltersAndDeletes) {
  auto object = Open();
  Store(object.get(), Rec{10, 1, "a", 1.0f, {1}, {80, 8080}});  // 1
  Store(object.get(), Rec{20, 1, "b", 1.0f, {1}, {443}});       // 2
  Store(object.get(), Rec{10, 2, "a", 1.0f, {1}, {80}});        // 3
  Store(object.get(), Rec{10, 1, "a,b", 1.0f, {1}, {22}});      // 4
  Store(object.get(), Rec{40, 1, "a", 1.0f, {1}, {}});          // 5
  struct Case {
    ScalarFields scalar;
    std::vector<Attribute> ports;
    std::vector<uint32_t> expected;
  };
  const Case cases[] = {
      {{{"grp", Val(1)}}, {}, {1, 2, 4, 5}},
      {{{"grp", Val(1)}, {"num", Val(10)}, {"label", Val("a")}}, {}, {1}},
      {{{"grp", Val(2)}, {"label", Attribute(db::kString)}}, {}, {3}},  // unset: wildcard
      {{{"grp", Val(1)}, {"num", Val(30)}}, {}, {}},
      {{{"grp", Val(1)}}, {Val(80)}, {1}},
      {{{"grp", Val(1)}}, {Val(80), Val(443), Val(8080)}, {1, 2}},  // each id once
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    CompositeFields composite;
    if (!cases[i].ports.empty()) composite["ports"] = {db::kInteger, cases[i].ports};
    EXPECT_EQ(Ids(*object, cases[i].scalar, composite), cases[i].expected) << "case " << i;
  }
  std::vector<uint32_t> ids{5};
  CompositeFields ports_only{{"ports", {db::kInteger, {Val(80)}}}};
  EXPECT_EQ(object->RetrieveObjects(&ids, ScalarFields(), ports_only), -1);
  EXPECT_THAT(ids, IsEmpty());
  ASSERT_EQ(object->DeleteMultipleObjects(), 0);
  ASSERT_EQ(object->DeleteSingleObject(2), 0);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{2, 5}));
  object->ClearObject();
  object->scalar_fields()["grp"] = 1;
  ASSERT_EQ(object->DeleteMultipleObjects(), 0);
  EXPECT_EQ(Ids(*object), (std::vector<uint32_t>{3}));
  EXPECT_THAT(Ids(*object, {{"grp", Val(1)}}), IsEmpty());
  // A reused id carries none of the old record's repeated elements.
  const Rec fresh{9, 0, "fresh", 1.0f, {1}, {99}};
  EXPECT_EQ(Store(object.get(), fresh), 1u);
  ExpectStored(*object, 1, fresh);
  ASSERT_EQ(object->ClearObjTable(), 0);
  EXPECT_EQ(Size(*object), 0);
  EXPECT_EQ(FreeIds(), (std::set<uint32_t>{1, 2, 3, 4, 5}));
}

INSTANTIATE_TEST_SUITE_P(AllBackends, BackendTest,
                         testing::Values("SqliteFile", "SqliteMemory", "LevelDb"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param);
                         });

}  // namespace
}  // namespace db_test
