// Attribute: the typed value of one field of one record, and, in a schema,
// the declaration of one field's type.
//
// An Attribute holds one of four kinds of value (signed 32-bit integer, byte
// string, 32-bit float, byte vector) and an is-set flag. The index of the active
// variant alternative is the attribute's AttributeType. Attributes are plain
// values: copied freely, nothing shared.
//
// Renderings never throw: a value that does not fit the requested form renders
// as kToStringInvalid, an unset value as kToStringUnset.

#ifndef DB_INTF_INCLUDE_DB_ATTRIBUTE_H_
#define DB_INTF_INCLUDE_DB_ATTRIBUTE_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/variant.hpp>

#include "db/export.h"

namespace db {

// The kind of a value. The numbers appear in the stored formats of both
// backends and never change.
enum AttributeType : int32_t {
  kInteger = 0,  // signed 32-bit integer, SQL "INTEGER"
  kString = 1,   // byte string, SQL "TEXT"
  kFloat = 2,    // 32-bit IEEE float, SQL "REAL"
  kBytes = 3,    // byte vector, SQL "BLOB"
};

// The rendering chosen per field for text output and debug commands. Kept by
// DbObject per field, never inside an Attribute. Any other value renders as
// kDefault. kIpAddressAlt1 and kIpAddressAlt2 render exactly as kIpAddress; the
// command-line parser refuses them (see ElemParser).
enum PrintFormat : int32_t {
  kDefault = 0,        // ToPrintableString()
  kHex = 1,            // ToHexString()
  kIpAddress = 2,      // ToIpString()
  kIpAddressAlt1 = 3,  // ToIpString()
  kIpAddressAlt2 = 4,  // ToIpString()
  kIpPrefixLen = 5,    // ToIpPrefixLenString()
  kMac = 6,            // ToMacString()
  kLimId = 7,          // ToLimIdString()
  kUnsigned = 8,       // ToUnsigned()
};

// The value variant. The alternative index is the AttributeType.
using AttributeValue = boost::variant<int32_t, std::string, float, std::vector<uint8_t>>;

// Interface of the renderings; no data of its own.
class DB_INTF_EXPORT StreamableAttr {
 public:
  virtual ~StreamableAttr();
  // Plain text of the value.
  virtual std::string ToString() const = 0;
  // Text for people: as ToString(), binary data in hex.
  virtual std::string ToPrintableString() const = 0;
  // Hexadecimal form.
  virtual std::string ToHexString() const = 0;
  // IPv4 or IPv6 address form.
  virtual std::string ToIpString() const = 0;
  // IPv4 address+mask or IPv6 address+prefix form.
  virtual std::string ToIpPrefixLenString() const = 0;
  // MAC address form.
  virtual std::string ToMacString() const = 0;
  // Interface name of a logical interface id.
  virtual std::string ToLimIdString() const = 0;
  // Unsigned 32-bit decimal form.
  virtual std::string ToUnsigned() const = 0;
};

// The value of one field: an AttributeValue and an is-set flag.
class DB_INTF_EXPORT Attribute : public StreamableAttr {
 public:
  // Text of an attribute whose is_set flag is false.
  static const std::string kToStringUnset;  // "(unset)"
  // Text of a value that cannot be shown in the requested form.
  static const std::string kToStringInvalid;  // "(invalid)"

  // An unset attribute of `type` holding that type's default value (0, "",
  // 0.0f, no bytes). A type outside 0..3 yields an unset kInteger holding 0.
  explicit Attribute(AttributeType type = kInteger);
  ~Attribute() override;
  Attribute(const Attribute&) = default;
  Attribute& operator=(const Attribute&) = default;
  Attribute(Attribute&&) noexcept = default;
  Attribute& operator=(Attribute&&) noexcept = default;

  // Assignment selects the alternative of the assigned value (the type follows
  // the value) and marks the attribute set.
  Attribute& operator=(int32_t v);
  Attribute& operator=(float v);
  Attribute& operator=(const std::string& v);
  Attribute& operator=(const char* v);  // a null pointer assigns ""
  Attribute& operator=(const std::vector<uint8_t>& v);
  // Replaces the whole variant and marks the attribute set.
  void set_value(const AttributeValue& v);
  void set_value(AttributeValue&& v);

  // Reads the active alternative; throws boost::bad_get for any other T.
  template <class T>
  const T& Get() const {
    return boost::get<T>(value_);
  }
  // The whole variant.
  const AttributeValue& value() const { return value_; }
  // The kind of the value held, the index of the active alternative.
  AttributeType type() const { return static_cast<AttributeType>(value_.which()); }
  // True once a value was assigned; the default value of the type until then.
  bool is_set() const { return is_set_; }

  // Stored size in bytes: 4 for kInteger and kFloat whether set or not; the
  // length for kString and kBytes when set, 0 when unset.
  uint32_t Size() const;

  // ToString(false) is ToString(), ToString(true) is ToPrintableString().
  std::string ToString(bool printable) const;
  // Plain text: "%d" integers, the string itself, stream output of a float,
  // the bytes unchanged.
  std::string ToString() const override;
  // As ToString() except bytes, which render as ToHexString().
  std::string ToPrintableString() const override;
  // "0x" + lower-case hex of an integer's 32-bit pattern; "0x" + ToHex() of a
  // string or bytes (upper case); "(invalid)" for a float.
  std::string ToHexString() const override;
  // Dotted IPv4 for 4 bytes, compressed IPv6 for 16 bytes, else "(invalid)".
  std::string ToIpString() const override;
  // IPv4 address+mask for 8 bytes, IPv6 address+prefix for 17, else "(invalid)".
  std::string ToIpPrefixLenString() const override;
  // Normalised MAC text for a 17-character text or 6 raw bytes, else "(invalid)".
  std::string ToMacString() const override;
  // Interface name of the id held in the first 4 bytes (id 0 otherwise).
  std::string ToLimIdString() const override;
  // The value as unsigned 32-bit decimal ("%u").
  std::string ToUnsigned() const override;

  // Two upper-case hex digits per byte, high nibble first, no separators.
  std::string ToHex(const std::string& data) const;

 private:
  AttributeValue value_;
  bool is_set_ = false;
};

// Equal when types and is_set flags agree and either both are unset or the
// values are equal (floats by ==, so NaN never equals anything).
DB_INTF_EXPORT bool operator==(const Attribute& a, const Attribute& b);
// !(a == b).
DB_INTF_EXPORT bool operator!=(const Attribute& a, const Attribute& b);

// A record's scalar part, a scalar schema or a scalar filter: field name to
// value, ordered byte-wise by name.
using ScalarFields = std::map<std::string, Attribute>;
// A record's repeated part, a composite schema or a composite filter: field
// name to (element type, elements). The type is authoritative even when the
// vector is empty.
using CompositeFields = std::map<std::string, std::pair<AttributeType, std::vector<Attribute>>>;

// "{ name : value, name : value }" with each value's ToPrintableString();
// an empty map gives "{ }".
DB_INTF_EXPORT std::string ScalarFieldsMapToString(const ScalarFields& fields);

}  // namespace db

#endif  // DB_INTF_INCLUDE_DB_ATTRIBUTE_H_
