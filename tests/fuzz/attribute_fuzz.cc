// Every rendering of arbitrary bytes in each kind of Attribute, and the parser
// reading back what each print format shows.

#include <cstring>

#include "elem_parser.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  db_fuzz::Scratch();
  int32_t number = 0;
  float real = 0;
  std::memcpy(&number, data, std::min<size_t>(size, 4));
  std::memcpy(&real, data, std::min<size_t>(size, 4));
  const std::string text(reinterpret_cast<const char*>(data), size);
  db::Attribute values[] = {db::Attribute(db::kInteger) = number,
                            db::Attribute(db::kFloat) = real,
                            db::Attribute(db::kString) = text,
                            db::Attribute(db::kBytes) = std::vector<uint8_t>(data, data + size),
                            db::Attribute(db::kString),
                            db::Attribute(db::kBytes)};
  for (const db::Attribute& value : values) {
    value.ToString();
    db_fuzz::Require(value.Size() <= size + 4 && value.ToHex(text).size() == 2 * size &&
                         !db::ScalarFieldsMapToString({{"f", value}}).empty(),
                     "rendering");
    for (int format = db::kDefault; format <= db::kUnsigned + 1; ++format) {
      const std::string shown =
          db::DbObject::RenderValue(value, static_cast<db::PrintFormat>(format));
      // The parser refuses formats 3, 4, 9, "(invalid)" and "(unset)"; numbers
      // shown as interface names show id 0 and do not parse back.
      const bool numeric = value.type() == db::kInteger || value.type() == db::kFloat;
      if (!value.is_set() || shown.empty() || shown == db::Attribute::kToStringInvalid ||
          shown == db::Attribute::kToStringUnset || format == db::kIpAddressAlt1 ||
          format == db::kIpAddressAlt2 || format > db::kUnsigned ||
          (format == db::kLimId && numeric)) {
        continue;
      }
      db::Attribute back(value.type());
      db::ElemParser::ParseValue(back, shown, static_cast<db::PrintFormat>(format));
      db_fuzz::Require(back.is_set(), "the parser reads what the rendering shows");
    }
  }
  return 0;
}
