#include "db/db_message_object.h"

#include <stdexcept>

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>

#include "support/test_util.h"
#include "test_messages.pb.h"

namespace db {
namespace {

using db_test::AllTypes;
using db_test::Int;
using db_test::Str;
using google::protobuf::FieldDescriptor;
using google::protobuf::util::MessageDifferencer;

const FieldDescriptor* Field(const std::string& name) {
  return AllTypes::descriptor()->FindFieldByName(name);
}

AllTypes Msg(const std::string& text) {
  AllTypes m;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &m)) << text;
  return m;
}

// Every field set: negative integers, an unsigned value above the signed
// 32-bit range, exact binary fractions, bytes holding NUL, 0xFF and a quote.
AllTypes Full() {
  return Msg(
      "i32: -5 i64: -7 u32: 4000000000 u64: 123456 dbl: 2.5 flt: -0.75 flag: true "
      "label: 'port one' color: BLUE payload: '\\000\\001\\377\\'q' nested { depth: 3 } "
      "numbers: [1, -2] names: ['a', 'b c'] colors: [RED, BLUE]");
}

TEST(MessageConversionTest, TextsByCppType) {
  db_test::LogCapture log;
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"i64", "-2147483648", "-2147483648"},
      {"u32", "-294967296", "4000000000"},  // a stored 32-bit pattern
      {"u64", "18446744073709551615", "18446744073709551615"},
      {"dbl", "1e+07", "10000000.000000"},
      {"flt", "0.125", "0.125000"},
      {"flag", "7", "1"},
      {"color", "2", "2"},
      {"payload", "\x01\xff", "\x01\xff"},
      {"nested", "NULL", "NULL"},  // not carried: stays unset
  };
  for (const auto& [field, text, shown] : cases) {
    AllTypes m;
    EXPECT_EQ(0, DbMessageObject::SetScalarField(&m, Field(field), text)) << field;
    EXPECT_EQ(shown, DbMessageObject::GetScalarValueAsString(&m, Field(field))) << field;
    EXPECT_EQ(field != "nested", m.GetReflection()->HasField(m, Field(field)));
  }
  AllTypes m = Full();
  EXPECT_EQ("5", DbMessageObject::GetCompositeValueAsString(&m, Field("colors"), 1));
  ASSERT_EQ(0, DbMessageObject::AddCompositeField(&m, Field("flags"), "7"));
  EXPECT_EQ("1", DbMessageObject::GetCompositeValueAsString(&m, Field("flags"), 0));
  // Misuse answers "NULL" or -1 with a log line, never a reflection abort.
  EXPECT_EQ("NULL", DbMessageObject::GetCompositeValueAsString(&m, Field("numbers"), 2));
  EXPECT_EQ("NULL", DbMessageObject::GetScalarValueAsString(&m, Field("numbers")));
  EXPECT_EQ(-1, DbMessageObject::SetScalarField(&m, Field("numbers"), "1"));
  EXPECT_EQ(-1, DbMessageObject::AddCompositeField(&m, Field("i32"), "1"));
  EXPECT_EQ(4, log.Count("ERROR!"));

  // 64-bit integers are held in 32 bits: a wider text cannot be written back.
  EXPECT_THROW(DbMessageObject::SetScalarField(&m, Field("i64"), "5000000000"), std::out_of_range);
}

// The table "msgs" of every message field, a scalar "vlan" and a repeated "tags".
class MessageStoreTest : public ::testing::TestWithParam<DbType> {
 protected:
  MessageStoreTest()
      : object_(dir_.File("msgs"), "msgs", false, GetParam(), AllTypes::descriptor()) {
    EXPECT_EQ(0, log_.Count("db_message_object.cc")) << "every field found";
    EXPECT_EQ(0, object_.AppendScalarAttribute("vlan", Attribute(kInteger), kDefault));
    EXPECT_EQ(0, object_.AppendCompositeAttribute("tags", Attribute(kString), kDefault));
    EXPECT_EQ(0, object_.CreateObjTables());
  }

