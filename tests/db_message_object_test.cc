// DbMessageObject: the text conversions by C++ type, the filling of the current
// record from a message, and messages stored, found, updated, deleted and read
// back through both backends.

#include "db/db_message_object.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

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
  const FieldDescriptor* field = AllTypes::descriptor()->FindFieldByName(name);
  EXPECT_NE(field, nullptr) << name;
  return field;
}

Attribute Int(int32_t v) {
  Attribute a(db::kInteger);
  a = v;
  return a;
}

Attribute Str(const std::string& v) {
  Attribute a(db::kString);
  a = v;
  return a;
}

// Every field set, with values that exercise the conversions: negative
// integers, an unsigned value above the signed 32-bit range, exact binary
// fractions, bytes holding NUL, 0xFF and a quote.
AllTypes FullMessage() {
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
  m.add_numbers(1);
  m.add_numbers(-2);
  m.add_names("a");
  m.add_names("b c");
  m.add_colors(db_test::RED);
  m.add_colors(db_test::BLUE);
  return m;
}

// What a stored FullMessage-like message reads back as: nested messages are
// not carried.
AllTypes Carried(AllTypes m) {
  m.clear_nested();
  return m;
}

bool LogEndsWith(const db_test::LogCapture& log, const std::string& tail) {
  for (const std::string& line : log.Lines()) {
    if (line.size() >= tail.size() &&
        line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
      return true;
  }
  return false;
}

// ---- Without storage: schema, text forms and conversions.

class MessageConversionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    object_ = std::make_unique<DbMessageObject>(dir_.File("conv.sqlite"), "msgs", false,
                                                db::kSqlite, AllTypes::descriptor());
    log_.Clear();
  }
  db_test::LogCapture log_;
  db_test::TempDir dir_;
  std::unique_ptr<DbMessageObject> object_;
};

TEST(CreateAttributeTest, KindFollowsCppType) {
  const std::map<FieldDescriptor::CppType, db::AttributeType> expected = {
      {FieldDescriptor::CPPTYPE_INT32, db::kInteger},
      {FieldDescriptor::CPPTYPE_INT64, db::kInteger},
      {FieldDescriptor::CPPTYPE_UINT32, db::kInteger},
      {FieldDescriptor::CPPTYPE_UINT64, db::kInteger},
      {FieldDescriptor::CPPTYPE_BOOL, db::kInteger},
      {FieldDescriptor::CPPTYPE_ENUM, db::kInteger},
      {FieldDescriptor::CPPTYPE_DOUBLE, db::kFloat},
      {FieldDescriptor::CPPTYPE_FLOAT, db::kFloat},
      {FieldDescriptor::CPPTYPE_STRING, db::kString},
      {FieldDescriptor::CPPTYPE_MESSAGE, db::kBytes},
  };
  for (const auto& [cpp_type, kind] : expected) {
    const Attribute a = DbMessageObject::CreateAttribute(cpp_type);
    EXPECT_EQ(a.type(), kind) << cpp_type;
    EXPECT_FALSE(a.is_set()) << cpp_type;
  }
}

TEST_F(MessageConversionTest, ConstructorDeclaresEveryField) {
  std::vector<std::string> scalars;
  for (const auto& entry : object_->scalar_field_map()) scalars.push_back(entry.first);
  EXPECT_EQ(scalars, (std::vector<std::string>{"color", "dbl", "flag", "flt", "i32", "i64", "label",
                                               "nested", "payload", "u32", "u64"}));
  std::vector<std::string> repeated;
  for (const auto& entry : object_->composite_field_map()) repeated.push_back(entry.first);
  EXPECT_EQ(repeated, (std::vector<std::string>{"colors", "names", "numbers"}));

  const ScalarFields& schema = object_->scalar_fields();
  ASSERT_EQ(schema.size(), 11u);
  EXPECT_EQ(schema.at("u64").type(), db::kInteger);
  EXPECT_EQ(schema.at("flt").type(), db::kFloat);
  EXPECT_EQ(schema.at("payload").type(), db::kString);
  EXPECT_EQ(schema.at("nested").type(), db::kBytes);
  EXPECT_EQ(object_->composite_schema().at("names").first, db::kString);
  EXPECT_EQ(object_->composite_schema().at("colors").first, db::kInteger);
  EXPECT_EQ(object_->scalar_field_map().at("i32"), Field("i32"));
}

