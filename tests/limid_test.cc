// Logical interface naming: ids to names and back.

#include "limid.h"

#include <string.h>

#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

// An id whose bytes in memory order are b0..b3, as a stored id is read.
uint32_t IdFromBytes(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
  const uint8_t bytes[4] = {b0, b1, b2, b3};
  uint32_t id;
  memcpy(&id, bytes, sizeof(id));
  return id;
}

std::string NameOf(uint32_t id) {
  char buf[64] = {};
  EXPECT_EQ(limid_to_intfname(id, buf, sizeof(buf)), 0);
  return buf;
}

// id -> name -> id, and the name has exactly one blank.
void ExpectRoundTrip(uint32_t id) {
  std::string name = NameOf(id);
  SCOPED_TRACE(name);
  size_t blank = name.find(' ');
  ASSERT_NE(blank, std::string::npos);
  EXPECT_EQ(name.find(' ', blank + 1), std::string::npos);
  uint32_t back = ~id;
  ASSERT_EQ(limid_from_intfname(name.c_str(), &back), 0);
  EXPECT_EQ(back, id);
}

TEST(LimidTest, NamesOfKnownIds) {
  struct Case {
    uint8_t b[4];
    const char* name;
  };
  const Case kCases[] = {
      {{1, 1, 0, 3}, "eth 1/3"},
      {{1, 0, 0, 0}, "eth 0/0"},
      {{1, 255, 255, 255}, "eth 255/65535"},
      {{1, 2, 1, 0}, "eth 2/256"},
      {{2, 0, 0, 12}, "lag 12"},
      {{3, 0, 0, 100}, "vlan 100"},
      {{3, 0, 0x0f, 0xff}, "vlan 4095"},
      {{4, 0, 0, 0}, "lo 0"},
      {{0, 0, 0, 0}, "limid 0x00000000"},
      {{5, 1, 2, 3}, "limid 0x05010203"},
      {{0xff, 0xab, 0xcd, 0xef}, "limid 0xffabcdef"},
      {{2, 1, 0, 12}, "limid 0x0201000c"},  // lag has no slot
      {{4, 7, 0, 0}, "limid 0x04070000"},
  };
  for (const auto& c : kCases) {
    uint32_t id = IdFromBytes(c.b[0], c.b[1], c.b[2], c.b[3]);
    EXPECT_EQ(NameOf(id), c.name);
    uint32_t back = 0;
    ASSERT_EQ(limid_from_intfname(c.name, &back), 0) << c.name;
    EXPECT_EQ(back, id) << c.name;
  }
}

TEST(LimidTest, EveryKindSlotAndPortRoundTrips) {
  const uint8_t kSlots[] = {0, 1, 2, 9, 10, 99, 100, 254, 255};
  const uint16_t kPorts[] = {0, 1, 9, 10, 99, 255, 256, 999, 1000, 4095, 9999, 10000, 65534, 65535};
  for (int kind = 0; kind <= 6; ++kind) {
    for (uint8_t slot : kSlots) {
      for (uint16_t port : kPorts) {
        ExpectRoundTrip(IdFromBytes(static_cast<uint8_t>(kind), slot,
                                    static_cast<uint8_t>(port >> 8),
                                    static_cast<uint8_t>(port & 0xff)));
      }
    }
  }
  ExpectRoundTrip(IdFromBytes(0xff, 0xff, 0xff, 0xff));
}

TEST(LimidTest, RandomIdsRoundTrip) {
  std::mt19937 rng(20240611u);
  for (int i = 0; i < 20000; ++i) {
    uint32_t id = static_cast<uint32_t>(rng());
    if (i % 2 == 0) {
      // Half of them inside the scheme, where most real ids are.
      uint8_t bytes[4];
      memcpy(bytes, &id, sizeof(bytes));
      bytes[0] = static_cast<uint8_t>(1 + bytes[0] % 4);
      if (bytes[0] != 1) bytes[1] = 0;
      memcpy(&id, bytes, sizeof(id));
    }
    ExpectRoundTrip(id);
  }
}

TEST(LimidTest, RawFormAcceptsEitherCaseAndInSchemeIds) {
  uint32_t id = 0;
  ASSERT_EQ(limid_from_intfname("limid 0xFFABCDEF", &id), 0);
  EXPECT_EQ(id, IdFromBytes(0xff, 0xab, 0xcd, 0xef));
  ASSERT_EQ(limid_from_intfname("limid 0x01010003", &id), 0);
  EXPECT_EQ(NameOf(id), "eth 1/3");
}

TEST(LimidTest, BadNamesAreRefusedAndLeaveTheIdAlone) {
  const char* kBad[] = {
      "",
      " ",
      "eth",
      "eth1/3",
      "eth 1",
      "eth 1/",
      "eth /3",
      "eth 1/3 ",
      " eth 1/3",
      "eth  1/3",
      "eth 1//3",
      "eth 1/3/4",
      "eth 256/3",
      "eth 1/65536",
      "eth 01/3",
      "eth 1/03",
      "eth -1/3",
      "eth +1/3",
      "eth 1/99999999999999999999",
      "ETH 1/3",
      "lag",
      "lag 0/12",
      "lag 65536",
      "lag 12x",
      "lag -0",
      "vlan 1 2",
      "lo",
      "lo 00",
      "wlan 1",
      "limid 0x1234567",
      "limid 0x123456789",
      "limid 0X01020304",
      "limid 01020304",
      "limid 0x0102030g",
      "limid  0x01020304",
      "limid 0x01020304 ",
  };
  for (const char* name : kBad) {
    uint32_t id = 0x5a5a5a5a;
    EXPECT_EQ(limid_from_intfname(name, &id), -1) << "'" << name << "'";
    EXPECT_EQ(id, 0x5a5a5a5au) << "'" << name << "'";
  }
}

TEST(LimidTest, NullArgumentsAreRefused) {
  uint32_t id = 7;
  EXPECT_EQ(limid_from_intfname(nullptr, &id), -1);
  EXPECT_EQ(id, 7u);
  EXPECT_EQ(limid_from_intfname("eth 1/3", nullptr), -1);
  EXPECT_EQ(limid_to_intfname(IdFromBytes(1, 1, 0, 3), nullptr, 64), -1);
}

TEST(LimidTest, TooSmallBufferKeepsWhatFits) {
  const uint32_t id = IdFromBytes(1, 1, 0, 3);  // "eth 1/3", 7 characters
  char buf[16];

  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(id, buf, 8), 0);
  EXPECT_STREQ(buf, "eth 1/3");

  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(id, buf, 7), -1);
  EXPECT_STREQ(buf, "eth 1/");

  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(id, buf, 1), -1);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'z');

  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(id, buf, 0), -1);
  EXPECT_EQ(buf[0], 'z');

  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(IdFromBytes(9, 9, 9, 9), buf, 8), -1);
  EXPECT_STREQ(buf, "limid 0");
}

}  // namespace
