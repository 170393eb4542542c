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

TEST(AttributeTest, ConstructionAssignmentAccessSizeAndUnsetRenderings) {
  const std::tuple<int32_t, AttributeType, uint32_t> kinds[] = {
      {0, kInteger, 4}, {1, kString, 0},  {2, kFloat, 4},
      {3, kBytes, 0},   {7, kInteger, 4}, {-1, kInteger, 4}};
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
  EXPECT_EQ(Attribute(static_cast<AttributeType>(7)).Get<int32_t>(), 0);
  EXPECT_EQ(Attribute(kFloat).Get<float>(), 0.0f);

  Attribute a(kInteger);
  a = 1.5f;
  EXPECT_EQ(a.type(), kFloat);
  EXPECT_TRUE(a.is_set());
  a.set_value(AttributeValue(std::string("v")));
  EXPECT_EQ(a.type(), kString);
  EXPECT_EQ(Attribute(a).Get<std::string>(), "v");
  a = static_cast<const char*>(nullptr);
  EXPECT_EQ(a.Get<std::string>(), "");

  EXPECT_THROW(Attribute(kInteger).Get<std::string>(), boost::bad_get);
  EXPECT_THROW(Val("x").Get<int32_t>(), boost::bad_get);

  EXPECT_EQ(Val(-1).Size(), 4u);
  EXPECT_EQ(Val(Raw("a\0b", 3)).Size(), 3u);
  EXPECT_EQ(Val(B{1, 2}).Size(), 2u);
  EXPECT_EQ(Val(B{}).Size(), 0u);
}

TEST(AttributeTest, Equality) {
  const std::tuple<Attribute, Attribute, bool> cases[] = {
      {Attribute(kInteger), Attribute(static_cast<AttributeType>(7)), true},
      {Attribute(kString), Attribute(kBytes), false},
      {Attribute(kInteger), Val(0), false},
      {Val(5), Val(5), true},
      {Val(5), Val(6), false},
      {Val(5), Val(5.0f), false},
      {Val(Raw("a\0b", 3)), Val(Raw("a\0c", 3)), false},
      {Val("ab"), Val(B{'a', 'b'}), false},
      {Val(kNaN), Val(kNaN), false},
      {Val(0.0f), Val(-0.0f), true},
      {Val(B{1, 2}), Val(B{1, 2}), true},
      {Val(B{1}), Val(B{1, 0}), false}};
  for (const auto& [a, b, equal] : cases) {
    EXPECT_EQ(a == b, equal) << a.ToPrintableString() << " " << b.ToPrintableString();
    EXPECT_EQ(b == a, equal);
    EXPECT_EQ(a != b, !equal);
  }
}

