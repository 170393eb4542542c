#include "elem_parser.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "db/db_object.h"
#include "float_text.h"
#include "limid.h"
#include "nettypes.h"

namespace db {

namespace {

// Operators read the parser's complaints next to the shell's output, so the
// lines name the source file as the build names it, extension included, the
// way our log lines do; and the three lines that tools on the element grep
// for keep the line numbers they have always had.
constexpr char kSourceName[] = __FILE__;
constexpr int kLineInvalidPrintFormat = 327;
constexpr int kLineInvalidArgv = 398;
constexpr int kLineInvalidOpt = 414;

// How a conversion's exception is reported.
enum class Complaint { kValue, kNotAnIp, kForValue };

// The field whose display name is `display_name`, or null.
const std::string* FieldOfDisplayName(const DbObject& object, const std::string& display_name) {
  for (const auto& entry : object.streamable_info()) {
    if (entry.second.first == display_name) return &entry.first;
  }
  return nullptr;
}

PrintFormat FormatOf(const DbObject& object, const std::string& field) {
  return object.streamable_info().at(field).second;
}

// A decimal or hexadecimal text read as a 32-bit pattern: [min, 4294967295].
int32_t ToInt32Bits(const std::string& text, int base, long long min, const char* what) {
  size_t used = 0;
  long long number = std::stoll(text, &used, base);
  if (number < min || number > static_cast<long long>(UINT32_MAX)) throw std::out_of_range(what);
  return static_cast<int32_t>(static_cast<uint32_t>(number));
}

// Checks that `text` reads as an unsigned 32-bit decimal number.
void CheckUnsigned32(const std::string& text) {
  if (std::stoull(text, nullptr, 10) > UINT32_MAX) throw std::out_of_range("stoul");
}

void Store(Attribute& value, const std::string& bytes) {
  if (value.type() == kBytes) {
    value = std::vector<uint8_t>(bytes.begin(), bytes.end());
  } else {
    value = bytes;
  }
}

// Prefix length of the text after "/": plain decimal in [0, max].
uint32_t PrefixLength(const std::string& text, uint32_t max) {
  if (text.empty() || text.size() > 3) throw std::invalid_argument("prefix length");
  uint32_t length = 0;
  for (char c : text) {
    if (c < '0' || c > '9') throw std::invalid_argument("prefix length");
    length = length * 10 + static_cast<uint32_t>(c - '0');
  }
  if (length > max) throw std::out_of_range("prefix length");
  return length;
}

}  // namespace

void ElemParser::ParseCmdParam(int argc, char** argv, const DbObject& object,
                               ScalarFields& scalar_filter, CompositeFields& composite_filter) {
  if (argv == nullptr) {
    fprintf(stderr, "%s:%d:%s(): ERROR! Invalid argv\n", kSourceName, kLineInvalidArgv,
            "ParseCmdParam");
    return;
  }
  // Our own line is the complaint; getopt's would only repeat it.
  const int saved_opterr = opterr;
  opterr = 0;
  // Every command scans from the start again: 0 makes getopt forget the
  // previous command's position completely.
  optind = 0;
  int opt;
  while ((opt = getopt(argc, argv, "s:c:")) != -1) {
    switch (opt) {
      case 's':
        ParseScalarOption(optarg, object, scalar_filter);
        break;
      case 'c':
        ParseCompositeOption(optarg, object, composite_filter);
        break;
      default:
        // The scanner's answer is shown as it came ('?' for an unknown option
        // or a missing argument); scanning goes on with the next option.
        fprintf(stderr, "%s:%d:%s(): ERROR! Invalid opt %d, optarg %s\n", kSourceName,
                kLineInvalidOpt, "ParseCmdParam", opt, optarg != nullptr ? optarg : "(null)");
        break;
    }
  }
  opterr = saved_opterr;
}

void ElemParser::ParseScalarOption(const std::string& text, const DbObject& object,
                                   ScalarFields& scalar_filter) {
  std::istringstream in(text);
  std::string name;
  std::string value_text;
  while (std::getline(in, name, '=') && std::getline(in, value_text, ',')) {
    const std::string* field = FieldOfDisplayName(object, name);
    if (field == nullptr) continue;
    auto schema = object.scalar_fields().find(*field);
    if (schema == object.scalar_fields().end()) continue;
    Attribute value(schema->second.type());
    ParseValue(value, value_text, FormatOf(object, *field));
    scalar_filter.emplace(*field, value);
  }
}

void ElemParser::ParseCompositeOption(const std::string& text, const DbObject& object,
                                      CompositeFields& composite_filter) {
  std::istringstream in(text);
  std::string name;
  std::string skipped;
  std::string list;
  while (std::getline(in, name, '=') && std::getline(in, skipped, '[') &&
         std::getline(in, list, ']')) {
    // Groups may be separated by commas or blanks, so leading characters that
    // cannot start a name are dropped. A name without any letter or digit ends
    // up empty and this loop then keeps testing the empty name: the command
    // does not return. Operators know this form; it is left unguarded on
    // purpose so that the shell behaves as it always has.
    while (!std::isalnum(static_cast<unsigned char>(name[0]))) name.erase(0, 1);

    const std::string* field = FieldOfDisplayName(object, name);
    if (field == nullptr) continue;
    auto schema = object.composite_schema().find(*field);
    if (schema == object.composite_schema().end()) continue;
    const AttributeType type = schema->second.first;
    const PrintFormat format = FormatOf(object, *field);

    std::istringstream values(list);
    std::string item;
    while (std::getline(values, item, ',')) {
      Attribute value(type);
      ParseValue(value, item, format);
      auto entry =
          composite_filter.emplace(*field, std::make_pair(type, std::vector<Attribute>())).first;
      entry->second.second.push_back(value);
    }
  }
}

void ElemParser::ParseValue(Attribute& value, const std::string& text, const PrintFormat& format) {
  // What the renderings show for broken and unset values adds no condition.
  if (text.empty() || text == Attribute::kToStringInvalid || text == Attribute::kToStringUnset) {
    return;
  }

  bool (*conversion)(Attribute&, const std::string&) = nullptr;
  const char* name = nullptr;
  Complaint complaint = Complaint::kValue;
  switch (format) {
    case kDefault:
      conversion = FromDefault;
      name = "FromDefault";
      break;
    case kHex:
      conversion = FromHex;
      name = "FromHex";
      break;
    case kIpAddress:
      conversion = FromIp;
      name = "FromIp";
      complaint = Complaint::kNotAnIp;
      break;
    case kIpPrefixLen:
      conversion = FromIpAddrPrefix;
      name = "FromIpAddrPrefix";
      complaint = Complaint::kNotAnIp;
      break;
    case kMac:
      conversion = FromMac;
      name = "FromMac";
      complaint = Complaint::kForValue;
      break;
    case kLimId:
      conversion = FromLimId;
      name = "FromLimId";
      complaint = Complaint::kForValue;
      break;
    case kUnsigned:
      conversion = FromUnsigned;
      name = "FromUnsigned";
      break;
    default:
      // kIpAddressAlt1 and kIpAddressAlt2 are refused like unknown formats,
      // although they are shown as kIpAddress is: typed values for them have
      // never been accepted and scripts rely on that.
      fprintf(stderr, "%s:%d:%s(): ERROR! Invalid print format %d\n", kSourceName,
              kLineInvalidPrintFormat, "ParseValue", static_cast<int>(format));
      return;
  }

  try {
    if (!conversion(value, text)) {
      fprintf(stderr, "%s:%d:%s(): ERROR! Invalid attr %d\n", kSourceName, __LINE__, name,
              static_cast<int>(value.type()));
    }
  } catch (const std::exception& e) {
    switch (complaint) {
      case Complaint::kValue:
        fprintf(stderr, "%s:%d:%s(): ERROR! Exception '%s' caught. value '%s' \n", kSourceName,
                __LINE__, name, e.what(), text.c_str());
        break;
      case Complaint::kNotAnIp:
        fprintf(stderr, "%s:%d:%s(): ERROR! Exception '%s' caught. value '%s' is not an IP\n",
                kSourceName, __LINE__, name, e.what(), text.c_str());
        break;
      case Complaint::kForValue:
        fprintf(stderr, "%s:%d:%s(): ERROR! Exception '%s' caught for value '%s'\n", kSourceName,
                __LINE__, name, e.what(), text.c_str());
        break;
    }
  }
}

std::vector<uint8_t> ElemParser::ParseHexString(const std::string& text) {
  size_t start = 0;
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) start = 2;
  if ((text.size() - start) % 2 != 0) throw std::invalid_argument("ParseHexString");
  auto digit = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw std::invalid_argument("ParseHexString");
  };
  std::vector<uint8_t> bytes;
  bytes.reserve((text.size() - start) / 2);
  for (size_t i = start; i < text.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(digit(text[i]) * 16 + digit(text[i + 1])));
  }
  return bytes;
}