TEST_F(MessageConversionTest, AppendMessageAttributeRefusesUnknownField) {
  EXPECT_EQ(object_->AppendMessageAttribute("no_such_field", AllTypes::descriptor()), -1);
  EXPECT_EQ(object_->AppendMessageAttribute("i32", nullptr), -1);
  EXPECT_EQ(object_->scalar_fields().count("no_such_field"), 0u);
  EXPECT_TRUE(log_.Contains("ERROR! Could not find field='no_such_field'"));
  // A field already declared is refused by the object layer.
  EXPECT_EQ(object_->AppendMessageAttribute("i32", AllTypes::descriptor()), -3);
}

TEST_F(MessageConversionTest, ScalarTextByCppType) {
  AllTypes m = FullMessage();
  m.set_u64(18446744073709551615ull);
  const std::map<std::string, std::string> expected = {
      {"i32", "-5"},
      {"i64", "-7"},
      {"u32", "4000000000"},
      {"u64", "18446744073709551615"},
      {"dbl", "2.500000"},
      {"flt", "-0.750000"},
      {"flag", "1"},
      {"label", "port one"},
      {"color", "5"},
      {"nested", "NULL"},
      {"payload", std::string("\x00\x01\xff'q", 5)},
  };
  for (const auto& [name, text] : expected) {
    EXPECT_EQ(DbMessageObject::GetScalarValueAsString(&m, Field(name)), text) << name;
  }
  m.set_flag(false);
  EXPECT_EQ(DbMessageObject::GetScalarValueAsString(&m, Field("flag")), "0");
}

TEST_F(MessageConversionTest, CompositeTextByIndex) {
  const AllTypes m = FullMessage();
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("numbers"), 1), "-2");
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("names"), 1), "b c");
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("colors"), 0), "1");
  // Misuse is answered with "NULL" and a log line, never a reflection abort.
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("numbers"), 2), "NULL");
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("numbers"), -1), "NULL");
  EXPECT_EQ(DbMessageObject::GetCompositeValueAsString(&m, Field("i32"), 0), "NULL");
  EXPECT_EQ(DbMessageObject::GetScalarValueAsString(&m, Field("numbers")), "NULL");
  const db_test::Nested other;
  EXPECT_EQ(DbMessageObject::GetScalarValueAsString(&other, Field("i32")), "NULL");
  EXPECT_EQ(log_.Count("ERROR!"), 5);
}

TEST_F(MessageConversionTest, SetScalarFieldParsesByCppType) {
  struct Case {
    const char* field;
    const char* text;
    std::string expected;  // the field's text afterwards
  };
  const Case cases[] = {
      {"i32", "-12", "-12"},
      {"i64", "-2147483648", "-2147483648"},
      // An unsigned 32-bit text parses like the board's 32-bit stoul, so the
      // negative text of a stored pattern gives back the unsigned value.
      {"u32", "4000000000", "4000000000"},
      {"u32", "-294967296", "4000000000"},
      {"u64", "18446744073709551615", "18446744073709551615"},
      {"dbl", "1e+07", "10000000.000000"},
      {"flt", "0.125", "0.125000"},
      {"flag", "1", "1"},
      {"flag", "7", "1"},
      {"color", "2", "2"},
      {"label", "O'Brien", "O'Brien"},
  };
  for (const Case& c : cases) {
    AllTypes m;
    EXPECT_EQ(DbMessageObject::SetScalarField(&m, Field(c.field), c.text), 0) << c.field;
    EXPECT_EQ(DbMessageObject::GetScalarValueAsString(&m, Field(c.field)), c.expected) << c.field;
  }
  AllTypes m;
  m.set_flag(true);
  DbMessageObject::SetScalarField(&m, Field("flag"), "0");
  EXPECT_TRUE(m.has_flag());
  EXPECT_FALSE(m.flag());
  // A nested message is not carried: its field stays unset.
  EXPECT_EQ(DbMessageObject::SetScalarField(&m, Field("nested"), "NULL"), 0);
  EXPECT_FALSE(m.has_nested());
}

