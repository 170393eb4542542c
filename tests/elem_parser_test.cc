#include "elem_parser.h"

#include <fnmatch.h>

#include "db/db_object.h"
#include "support/test_util.h"

namespace db {
namespace {

using Bytes = std::vector<uint8_t>;
using db_test::Val;

Attribute Str(const Bytes& b) { return Val(std::string(b.begin(), b.end())); }

// Parses `text` into `*out` (reset to an unset `type`) and returns stderr.
std::string Parse(AttributeType type, const std::string& text, int format, Attribute* out) {
  *out = Attribute(type);
  return db_test::CaptureStderr(
      [&] { ElemParser::ParseValue(*out, text, static_cast<PrintFormat>(format)); });
}

TEST(ElemParserTest, EveryConversionReadsBackWhatItsRenderingShows) {
  auto check = [](PrintFormat format, const std::vector<Attribute>& values) {
    for (const Attribute& value : values) {
      const std::string shown = DbObject::RenderValue(value, format);
      SCOPED_TRACE(std::to_string(format) + " shown '" + shown + "'");
      Attribute parsed;
      EXPECT_EQ("", Parse(value.type(), shown, format, &parsed));
      EXPECT_TRUE(parsed == value) << parsed.ToPrintableString();
    }
  };
  check(kDefault, {Val(-7), Val(std::string("hello")), Val(1.5f), Val(Bytes{0x0a, 0xff})});
  check(kHex, {Val(255), Val(-1), Str({0x0a, 0xff, 0}), Val(Bytes{0x0a, 0xff}), Val(Bytes{})});
  check(kIpAddress, {Str({10, 0, 0, 1}), Val(Bytes{10, 0, 0, 1}),
                     Val(Bytes{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})});
  check(kIpPrefixLen,
        {Val(Bytes{10, 1, 2, 0, 255, 255, 255, 0}), Str({10, 0, 0, 0, 255, 0, 255, 0}),
         Val(Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32})});
  check(kMac, {Val(Bytes{0xaa, 0xbb, 0xcc, 1, 2, 3}), Val(std::string("aa:bb:cc:01:02:03"))});
  check(kLimId, {Val(Bytes{1, 1, 0, 3}), Str({3, 0, 0, 100})});  // eth 1/3, vlan 100
  check(kUnsigned, {Val(-1), Val(std::string("12")), Val(3.0f)});
}

TEST(ElemParserTest, TextsGiveTheFieldsValueOrAnErrorLine) {
  // An error is matched after "src/lib/elem_parser.cc:<line>:".
  const struct {
    int format;
    AttributeType type;
    const char* text;
    std::string err;
    Attribute want = Attribute();
  } cases[] = {
      {kHex, kString, "0a9bFf", "", Str({0x0a, 0x9b, 0xff})},
      {kIpPrefixLen, kBytes, "10.0.0.0/12", "", Val(Bytes{10, 0, 0, 0, 255, 240, 0, 0})},
      {kIpPrefixLen, kBytes, "2001:db8::/64@02:00:00:00:00:01", "",
       Val(Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xfe, 0, 0, 1, 64})},
      {kIpPrefixLen, kBytes, "fe80::1/128", "",
       Val(Bytes{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 128})},
      {kUnsigned, kInteger, "-2147483648", "", Val(INT32_MIN)},  // wraps like stoul on the board
      {kUnsigned, kString, "4294967295", "", Val(std::string("4294967295"))},
      {kDefault, kString, "a b", "", Val(std::string("a b"))},
      {kDefault, kInteger, "(unset)", "", Attribute(kInteger)},
      {kDefault, kInteger, "(invalid)", "", Attribute(kInteger)},
      {kDefault, kInteger, "abc", "FromDefault(): ERROR! Exception 'stoi' caught. value 'abc' \n"},
      {kHex, kBytes, "0xABC",
       "FromHex(): ERROR! Exception 'ParseHexString' caught. value '0xABC' \n"},
      {kIpPrefixLen, kBytes, "10.0.0.0/0024",
       "FromIpAddrPrefix(): ERROR! Exception 'prefix length' caught. value '10.0.0.0/0024' is not "
       "an IP\n"},
      {kHex, kBytes, "0xAG", "FromHex(): *'0xAG' \n"},
      {kIpPrefixLen, kBytes, "10.0.0.0/0:", "FromIpAddrPrefix(): *'10.0.0.0/0:' is*"},
      {kHex, kFloat, "0x1", "FromHex(): ERROR! Invalid attr 2\n"},
      {kIpAddress, kBytes, "1.2.3",
       "FromIp(): ERROR! Exception 'IpTextToBin' caught. value '1.2.3' is not an IP\n"},
      {kIpPrefixLen, kBytes, "2001:db8::/96@02:00:00:00:00:01",
       "FromIpAddrPrefix(): ERROR! Exception 'Invalid IPv6 prefix for EUI-64' caught. value '*"},
      {kMac, kBytes, "aa:bb", "FromMac(): ERROR! Exception '*' caught for value 'aa:bb'\n"},
      {kLimId, kBytes, "nope",
       "FromLimId(): ERROR! Exception 'limid_from_intfname' caught for value 'nope'\n"},
      {kUnsigned, kInteger, "4294967296",
       "FromUnsigned(): ERROR! Exception 'stoul' caught. value '4294967296' \n"}};
  for (const auto& c : cases) {
    Attribute parsed;
    const std::string got = Parse(c.type, c.text, c.format, &parsed);
    const std::string err = c.err.empty() ? "" : "src/lib/elem_parser.cc:*:" + c.err;
    EXPECT_EQ(0, fnmatch(err.c_str(), got.c_str(), 0)) << c.text << ": " << got;
    EXPECT_TRUE(!c.err.empty() || parsed == c.want) << c.text << ": " << parsed.ToPrintableString();
  }
  Attribute parsed;
  for (int format : {kIpAddress, kIpPrefixLen, kMac, kLimId})  // no number has these forms
    EXPECT_THAT(Parse(kInteger, "1", format, &parsed), testing::EndsWith("Invalid attr 0\n"));
  // Formats 3, 4 and from 9 on are refused and leave the value unset.
  for (int format : {3, 4, 9, 42}) {
    EXPECT_EQ("src/lib/elem_parser.cc:327:ParseValue(): ERROR! Invalid print format " +
                  std::to_string(format) + "\n",
              Parse(kInteger, "1", format, &parsed));
    EXPECT_FALSE(parsed.is_set());
  }
}

}  // namespace
}  // namespace db
