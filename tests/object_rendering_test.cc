// Text renderings of a DbObject's current record: per-field display names and
// formats, the one-line summary, the repeated-field lines and the field list.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"
#include "support/fake_backend.h"

namespace {

using db::Attribute;
using db_test::FakeObject;

Attribute Int(int32_t v) {
  Attribute a(db::kInteger);
  a = v;
  return a;
}

Attribute Bytes(const std::vector<uint8_t>& v) {
  Attribute a(db::kBytes);
  a = v;
  return a;
}

// Scalars a = 1 and b = 2, optionally a repeated field l holding `elements`.
class ObjectRenderingTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(object_.AppendScalarAttribute("a", Attribute(db::kInteger), db::kDefault), 0);
    ASSERT_EQ(object_.AppendScalarAttribute("b", Attribute(db::kInteger), db::kDefault), 0);
    object_.scalar_fields()["a"] = 1;
    object_.scalar_fields()["b"] = 2;
  }

  void AddRepeated(const std::string& name, const std::vector<Attribute>& elements,
                   db::PrintFormat format = db::kDefault) {
    ASSERT_EQ(object_.AppendCompositeAttribute(name, Attribute(db::kInteger), format), 0);
    object_.composite_fields()[name].second = elements;
  }

  FakeObject object_;
};

TEST_F(ObjectRenderingTest, ScalarForms) {
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: 2");
  EXPECT_EQ(object_.ToStringWithSeparator("|"), "a: 1|b: 2|");
  EXPECT_EQ(object_.ToString(), "a: 1\nb: 2\n");
  object_.scalar_fields()["b"] = Attribute(db::kInteger);
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: (unset)");
}

TEST_F(ObjectRenderingTest, RepeatedFieldLines) {
  struct Case {
    const char* name;
    std::vector<Attribute> elements;
    const char* line;
  };
  const Attribute unset(db::kInteger);
  const std::vector<Case> cases = {
      {"two elements", {Int(5), Int(6)}, "l: 5, 6\n"},
      // An unset last element leaves the separator before the line break.
      {"unset last", {Int(1), Int(2), unset}, "l: 1, 2, \n"},
      {"unset middle", {Int(1), unset, Int(3)}, "l: 1, 3\n"},
      {"unset only", {unset}, "l: \n"},
      {"empty", {}, "l: \n"},
  };
  AddRepeated("l", {});
  for (const Case& c : cases) {
    object_.composite_fields()["l"].second = c.elements;
    EXPECT_EQ(object_.ToString(), std::string("a: 1\nb: 2\n") + c.line) << c.name;
  }
  // Repeated fields never appear in the scalar forms.
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: 2");
}

TEST_F(ObjectRenderingTest, EmptyDisplayNameHidesFieldButNotFromFieldList) {
  AddRepeated("l", {Int(5)});
  AddRepeated("m", {Int(7)});
  object_.ChangeAttributeStreamableName("a", "");
  object_.ChangeAttributeStreamableName("l", "");
  object_.ChangeAttributeStreamableName("b", "Beta");
  EXPECT_EQ(object_.ToString(), "Beta: 2\nm: 7\n");
  EXPECT_EQ(object_.ToStringWithSeparator(";"), "Beta: 2;");
  EXPECT_EQ(object_.ToStringSummarized(), "Beta: 2");
  object_.ChangeAttributeStreamableName("b", "");
  EXPECT_EQ(object_.ToStringSummarized(), "");

  testing::internal::CaptureStdout();
  EXPECT_EQ(object_.TraverseAttributes(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Fields:\n    a\n    b\nRepeated Fields:\n    l\n    m\n");
}

TEST_F(ObjectRenderingTest, FieldWithoutDisplayEntryIsSkipped) {
  object_.scalar_fields()["c"] = 3;  // not declared: no display entry
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: 2");
  object_.ChangeAttributeStreamableName("c", "C");
  object_.ChangeAttributeStreamableType("c", db::kHex);
  EXPECT_EQ(object_.streamable_info().count("c"), 0u) << "unknown fields are ignored";
  EXPECT_EQ(object_.ToStringSummarized(), "a: 1, b: 2");
}

TEST_F(ObjectRenderingTest, FormatChangeAppliesToScalarsAndElements) {
  AddRepeated("l", {Int(255), Int(16)});
  object_.scalar_fields()["a"] = 255;
  object_.ChangeAttributeStreamableType("a", db::kHex);
  object_.ChangeAttributeStreamableType("l", db::kHex);
  EXPECT_EQ(object_.ToString(), "a: 0xff\nb: 2\nl: 0xff, 0x10\n");
  object_.ChangeAttributeStreamableType("a", static_cast<db::PrintFormat>(12));
  EXPECT_EQ(object_.ToStringSummarized(), "a: 255, b: 2");
}

TEST(ObjectRenderingEmptyTest, ObjectWithoutFields) {
  FakeObject object;
  EXPECT_EQ(object.ToString(), "");
  EXPECT_EQ(object.ToStringSummarized(), "");
  testing::internal::CaptureStdout();
  EXPECT_EQ(object.TraverseAttributes(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Fields:\nRepeated Fields:\n");
}

// RenderValue dispatches by format; values 3 and 4 render as 2, and unknown
// values as 0.
TEST(RenderValueTest, DispatchesByFormat) {
  const Attribute ip = Bytes({192, 168, 1, 1});
  const Attribute hex = Bytes({0x0A, 0xFF});
  const Attribute minus_one = Int(-1);
  const Attribute prefix = Bytes({10, 0, 0, 0, 255, 255, 255, 0});
  const Attribute mac = Bytes({0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF});
  struct Case {
    int format;
    const Attribute* value;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {0, &hex, "0x0AFF"},           {1, &minus_one, "0xffffffff"},
      {1, &hex, "0x0AFF"},           {2, &ip, "192.168.1.1"},
      {3, &ip, "192.168.1.1"},       {4, &ip, "192.168.1.1"},
      {2, &hex, "(invalid)"},        {5, &prefix, prefix.ToIpPrefixLenString()},
      {5, &ip, "(invalid)"},         {6, &mac, mac.ToMacString()},
      {6, &ip, "(invalid)"},         {7, &ip, ip.ToLimIdString()},
      {8, &minus_one, "4294967295"}, {0, &minus_one, "-1"},
      {9, &minus_one, "-1"},         {9, &hex, "0x0AFF"},
      {-1, &hex, "0x0AFF"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(db::DbObject::RenderValue(*c.value, static_cast<db::PrintFormat>(c.format)),
              c.expected)
        << "format " << c.format;
  }
  // The platform-dependent forms must still differ from the default form.
  EXPECT_NE(db::DbObject::RenderValue(mac, db::kMac), mac.ToPrintableString());
  EXPECT_NE(db::DbObject::RenderValue(prefix, db::kIpPrefixLen), prefix.ToPrintableString());
  EXPECT_EQ(db::DbObject::RenderValue(Attribute(db::kBytes), db::kMac), "(unset)");
}

}  // namespace
