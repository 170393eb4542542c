#include "limid.h"

#include <string.h>

#include "support/test_util.h"

namespace {

// The id whose bytes in memory order are b0..b3, as a stored id is read.
uint32_t Id(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
  const uint8_t bytes[4] = {b0, b1, b2, b3};
  uint32_t id;
  memcpy(&id, bytes, sizeof(id));
  return id;
}

// id -> name -> id.
std::string ExpectRoundTrip(uint32_t id) {
  char buf[64] = {};
  EXPECT_EQ(limid_to_intfname(id, buf, sizeof(buf)), 0);
  uint32_t back = ~id;
  EXPECT_EQ(limid_from_intfname(buf, &back), 0) << buf;
  EXPECT_EQ(back, id) << buf;
  return buf;
}

TEST(LimidTest, NamesRoundTripAndBadInputIsRefusedWithMinusOne) {
  EXPECT_EQ(ExpectRoundTrip(Id(1, 1, 0, 3)), "eth 1/3");
  EXPECT_EQ(ExpectRoundTrip(Id(2, 0, 0, 12)), "lag 12");
  EXPECT_EQ(ExpectRoundTrip(Id(3, 0, 0x0f, 0xff)), "vlan 4095");
  EXPECT_EQ(ExpectRoundTrip(Id(0xff, 0xab, 0xcd, 0xef)), "limid 0xffabcdef");
  EXPECT_EQ(ExpectRoundTrip(Id(2, 1, 0, 12)), "limid 0x0201000c");  // a lag has no slot

  auto refused = [](std::initializer_list<const char*> names) {
    for (const char* name : names) {
      uint32_t id = 0x5a5a5a5a;  // left alone
      EXPECT_EQ(limid_from_intfname(name, &id), -1) << "'" << (name ? name : "null") << "'";
      EXPECT_EQ(id, 0x5a5a5a5au);
    }
  };
  refused({"", "eth", "eth1/3", "eth 1", "eth 1/3 ", "eth 1/3/4", "eth 256/3", "eth 1/65536",
           "eth 01/3", "eth +1/3", "ETH 1/3", "lag 0/12", "lag 65536", "lag 12x", "wlan 1"});
  refused({"limid 01020304", "eth 1/99999999999999999999", "limid 0x1234567", "limid 0x123456789",
           "limid 0X01020304", "limid 0x0102030g", nullptr});
  EXPECT_EQ(limid_from_intfname("eth 1/3", nullptr), -1);
  EXPECT_EQ(limid_to_intfname(Id(1, 1, 0, 3), nullptr, 64), -1);
  char buf[16];
  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(limid_to_intfname(Id(1, 1, 0, 3), buf, 7), -1);  // "eth 1/3" needs 8
  EXPECT_STREQ(buf, "eth 1/");
  EXPECT_EQ(limid_to_intfname(Id(1, 1, 0, 3), buf, 0), -1);
}

}  // namespace
