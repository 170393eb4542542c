// Renderings of arbitrary bytes in each kind; parsing them and what each format shows.

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
  const db::Attribute values[] = {
      db::Attribute(db::kInteger) = number,
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
    const bool numeric = value.type() == db::kInteger || value.type() == db::kFloat;
    for (int f = db::kDefault; f <= db::kUnsigned + 1; ++f) {
      const auto format = static_cast<db::PrintFormat>(f);
      db::Attribute typed(value.type());
      db::ElemParser::ParseValue(typed, text, format);
      db_fuzz::Require(typed.type() == value.type(), "a parsed value keeps the field's kind");
      const std::string shown = db::DbObject::RenderValue(value, format);
      // Refused by the parser; numbers shown as interface names show id 0.
      if (!value.is_set() || shown.empty() || shown == db::Attribute::kToStringInvalid ||
          shown == db::Attribute::kToStringUnset || format == db::kIpAddressAlt1 ||
          format == db::kIpAddressAlt2 || f > db::kUnsigned || (format == db::kLimId && numeric))
        continue;
      db::Attribute back(value.type());
      db::ElemParser::ParseValue(back, shown, format);
      db_fuzz::Require(back.is_set() && back.type() == value.type(),
                       "the parser reads what the rendering shows");
    }
  }
  return 0;
}
