#include "db/db_message_object.h"

#include <stdexcept>

#include <google/protobuf/util/message_differencer.h>

#include "support/test_util.h"
#include "test_messages.pb.h"

namespace {

using db::Attribute;
using db::CompositeFields;
using db::DbMessageObject;
using db::ScalarFields;
using db_test::AllTypes;
using google::protobuf::FieldDescriptor;
using google::protobuf::util::MessageDifferencer;

const FieldDescriptor* Field(const std::string& name) {
  return AllTypes::descriptor()->FindFieldByName(name);
}

Attribute V(const db::AttributeValue& v) {
  Attribute a;
  a.set_value(v);
  return a;
}

// Every field set: negative integers, an unsigned value above the signed
// 32-bit range, exact binary fractions, bytes holding NUL, 0xFF and a quote.
AllTypes Full() {
  AllTypes m;
  m.set_i32(-5);
  m.set_i64(-7);
  m.set_u32(4000000000u);
  m.set_u64(123456);
  m.set_dbl(2.5);
  m.set_flt(-0.75f);
  m.set_flag(true);
  m.set_label("port one");
  m.set_color(db_test::BLUE);
  m.set_payload(std::string("\x00\x01\xff'q", 5));
  m.mutable_nested()->set_depth(3);
  for (int n : {1, -2}) m.add_numbers(n);
  for (const char* n : {"a", "b c"}) m.add_names(n);
  for (auto c : {db_test::RED, db_test::BLUE}) m.add_colors(c);
  return m;
}

// What a stored message reads back as: nested messages are not carried.
AllTypes Carried(AllTypes m) {
  m.clear_nested();
  return m;
}

TEST(MessageConversionTest, TextsByCppType) {
  db_test::LogCapture log;
  const struct {
    const char* field;
    const char* text;
    std::string shown;
  } cases[] = {
      {"i64", "-2147483648", "-2147483648"},
      {"u32", "-294967296", "4000000000"},  // a stored 32-bit pattern
      {"u64", "18446744073709551615", "18446744073709551615"},
      {"dbl", "1e+07", "10000000.000000"},
      {"flt", "0.125", "0.125000"},
      {"flag", "7", "1"},
      {"flag", "0", "0"},
      {"color", "2", "2"},
      {"payload", "\x01\xff", "\x01\xff"},
      {"nested", "NULL", "NULL"},  // not carried: stays unset
  };
  for (const auto& c : cases) {
    AllTypes m;
    EXPECT_EQ(0, DbMessageObject::SetScalarField(&m, Field(c.field), c.text)) << c.field;
    EXPECT_EQ(c.shown, DbMessageObject::GetScalarValueAsString(&m, Field(c.field))) << c.field;
    EXPECT_EQ(std::string(c.field) != "nested", m.GetReflection()->HasField(m, Field(c.field)));
  }
  AllTypes m = Full();
  EXPECT_EQ("b c", DbMessageObject::GetCompositeValueAsString(&m, Field("names"), 1));
  EXPECT_EQ("5", DbMessageObject::GetCompositeValueAsString(&m, Field("colors"), 1));
  // Misuse answers "NULL" or -1 with a log line, never a reflection abort.
  EXPECT_EQ("NULL", DbMessageObject::GetCompositeValueAsString(&m, Field("numbers"), 2));
  EXPECT_EQ("NULL", DbMessageObject::GetScalarValueAsString(&m, Field("numbers")));
  EXPECT_EQ(-1, DbMessageObject::SetScalarField(&m, Field("numbers"), "1"));
  EXPECT_EQ(-1, DbMessageObject::AddCompositeField(&m, Field("i32"), "1"));
  db_test::Nested other;
  EXPECT_EQ(-1, DbMessageObject::SetScalarField(&other, Field("i32"), "1"));
  EXPECT_EQ(5, log.Count("ERROR!"));

  // 64-bit integers are held in 32 bits: a wider text cannot be written back.
  AllTypes empty;
  EXPECT_THROW(DbMessageObject::SetScalarField(&empty, Field("i64"), "5000000000"),
               std::out_of_range);
  EXPECT_THROW(DbMessageObject::SetScalarField(&empty, Field("i32"), "abc"), std::invalid_argument);
  EXPECT_FALSE(empty.has_i64());
}

class MessageStoreTest : public ::testing::TestWithParam<db::DbType> {
 protected:
  // The table "msgs"; `extras` adds a scalar "vlan" and a repeated "tags".
  std::unique_ptr<DbMessageObject> Open(bool extras = false) {
    auto object = std::make_unique<DbMessageObject>(dir_.File("msgs"), "msgs", false, GetParam(),
                                                    AllTypes::descriptor());
    if (extras) {
      EXPECT_EQ(0, object->AppendScalarAttribute("vlan", Attribute(db::kInteger), db::kDefault));
      EXPECT_EQ(0, object->AppendCompositeAttribute("tags", Attribute(db::kString), db::kDefault));
    }
    EXPECT_EQ(0, object->CreateObjTables());
    return object;
  }

