#include "elem_parser.h"

#include <unistd.h>

#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"
#include "limid.h"
#include "support/test_util.h"

namespace db {
namespace {

using Bytes = std::vector<uint8_t>;

Attribute Set(AttributeType type, const AttributeValue& v) {
  Attribute a(type);
  a.set_value(v);
  return a;
}

Attribute StringOf(const Bytes& bytes) {
  return Set(kString, std::string(bytes.begin(), bytes.end()));
}

// Parses `text` into a fresh attribute of `type` and returns what stderr got.
std::string Parse(AttributeType type, const std::string& text, PrintFormat format, Attribute* out) {
  *out = Attribute(type);
  return db_test::CaptureStderr([&] { ElemParser::ParseValue(*out, text, format); });
}

Bytes LimIdBytes(const char* name) {
  uint32_t limid = 0;
  EXPECT_EQ(0, limid_from_intfname(name, &limid));
  Bytes bytes(4);
  std::memcpy(bytes.data(), &limid, 4);
  return bytes;
}

TEST(ElemParserTest, EveryConversionReadsBackWhatItsRenderingShows) {
  struct Case {
    PrintFormat format;
    Attribute value;
  };
  const Bytes v4 = {10, 0, 0, 1};
  const Bytes v6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const Bytes prefix4 = {10, 1, 2, 0, 255, 255, 255, 0};
  const Bytes odd_mask4 = {10, 0, 0, 0, 255, 0, 255, 0};
  Bytes prefix6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32};
  const Bytes mac = {0xaa, 0xbb, 0xcc, 0x01, 0x02, 0x03};
  const std::vector<Case> cases = {
      {kDefault, Set(kInteger, int32_t{42})},
      {kDefault, Set(kInteger, int32_t{-7})},
      {kDefault, Set(kString, std::string("hello"))},
      {kDefault, Set(kFloat, 1.5f)},
      {kDefault, Set(kBytes, Bytes{0x0a, 0xff})},
      {kHex, Set(kInteger, int32_t{255})},
      {kHex, Set(kInteger, int32_t{-1})},
      {kHex, Set(kInteger, int32_t{0})},
      {kHex, StringOf({0x0a, 0xff, 0x00})},
      {kHex, Set(kBytes, Bytes{0x0a, 0xff})},
      {kHex, Set(kBytes, Bytes{})},
      {kIpAddress, StringOf(v4)},
      {kIpAddress, Set(kBytes, v4)},
      {kIpAddress, Set(kBytes, v6)},
      {kIpPrefixLen, Set(kBytes, prefix4)},
      {kIpPrefixLen, StringOf(odd_mask4)},
      {kIpPrefixLen, Set(kBytes, prefix6)},
      {kMac, Set(kBytes, mac)},
      {kMac, Set(kString, std::string("aa:bb:cc:01:02:03"))},
      {kLimId, Set(kBytes, LimIdBytes("eth 1/3"))},
      {kLimId, StringOf(LimIdBytes("vlan 100"))},
      {kUnsigned, Set(kInteger, int32_t{-1})},
      {kUnsigned, Set(kInteger, int32_t{7})},
      {kUnsigned, Set(kString, std::string("12"))},
      {kUnsigned, Set(kFloat, 3.0f)},
  };
  for (const auto& c : cases) {
    const std::string shown = DbObject::RenderValue(c.value, c.format);
    SCOPED_TRACE("format " + std::to_string(c.format) + " type " + std::to_string(c.value.type()) +
                 " shown '" + shown + "'");
    ASSERT_NE(Attribute::kToStringInvalid, shown);
    Attribute parsed(c.value.type());
    EXPECT_EQ("", Parse(c.value.type(), shown, c.format, &parsed));
    EXPECT_TRUE(parsed == c.value) << parsed.ToPrintableString();
    if (c.format == kLimId) {
      // The debug commands show the name with its blank replaced.
      std::string underscored = shown;
      underscored[underscored.find(' ')] = '_';
      EXPECT_EQ("", Parse(c.value.type(), underscored, c.format, &parsed));
      EXPECT_TRUE(parsed == c.value) << underscored;
    }
  }
}

TEST(ElemParserTest, TypedFormsGiveTheFieldsValue) {
  struct Case {
    PrintFormat format;
    AttributeType type;
    const char* text;
    Attribute expected;
  };
  Bytes eui64 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0x00, 0x00, 0x00, 0xff, 0xfe, 0, 0, 1, 64};
  const std::vector<Case> cases = {
      {kHex, kBytes, "0x0AFF", Set(kBytes, Bytes{0x0a, 0xff})},
      {kHex, kString, "0a0bFf", StringOf({0x0a, 0x0b, 0xff})},
      {kHex, kInteger, "0xff", Set(kInteger, int32_t{255})},
      {kHex, kInteger, "0xFFFFFFFF", Set(kInteger, int32_t{-1})},
      {kIpAddress, kString, "10.0.0.1", StringOf({10, 0, 0, 1})},
      {kIpPrefixLen, kBytes, "192.168.0.0", Set(kBytes, Bytes{192, 168, 0, 0, 255, 255, 255, 255})},
      {kIpPrefixLen, kBytes, "10.0.0.0/12", Set(kBytes, Bytes{10, 0, 0, 0, 255, 240, 0, 0})},
      {kIpPrefixLen, kBytes, "2001:db8::/64@02:00:00:00:00:01", Set(kBytes, eui64)},
      {kMac, kBytes, "AA:bb:cc:dd:ee:ff", Set(kBytes, Bytes{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff})},
      {kMac, kString, "AA:bb:cc:dd:ee:ff", Set(kString, std::string("AA:bb:cc:dd:ee:ff"))},
      {kUnsigned, kInteger, "4294967295", Set(kInteger, int32_t{-1})},
      {kUnsigned, kInteger, "2147483648", Set(kInteger, INT32_MIN)},
      {kUnsigned, kInteger, "-1", Set(kInteger, int32_t{-1})},
      {kDefault, kInteger, "-2147483648", Set(kInteger, INT32_MIN)},
      {kDefault, kString, "a b", Set(kString, std::string("a b"))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Attribute parsed;
    EXPECT_EQ("", Parse(c.type, c.text, c.format, &parsed));
    EXPECT_TRUE(parsed == c.expected) << parsed.ToPrintableString();
  }
}

TEST(ElemParserTest, UnsetAndInvalidTextsAndRefusedFormatsLeaveTheValue) {
  const Attribute before = Set(kInteger, int32_t{5});
  for (const char* text : {"", "(unset)", "(invalid)"}) {
    Attribute value = before;
    EXPECT_EQ("", db_test::CaptureStderr([&] { ElemParser::ParseValue(value, text, kDefault); }));
    EXPECT_TRUE(value == before) << text;
  }
  for (int format : {3, 4, 9, 42, -1}) {
    Attribute value = before;
    std::string err = db_test::CaptureStderr(
        [&] { ElemParser::ParseValue(value, "1", static_cast<PrintFormat>(format)); });
    EXPECT_EQ("src/lib/elem_parser:327:ParseValue(): ERROR! Invalid print format " +
                  std::to_string(format) + "\n",
              err);
    EXPECT_TRUE(value == before) << format;
  }
}

TEST(ElemParserTest, ConversionFailuresAreReportedAndLeaveTheValue) {
  struct Case {
    PrintFormat format;
    AttributeType type;
    const char* text;
    const char* pattern;  // after "src/lib/elem_parser:<line>:"
  };
  const std::vector<Case> cases = {
      {kDefault, kInteger, "abc",
       "FromDefault\\(\\): ERROR! Exception 'stoi' caught\\. value 'abc' \n"},
      {kDefault, kInteger, "99999999999",
       "FromDefault\\(\\): ERROR! Exception 'stoi' caught\\. value '99999999999' \n"},
      {kDefault, kFloat, "x", "FromDefault\\(\\): ERROR! Exception 'stof' caught\\. value 'x' \n"},
      {kHex, kBytes, "0xABC",
       "FromHex\\(\\): ERROR! Exception 'ParseHexString' caught\\. value '0xABC' \n"},
      {kHex, kBytes, "0xZZ",
       "FromHex\\(\\): ERROR! Exception 'ParseHexString' caught\\. value '0xZZ' \n"},
      {kHex, kInteger, "0x100000000",
       "FromHex\\(\\): ERROR! Exception 'stoul' caught\\. value '0x100000000' \n"},
      {kHex, kFloat, "0x1", "FromHex\\(\\): ERROR! Invalid attr 2\n"},
      {kIpAddress, kBytes, "1.2.3",
       "FromIp\\(\\): ERROR! Exception 'IpTextToBin' caught\\. value '1\\.2\\.3' is not an IP\n"},
      {kIpAddress, kInteger, "1.2.3.4", "FromIp\\(\\): ERROR! Invalid attr 0\n"},
      {kIpPrefixLen, kBytes, "10.0.0.0/33",
       "FromIpAddrPrefix\\(\\): ERROR! Exception '.*' caught\\. value '10\\.0\\.0\\.0/33' is not "
       "an "
       "IP\n"},
      {kIpPrefixLen, kBytes, "2001:db8::/96@02:00:00:00:00:01",
       "FromIpAddrPrefix\\(\\): ERROR! Exception 'Invalid IPv6 prefix for EUI-64' caught\\. value "
       "'.*' is not an IP\n"},
      {kMac, kBytes, "aa:bb", "FromMac\\(\\): ERROR! Exception '.*' caught for value 'aa:bb'\n"},
      {kMac, kFloat, "aa:bb:cc:dd:ee:ff", "FromMac\\(\\): ERROR! Invalid attr 2\n"},
      {kLimId, kBytes, "nope",
       "FromLimId\\(\\): ERROR! Exception 'limid_from_intfname' caught for value 'nope'\n"},
      {kLimId, kInteger, "eth 1/3", "FromLimId\\(\\): ERROR! Invalid attr 0\n"},
      {kUnsigned, kInteger, "4294967296",
       "FromUnsigned\\(\\): ERROR! Exception 'stoul' caught\\. value '4294967296' \n"},
      {kUnsigned, kString, "abc",
       "FromUnsigned\\(\\): ERROR! Exception 'stoull' caught\\. value 'abc' \n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Attribute value(c.type);
    const Attribute before = value;
    std::string err =
        db_test::CaptureStderr([&] { ElemParser::ParseValue(value, c.text, c.format); });
    EXPECT_TRUE(
        std::regex_match(err, std::regex(std::string("src/lib/elem_parser:[0-9]+:") + c.pattern)))
        << err;
    EXPECT_TRUE(value == before);
  }
}

// Builds an argument vector with the program-name slot in front.
class Args {
 public:
  explicit Args(std::vector<std::string> words) : words_(std::move(words)) {
    words_.insert(words_.begin(), "Retrieve Records T");
    for (auto& word : words_) argv_.push_back(word.data());
    argv_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words_.size()); }
  char** argv() { return argv_.data(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> argv_;
};

class ElemParserCmdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    object_ = std::make_unique<DbObject>(dir_.File("t.db"), "T", false, kSqlite);
    object_->AppendScalarAttribute("port", Attribute(kInteger), kDefault);
    object_->AppendScalarAttribute("name", Attribute(kString), kDefault);
    object_->AppendScalarAttribute("addr", Attribute(kBytes), kIpAddress);
    object_->AppendScalarAttribute("alt", Attribute(kBytes), kIpAddressAlt1);
    object_->AppendCompositeAttribute("vlans", Attribute(kInteger), kDefault);
    object_->ChangeAttributeStreamableName("port", "Port");
    object_->ChangeAttributeStreamableName("addr", "Address");
    object_->ChangeAttributeStreamableName("vlans", "Vlans");
  }

  // Runs the parser on `words` and returns what it wrote to stderr.
  std::string Run(std::vector<std::string> words) {
    Args args(std::move(words));
    return db_test::CaptureStderr([&] {
      ElemParser::ParseCmdParam(args.argc(), args.argv(), *object_, scalar_, composite_);
    });
  }

  std::vector<int32_t> Vlans() const {
    std::vector<int32_t> values;
    auto it = composite_.find("vlans");
    if (it == composite_.end()) return values;
    EXPECT_EQ(kInteger, it->second.first);
    for (const auto& v : it->second.second) values.push_back(v.is_set() ? v.Get<int32_t>() : -999);
    return values;
  }

  db_test::LogCapture log_;
  db_test::TempDir dir_;
  std::unique_ptr<DbObject> object_;
  ScalarFields scalar_;
  CompositeFields composite_;
};

TEST_F(ElemParserCmdTest, ScalarPairsUseDisplayNamesAndStoreUnderFieldNames) {
  EXPECT_EQ("", Run({"-s", "Port=80,Nosuch=1,name=a_b,Address=10.0.0.1,Vlans=5"}));
  ASSERT_EQ(3u, scalar_.size());
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{80}));
  EXPECT_TRUE(scalar_.at("name") == Set(kString, std::string("a_b")));
  EXPECT_TRUE(scalar_.at("addr") == Set(kBytes, Bytes{10, 0, 0, 1}));
  EXPECT_TRUE(composite_.empty());
}

