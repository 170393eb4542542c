#include "limid.h"

#include <stdio.h>
#include <string.h>

#include <array>
#include <string>

#include "text_digits.h"

namespace {

using text_digits::HexDigit;
using text_digits::ParseSmallDecimal;

// Kind numbers (byte 0 of an id) and their names; index = kind.
constexpr uint8_t kKindEth = 1;
constexpr uint8_t kKindLast = 4;
constexpr const char* kKindNames[] = {nullptr, "eth", "lag", "vlan", "lo"};

using IdBytes = std::array<uint8_t, 4>;

// The id's bytes in memory order. Copied, never shifted out of the integer, so
// that a stored id reads the same on either byte order.
IdBytes BytesOf(uint32_t limid) {
  IdBytes bytes;
  memcpy(bytes.data(), &limid, bytes.size());
  return bytes;
}

uint32_t IdOf(const IdBytes& bytes) {
  uint32_t limid;
  memcpy(&limid, bytes.data(), bytes.size());
  return limid;
}

// "0x" and exactly eight hex digits, the first pair being byte 0.
bool ParseRawId(const std::string& text, IdBytes* bytes) {
  if (text.size() != 10 || text[0] != '0' || text[1] != 'x') return false;
  IdBytes parsed;
  for (size_t i = 0; i < parsed.size(); ++i) {
    int high = HexDigit(text[2 + i * 2]);
    int low = HexDigit(text[3 + i * 2]);
    if (high < 0 || low < 0) return false;
    parsed[i] = static_cast<uint8_t>(high * 16 + low);
  }
  *bytes = parsed;
  return true;
}

}  // namespace

extern "C" {

int limid_to_intfname(uint32_t limid, char* buf, size_t size) {
  if (buf == nullptr || size == 0) return -1;
  IdBytes b = BytesOf(limid);
  unsigned port = (static_cast<unsigned>(b[2]) << 8) | b[3];
  int needed;
  if (b[0] == kKindEth) {
    needed = snprintf(buf, size, "eth %u/%u", static_cast<unsigned>(b[1]), port);
  } else if (b[0] > kKindEth && b[0] <= kKindLast && b[1] == 0) {
    needed = snprintf(buf, size, "%s %u", kKindNames[b[0]], port);
  } else {
    // Outside the scheme (unknown kind, or a slot on a kind without slots):
    // still a readable name, and one that parses back.
    needed = snprintf(buf, size, "limid 0x%02x%02x%02x%02x", static_cast<unsigned>(b[0]),
                      static_cast<unsigned>(b[1]), static_cast<unsigned>(b[2]),
                      static_cast<unsigned>(b[3]));
  }
  return needed >= 0 && static_cast<size_t>(needed) < size ? 0 : -1;
}

int limid_from_intfname(const char* name, uint32_t* limid) {
  if (name == nullptr || limid == nullptr) return -1;
  std::string text(name);
  size_t blank = text.find(' ');
  if (blank == std::string::npos) return -1;
  std::string kind = text.substr(0, blank);
  std::string rest = text.substr(blank + 1);

  IdBytes bytes{};
  if (kind == "limid") {
    if (!ParseRawId(rest, &bytes)) return -1;
    *limid = IdOf(bytes);
    return 0;
  }
  uint32_t slot = 0;
  uint32_t port = 0;
  if (kind == kKindNames[kKindEth]) {
    size_t slash = rest.find('/');
    if (slash == std::string::npos || !ParseSmallDecimal(rest.substr(0, slash), 5, 0xff, &slot) ||
        !ParseSmallDecimal(rest.substr(slash + 1), 5, 0xffff, &port)) {
      return -1;
    }
    bytes[0] = kKindEth;
  } else {
    uint8_t found = 0;
    for (uint8_t k = kKindEth + 1; k <= kKindLast; ++k) {
      if (kind == kKindNames[k]) found = k;
    }
    if (found == 0 || !ParseSmallDecimal(rest, 5, 0xffff, &port)) return -1;
    bytes[0] = found;
  }
  bytes[1] = static_cast<uint8_t>(slot);
  bytes[2] = static_cast<uint8_t>(port >> 8);
  bytes[3] = static_cast<uint8_t>(port & 0xff);
  *limid = IdOf(bytes);
  return 0;
}

}  // extern "C"
