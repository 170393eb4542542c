#include "nettypes.h"

#include "support/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using nettypes::IPv4AddrMask;
using nettypes::IPv6AddrMask;
using nettypes::MACAddr;

// Accepted text -> bytes and canonical text; bytes -> canonical text -> bytes. Each of `bad`
// throws and leaves `good` in place.
template <class T>
void ExpectParsing(const std::vector<std::tuple<std::string, Bytes, std::string>>& cases,
                   const std::string& good, const std::vector<std::string>& bad) {
  for (const auto& [text, bytes, canonical] : cases) {
    SCOPED_TRACE(text);
    T parsed, decoded;
    Bytes out(T::kSize, 0xee);
    for (const std::string& input : {text, canonical}) {
      parsed.Parse(input);
      parsed.Serialize(out.data());
      EXPECT_EQ(out, bytes);
      EXPECT_EQ(parsed.to_string(), canonical);
    }
    ASSERT_TRUE(decoded.Deserialize(bytes.data()));
    EXPECT_EQ(decoded.to_string(), canonical);
  }
  for (const std::string& text : bad) {
    SCOPED_TRACE(text);
    T value;
    value.Parse(good);
    EXPECT_THROW(value.Parse(text), std::invalid_argument);
    EXPECT_EQ(value.to_string(), good);
  }
}

// MACAddr behind the interface of the other types.
struct Mac : MACAddr {
  void Parse(const std::string& text) { set_addr(text); }
  void Serialize(uint8_t* out) const { std::copy(bytes().begin(), bytes().end(), out); }
  bool Deserialize(const uint8_t* in) {
    set_addr(in);
    return true;
  }
};

TEST(MACAddrTest, RoundTripsAndRefusals) {
  ExpectParsing<Mac>(
      {{"fF:0a:A0:10:09:90", {0xff, 0x0a, 0xa0, 0x10, 0x09, 0x90}, "ff:0a:a0:10:09:90"}},
      "12:34:56:78:9a:bc",
      {"", "aa:bb:cc:dd:ee:ff:", "aa-bb-cc-dd-ee-ff", "aa:bb:cc:dd:ee:fg", "a:bb:cc:dd:ee:fff",
       "aa:bb:cc:dd:ee:ff ", std::string("aa:bb:cc:dd:ee:f\0", 17), "+a:bb:cc:dd:ee:ff"});
  EXPECT_EQ(MACAddr().to_string(), "00:00:00:00:00:00");
  EXPECT_THROW(Mac().set_addr(static_cast<const unsigned char*>(nullptr)), std::invalid_argument);
}

TEST(IPv4AddrMaskTest, RoundTripsAndRefusals) {
  ExpectParsing<IPv4AddrMask>(
      {{"192.168.1.1", {192, 168, 1, 1, 255, 255, 255, 255}, "192.168.1.1/32"},
       {"10.0.0.0/255.255.0.0", {10, 0, 0, 0, 255, 255, 0, 0}, "10.0.0.0/16"},
       {"10.0.0.0/255.0.255.0", {10, 0, 0, 0, 255, 0, 255, 0}, "10.0.0.0/255.0.255.0"}},
      "1.2.3.4/5",
      {"", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/024", "256.0.0.0/8", "10.0.0.0/8/8",
       "10.0.0.0/255.0"});
  IPv4AddrMask value;
  EXPECT_EQ(value.to_string(), "0.0.0.0/0");
  EXPECT_FALSE(value.Deserialize(nullptr));
  value.Serialize(nullptr);
}

Bytes V6(Bytes head, const Bytes& tail, uint8_t len) {
  head.resize(16 - tail.size(), 0);
  head.insert(head.end(), tail.begin(), tail.end());
  head.push_back(len);
  return head;
}

TEST(IPv6AddrMaskTest, RoundTripsAndRefusals) {
  ExpectParsing<IPv6AddrMask>(
      {{"2001:DB8:0:0::/32", V6({0x20, 0x01, 0x0d, 0xb8}, {}, 32), "2001:db8::/32"},
       {"fe80::1", V6({0xfe, 0x80}, {0x00, 0x01}, 128), "fe80::1/128"}},
      "2001:db8::1/48",
      {"", "2001:db8::/", "2001:db8::/129", "::/0128", "2001:db8:::/32", "10.0.0.0/8"});
  IPv6AddrMask value;
  EXPECT_FALSE(value.Deserialize(nullptr));
  EXPECT_FALSE(value.Deserialize(V6({0xfe, 0x80}, {}, 129).data()));
  EXPECT_EQ(value.to_string(), "::/0");
  value.Serialize(nullptr);
}

}  // namespace
