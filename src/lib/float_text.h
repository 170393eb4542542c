// Reading back the text of a float value.

#ifndef DB_INTF_SRC_LIB_FLOAT_TEXT_H_
#define DB_INTF_SRC_LIB_FLOAT_TEXT_H_

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace db {

// std::stof, except for a value too small for a normal float: the text of a
// stored subnormal value (1e-40 is one) gives that value instead of
// std::out_of_range, so that every float written reads back. Text without a
// number, and values beyond the float range, throw as with std::stof.
inline float TextToFloat(const std::string& text) {
  try {
    return std::stof(text);
  } catch (const std::out_of_range&) {
    const float value = std::strtof(text.c_str(), nullptr);
    if (std::isinf(value)) throw;
    return value;
  }
}

}  // namespace db

#endif  // DB_INTF_SRC_LIB_FLOAT_TEXT_H_
