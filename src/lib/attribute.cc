#include "db/attribute.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <locale>
#include <sstream>

#include "limid.h"
#include "nettypes.h"

namespace db {

namespace {

constexpr uint32_t kMaxUnsigned32 = 0xFFFFFFFFu;
constexpr double kTwoPow31 = 2147483648.0;
constexpr size_t kLimIdNameSize = 64;
constexpr size_t kMacTextLength = 17;

// The bytes of a string or bytes value, or none for the fixed-size kinds.
struct ByteView {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool valid = false;
};

ByteView BytesOf(const AttributeValue& value) {
  ByteView view;
  if (const auto* s = boost::get<std::string>(&value)) {
    view.data = reinterpret_cast<const uint8_t*>(s->data());
    view.size = s->size();
    view.valid = true;
  } else if (const auto* b = boost::get<std::vector<uint8_t>>(&value)) {
    view.data = b->data();
    view.size = b->size();
    view.valid = true;
  }
  return view;
}

std::string FormatUnsigned(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "%u", v);
  return buf;
}

// Float to signed 32-bit with the fraction dropped, saturating the way the
// board's conversion instruction does: NaN and values below the range give
// INT32_MIN, values above it INT32_MAX. Doing it by hand keeps host builds
// free of the undefined out-of-range conversion and gives the board's results.
int32_t SaturatingToInt32(double v) {
  if (std::isnan(v) || v < -kTwoPow31) return INT32_MIN;
  if (v >= kTwoPow31) return INT32_MAX;
  return static_cast<int32_t>(v);
}

// The board's float to unsigned conversion: from 2^31 upwards the value is
// shifted into the signed range, converted and shifted back; below, the
// signed result's bits are taken as unsigned (-1.0 gives 4294967295, NaN
// gives 2147483648).
uint32_t FloatToUnsigned(float f) {
  const double v = f;
  if (v >= kTwoPow31) {
    return static_cast<uint32_t>(SaturatingToInt32(v - kTwoPow31)) + 0x80000000u;
  }
  return static_cast<uint32_t>(SaturatingToInt32(v));
}

// Parses `text` as std::stoul does in base 10 on the board, where unsigned
// long has 32 bits: leading blanks and a sign are accepted, parsing stops at
// the first non-digit, a negative value wraps modulo 2^32, and a magnitude
// above 4294967295 is out of range. Host builds have a 64-bit unsigned long,
// so the range is checked here rather than left to std::stoul. Returns false
// when there are no digits or the value is out of range.
bool ParseUnsigned32(const std::string& text, uint32_t* out) {
  try {
    const auto parsed = std::stoul(text, nullptr, 10);
    size_t pos = 0;
    while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos]))) ++pos;
    const bool negative = pos < text.size() && text[pos] == '-';
    // std::stoul negates a "-n" in the width of unsigned long; undo that in the
    // same width to get the magnitude back.
    const uint64_t magnitude = negative ? static_cast<uint64_t>(0 - parsed) : parsed;
    if (magnitude > kMaxUnsigned32) return false;
    const uint32_t value = static_cast<uint32_t>(magnitude);
    *out = negative ? 0u - value : value;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

const std::string Attribute::kToStringUnset = "(unset)";
const std::string Attribute::kToStringInvalid = "(invalid)";

StreamableAttr::~StreamableAttr() = default;

Attribute::Attribute(AttributeType type) {
  switch (type) {
    case kString:
      value_ = std::string();
      break;
    case kFloat:
      value_ = 0.0f;
      break;
    case kBytes:
      value_ = std::vector<uint8_t>();
      break;
    case kInteger:
    default:
      // A type outside 0..3 is deliberately no error: it falls back to an
      // unset integer holding 0.
      value_ = int32_t{0};
      break;
  }
}

Attribute::~Attribute() = default;

Attribute& Attribute::operator=(int32_t v) {
  value_ = v;
  is_set_ = true;
  return *this;
}