  static uint32_t Store(DbMessageObject* object, const AllTypes& m) {
    uint32_t id = 0;
    EXPECT_EQ(0, object->StoreMessageObject(&id, &m)) << m.DebugString();
    return id;
  }

  static void ExpectStored(const DbMessageObject& object, uint32_t id, const AllTypes& m) {
    AllTypes out;
    out.set_i32(99);  // replaced, not merged
    ASSERT_EQ(0, object.RetrieveMessageObject(id, &out));
    EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(m))) << out.DebugString();
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
};

TEST_P(MessageStoreTest, RoundTripUpdateAndDelete) {
  auto object = Open();
  const uint32_t id = Store(object.get(), Full());
  const uint32_t other = Store(object.get(), Full());
  ExpectStored(*object, id, Full());
  ScalarFields s;
  CompositeFields c;
  ASSERT_EQ(0, object->RetrieveObject(id, &s, &c));
  EXPECT_EQ(V(1), s.at("flag"));  // bool true is the integer 1

  AllTypes changed = Full();
  changed.set_i32(42);
  changed.set_flag(false);
  changed.clear_numbers();
  changed.add_numbers(7);
  ASSERT_EQ(0, object->UpdateMessageObject(id, &changed));
  ExpectStored(*object, id, changed);
  ExpectStored(*object, other, Full());

  Store(object.get(), Full());
  const AllTypes doomed = Full();
  ASSERT_EQ(0, object->DeleteMultipleMessageObjects(&doomed));
  std::vector<uint32_t> ids;
  const AllTypes all;
  ASSERT_EQ(0, object->RetrieveMessageObjects(&ids, &all));
  EXPECT_EQ(std::vector<uint32_t>{id}, ids);

  AllTypes out = Full();
  EXPECT_EQ(-4, object->RetrieveMessageObject(4242, &out));
  EXPECT_EQ(0u, out.ByteSizeLong());
  const db_test::Nested wrong;
  uint32_t unused = 0;
  EXPECT_EQ(-1, object->StoreMessageObject(&unused, &wrong));
  EXPECT_EQ(-1, object->StoreMessageObject(&unused, nullptr));
  EXPECT_EQ(-1, object->RetrieveMessageObjects(&ids, &wrong));
  db_test::Nested wrong_out;
  ScalarFields left = {{"stale", V(1)}};
  CompositeFields left_c = {{"stale", {db::kInteger, {V(1)}}}};
  EXPECT_EQ(-1, object->RetrieveMixedObject(id, &wrong_out, &left, &left_c));
  EXPECT_TRUE(left.empty() && left_c.empty());
  EXPECT_TRUE(log_.Contains("is not a field of message type='db_test.Nested'"));
}

