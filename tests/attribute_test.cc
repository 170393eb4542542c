// Tests of Attribute: kinds and defaults, set state, size, equality, and every
// text rendering with its exact output.

#include "db/attribute.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace db {
namespace {

Attribute Int(int32_t v) {
  Attribute a(kInteger);
  a = v;
  return a;
}

Attribute Str(const std::string& v) {
  Attribute a(kString);
  a = v;
  return a;
}

Attribute Flt(float v) {
  Attribute a(kFloat);
  a = v;
  return a;
}

Attribute Bytes(const std::vector<uint8_t>& v) {
  Attribute a(kBytes);
  a = v;
  return a;
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// ---- Construction, assignment, access.

TEST(AttributeTest, ConstructionGivesUnsetDefaultOfKind) {
  struct Case {
    int32_t type;
    AttributeType want_type;
    uint32_t want_size;
  };
  const Case cases[] = {
      {0, kInteger, 4}, {1, kString, 0},  {2, kFloat, 4},
      {3, kBytes, 0},   {7, kInteger, 4}, {-1, kInteger, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    const Attribute a(static_cast<AttributeType>(c.type));
    EXPECT_EQ(a.type(), c.want_type);
    EXPECT_FALSE(a.is_set());
    EXPECT_EQ(a.Size(), c.want_size);
    EXPECT_EQ(a.ToString(), "(unset)");
    switch (c.want_type) {
      case kInteger:
        EXPECT_EQ(a.Get<int32_t>(), 0);
        break;
      case kString:
        EXPECT_EQ(a.Get<std::string>(), "");
        break;
      case kFloat:
        EXPECT_EQ(a.Get<float>(), 0.0f);
        break;
      case kBytes:
        EXPECT_TRUE(a.Get<std::vector<uint8_t>>().empty());
        break;
    }
  }
}

TEST(AttributeTest, AssignmentSelectsAlternativeAndMarksSet) {
  Attribute a(kInteger);
  a = "text";
  EXPECT_EQ(a.type(), kString);
  EXPECT_TRUE(a.is_set());
  EXPECT_EQ(a.Get<std::string>(), "text");

  a = 1.5f;
  EXPECT_EQ(a.type(), kFloat);
  EXPECT_EQ(a.Get<float>(), 1.5f);

  a = std::vector<uint8_t>{1, 2};
  EXPECT_EQ(a.type(), kBytes);

  a = int32_t{-3};
  EXPECT_EQ(a.type(), kInteger);
  EXPECT_EQ(a.Get<int32_t>(), -3);

  Attribute b(kInteger);
  b.set_value(AttributeValue(std::string("v")));
  EXPECT_EQ(b.type(), kString);
  EXPECT_TRUE(b.is_set());

  Attribute from_null(kInteger);
  from_null = static_cast<const char*>(nullptr);
  EXPECT_EQ(from_null.type(), kString);
  EXPECT_TRUE(from_null.is_set());
  EXPECT_EQ(from_null.Get<std::string>(), "");

  const Attribute copy = b;
  EXPECT_TRUE(copy.is_set());
  EXPECT_EQ(copy.Get<std::string>(), "v");
}

TEST(AttributeTest, WrongAlternativeThrowsBadGetAndLeavesValue) {
  const Attribute unset(kInteger);
  EXPECT_THROW(unset.Get<std::string>(), boost::bad_get);
  const Attribute s = Str("x");
  EXPECT_THROW(s.Get<int32_t>(), boost::bad_get);
  EXPECT_THROW(s.Get<float>(), boost::bad_get);
  EXPECT_THROW(s.Get<std::vector<uint8_t>>(), boost::bad_get);
  EXPECT_EQ(s.Get<std::string>(), "x");
  EXPECT_TRUE(s.is_set());
}

TEST(AttributeTest, SizeOfSetValues) {
  EXPECT_EQ(Int(-1).Size(), 4u);
  EXPECT_EQ(Flt(2.0f).Size(), 4u);
  EXPECT_EQ(Str("abc").Size(), 3u);
  EXPECT_EQ(Str(std::string("a\0b", 3)).Size(), 3u);
  EXPECT_EQ(Bytes({1, 2}).Size(), 2u);
  EXPECT_EQ(Bytes({}).Size(), 0u);
}

// ---- Equality.

TEST(AttributeTest, Equality) {
  struct Case {
    const char* name;
    Attribute a;
    Attribute b;
    bool equal;
  };
  const Case cases[] = {
      {"unset integers", Attribute(kInteger), Attribute(kInteger), true},
      {"unset integer, unknown type", Attribute(kInteger), Attribute(static_cast<AttributeType>(7)),
       true},
      {"unset strings", Attribute(kString), Attribute(kString), true},
      {"unset string vs unset bytes", Attribute(kString), Attribute(kBytes), false},
      {"unset vs set same value", Attribute(kInteger), Int(0), false},
      {"set vs unset same value", Str(""), Attribute(kString), false},
      {"equal integers", Int(5), Int(5), true},
      {"different integers", Int(5), Int(6), false},
      {"integer 5 vs float 5.0", Int(5), Flt(5.0f), false},
      {"equal strings", Str("ab"), Str("ab"), true},
      {"prefix string", Str("ab"), Str("abc"), false},
      {"differ after NUL", Str(std::string("a\0b", 3)), Str(std::string("a\0c", 3)), false},
      {"string vs bytes same content", Str("ab"), Bytes({'a', 'b'}), false},
      {"equal floats", Flt(1.5f), Flt(1.5f), true},
      {"NaN vs NaN", Flt(kNaN), Flt(kNaN), false},
      {"zero vs negative zero", Flt(0.0f), Flt(-0.0f), true},
      {"empty set bytes", Bytes({}), Bytes({}), true},
      {"equal bytes", Bytes({1, 2}), Bytes({1, 2}), true},
      {"different bytes", Bytes({1, 2}), Bytes({1, 3}), false},
      {"bytes with trailing zero", Bytes({1}), Bytes({1, 0}), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.a == c.b, c.equal);
    EXPECT_EQ(c.b == c.a, c.equal);
    EXPECT_EQ(c.a != c.b, !c.equal);
  }
}

// ---- Renderings.

enum Form { kPlain, kPrintable, kHexForm, kUnsignedForm, kIp, kPrefix, kMacForm, kLim };

std::string Render(const Attribute& a, Form form) {
  switch (form) {
    case kPlain:
      return a.ToString();
    case kPrintable:
      return a.ToPrintableString();
    case kHexForm:
      return a.ToHexString();
    case kUnsignedForm:
      return a.ToUnsigned();
    case kIp:
      return a.ToIpString();
    case kPrefix:
      return a.ToIpPrefixLenString();
    case kMacForm:
      return a.ToMacString();
    case kLim:
      return a.ToLimIdString();
  }
  return "?";
}

const Form kAllForms[] = {kPlain, kPrintable, kHexForm, kUnsignedForm,
                          kIp,    kPrefix,    kMacForm, kLim};

TEST(AttributeRenderTest, UnsetRendersUnsetInEveryForm) {
  for (int32_t type = 0; type <= 3; ++type) {
    const Attribute a(static_cast<AttributeType>(type));
    for (Form form : kAllForms) {
      SCOPED_TRACE(testing::Message() << "type " << type << " form " << form);
      EXPECT_EQ(Render(a, form), "(unset)");
    }
  }
}

TEST(AttributeRenderTest, ToStringBoolDispatches) {
  const Attribute b = Bytes({0x0A, 0xFF});
  EXPECT_EQ(b.ToString(false), b.ToString());
  EXPECT_EQ(b.ToString(true), "0x0AFF");
  EXPECT_EQ(Attribute(kBytes).ToString(true), "(unset)");
}

struct RenderCase {
  const char* name;
  Attribute value;
  Form form;
  std::string want;
};

void CheckRenderings(const std::vector<RenderCase>& cases) {
  for (const RenderCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Render(c.value, c.form), c.want);
  }
}

std::vector<uint8_t> Ipv6(const std::vector<uint8_t>& head, uint8_t last) {
  std::vector<uint8_t> v(16, 0);
  for (size_t i = 0; i < head.size(); ++i) v[i] = head[i];
  v[15] = last;
  return v;
}

TEST(AttributeRenderTest, PlainAndPrintable) {
  CheckRenderings({
      {"negative int", Int(-42), kPlain, "-42"},
      {"int min", Int(std::numeric_limits<int32_t>::min()), kPlain, "-2147483648"},
      {"string", Str("hello world"), kPlain, "hello world"},
      {"string with NUL", Str(std::string("a\0b", 3)), kPlain, std::string("a\0b", 3)},
      {"float 1.5", Flt(1.5f), kPlain, "1.5"},
      {"float 0.1", Flt(0.1f), kPlain, "0.1"},
      {"float 1e7", Flt(1e7f), kPlain, "1e+07"},
      {"float -2", Flt(-2.0f), kPlain, "-2"},
      {"float six digits", Flt(123456789.0f), kPlain, "1.23457e+08"},
      {"bytes raw", Bytes({0x0A, 0xFF}), kPlain, std::string("\x0A\xFF", 2)},
      {"bytes with NUL raw", Bytes({'a', 0, 'b'}), kPlain, std::string("a\0b", 3)},
      {"empty bytes raw", Bytes({}), kPlain, ""},
      {"printable int", Int(7), kPrintable, "7"},
      {"printable string", Str("x"), kPrintable, "x"},
      {"printable float", Flt(1.5f), kPrintable, "1.5"},
      {"printable bytes", Bytes({0x0A, 0xFF}), kPrintable, "0x0AFF"},
      {"printable empty bytes", Bytes({}), kPrintable, "0x"},
  });
}

TEST(AttributeRenderTest, Hex) {
  CheckRenderings({
      {"int 255 lower case", Int(255), kHexForm, "0xff"},
      {"int -1 as 32 bits", Int(-1), kHexForm, "0xffffffff"},
      {"int 0", Int(0), kHexForm, "0x0"},
      {"int no leading zeros", Int(0x0102), kHexForm, "0x102"},
      {"int min", Int(std::numeric_limits<int32_t>::min()), kHexForm, "0x80000000"},
      {"string upper case", Str("\x0A\xFF"), kHexForm, "0x0AFF"},
      {"empty string", Str(""), kHexForm, "0x"},
      {"bytes upper case", Bytes({0x0A, 0xFF}), kHexForm, "0x0AFF"},
      {"bytes with zero", Bytes({0x00, 0x01, 0xAB}), kHexForm, "0x0001AB"},
      {"empty set bytes", Bytes({}), kHexForm, "0x"},
      {"float", Flt(1.0f), kHexForm, "(invalid)"},
  });
  const Attribute any(kInteger);
  EXPECT_EQ(any.ToHex(""), "");
  EXPECT_EQ(any.ToHex(std::string("\x00\x7F\x80\xFE", 4)), "007F80FE");
}

TEST(AttributeRenderTest, Unsigned) {
  CheckRenderings({
      {"int -1", Int(-1), kUnsignedForm, "4294967295"},
      {"int 7", Int(7), kUnsignedForm, "7"},
      {"int min", Int(std::numeric_limits<int32_t>::min()), kUnsignedForm, "2147483648"},
      {"string digits", Str("123"), kUnsignedForm, "123"},
      {"string stops at non-digit", Str("12abc"), kUnsignedForm, "12"},
      {"string no digits", Str("abc"), kUnsignedForm, "(invalid)"},
      {"empty string", Str(""), kUnsignedForm, "(invalid)"},
      {"string leading blanks", Str("  42"), kUnsignedForm, "42"},
      {"string max", Str("4294967295"), kUnsignedForm, "4294967295"},
      {"string one above max", Str("4294967296"), kUnsignedForm, "(invalid)"},
      {"string above 64 bits", Str("18446744073709551616"), kUnsignedForm, "(invalid)"},
      // As std::stoul parses on a 32-bit board: a negative value wraps.
      {"string -1", Str("-1"), kUnsignedForm, "4294967295"},
      {"string -4294967296", Str("-4294967296"), kUnsignedForm, "(invalid)"},
      {"bytes digits", Bytes({'1', '2', '3'}), kUnsignedForm, "123"},
      {"bytes stop at NUL", Bytes({'9', 0, '9'}), kUnsignedForm, "9"},
      {"empty bytes", Bytes({}), kUnsignedForm, "(invalid)"},
      {"float fraction dropped", Flt(3.7f), kUnsignedForm, "3"},
      {"float zero", Flt(0.0f), kUnsignedForm, "0"},
      {"float -1", Flt(-1.0f), kUnsignedForm, "4294967295"},
      {"float NaN", Flt(kNaN), kUnsignedForm, "2147483648"},
      {"float 2^31", Flt(2147483648.0f), kUnsignedForm, "2147483648"},
      {"float 3e9", Flt(3e9f), kUnsignedForm, "3000000000"},
      {"float largest below 2^32", Flt(4294967040.0f), kUnsignedForm, "4294967040"},
  });
}

TEST(AttributeRenderTest, IpAddress) {
  const std::vector<uint8_t> fe80_1 = Ipv6({0xFE, 0x80}, 1);
  CheckRenderings({
      {"IPv4 bytes", Bytes({192, 168, 1, 1}), kIp, "192.168.1.1"},
      {"IPv4 string", Str(std::string("\x0A\x00\x00\x01", 4)), kIp, "10.0.0.1"},
      {"IPv6 bytes", Bytes(fe80_1), kIp, "fe80::1"},
      {"IPv6 string", Str(std::string(fe80_1.begin(), fe80_1.end())), kIp, "fe80::1"},
      {"IPv6 documentation", Bytes(Ipv6({0x20, 0x01, 0x0D, 0xB8}, 0)), kIp, "2001:db8::"},
      {"5 bytes", Bytes({1, 2, 3, 4, 5}), kIp, "(invalid)"},
      {"3 bytes", Bytes({1, 2, 3}), kIp, "(invalid)"},
      {"empty bytes", Bytes({}), kIp, "(invalid)"},
      {"int", Int(0x0A000001), kIp, "(invalid)"},
      {"float", Flt(1.0f), kIp, "(invalid)"},
  });
}

TEST(AttributeRenderTest, IpPrefixLen) {
  std::vector<uint8_t> v6 = Ipv6({0x20, 0x01, 0x0D, 0xB8}, 0);
  v6.push_back(32);
  std::vector<uint8_t> v6_bad_len = v6;
  v6_bad_len.back() = 200;
  CheckRenderings({
      {"IPv4 with mask", Bytes({10, 0, 0, 0, 255, 255, 255, 0}), kPrefix, "10.0.0.0/24"},
      {"IPv4 string", Str(std::string("\x0A\x01\x00\x00\xFF\xFF\x00\x00", 8)), kPrefix,
       "10.1.0.0/16"},
      {"IPv6 with prefix", Bytes(v6), kPrefix, "2001:db8::/32"},
      {"IPv6 prefix above 128", Bytes(v6_bad_len), kPrefix, "(invalid)"},
      {"4 bytes", Bytes({10, 0, 0, 0}), kPrefix, "(invalid)"},
      {"16 bytes", Bytes(Ipv6({}, 1)), kPrefix, "(invalid)"},
      {"int", Int(24), kPrefix, "(invalid)"},
      {"float", Flt(24.0f), kPrefix, "(invalid)"},
  });
}

TEST(AttributeRenderTest, Mac) {
  const std::string text = "00:1A:2B:3C:4D:5E";
  CheckRenderings({
      {"6 bytes", Bytes({0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}), kMacForm, "00:1a:2b:3c:4d:5e"},
      {"6 raw chars", Str(std::string("\x00\x1A\x2B\x3C\x4D\x5E", 6)), kMacForm,
       "00:1a:2b:3c:4d:5e"},
      {"17-char text normalised", Str(text), kMacForm, "00:1a:2b:3c:4d:5e"},
      {"17-char text not a MAC", Str("zz:1A:2B:3C:4D:5E"), kMacForm, "(invalid)"},
      {"17 bytes of text", Bytes(std::vector<uint8_t>(text.begin(), text.end())), kMacForm,
       "(invalid)"},
      {"7 bytes", Bytes({1, 2, 3, 4, 5, 6, 7}), kMacForm, "(invalid)"},
      {"5 bytes", Bytes({1, 2, 3, 4, 5}), kMacForm, "(invalid)"},
      {"int", Int(1), kMacForm, "(invalid)"},
      {"float", Flt(1.0f), kMacForm, "(invalid)"},
  });
}

TEST(AttributeRenderTest, LimId) {
  // The id's bytes are read in memory order: 01 01 00 03 is "eth 1/3" on
  // every board; id 0 lies outside the naming scheme.
  const std::string id0 = "limid 0x00000000";
  CheckRenderings({
      {"4 bytes", Bytes({1, 1, 0, 3}), kLim, "eth 1/3"},
      {"first 4 of 6 bytes", Bytes({1, 1, 0, 3, 9, 9}), kLim, "eth 1/3"},
      {"4-char string", Str(std::string("\x02\x00\x00\x0C", 4)), kLim, "lag 12"},
      {"3-char string", Str(std::string("\x01\x01\x00", 3)), kLim, id0},
      {"3 bytes", Bytes({1, 1, 0}), kLim, id0},
      {"empty bytes", Bytes({}), kLim, id0},
      {"int is not the id", Int(0x01010003), kLim, id0},
      {"float", Flt(3.0f), kLim, id0},
  });
}

TEST(AttributeRenderTest, ScalarFieldsMap) {
  EXPECT_EQ(ScalarFieldsMapToString({}), "{ }");

  ScalarFields fields;
  fields["b"] = Str("x");
  fields["a"] = Int(1);
  EXPECT_EQ(ScalarFieldsMapToString(fields), "{ a : 1, b : x }");

  // Byte-wise order ('B' before 'a'), printable forms of bytes and unset.
  ScalarFields mixed;
  mixed["a"] = Attribute(kString);
  mixed["B"] = Bytes({0x0A});
  EXPECT_EQ(ScalarFieldsMapToString(mixed), "{ B : 0x0A, a : (unset) }");
}

}  // namespace
}  // namespace db