TEST_F(ElemParserCmdTest, UnsetTextAddsNothingThatRestricts) {
  EXPECT_EQ("", Run({"-s", "Port=(unset),"}));
  ASSERT_EQ(1u, scalar_.count("port"));
  EXPECT_FALSE(scalar_.at("port").is_set());
  EXPECT_EQ(kInteger, scalar_.at("port").type());
}

TEST_F(ElemParserCmdTest, RefusedFormatLeavesTheFieldUnset) {
  EXPECT_EQ("src/lib/elem_parser:327:ParseValue(): ERROR! Invalid print format 3\n",
            Run({"-s", "alt=10.0.0.1,Port=1"}));
  EXPECT_FALSE(scalar_.count("alt") != 0 && scalar_.at("alt").is_set());
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{1}));
}

TEST_F(ElemParserCmdTest, CompositeGroupsAppendInOrder) {
  EXPECT_EQ("", Run({"-c", "Vlans=[10,20], Other=[1] ;Vlans=[30,(unset)],Port=[4]"}));
  EXPECT_EQ((std::vector<int32_t>{10, 20, 30, -999}), Vlans());
  EXPECT_EQ(1u, composite_.size());
  EXPECT_TRUE(scalar_.empty());
}

TEST_F(ElemParserCmdTest, ExistingEntriesStay) {
  scalar_.emplace("port", Set(kInteger, int32_t{1}));
  composite_["vlans"] = {kInteger, {Set(kInteger, int32_t{7})}};
  EXPECT_EQ("", Run({"-s", "Port=2,name=x", "-c", "Vlans=[8]"}));
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{1}));
  EXPECT_TRUE(scalar_.at("name") == Set(kString, std::string("x")));
  EXPECT_EQ((std::vector<int32_t>{7, 8}), Vlans());
}