// GCC 12 at -O3 reports a false maybe-uninitialized inside boost::variant's
// assignment of a float (through its temporary copy); the value is always
// initialised. Clang has no such warning and rejects the unknown name.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
Attribute& Attribute::operator=(float v) {
  value_ = v;
  is_set_ = true;
  return *this;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

Attribute& Attribute::operator=(const std::string& v) {
  value_ = v;
  is_set_ = true;
  return *this;
}

Attribute& Attribute::operator=(const char* v) {
  value_ = std::string(v != nullptr ? v : "");
  is_set_ = true;
  return *this;
}

Attribute& Attribute::operator=(const std::vector<uint8_t>& v) {
  value_ = v;
  is_set_ = true;
  return *this;
}

void Attribute::set_value(const AttributeValue& v) {
  value_ = v;
  is_set_ = true;
}

void Attribute::set_value(AttributeValue&& v) {
  value_ = std::move(v);
  is_set_ = true;
}

uint32_t Attribute::Size() const {
  switch (type()) {
    case kInteger:
    case kFloat:
      // Fixed-size kinds report their width even when unset: backends size
      // stored fields by it.
      return 4;
    case kString:
      return is_set_ ? static_cast<uint32_t>(boost::get<std::string>(value_).size()) : 0;
    case kBytes:
      return is_set_ ? static_cast<uint32_t>(boost::get<std::vector<uint8_t>>(value_).size()) : 0;
  }
  return 0;
}

std::string Attribute::ToString(bool printable) const {
  if (!is_set_) return kToStringUnset;
  switch (type()) {
    case kInteger:
      return std::to_string(boost::get<int32_t>(value_));
    case kString:
      return boost::get<std::string>(value_);
    case kFloat: {
      // The text of stream output in the classic locale ("%.6g" of the value
      // as double), without building a stream: this runs for every float
      // written, filtered or indexed.
      char text[32];
      const std::to_chars_result end =
          std::to_chars(text, text + sizeof(text), static_cast<double>(boost::get<float>(value_)),
                        std::chars_format::general, 6);
      return std::string(text, end.ptr);
    }
    case kBytes: {
      if (printable) return ToHexString();
      const auto& bytes = boost::get<std::vector<uint8_t>>(value_);
      return std::string(bytes.begin(), bytes.end());
    }
  }
  return kToStringInvalid;
}

std::string Attribute::ToString() const { return ToString(false); }

std::string Attribute::ToPrintableString() const { return ToString(true); }

std::string Attribute::ToHexString() const {
  if (!is_set_) return kToStringUnset;
  switch (type()) {
    case kInteger: {
      // Stream hex, so lower case without leading zeros, while strings and
      // bytes come out upper case through ToHex. The asymmetry is deliberate
      // and kept.
      std::ostringstream os;
      os << "0x" << std::hex << static_cast<uint32_t>(boost::get<int32_t>(value_));
      return os.str();
    }
    case kString:
      return "0x" + ToHex(boost::get<std::string>(value_));
    case kFloat:
      return kToStringInvalid;
    case kBytes: {
      const auto& bytes = boost::get<std::vector<uint8_t>>(value_);
      return "0x" + ToHex(std::string(bytes.begin(), bytes.end()));
    }
  }
  return kToStringInvalid;
}

std::string Attribute::ToIpString() const {
  if (!is_set_) return kToStringUnset;
  const ByteView bytes = BytesOf(value_);
  if (!bytes.valid) return kToStringInvalid;
  char text[INET6_ADDRSTRLEN] = {};
  if (bytes.size == sizeof(in_addr)) {
    in_addr addr;
    std::memcpy(&addr, bytes.data, sizeof(addr));
    if (inet_ntop(AF_INET, &addr, text, sizeof(text)) == nullptr) return kToStringInvalid;
    return text;
  }
  if (bytes.size == sizeof(in6_addr)) {
    in6_addr addr;
    std::memcpy(&addr, bytes.data, sizeof(addr));
    if (inet_ntop(AF_INET6, &addr, text, sizeof(text)) == nullptr) return kToStringInvalid;
    return text;
  }
  return kToStringInvalid;
}

std::string Attribute::ToIpPrefixLenString() const {
  if (!is_set_) return kToStringUnset;
  const ByteView bytes = BytesOf(value_);
  if (!bytes.valid) return kToStringInvalid;
  try {
    if (bytes.size == nettypes::IPv4AddrMask::kSize) {
      nettypes::IPv4AddrMask prefix;
      if (!prefix.Deserialize(bytes.data)) return kToStringInvalid;
      return prefix.to_string();
    }
    if (bytes.size == nettypes::IPv6AddrMask::kSize) {
      nettypes::IPv6AddrMask prefix;
      if (!prefix.Deserialize(bytes.data)) return kToStringInvalid;
      return prefix.to_string();
    }
  } catch (const std::exception&) {
    return kToStringInvalid;
  }
  return kToStringInvalid;
}

std::string Attribute::ToMacString() const {
  if (!is_set_) return kToStringUnset;
  const ByteView bytes = BytesOf(value_);
  if (!bytes.valid) return kToStringInvalid;
  try {
    nettypes::MACAddr mac;
    if (type() == kString && bytes.size == kMacTextLength) {
      mac.set_addr(boost::get<std::string>(value_));
      return mac.to_string();
    }
    if (bytes.size == nettypes::MACAddr::kSize) {
      mac.set_addr(bytes.data);
      return mac.to_string();
    }
  } catch (const std::exception&) {
    return kToStringInvalid;
  }
  return kToStringInvalid;
}

std::string Attribute::ToLimIdString() const {
  if (!is_set_) return kToStringUnset;
  uint32_t id = 0;
  const ByteView bytes = BytesOf(value_);
  // The id's bytes are copied in memory order, as stored. Integer and float
  // values keep id 0: a number is not taken as an id, and callers rely on the
  // name of id 0 for them.
  if (bytes.valid && bytes.size >= sizeof(id)) std::memcpy(&id, bytes.data, sizeof(id));
  char name[kLimIdNameSize] = {};
  limid_to_intfname(id, name, sizeof(name));
  return std::string(name, strnlen(name, sizeof(name)));
}

std::string Attribute::ToUnsigned() const {
  if (!is_set_) return kToStringUnset;
  switch (type()) {
    case kInteger:
      return FormatUnsigned(static_cast<uint32_t>(boost::get<int32_t>(value_)));
    case kFloat:
      return FormatUnsigned(FloatToUnsigned(boost::get<float>(value_)));
    case kString:
    case kBytes: {
      uint32_t value = 0;
      const bool parsed =
          type() == kString
              ? ParseUnsigned32(boost::get<std::string>(value_), &value)
              : ParseUnsigned32(std::string(boost::get<std::vector<uint8_t>>(value_).begin(),
                                            boost::get<std::vector<uint8_t>>(value_).end()),
                                &value);
      return parsed ? FormatUnsigned(value) : kToStringInvalid;
    }
  }
  return kToStringInvalid;
}

std::string Attribute::ToHex(const std::string& data) const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(data.size() * 2);
  for (const char c : data) {
    const uint8_t byte = static_cast<uint8_t>(c);
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0x0F];
  }
  return out;
}

bool operator==(const Attribute& a, const Attribute& b) {
  if (a.type() != b.type()) return false;
  if (a.is_set() != b.is_set()) return false;
  // Unset attributes are equal whatever default they happen to hold.
  if (!a.is_set()) return true;
  switch (a.type()) {
    case kInteger:
      return a.Get<int32_t>() == b.Get<int32_t>();
    case kString:
      return a.Get<std::string>() == b.Get<std::string>();
    case kFloat:
      // Plain float comparison: NaN never equals, 0.0 equals -0.0.
      return a.Get<float>() == b.Get<float>();
    case kBytes:
      return a.Get<std::vector<uint8_t>>() == b.Get<std::vector<uint8_t>>();
  }
  return false;
}

bool operator!=(const Attribute& a, const Attribute& b) { return !(a == b); }

std::string ScalarFieldsMapToString(const ScalarFields& fields) {
  std::string out = "{ ";
  bool first = true;
  for (const auto& [name, value] : fields) {
    if (!first) out += ", ";
    first = false;
    out += name;
    out += " : ";
    out += value.ToPrintableString();
  }
  // An empty map closes right after the opening blank: "{ }".
  if (!fields.empty()) out += ' ';
  out += '}';
  return out;
}

}  // namespace db