TEST_P(MessageStoreTest, FilterFromTheFieldsAMessageSets) {
  auto object = Open();
  auto make = [](const char* label, std::vector<int> numbers, bool set_i32 = false, int i32 = 0) {
    AllTypes m;
    if (set_i32) m.set_i32(i32);
    if (label != nullptr) m.set_label(label);
    for (int n : numbers) m.add_numbers(n);
    return m;
  };
  const uint32_t a = Store(object.get(), make("x", {1, 2}, true, 1));
  const uint32_t b = Store(object.get(), make("y", {3}, true, 1));
  const uint32_t c = Store(object.get(), make("x", {2}, true, 2));
  const uint32_t d = Store(object.get(), make("z", {}));  // i32 stored as 0
  const struct {
    AllTypes filter;
    int rc;
    std::vector<uint32_t> ids;
  } cases[] = {
      {AllTypes(), 0, {a, b, c, d}},  // no field set selects every id
      {make(nullptr, {}, true, 1), 0, {a, b}},
      {make(nullptr, {}, true, 0), 0, {d}},  // a field set to its default
      {make("x", {}), 0, {a, c}},
      {make(nullptr, {2}, true, 1), 0, {a}},
      {make(nullptr, {2}), -1, {}},  // a repeated field alone is not answered
  };
  for (const auto& test : cases) {
    std::vector<uint32_t> ids = {12345};
    EXPECT_EQ(test.rc, object->RetrieveMessageObjects(&ids, &test.filter));
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(test.ids, ids) << test.filter.DebugString();
  }
}

TEST_P(MessageStoreTest, MixedRecordIsSplitBetweenMessageAndMaps) {
  auto object = Open(/*extras=*/true);
  const AllTypes m = Full();
  ASSERT_EQ(0, object->ParseFromMessage(&m));
  object->scalar_fields()["vlan"] = 42;
  object->composite_fields()["tags"].second = {V(std::string("red"))};
  uint32_t id = 0;
  ASSERT_EQ(0, object->StoreObject(&id));
  AllTypes out;
  ScalarFields scalar = {{"stale", V(1)}};
  CompositeFields composite;
  ASSERT_EQ(0, object->RetrieveMixedObject(id, &out, &scalar, &composite));
  EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(m))) << out.DebugString();
  EXPECT_EQ((ScalarFields{{"vlan", V(42)}}), scalar);
  EXPECT_EQ((CompositeFields{{"tags", {db::kString, {V(std::string("red"))}}}}), composite);
  ExpectStored(*object, id, m);
}

TEST_P(MessageStoreTest, NumbersThatDoNotFitTheMessage) {
  auto object = Open();
  AllTypes m = Full();
  m.set_i64(5000000000ll);
  uint32_t id = 0;
  EXPECT_THROW(object->StoreMessageObject(&id, &m), std::out_of_range);
  m.set_i64(-2147483648ll);
  ExpectStored(*object, Store(object.get(), m), m);

  // An enum number the type lacks is logged and leaves the field unset.
  ASSERT_EQ(0, object->ParseFromMessage(&m));
  object->scalar_fields()["color"] = 3;
  object->composite_fields()["colors"].second = {V(1), V(4), V(5)};
  ASSERT_EQ(0, object->StoreObject(&id));
  AllTypes out;
  ASSERT_EQ(0, object->RetrieveMessageObject(id, &out));
  EXPECT_FALSE(out.has_color());
  EXPECT_EQ(2, out.colors_size());
  EXPECT_EQ(db_test::BLUE, out.colors(1));
  EXPECT_EQ(-5, out.i32());
  EXPECT_TRUE(log_.Contains("ERROR! Could not find value='3"));
  EXPECT_TRUE(log_.Contains("ERROR! Could not find value='4"));
}

INSTANTIATE_TEST_SUITE_P(Backends, MessageStoreTest, ::testing::Values(db::kSqlite, db::kLevelDb),
                         [](const ::testing::TestParamInfo<db::DbType>& info) {
                           return std::string(info.param == db::kSqlite ? "Sqlite" : "LevelDb");
                         });

}  // namespace
