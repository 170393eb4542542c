// Network value types: text and byte forms, their round trips, and rejection of
// bad texts.

#include "nettypes.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// ---- MACAddr

struct MacCase {
  const char* text;
  Bytes bytes;
  const char* canonical;
};

TEST(MACAddrTest, TextAndBytesRoundTrip) {
  const MacCase kCases[] = {
      {"00:00:00:00:00:00", {0, 0, 0, 0, 0, 0}, "00:00:00:00:00:00"},
      {"aa:bb:cc:dd:ee:ff", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}, "aa:bb:cc:dd:ee:ff"},
      {"AA:BB:CC:DD:EE:FF", {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}, "aa:bb:cc:dd:ee:ff"},
      {"01:23:45:67:89:aB", {0x01, 0x23, 0x45, 0x67, 0x89, 0xab}, "01:23:45:67:89:ab"},
      {"fF:0a:A0:10:09:90", {0xff, 0x0a, 0xa0, 0x10, 0x09, 0x90}, "ff:0a:a0:10:09:90"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    nettypes::MACAddr from_text;
    from_text.set_addr(std::string(c.text));
    EXPECT_EQ(Bytes(from_text.bytes().begin(), from_text.bytes().end()), c.bytes);
    EXPECT_EQ(from_text.to_string(), c.canonical);

    nettypes::MACAddr from_bytes;
    from_bytes.set_addr(c.bytes.data());
    EXPECT_EQ(from_bytes.to_string(), c.canonical);
    from_bytes.set_addr(from_bytes.to_string());
    EXPECT_EQ(from_bytes.bytes(), from_text.bytes());
  }
}

TEST(MACAddrTest, BadTextsThrowAndLeaveTheAddressAlone) {
  const std::string kBad[] = {
      "",
      "aa:bb:cc:dd:ee",
      "aa:bb:cc:dd:ee:ff:",
      "aa:bb:cc:dd:ee:ff:00",
      "aa-bb-cc-dd-ee-ff",
      "aabb.ccdd.eeff",
      "aa:bb:cc:dd:ee:fg",
      "aa:bb:cc:dd:ee:f",
      "a:bb:cc:dd:ee:fff",
      " aa:bb:cc:dd:ee:f",
      "aa:bb:cc:dd:ee:ff ",
      "aabbccddeeff00000",
      std::string("aa:bb:cc:dd:ee:f\0", 17),
      "+a:bb:cc:dd:ee:ff",
  };
  for (const auto& text : kBad) {
    SCOPED_TRACE(text);
    nettypes::MACAddr mac;
    mac.set_addr(std::string("12:34:56:78:9a:bc"));
    EXPECT_THROW(mac.set_addr(text), std::invalid_argument);
    EXPECT_EQ(mac.to_string(), "12:34:56:78:9a:bc");
  }
}

TEST(MACAddrTest, DefaultIsZeroAndNullBytesThrow) {
  nettypes::MACAddr mac;
  EXPECT_EQ(mac.to_string(), "00:00:00:00:00:00");
  EXPECT_THROW(mac.set_addr(static_cast<const unsigned char*>(nullptr)), std::invalid_argument);
  EXPECT_EQ(mac.to_string(), "00:00:00:00:00:00");
}

// ---- IPv4AddrMask

struct AddrCase {
  const char* text;       // accepted by Parse
  Bytes bytes;            // the byte form
  const char* canonical;  // to_string
};