TEST_F(MessageConversionTest, SetScalarFieldConversionErrorsThrow) {
  AllTypes m;
  // 64-bit integers are held in 32 bits: a wider text cannot be written back.
  EXPECT_THROW(DbMessageObject::SetScalarField(&m, Field("i64"), "5000000000"), std::out_of_range);
  EXPECT_THROW(DbMessageObject::SetScalarField(&m, Field("u32"), "5000000000"), std::out_of_range);
  EXPECT_THROW(DbMessageObject::SetScalarField(&m, Field("i32"), "abc"), std::invalid_argument);
  EXPECT_THROW(DbMessageObject::SetScalarField(&m, Field("dbl"), ""), std::invalid_argument);
  EXPECT_THROW(DbMessageObject::AddCompositeField(&m, Field("numbers"), "x"),
               std::invalid_argument);
  EXPECT_FALSE(m.has_i64());
  EXPECT_EQ(m.numbers_size(), 0);
}

TEST_F(MessageConversionTest, UnknownEnumNumberIsLoggedAndSkipped) {
  AllTypes m;
  EXPECT_EQ(DbMessageObject::SetScalarField(&m, Field("color"), "3"), -4);
  EXPECT_FALSE(m.has_color());
  EXPECT_TRUE(LogEndsWith(log_, "ERROR! Could not find value='3"));
  EXPECT_EQ(DbMessageObject::AddCompositeField(&m, Field("colors"), "9"), -4);
  EXPECT_EQ(DbMessageObject::AddCompositeField(&m, Field("colors"), "5"), 0);
  ASSERT_EQ(m.colors_size(), 1);
  EXPECT_EQ(m.colors(0), db_test::BLUE);
  EXPECT_TRUE(LogEndsWith(log_, "ERROR! Could not find value='9"));
}

TEST_F(MessageConversionTest, SettersRefuseFieldsThatDoNotFit) {
  AllTypes m;
  db_test::Nested other;
  EXPECT_EQ(DbMessageObject::SetScalarField(&m, Field("numbers"), "1"), -1);
  EXPECT_EQ(DbMessageObject::AddCompositeField(&m, Field("i32"), "1"), -1);
  EXPECT_EQ(DbMessageObject::SetScalarField(&other, Field("i32"), "1"), -1);
  EXPECT_EQ(DbMessageObject::SetScalarField(nullptr, Field("i32"), "1"), -1);
  EXPECT_EQ(DbMessageObject::SetScalarField(&m, nullptr, "1"), -1);
  EXPECT_EQ(m.ByteSizeLong(), 0u);
  EXPECT_EQ(log_.Count("ERROR!"), 5);
}

TEST_F(MessageConversionTest, ParseFromMessageFillsTheCurrentRecord) {
  const AllTypes m = FullMessage();
  ASSERT_EQ(object_->ParseFromMessage(&m), 0);
  const ScalarFields& s = object_->scalar_fields();
  for (const auto& entry : s) EXPECT_TRUE(entry.second.is_set()) << entry.first;
  EXPECT_EQ(s.at("i32").Get<int32_t>(), -5);
  EXPECT_EQ(s.at("i64").Get<int32_t>(), -7);
  // The unsigned value keeps its 32-bit pattern.
  EXPECT_EQ(static_cast<uint32_t>(s.at("u32").Get<int32_t>()), 4000000000u);
  EXPECT_EQ(s.at("u64").Get<int32_t>(), 123456);
  EXPECT_EQ(s.at("flag").Get<int32_t>(), 1);
  EXPECT_EQ(s.at("color").Get<int32_t>(), 5);
  EXPECT_EQ(s.at("dbl").Get<float>(), 2.5f);
  EXPECT_EQ(s.at("flt").Get<float>(), -0.75f);
  EXPECT_EQ(s.at("label").Get<std::string>(), "port one");
  EXPECT_EQ(s.at("payload").Get<std::string>(), std::string("\x00\x01\xff'q", 5));
  EXPECT_EQ(s.at("nested").Get<std::vector<uint8_t>>(), (std::vector<uint8_t>{'N', 'U', 'L', 'L'}));
  const CompositeFields& c = object_->composite_fields();
  EXPECT_EQ(c.at("numbers").second, (std::vector<Attribute>{Int(1), Int(-2)}));
  EXPECT_EQ(c.at("names").second, (std::vector<Attribute>{Str("a"), Str("b c")}));
  EXPECT_EQ(c.at("colors").second, (std::vector<Attribute>{Int(1), Int(5)}));

  // Fields the message does not set are written with their defaults; repeated
  // fields are rebuilt, not appended to.
  AllTypes sparse;
  sparse.add_numbers(8);
  ASSERT_EQ(object_->ParseFromMessage(&sparse), 0);
  EXPECT_EQ(s.at("i32"), Int(0));
  EXPECT_EQ(s.at("label"), Str(""));
  EXPECT_EQ(c.at("numbers").second, (std::vector<Attribute>{Int(8)}));
  EXPECT_TRUE(c.at("names").second.empty());
}