std::string ElemParser::IpTextToBin(const std::string& text) {
  const bool v6 = text.find(':') != std::string::npos;
  unsigned char buffer[16] = {};
  if (text.find('\0') != std::string::npos ||
      inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), buffer) != 1) {
    throw std::invalid_argument("IpTextToBin");
  }
  return std::string(reinterpret_cast<const char*>(buffer), v6 ? 16 : 4);
}

bool ElemParser::FromDefault(Attribute& value, const std::string& text) {
  switch (value.type()) {
    case kInteger:
      // std::stoi refuses what does not fit an int, which is 32 bits here.
      static_assert(sizeof(int) == sizeof(int32_t), "int is not 32 bits");
      value = static_cast<int32_t>(std::stoi(text));
      return true;
    case kString:
      value = text;
      return true;
    case kFloat:
      value = TextToFloat(text);
      return true;
    case kBytes:
      // Bytes are shown in hexadecimal by default.
      value = ParseHexString(text);
      return true;
  }
  return false;
}

bool ElemParser::FromHex(Attribute& value, const std::string& text) {
  switch (value.type()) {
    case kInteger:
      value = ToInt32Bits(text, 16, 0, "stoul");
      return true;
    case kString:
    case kBytes: {
      std::vector<uint8_t> bytes = ParseHexString(text);
      Store(value, std::string(bytes.begin(), bytes.end()));
      return true;
    }
    case kFloat:
      break;
  }
  return false;
}