TEST(IPv4AddrMaskTest, TextAndBytesRoundTrip) {
  const AddrCase kCases[] = {
      {"10.0.0.0/24", {10, 0, 0, 0, 255, 255, 255, 0}, "10.0.0.0/24"},
      {"192.168.1.1/32", {192, 168, 1, 1, 255, 255, 255, 255}, "192.168.1.1/32"},
      {"192.168.1.1", {192, 168, 1, 1, 255, 255, 255, 255}, "192.168.1.1/32"},
      {"0.0.0.0/0", {0, 0, 0, 0, 0, 0, 0, 0}, "0.0.0.0/0"},
      {"172.16.5.4/12", {172, 16, 5, 4, 255, 240, 0, 0}, "172.16.5.4/12"},
      {"1.2.3.4/1", {1, 2, 3, 4, 128, 0, 0, 0}, "1.2.3.4/1"},
      {"1.2.3.4/31", {1, 2, 3, 4, 255, 255, 255, 254}, "1.2.3.4/31"},
      {"10.0.0.0/255.255.0.0", {10, 0, 0, 0, 255, 255, 0, 0}, "10.0.0.0/16"},
      {"10.0.0.0/255.0.255.0", {10, 0, 0, 0, 255, 0, 255, 0}, "10.0.0.0/255.0.255.0"},
      {"10.0.0.0/0.0.0.255", {10, 0, 0, 0, 0, 0, 0, 255}, "10.0.0.0/0.0.0.255"},
      {"255.255.255.255/255.255.255.253",
       {255, 255, 255, 255, 255, 255, 255, 253},
       "255.255.255.255/255.255.255.253"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    nettypes::IPv4AddrMask parsed;
    parsed.Parse(c.text);
    Bytes out(nettypes::IPv4AddrMask::kSize, 0xee);
    parsed.Serialize(out.data());
    EXPECT_EQ(out, c.bytes);
    EXPECT_EQ(parsed.to_string(), c.canonical);

    nettypes::IPv4AddrMask decoded;
    ASSERT_TRUE(decoded.Deserialize(c.bytes.data()));
    EXPECT_EQ(decoded.to_string(), c.canonical);
    nettypes::IPv4AddrMask reparsed;
    reparsed.Parse(decoded.to_string());
    EXPECT_EQ(reparsed.addr(), decoded.addr());
    EXPECT_EQ(reparsed.mask(), decoded.mask());
  }
}

TEST(IPv4AddrMaskTest, BadTextsThrowAndLeaveTheValueAlone) {
  const std::string kBad[] = {
      "",
      "/24",
      "10.0.0/24",
      "10.0.0.0/",
      "10.0.0.0/33",
      "10.0.0.0/-1",
      "10.0.0.0/024",
      "10.0.0.0/ 24",
      "10.0.0.0/24 ",
      "256.0.0.0/8",
      "10.0.0.0/8/8",
      "10.0.0.0//8",
      "2001:db8::/32",
      "10.0.0.0/255.0",
      "abc",
      "10.0.0.0/1a",
      std::string("10.0.0.0/8\0", 11),
      std::string("10.0.0.0\0/8", 11),
  };
  for (const auto& text : kBad) {
    SCOPED_TRACE(text);
    nettypes::IPv4AddrMask value;
    value.Parse("1.2.3.4/5");
    EXPECT_THROW(value.Parse(text), std::invalid_argument);
    EXPECT_EQ(value.to_string(), "1.2.3.4/5");
  }
}

TEST(IPv4AddrMaskTest, NullPointersAreRefused) {
  nettypes::IPv4AddrMask value;
  value.Parse("9.8.7.6/16");
  EXPECT_FALSE(value.Deserialize(nullptr));
  EXPECT_EQ(value.to_string(), "9.8.7.6/16");
  value.Serialize(nullptr);
  EXPECT_EQ(nettypes::IPv4AddrMask().to_string(), "0.0.0.0/0");
}

// ---- IPv6AddrMask

Bytes V6(std::initializer_list<uint8_t> head, std::initializer_list<uint8_t> tail, uint8_t len) {
  Bytes bytes(head);
  bytes.resize(16 - tail.size(), 0);
  bytes.insert(bytes.end(), tail);
  bytes.push_back(len);
  return bytes;
}

TEST(IPv6AddrMaskTest, TextAndBytesRoundTrip) {
  const AddrCase kCases[] = {
      {"2001:db8::/32", V6({0x20, 0x01, 0x0d, 0xb8}, {}, 32), "2001:db8::/32"},
      {"2001:DB8:0:0::/32", V6({0x20, 0x01, 0x0d, 0xb8}, {}, 32), "2001:db8::/32"},
      {"::/0", V6({}, {}, 0), "::/0"},
      {"fe80::1/64", V6({0xfe, 0x80}, {0x00, 0x01}, 64), "fe80::1/64"},
      {"fe80::1", V6({0xfe, 0x80}, {0x00, 0x01}, 128), "fe80::1/128"},
      {"::1/128", V6({}, {0x00, 0x01}, 128), "::1/128"},
      {"2001:db8:0:1:0:0:0:1/127", V6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1}, {0, 1}, 127),
       "2001:db8:0:1::1/127"},
      {"::ffff:10.0.0.1/96", V6({}, {0xff, 0xff, 10, 0, 0, 1}, 96), "::ffff:10.0.0.1/96"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/1",
       Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
             0xff, 0xff, 1},
       "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/1"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    nettypes::IPv6AddrMask parsed;
    parsed.Parse(c.text);
    Bytes out(nettypes::IPv6AddrMask::kSize, 0xee);
    parsed.Serialize(out.data());
    EXPECT_EQ(out, c.bytes);
    EXPECT_EQ(parsed.to_string(), c.canonical);

    nettypes::IPv6AddrMask decoded;
    ASSERT_TRUE(decoded.Deserialize(c.bytes.data()));
    EXPECT_EQ(decoded.to_string(), c.canonical);
    nettypes::IPv6AddrMask reparsed;
    reparsed.Parse(decoded.to_string());
    EXPECT_EQ(reparsed.addr(), decoded.addr());
    EXPECT_EQ(reparsed.prefix_len(), decoded.prefix_len());
  }
}

TEST(IPv6AddrMaskTest, BadTextsThrowAndLeaveTheValueAlone) {
  const std::string kBad[] = {
      "",
      "/64",
      "2001:db8::/",
      "2001:db8::/129",
      "2001:db8::/-1",
      "::/0128",
      "::/ 1",
      "::/1 ",
      "2001:db8:::/32",
      "2001:db8::g/32",
      "fe80::1%eth0/64",
      "10.0.0.0/8",
      "::/1/1",
      std::string("::1\0/64", 7),
      "::/1a",
  };
  for (const auto& text : kBad) {
    SCOPED_TRACE(text);
    nettypes::IPv6AddrMask value;
    value.Parse("2001:db8::1/48");
    EXPECT_THROW(value.Parse(text), std::invalid_argument);
    EXPECT_EQ(value.to_string(), "2001:db8::1/48");
  }
}

TEST(IPv6AddrMaskTest, DeserializeRefusesNullAndLongPrefixes) {
  nettypes::IPv6AddrMask value;
  value.Parse("2001:db8::1/48");
  EXPECT_FALSE(value.Deserialize(nullptr));
  Bytes too_long = V6({0xfe, 0x80}, {}, 129);
  EXPECT_FALSE(value.Deserialize(too_long.data()));
  EXPECT_EQ(value.to_string(), "2001:db8::1/48");
  value.Serialize(nullptr);
  EXPECT_EQ(nettypes::IPv6AddrMask().to_string(), "::/0");
}

}  // namespace