// `head` zero-padded to `n` bytes, then `tail`.
B Pad(B head, size_t n, const B& tail) {
  head.resize(n, 0);
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

TEST(AttributeTest, Renderings) {
  const std::string mac = "00:1a:2b:3c:4d:5e", mac_text = "00:1A:2B:3C:4D:5E";
  const std::string id0 = "limid 0x00000000", bad = "(invalid)";
  EXPECT_EQ(Val(std::numeric_limits<int32_t>::min()).ToString(), "-2147483648");
  EXPECT_EQ(Val(Raw("a\0b", 3)).ToString(), Raw("a\0b", 3));
  EXPECT_EQ(Val(0.1f).ToString(), "0.1");
  EXPECT_EQ(Val(123456789.0f).ToString(), "1.23457e+08");
  EXPECT_EQ(Val(B{0x0A, 0xFF}).ToString(), Raw("\x0A\xFF", 2));
  EXPECT_EQ(Val(B{}).ToPrintableString(), "0x");
  EXPECT_EQ(Val(255).ToHexString(), "0xff");
  EXPECT_EQ(Val("\x0A\xFF").ToHexString(), "0x0AFF");
  EXPECT_EQ(Val(B{0x00, 0x01, 0xAB}).ToHexString(), "0x0001AB");
  EXPECT_EQ(Val(B{}).ToHexString(), "0x");
  EXPECT_EQ(Val(1.0f).ToHexString(), bad);
  EXPECT_EQ(Val("12abc").ToUnsigned(), "12");
  EXPECT_EQ(Val("abc").ToUnsigned(), bad);
  EXPECT_EQ(Val("  42").ToUnsigned(), "42");
  EXPECT_EQ(Val("4294967295").ToUnsigned(), "4294967295");
  EXPECT_EQ(Val("4294967296").ToUnsigned(), bad);
  EXPECT_EQ(Val("-1").ToUnsigned(), "4294967295");  // as std::stoul on a 32-bit board
  EXPECT_EQ(Val(B{'9', 0, '9'}).ToUnsigned(), "9");
  EXPECT_EQ(Val(B{}).ToUnsigned(), bad);
  EXPECT_EQ(Val(3.7f).ToUnsigned(), "3");
  EXPECT_EQ(Val(-1.0f).ToUnsigned(), "4294967295");
  EXPECT_EQ(Val(kNaN).ToUnsigned(), "2147483648");
  EXPECT_EQ(Val(4294967040.0f).ToUnsigned(), "4294967040");
  EXPECT_EQ(Val(Raw("\x0A\x00\x00\x01", 4)).ToIpString(), "10.0.0.1");
  EXPECT_EQ(Val(Pad({0xFE, 0x80}, 15, {1})).ToIpString(), "fe80::1");
  EXPECT_EQ(Val(B{1, 2, 3, 4, 5}).ToIpString(), bad);
  EXPECT_EQ(Val(0x0A000001).ToIpString(), bad);
  EXPECT_EQ(Val(B{10, 0, 0, 0, 255, 255, 255, 0}).ToIpPrefixLenString(), "10.0.0.0/24");
  EXPECT_EQ(Val(Pad({0x20, 0x01, 0x0D, 0xB8}, 16, {32})).ToIpPrefixLenString(), "2001:db8::/32");
  EXPECT_EQ(Val(Pad({0x20, 0x01, 0x0D, 0xB8}, 16, {200})).ToIpPrefixLenString(), bad);
  EXPECT_EQ(Val(Pad({}, 15, {1})).ToIpPrefixLenString(), bad);
  EXPECT_EQ(Val(B{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}).ToMacString(), mac);
  EXPECT_EQ(Val(Raw("\x00\x1A\x2B\x3C\x4D\x5E", 6)).ToMacString(), mac);
  EXPECT_EQ(Val(mac_text).ToMacString(), mac);
  EXPECT_EQ(Val("zz:1A:2B:3C:4D:5E").ToMacString(), bad);
  EXPECT_EQ(Val(B(mac_text.begin(), mac_text.end())).ToMacString(), bad);
  EXPECT_EQ(Val(B{1, 2, 3, 4, 5, 6, 7}).ToMacString(), bad);
  // Bytes in memory order through the platform naming: 01 01 00 03 is eth 1/3.
  EXPECT_EQ(Val(B{1, 1, 0, 3, 9, 9}).ToLimIdString(), "eth 1/3");
  EXPECT_EQ(Val(Raw("\x02\x00\x00\x0C", 4)).ToLimIdString(), "lag 12");
  EXPECT_EQ(Val(B{1, 1, 0}).ToLimIdString(), id0);
  EXPECT_EQ(Val(0x01010003).ToLimIdString(), id0);
  EXPECT_EQ(Val(3.0f).ToLimIdString(), id0);

  EXPECT_EQ(Val(B{0x0A, 0xFF}).ToString(true), "0x0AFF");
  EXPECT_EQ(Attribute().ToHex(Raw("\x00\x7F\x80\xFE", 4)), "007F80FE");
}

TEST(AttributeTest, ScalarFieldsMapToString) {
  EXPECT_EQ(ScalarFieldsMapToString({}), "{ }");
  EXPECT_EQ(ScalarFieldsMapToString({{"b", Val("x")}, {"a", Val(1)}}), "{ a : 1, b : x }");
  // Byte-wise key order; printable forms of bytes and unset values.
  EXPECT_EQ(ScalarFieldsMapToString({{"a", Attribute(kString)}, {"B", Val(B{0x0A})}}),
            "{ B : 0x0A, a : (unset) }");
}

}  // namespace
}  // namespace db