TEST_F(ElemParserCmdTest, UnknownOptionIsReportedAndScanningGoesOn) {
  EXPECT_EQ("src/lib/elem_parser:414:ParseCmdParam(): ERROR! Invalid opt 63, optarg (null)\n",
            Run({"-x", "-s", "Port=3", "-c", "Vlans=[4]"}));
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{3}));
  EXPECT_EQ((std::vector<int32_t>{4}), Vlans());
}

TEST_F(ElemParserCmdTest, ScanningRestartsOnEveryCall) {
  // Leave the option scanner at the end of some other argument vector.
  Args other({"-s", "a=1", "-s", "b=2"});
  optind = 0;
  while (getopt(other.argc(), other.argv(), "s:") != -1) {
  }
  EXPECT_EQ("", Run({"-s", "Port=5"}));
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{5}));
  scalar_.clear();
  EXPECT_EQ("", Run({"-s", "Port=6"}));
  EXPECT_TRUE(scalar_.at("port") == Set(kInteger, int32_t{6}));
}

TEST_F(ElemParserCmdTest, NullArgvIsReported) {
  std::string err = db_test::CaptureStderr(
      [&] { ElemParser::ParseCmdParam(1, nullptr, *object_, scalar_, composite_); });
  EXPECT_EQ("src/lib/elem_parser:398:ParseCmdParam(): ERROR! Invalid argv\n", err);
  EXPECT_TRUE(scalar_.empty());
  EXPECT_TRUE(composite_.empty());
}

}  // namespace
}  // namespace db
