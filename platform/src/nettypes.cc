#include "nettypes.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <stdexcept>

#include "text_digits.h"

namespace nettypes {

namespace {

using text_digits::HexDigit;
using text_digits::ParseSmallDecimal;

// The four bytes as one value, first byte most significant. Built from the
// bytes themselves, so the host's byte order does not enter.
uint32_t BigEndianValue(const std::array<uint8_t, 4>& bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

// Length of the prefix when `mask` is a run of ones followed by zeros, else -1.
int PrefixLength(const std::array<uint8_t, 4>& mask) {
  uint32_t value = BigEndianValue(mask);
  int length = 0;
  while (length < 32 && (value & (UINT32_C(0x80000000) >> length)) != 0) ++length;
  uint32_t expected = length == 0 ? 0 : ~UINT32_C(0) << (32 - length);
  return value == expected ? length : -1;
}

std::array<uint8_t, 4> MaskOfLength(uint32_t length) {
  std::array<uint8_t, 4> mask{};
  for (uint32_t bit = 0; bit < length; ++bit) {
    mask[bit / 8] = static_cast<uint8_t>(mask[bit / 8] | (0x80u >> (bit % 8)));
  }
  return mask;
}

// Dotted-quad text to 4 bytes in network order.
bool ParseIPv4(const std::string& text, std::array<uint8_t, 4>* out) {
  unsigned char buf[sizeof(struct in_addr)];
  if (inet_pton(AF_INET, text.c_str(), buf) != 1) return false;
  std::memcpy(out->data(), buf, out->size());
  return true;
}

std::string FormatIPv4(const std::array<uint8_t, 4>& bytes) {
  return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
         std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
}

}  // namespace

// ---- MACAddr

MACAddr::MACAddr() : addr_{} {}

void MACAddr::set_addr(const std::string& text) {
  // Exactly six pairs of hex digits joined by colons: 17 characters.
  if (text.size() != kSize * 3 - 1) {
    throw std::invalid_argument("invalid MAC address '" + text + "'");
  }
  std::array<uint8_t, kSize> parsed{};
  for (size_t i = 0; i < kSize; ++i) {
    int high = HexDigit(text[i * 3]);
    int low = HexDigit(text[i * 3 + 1]);
    bool separator_ok = i + 1 == kSize || text[i * 3 + 2] == ':';
    if (high < 0 || low < 0 || !separator_ok) {
      throw std::invalid_argument("invalid MAC address '" + text + "'");
    }
    parsed[i] = static_cast<uint8_t>(high * 16 + low);
  }
  addr_ = parsed;
}

void MACAddr::set_addr(const unsigned char* bytes) {
  if (bytes == nullptr) throw std::invalid_argument("null MAC address bytes");
  std::memcpy(addr_.data(), bytes, kSize);
}

std::string MACAddr::to_string() const {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(kSize * 3 - 1);
  for (size_t i = 0; i < kSize; ++i) {
    if (i != 0) text += ':';
    text += kDigits[addr_[i] >> 4];
    text += kDigits[addr_[i] & 0x0f];
  }
  return text;
}

// ---- IPv4AddrMask

IPv4AddrMask::IPv4AddrMask() : addr_{}, mask_{} {}

void IPv4AddrMask::Serialize(uint8_t* out) const {
  if (out == nullptr) return;
  std::memcpy(out, addr_.data(), addr_.size());
  std::memcpy(out + addr_.size(), mask_.data(), mask_.size());
}

bool IPv4AddrMask::Deserialize(const uint8_t* in) {
  if (in == nullptr) return false;
  std::memcpy(addr_.data(), in, addr_.size());
  std::memcpy(mask_.data(), in + addr_.size(), mask_.size());
  return true;
}

void IPv4AddrMask::Parse(const std::string& text) {
  // inet_pton reads a C string; an embedded NUL would hide what follows it.
  if (text.find('\0') != std::string::npos) {
    throw std::invalid_argument("invalid IPv4 address/mask");
  }
  size_t slash = text.find('/');
  std::array<uint8_t, 4> addr{};
  std::array<uint8_t, 4> mask = MaskOfLength(32);
  bool ok = ParseIPv4(text.substr(0, slash), &addr);
  if (ok && slash != std::string::npos) {
    std::string mask_text = text.substr(slash + 1);
    uint32_t length = 0;
    if (ParseSmallDecimal(mask_text, 2, 32, &length)) {
      mask = MaskOfLength(length);
    } else {
      ok = ParseIPv4(mask_text, &mask);
    }
  }
  if (!ok) throw std::invalid_argument("invalid IPv4 address/mask '" + text + "'");
  addr_ = addr;
  mask_ = mask;
}

std::string IPv4AddrMask::to_string() const {
  int length = PrefixLength(mask_);
  return FormatIPv4(addr_) + "/" + (length >= 0 ? std::to_string(length) : FormatIPv4(mask_));
}

// ---- IPv6AddrMask

IPv6AddrMask::IPv6AddrMask() : addr_{}, prefix_len_(0) {}

void IPv6AddrMask::Serialize(uint8_t* out) const {
  if (out == nullptr) return;
  std::memcpy(out, addr_.data(), addr_.size());
  out[addr_.size()] = prefix_len_;
}

bool IPv6AddrMask::Deserialize(const uint8_t* in) {
  if (in == nullptr || in[16] > 128) return false;
  std::memcpy(addr_.data(), in, addr_.size());
  prefix_len_ = in[16];
  return true;
}

void IPv6AddrMask::Parse(const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    throw std::invalid_argument("invalid IPv6 address/prefix");
  }
  size_t slash = text.find('/');
  unsigned char buf[sizeof(struct in6_addr)];
  uint32_t length = 128;
  bool ok = inet_pton(AF_INET6, text.substr(0, slash).c_str(), buf) == 1;
  if (ok && slash != std::string::npos) {
    ok = ParseSmallDecimal(text.substr(slash + 1), 3, 128, &length);
  }
  if (!ok) throw std::invalid_argument("invalid IPv6 address/prefix '" + text + "'");
  std::memcpy(addr_.data(), buf, addr_.size());
  prefix_len_ = static_cast<uint8_t>(length);
}

std::string IPv6AddrMask::to_string() const {
  unsigned char buf[sizeof(struct in6_addr)];
  std::memcpy(buf, addr_.data(), addr_.size());
  char text[INET6_ADDRSTRLEN];
  if (inet_ntop(AF_INET6, buf, text, sizeof(text)) == nullptr) return "(invalid)";
  return std::string(text) + "/" + std::to_string(prefix_len_);
}

}  // namespace nettypes
