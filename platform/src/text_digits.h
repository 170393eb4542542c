// Digit readers shared by the platform's text parsers.

#ifndef ELEM_PLATFORM_SRC_TEXT_DIGITS_H_
#define ELEM_PLATFORM_SRC_TEXT_DIGITS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace text_digits {

// Value of one hexadecimal digit, or -1.
inline int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses the canonical decimal form of a number of at most `max_digits`
// digits that is at most `max`: digits only, no sign, no blanks, no leading
// zero except in "0". One spelling per value keeps names and values
// one-to-one.
inline bool ParseSmallDecimal(const std::string& text, size_t max_digits, uint32_t max,
                              uint32_t* value) {
  if (text.empty() || text.size() > max_digits) return false;
  if (text.size() > 1 && text[0] == '0') return false;
  uint32_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    result = result * 10 + static_cast<uint32_t>(c - '0');
  }
  if (result > max) return false;
  *value = result;
  return true;
}

}  // namespace text_digits

#endif  // ELEM_PLATFORM_SRC_TEXT_DIGITS_H_
