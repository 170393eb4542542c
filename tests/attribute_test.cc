#include "db/attribute.h"

#include <limits>
#include <tuple>

#include "support/test_util.h"

namespace db {
namespace {

using B = std::vector<uint8_t>;
using db_test::Val;
const float kNaN = std::numeric_limits<float>::quiet_NaN();

std::string Raw(const char* s, size_t n) { return std::string(s, n); }

TEST(AttributeTest, ConstructionAssignmentSizeEqualityAndUnsetRenderings) {
  const std::tuple<int32_t, AttributeType, uint32_t> kinds[] = {
      {1, kString, 0}, {2, kFloat, 4}, {3, kBytes, 0}, {7, kInteger, 4}};
  for (const auto& [type, kind, size] : kinds) {
    const Attribute a(static_cast<AttributeType>(type));
    EXPECT_EQ(a.type(), kind) << type;
    EXPECT_FALSE(a.is_set());
    EXPECT_EQ(a.Size(), size) << type;
    for (const std::string& text :
         {a.ToString(), a.ToString(true), a.ToPrintableString(), a.ToHexString(), a.ToUnsigned(),
          a.ToIpString(), a.ToIpPrefixLenString(), a.ToMacString(), a.ToLimIdString()}) {
      EXPECT_EQ(text, "(unset)") << "type " << type;
    }
  }
  Attribute a(kInteger);
  a = 1.5f;
  EXPECT_EQ(a.type(), kFloat);
  EXPECT_TRUE(a.is_set());
  a = static_cast<const char*>(nullptr);
  EXPECT_EQ(Attribute(a).Get<std::string>(), "");
  EXPECT_EQ(Val(B{1, 2}).Size(), 2u);
  // Equal: same type, both unset or the same value; NaN equals nothing.
  EXPECT_EQ(Attribute(kInteger), Attribute(static_cast<AttributeType>(7)));
  EXPECT_EQ(Val(B{1, 2}), Val(B{1, 2}));
  EXPECT_NE(Attribute(kInteger), Val(0));
  EXPECT_NE(Val(1), Val(1.0f));
  EXPECT_NE(Val(Raw("a\0b", 3)), Val(Raw("a\0c", 3)));
  EXPECT_NE(Val(kNaN), Val(kNaN));
}

// One rendering per format, with the inputs each refuses.
TEST(AttributeTest, Renderings) {
  const std::string mac = "00:1a:2b:3c:4d:5e", bad = "(invalid)";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {Val(0.1f).ToString(), "0.1"},
      {Val(B{0x0A, 0xFF}).ToString(), Raw("\x0A\xFF", 2)},
      {Val(B{0x0A, 0xFF}).ToString(true), "0x0AFF"},
      {Val("\x0A\xFF").ToHexString(), "0x0AFF"},
      {Val(1.0f).ToHexString(), bad},
      {Val("  42").ToUnsigned(), "42"},
      {Val("-1").ToUnsigned(), "4294967295"},  // as std::stoul on a 32-bit board
      {Val(B{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}).ToIpString(), "fe80::1"},
      {Val(0x0A000001).ToIpString(), bad},
      {Val(B{10, 0, 0, 0, 255, 255, 255, 0}).ToIpPrefixLenString(), "10.0.0.0/24"},
      {Val(B{0x20, 1, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}).ToIpPrefixLenString(),
       "2001:db8::/32"},
      {Val(B{0x20, 1, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 200}).ToIpPrefixLenString(),
       bad},
      {Val(Raw("\x00\x1A\x2B\x3C\x4D\x5E", 6)).ToMacString(), mac},
      {Val("00:1A:2B:3C:4D:5E").ToMacString(), mac},
      {Val("zz:1A:2B:3C:4D:5E").ToMacString(), bad},
      // Bytes in memory order through the platform naming: 01 01 00 03 is eth 1/3.
      {Val(B{1, 1, 0, 3, 9, 9}).ToLimIdString(), "eth 1/3"},
      {Val(B{1, 1, 0}).ToLimIdString(), "limid 0x00000000"},  // too short: id 0, as numbers
      {Val(0x01010003).ToLimIdString(), "limid 0x00000000"},
      {ScalarFieldsMapToString({}), "{ }"},
      // Byte-wise key order; printable forms of bytes and unset values.
      {ScalarFieldsMapToString({{"a", Attribute(kString)}, {"B", Val(B{0x0A})}, {"b", Val(1)}}),
       "{ B : 0x0A, a : (unset), b : 1 }"}};
  for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;
}

}  // namespace
}  // namespace db
