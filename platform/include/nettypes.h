// Stand-in for the element's network value types: MAC addresses and IPv4/IPv6
// addresses with a mask or prefix length, with their text and byte forms.

#ifndef PLATFORM_INCLUDE_NETTYPES_H_
#define PLATFORM_INCLUDE_NETTYPES_H_

#include <array>
#include <cstdint>
#include <string>

#include "platform_export.h"

namespace nettypes {

// A 6-byte MAC address.
class ELEM_PLATFORM_EXPORT MACAddr {
 public:
  static constexpr size_t kSize = 6;  // bytes of an address
  MACAddr();
  // Accepts exactly "aa:bb:cc:dd:ee:ff" (hex digits of either case); throws
  // std::invalid_argument on anything else, leaving the address unchanged.
  void set_addr(const std::string& text);
  // Takes 6 raw bytes, copied as they are; throws std::invalid_argument for a
  // null pointer.
  void set_addr(const unsigned char* bytes);
  // Lower-case colon form, "aa:bb:cc:dd:ee:ff".
  std::string to_string() const;
  // The 6 bytes, in transmission order.
  const std::array<uint8_t, kSize>& bytes() const { return addr_; }

 private:
  std::array<uint8_t, kSize> addr_;
};

// An IPv4 address and mask. Byte form (8 bytes): address then mask, both in
// network order. Text form: "10.0.0.0/24" (the mask as a prefix length when it
// is contiguous, otherwise in dotted form, "10.0.0.0/255.0.255.0").
class ELEM_PLATFORM_EXPORT IPv4AddrMask {
 public:
  static constexpr size_t kSize = 8;  // bytes of the byte form
  IPv4AddrMask();
  // Writes the 8-byte form to `out`; does nothing for a null `out`.
  void Serialize(uint8_t* out) const;
  // Reads the 8-byte form; returns false (object unchanged) for a null input.
  bool Deserialize(const uint8_t* in);
  // Parses "a.b.c.d/len" (len 0..32) or "a.b.c.d/m.m.m.m"; a bare address
  // means /32. Throws std::invalid_argument on anything else.
  void Parse(const std::string& text);
  // The text form.
  std::string to_string() const;
  // The address, in network order.
  const std::array<uint8_t, 4>& addr() const { return addr_; }
  // The mask, in network order.
  const std::array<uint8_t, 4>& mask() const { return mask_; }

 private:
  std::array<uint8_t, 4> addr_;
  std::array<uint8_t, 4> mask_;
};

// An IPv6 address and prefix length. Byte form (17 bytes): the address in
// network order then the prefix length. Text form: "2001:db8::/32".
class ELEM_PLATFORM_EXPORT IPv6AddrMask {
 public:
  static constexpr size_t kSize = 17;  // bytes of the byte form
  IPv6AddrMask();
  // Writes the 17-byte form to `out`; does nothing for a null `out`.
  void Serialize(uint8_t* out) const;
  // Reads the 17-byte form; returns false (object unchanged) for a null input
  // or a prefix length above 128.
  bool Deserialize(const uint8_t* in);
  // Parses "addr/len" (len 0..128); a bare address means /128. Throws
  // std::invalid_argument on anything else.
  void Parse(const std::string& text);
  // The text form.
  std::string to_string() const;
  // The address, in network order.
  const std::array<uint8_t, 16>& addr() const { return addr_; }
  // The prefix length, 0..128.
  uint8_t prefix_len() const { return prefix_len_; }

 private:
  std::array<uint8_t, 16> addr_;
  uint8_t prefix_len_;
};

}  // namespace nettypes

#endif  // PLATFORM_INCLUDE_NETTYPES_H_