bool ElemParser::FromIp(Attribute& value, const std::string& text) {
  if (value.type() != kString && value.type() != kBytes) return false;
  Store(value, IpTextToBin(text));
  return true;
}

bool ElemParser::FromIpAddrPrefix(Attribute& value, const std::string& text) {
  if (value.type() != kString && value.type() != kBytes) return false;
  const size_t slash = text.find('/');
  const std::string address = IpTextToBin(text.substr(0, slash));
  std::string rest = slash == std::string::npos ? std::string() : text.substr(slash + 1);
  std::string mac;
  const size_t at = rest.find('@');
  if (at != std::string::npos) {
    mac = rest.substr(at + 1);
    rest.erase(at);
  }

  std::string bytes = address;
  if (address.size() == 4) {
    if (at != std::string::npos) throw std::invalid_argument("Invalid IPv6 prefix for EUI-64");
    if (rest.find('.') != std::string::npos) {
      const std::string mask = IpTextToBin(rest);
      if (mask.size() != 4) throw std::invalid_argument("IpTextToBin");
      bytes += mask;
    } else {
      const uint32_t length = rest.empty() ? 32 : PrefixLength(rest, 32);
      for (uint32_t i = 0; i < 4; ++i) {
        const uint32_t bits = length > i * 8 ? std::min<uint32_t>(length - i * 8, 8) : 0;
        bytes.push_back(static_cast<char>(static_cast<uint8_t>(0xff00u >> bits)));
      }
    }
  } else {
    const uint32_t length = rest.empty() ? 128 : PrefixLength(rest, 128);
    if (at != std::string::npos) {
      // The interface part takes the low 64 bits, so the prefix must end
      // before them.
      if (length > 64) throw std::invalid_argument("Invalid IPv6 prefix for EUI-64");
      nettypes::MACAddr mac_addr;
      mac_addr.set_addr(mac);
      const auto& m = mac_addr.bytes();
      const uint8_t interface_id[8] = {
          static_cast<uint8_t>(m[0] ^ 0x02), m[1], m[2], 0xff, 0xfe, m[3], m[4], m[5]};
      bytes.replace(8, 8, reinterpret_cast<const char*>(interface_id), 8);
    }
    bytes.push_back(static_cast<char>(static_cast<uint8_t>(length)));
  }
  Store(value, bytes);
  return true;
}

bool ElemParser::FromMac(Attribute& value, const std::string& text) {
  if (value.type() != kString && value.type() != kBytes) return false;
  nettypes::MACAddr mac;
  mac.set_addr(text);
  if (value.type() == kString) {
    // A text field holds the address as text; the rendering reads it back.
    value = text;
  } else {
    value = std::vector<uint8_t>(mac.bytes().begin(), mac.bytes().end());
  }
  return true;
}

bool ElemParser::FromLimId(Attribute& value, const std::string& text) {
  if (value.type() != kString && value.type() != kBytes) return false;
  uint32_t limid = 0;
  if (limid_from_intfname(text.c_str(), &limid) != 0) {
    // The debug commands show interface names with their blank replaced.
    std::string spaced = text;
    for (char& c : spaced) {
      if (c == '_') c = ' ';
    }
    if (limid_from_intfname(spaced.c_str(), &limid) != 0) {
      throw std::invalid_argument("limid_from_intfname");
    }
  }
  // The id's bytes are stored in memory order, exactly as the rendering reads
  // them back.
  char bytes[sizeof(limid)];
  std::memcpy(bytes, &limid, sizeof(limid));
  Store(value, std::string(bytes, sizeof(bytes)));
  return true;
}

bool ElemParser::FromUnsigned(Attribute& value, const std::string& text) {
  switch (value.type()) {
    case kInteger:
      value = ToInt32Bits(text, 10, INT32_MIN, "stoul");
      return true;
    case kString:
    case kBytes:
      CheckUnsigned32(text);
      Store(value, text);
      return true;
    case kFloat:
      value = TextToFloat(text);
      return true;
  }
  return false;
}

}  // namespace db