  uint32_t Store(const AllTypes& m) {
    uint32_t id = 0;
    EXPECT_EQ(0, object_.StoreMessageObject(&id, &m)) << m.DebugString();
    return id;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  DbMessageObject object_;
};

// A filter is made of the fields a message sets, a field set to its default included.
TEST_P(MessageStoreTest, RoundTripUpdateFilterDeleteAndMixedRecords) {
  for (const char* text : {"i32: 1 label: 'x' numbers: [1, 2]", "i32: 1 label: 'y' numbers: 3",
                           "i32: 2 label: 'x' numbers: 2", "label: 'z'"}) {
    Store(Msg(text));
  }
  const std::vector<std::tuple<std::string, int, std::vector<uint32_t>>> cases = {
      {"", 0, {1, 2, 3, 4}},
      {"i32: 0", 0, {4}},
      {"i32: 1 numbers: 2", 0, {1}},
      {"numbers: 2", -1, {}}};  // a repeated field alone is not answered
  for (const auto& [text, rc, expected] : cases) {
    std::vector<uint32_t> ids = {12345};
    const AllTypes filter = Msg(text);
    EXPECT_EQ(rc, object_.RetrieveMessageObjects(&ids, &filter));
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(expected, ids) << text;
  }
  const uint32_t id = Store(Full());
  Store(Full());
  AllTypes changed = Full();
  changed.clear_numbers();
  changed.MergeFrom(Msg("i32: 42 flag: false numbers: 7"));
  ASSERT_EQ(0, object_.UpdateMessageObject(id, &changed));
  changed.clear_nested();  // nested messages are not carried
  AllTypes out;
  out.set_i32(99);  // replaced, not merged
  ASSERT_EQ(0, object_.RetrieveMessageObject(id, &out));
  EXPECT_TRUE(MessageDifferencer::Equals(out, changed)) << out.DebugString();
  const AllTypes doomed = Full();
  ASSERT_EQ(0, object_.DeleteMultipleMessageObjects(&doomed));
  int size = 0;
  EXPECT_EQ(0, object_.GetObjTableSize(&size));
  EXPECT_EQ(5, size);

  EXPECT_EQ(-4, object_.RetrieveMessageObject(4242, &out));
  db_test::Nested wrong;
  std::vector<uint32_t> ids;
  uint32_t mixed = 0;
  EXPECT_EQ(-1, object_.StoreMessageObject(&mixed, &wrong));
  EXPECT_EQ(-1, object_.RetrieveMessageObjects(&ids, &wrong));
  ScalarFields left = {{"stale", Int(1)}};
  CompositeFields left_c = {{"stale", {kInteger, {Int(1)}}}};
  EXPECT_EQ(-1, object_.RetrieveMixedObject(id, &wrong, &left, &left_c));
  EXPECT_TRUE(left.empty() && left_c.empty());
  EXPECT_TRUE(log_.Contains("is not a field of message type='db_test.Nested'"));

  // A mixed record; numbers that do not fit the message are refused or logged.
  AllTypes m = Full();
  ASSERT_EQ(0, object_.ParseFromMessage(&m));
  object_.scalar_fields()["vlan"] = 42;
  object_.composite_fields()["tags"].second = {Str("red")};
  ASSERT_EQ(0, object_.StoreObject(&mixed));
  ScalarFields scalar = {{"stale", Int(1)}};
  CompositeFields composite;
  ASSERT_EQ(0, object_.RetrieveMixedObject(mixed, &out, &scalar, &composite));
  EXPECT_EQ((ScalarFields{{"vlan", Int(42)}}), scalar);
  EXPECT_EQ((CompositeFields{{"tags", {kString, {Str("red")}}}}), composite);
  AllTypes wide = Full();
  wide.set_i64(5000000000ll);
  EXPECT_THROW(object_.StoreMessageObject(&mixed, &wide), std::out_of_range);

  // An enum number the type lacks is logged and leaves the field unset.
  object_.scalar_fields()["color"] = 3;
  object_.composite_fields()["colors"].second = {Int(1), Int(4), Int(5)};
  ASSERT_EQ(0, object_.UpdateObject(mixed));
  out.Clear();
  ASSERT_EQ(0, object_.RetrieveMessageObject(mixed, &out));
  EXPECT_FALSE(out.has_color());
  EXPECT_EQ(2, out.colors_size());
  EXPECT_EQ(db_test::BLUE, out.colors(1));
  EXPECT_TRUE(log_.Contains("ERROR! Could not find value='3"));
}

INSTANTIATE_TEST_SUITE_P(Backends, MessageStoreTest, ::testing::Values(kSqlite, kLevelDb),
                         db_test::BackendName);

}  // namespace
}  // namespace db
