// ElemParser: turns the options typed after a "Retrieve Records" debug command
// into the scalar and composite filters of DbObject::RetrieveObjects.
//
// Options:
//   -s name=value,name=value,...       scalar conditions
//   -c name=[value,value,...],...      repeated-field conditions
// Names are the display names of the object's fields; values are typed in the
// text form of the field's PrintFormat, i.e. as the debug commands show them.
//
// The parser writes its complaints to standard error, never to the library
// log, and neither throws nor returns an error: the command runs with whatever
// filters were filled.
//
// Threads: option scanning uses the process-wide getopt state.

#ifndef DB_INTF_SRC_LIB_ELEM_PARSER_H_
#define DB_INTF_SRC_LIB_ELEM_PARSER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "db/attribute.h"

namespace db {

class DbObject;

class ElemParser {
 public:
  // Fills the filters from the options of `argv` (argv[0] is a program-name
  // slot, scanning starts at argv[1]). Entries already in the maps stay. The
  // option scanner is reset on every call.
  //
  // A -c group whose name holds no letter or digit (e.g. "=[1]") never
  // returns; see the implementation.
  static void ParseCmdParam(int argc, char** argv, const DbObject& object,
                            ScalarFields& scalar_filter, CompositeFields& composite_filter);

  // Parses `text` into `value`, whose type is already the field's. Empty text,
  // "(invalid)" and "(unset)" leave `value` as it is, as does every failure
  // (reported on standard error). Formats 3, 4, 9 and above are refused.
  //
  // Accepted texts, by format (integer / string / float / bytes field):
  //   0  decimal / the text itself / decimal / hex as for 1
  //   1  "0xff" (at most 32 bits) / "0x0AFF" (even digit count, either case,
  //      "0x" optional) / refused / as string
  //   2  string and bytes: "10.0.0.1" (4 bytes) or "fe80::1" (16 bytes)
  //   5  string and bytes: "10.0.0.0/24" or "10.0.0.0/255.0.255.0" (8 bytes:
  //      address, mask), "2001:db8::/32" (17 bytes: address, length); a bare
  //      address means the full length; "2001:db8::/64@aa:bb:cc:dd:ee:ff"
  //      fills the interface part from the MAC (EUI-64, length 64 at most)
  //   6  "aa:bb:cc:dd:ee:ff": string fields keep the 17-character text, bytes
  //      fields get the 6 bytes
  //   7  string and bytes: an interface name ("eth 1/3", or "eth_1/3" as the
  //      debug commands show it), stored as the id's 4 bytes in memory order
  //   8  "4294967295" or "-1" / decimal text kept as typed / decimal /
  //      decimal text kept as typed
  static void ParseValue(Attribute& value, const std::string& text, const PrintFormat& format);

  // Bytes of a hexadecimal text: optional "0x"/"0X", then pairs of hex digits
  // of either case. Throws std::invalid_argument("ParseHexString") otherwise.
  static std::vector<uint8_t> ParseHexString(const std::string& text);

  // Network-order bytes of an address text: 4 for dotted IPv4, 16 for IPv6
  // (any text holding a colon). Throws std::invalid_argument("IpTextToBin").
  static std::string IpTextToBin(const std::string& text);

 private:
  // Conversions, each named after the rendering it undoes. They return false
  // for a value type they do not handle and throw on bad text; `value` is
  // assigned only on success.
  static bool FromDefault(Attribute& value, const std::string& text);
  static bool FromHex(Attribute& value, const std::string& text);
  static bool FromIp(Attribute& value, const std::string& text);
  static bool FromIpAddrPrefix(Attribute& value, const std::string& text);
  static bool FromMac(Attribute& value, const std::string& text);
  static bool FromLimId(Attribute& value, const std::string& text);
  static bool FromUnsigned(Attribute& value, const std::string& text);

  static void ParseScalarOption(const std::string& text, const DbObject& object,
                                ScalarFields& scalar_filter);
  static void ParseCompositeOption(const std::string& text, const DbObject& object,
                                   CompositeFields& composite_filter);
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_ELEM_PARSER_H_