TEST_F(MessageConversionTest, SettedFieldsMakeTheFilter) {
  AllTypes m;
  m.set_i32(0);  // set to its default: still part of the filter
  m.set_label("x");
  m.add_names("n");
  ScalarFields scalar = {{"stale", Int(1)}};
  CompositeFields composite = {{"stale", {db::kInteger, {}}}};
  ASSERT_EQ(object_->ParseFromMessageSettedFields(&m, &scalar, &composite), 0);
  ASSERT_EQ(scalar.size(), 2u);
  EXPECT_EQ(scalar.at("i32"), Int(0));
  EXPECT_EQ(scalar.at("label"), Str("x"));
  ASSERT_EQ(composite.size(), 1u);
  EXPECT_EQ(composite.at("names").second, (std::vector<Attribute>{Str("n")}));

  const AllTypes empty;
  ASSERT_EQ(object_->ParseFromMessageSettedFields(&empty, &scalar, &composite), 0);
  EXPECT_TRUE(scalar.empty());
  EXPECT_TRUE(composite.empty());
}

// ---- Through both backends.

class MessageStoreTest : public ::testing::TestWithParam<db::DbType> {
 protected:
  // Opens the table "msgs"; `extras` declares a scalar "vlan" and a repeated
  // "tags" beside the message's fields.
  std::unique_ptr<DbMessageObject> Open(bool extras = false) {
    const std::string path =
        GetParam() == db::kSqlite ? dir_.File("msgs.sqlite") : dir_.File("msgs.ldb");
    auto object =
        std::make_unique<DbMessageObject>(path, "msgs", false, GetParam(), AllTypes::descriptor());
    if (extras) {
      EXPECT_EQ(object->AppendScalarAttribute("vlan", Attribute(db::kInteger), db::kDefault), 0);
      EXPECT_EQ(object->AppendCompositeAttribute("tags", Attribute(db::kString), db::kDefault), 0);
    }
    EXPECT_EQ(object->CreateObjTables(), 0);
    return object;
  }

  uint32_t Store(DbMessageObject* object, const AllTypes& m) {
    uint32_t id = 0;
    EXPECT_EQ(object->StoreMessageObject(&id, &m), 0) << m.DebugString();
    return id;
  }

  static std::vector<uint32_t> Sorted(std::vector<uint32_t> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  static int Size(const DbMessageObject& object) {
    int size = -1;
    EXPECT_EQ(object.GetObjTableSize(&size), 0);
    return size;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
};

TEST_P(MessageStoreTest, RoundTripCarriesEveryScalarAndRepeatedField) {
  auto object = Open();
  const AllTypes m = FullMessage();
  const uint32_t id = Store(object.get(), m);

  AllTypes out;
  out.set_i32(99);  // replaced, not merged
  ASSERT_EQ(object->RetrieveMessageObject(id, &out), 0);
  EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(m))) << out.DebugString();

  // Bool true is stored as the integer 1.
  ScalarFields s;
  CompositeFields c;
  ASSERT_EQ(object->RetrieveObject(id, &s, &c), 0);
  EXPECT_EQ(s.at("flag"), Int(1));
}

