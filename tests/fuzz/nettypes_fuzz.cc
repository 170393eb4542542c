// MAC, prefix and interface name parsers: what they accept, and every byte form, round-trips.

#include <cstring>

#include "fuzz_util.h"
#include "limid.h"
#include "nettypes.h"

namespace {

template <class T>
T Reparsed(const T& value) {
  T again;
  again.Parse(value.to_string());
  return again;
}

template <class T>
void CheckPrefix(const std::string& text, const uint8_t* data, size_t size) {
  T value;
  try {
    value.Parse(text);
    const T again = Reparsed(value);
    db_fuzz::Require(again.to_string() == value.to_string(), "prefix text round trip");
  } catch (const std::invalid_argument&) {
  }
  if (size >= T::kSize && value.Deserialize(data)) {
    uint8_t a[T::kSize], b[T::kSize];
    value.Serialize(a);
    Reparsed(value).Serialize(b);
    db_fuzz::Require(std::memcmp(a, b, T::kSize) == 0, "prefix bytes round trip");
  }
}

void NameRoundTrip(uint32_t id) {
  char name[64];
  db_fuzz::Require(limid_to_intfname(id, name, sizeof(name)) == 0, "interface name");
  uint32_t back = ~id;
  db_fuzz::Require(limid_from_intfname(name, &back) == 0 && back == id, "interface id round trip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  nettypes::MACAddr mac;
  try {
    mac.set_addr(text);
    nettypes::MACAddr again;
    again.set_addr(mac.to_string());
    db_fuzz::Require(again.bytes() == mac.bytes(), "MAC round trip");
  } catch (const std::invalid_argument&) {
  }
  CheckPrefix<nettypes::IPv4AddrMask>(text, data, size);
  CheckPrefix<nettypes::IPv6AddrMask>(text, data, size);
  uint32_t id = 0;
  if (limid_from_intfname(text.c_str(), &id) == 0) NameRoundTrip(id);
  if (size >= 4) {
    std::memcpy(&id, data, 4);
    NameRoundTrip(id);
  }
  return 0;
}