TEST_P(MessageStoreTest, FilterFromTheFieldsAMessageSets) {
  auto object = Open();
  std::map<char, uint32_t> id;
  AllTypes a, b, c, d;
  a.set_i32(1);
  a.set_label("x");
  a.add_numbers(1);
  a.add_numbers(2);
  b.set_i32(1);
  b.set_label("y");
  b.add_numbers(3);
  c.set_i32(2);
  c.set_label("x");
  c.add_numbers(2);
  d.set_label("z");  // i32 not set: stored as 0
  id['a'] = Store(object.get(), a);
  id['b'] = Store(object.get(), b);
  id['c'] = Store(object.get(), c);
  id['d'] = Store(object.get(), d);

  struct Case {
    const char* what;
    AllTypes filter;
    int rc;
    std::string matches;
  };
  auto make = [](int i32, bool set_i32, const char* label, std::vector<int> numbers) {
    AllTypes f;
    if (set_i32) f.set_i32(i32);
    if (label != nullptr) f.set_label(label);
    for (int n : numbers) f.add_numbers(n);
    return f;
  };
  const Case cases[] = {
      {"no field set selects all", AllTypes(), 0, "abcd"},
      {"one scalar", make(1, true, nullptr, {}), 0, "ab"},
      {"a scalar set to its default", make(0, true, nullptr, {}), 0, "d"},
      {"string scalar", make(0, false, "x", {}), 0, "ac"},
      {"two scalars", make(2, true, "x", {}), 0, "c"},
      {"scalar and shared element", make(1, true, nullptr, {2}), 0, "a"},
      {"any listed element", make(1, true, nullptr, {2, 3}), 0, "ab"},
      {"no shared element", make(0, false, "x", {9}), 0, ""},
      // Neither backend answers a repeated-field filter without a scalar one.
      {"repeated field only", make(0, false, nullptr, {2}), -1, ""},
  };
  for (const Case& test : cases) {
    std::vector<uint32_t> ids = {12345};
    EXPECT_EQ(object->RetrieveMessageObjects(&ids, &test.filter), test.rc) << test.what;
    std::vector<uint32_t> expected;
    for (char letter : test.matches) expected.push_back(id[letter]);
    EXPECT_EQ(Sorted(ids), Sorted(expected)) << test.what;
  }
}

TEST_P(MessageStoreTest, UpdateReplacesTheRecord) {
  auto object = Open();
  const uint32_t id = Store(object.get(), FullMessage());
  const uint32_t other = Store(object.get(), FullMessage());

  AllTypes changed = FullMessage();
  changed.set_i32(42);
  changed.set_label("two");
  changed.set_flag(false);
  changed.set_color(db_test::GREEN);
  changed.clear_numbers();
  changed.add_numbers(7);
  changed.clear_names();
  changed.add_names("z");
  ASSERT_EQ(object->UpdateMessageObject(id, &changed), 0);

  AllTypes out;
  ASSERT_EQ(object->RetrieveMessageObject(id, &out), 0);
  EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(changed))) << out.DebugString();
  ASSERT_EQ(object->RetrieveMessageObject(other, &out), 0);
  EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(FullMessage()))) << out.DebugString();
}

TEST_P(MessageStoreTest, DeleteManyRemovesEveryEqualRecord) {
  auto object = Open();
  const AllTypes doomed = FullMessage();
  AllTypes kept = FullMessage();
  kept.set_i32(9);
  Store(object.get(), doomed);
  const uint32_t kept_id = Store(object.get(), kept);
  Store(object.get(), doomed);

  ASSERT_EQ(object->DeleteMultipleMessageObjects(&doomed), 0);
  std::vector<uint32_t> ids;
  const AllTypes all;
  ASSERT_EQ(object->RetrieveMessageObjects(&ids, &all), 0);
  EXPECT_EQ(ids, std::vector<uint32_t>{kept_id});
  EXPECT_EQ(Size(*object), 1);
  AllTypes out;
  ASSERT_EQ(object->RetrieveMessageObject(kept_id, &out), 0);
  EXPECT_EQ(out.i32(), 9);
}

TEST_P(MessageStoreTest, MixedRecordIsSplitBetweenMessageAndMaps) {
  auto object = Open(/*extras=*/true);
  const AllTypes m = FullMessage();
  ASSERT_EQ(object->ParseFromMessage(&m), 0);
  object->scalar_fields()["vlan"] = 42;
  object->composite_fields()["tags"].second = {Str("red"), Str("blue")};
  uint32_t id = 0;
  ASSERT_EQ(object->StoreObject(&id), 0);

  AllTypes out;
  ScalarFields scalar = {{"stale", Int(1)}};
  CompositeFields composite;
  ASSERT_EQ(object->RetrieveMixedObject(id, &out, &scalar, &composite), 0);
  EXPECT_TRUE(MessageDifferencer::Equals(out, Carried(m))) << out.DebugString();
  ASSERT_EQ(scalar.size(), 1u);
  EXPECT_EQ(scalar.at("vlan"), Int(42));
  ASSERT_EQ(composite.size(), 1u);
  EXPECT_EQ(composite.at("tags").second, (std::vector<Attribute>{Str("red"), Str("blue")}));

  AllTypes only_message;
  ASSERT_EQ(object->RetrieveMessageObject(id, &only_message), 0);
  EXPECT_TRUE(MessageDifferencer::Equals(only_message, out));
}

TEST_P(MessageStoreTest, MissingRecordReturnsTheRetrievalError) {
  auto object = Open();
  AllTypes out = FullMessage();
  EXPECT_EQ(object->RetrieveMessageObject(4242, &out), -4);
  EXPECT_EQ(out.ByteSizeLong(), 0u);
}

TEST_P(MessageStoreTest, Int64BeyondThirtyTwoBitsIsNotStored) {
  auto object = Open();
  AllTypes m = FullMessage();
  m.set_i64(5000000000ll);
  uint32_t id = 0;
  EXPECT_THROW(object->StoreMessageObject(&id, &m), std::out_of_range);
  EXPECT_EQ(Size(*object), 0);
  // Within 32 bits the value survives.
  m.set_i64(-2147483648ll);
  id = Store(object.get(), m);
  AllTypes out;
  ASSERT_EQ(object->RetrieveMessageObject(id, &out), 0);
  EXPECT_EQ(out.i64(), -2147483648ll);
}

TEST_P(MessageStoreTest, UnknownEnumNumberLeavesTheFieldUnset) {
  auto object = Open();
  const AllTypes m = FullMessage();
  ASSERT_EQ(object->ParseFromMessage(&m), 0);
  object->scalar_fields()["color"] = 3;
  object->composite_fields()["colors"].second = {Int(1), Int(4), Int(5)};
  uint32_t id = 0;
  ASSERT_EQ(object->StoreObject(&id), 0);

  AllTypes out;
  ASSERT_EQ(object->RetrieveMessageObject(id, &out), 0);
  EXPECT_FALSE(out.has_color());
  ASSERT_EQ(out.colors_size(), 2);
  EXPECT_EQ(out.colors(0), db_test::RED);
  EXPECT_EQ(out.colors(1), db_test::BLUE);
  EXPECT_EQ(out.i32(), -5);
  EXPECT_TRUE(LogEndsWith(log_, "ERROR! Could not find value='3"));
  EXPECT_TRUE(LogEndsWith(log_, "ERROR! Could not find value='4"));
}

TEST_P(MessageStoreTest, MessageOfAnotherTypeIsRefused) {
  auto object = Open();
  const db_test::Nested other;
  uint32_t id = 0;
  EXPECT_EQ(object->StoreMessageObject(&id, &other), -1);
  EXPECT_EQ(object->StoreMessageObject(&id, nullptr), -1);
  EXPECT_EQ(Size(*object), 0);
  std::vector<uint32_t> ids;
  EXPECT_EQ(object->RetrieveMessageObjects(&ids, &other), -1);
  db_test::Nested out;
  EXPECT_EQ(object->RetrieveMessageObject(1, &out), -1);
  EXPECT_TRUE(log_.Contains("is not a field of message type='db_test.Nested'"));
}

INSTANTIATE_TEST_SUITE_P(Backends, MessageStoreTest, ::testing::Values(db::kSqlite, db::kLevelDb),
                         [](const ::testing::TestParamInfo<db::DbType>& info) {
                           return std::string(info.param == db::kSqlite ? "Sqlite" : "LevelDb");
                         });

}  // namespace
