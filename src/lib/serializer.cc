#include "serializer.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <leveldb/write_batch.h>

#include "float_text.h"
#include "leveldb_table.h"
#include "logger.h"

namespace db {

namespace {

// Appends the decimal text of `value` (std::to_string's bytes).
template <class T>
void AppendDecimal(std::string& out, T value) {
  char text[24];
  const std::to_chars_result end = std::to_chars(text, text + sizeof(text), value);
  // Pointer and length: an iterator-range append takes the slower replace path.
  out.append(text, static_cast<size_t>(end.ptr - text));
}

// Builds one encoded value in place at the end of `out`: the value texts are
// appended to `out` as they come, the count and the lengths (short, usually
// within the small-string buffer) are collected aside and inserted in front of
// the texts once at the end.
class Encoder {
 public:
  Encoder(std::string& out, uint32_t count, size_t text_bytes) : out_(out), start_(out.size()) {
    // Left to grow: a short head stays in the small-string buffer.
    AppendDecimal(head_, count);
    out_.reserve(start_ + head_.size() + static_cast<size_t>(count) * 3 + text_bytes);
  }
  void AddEmpty() {
    head_ += ",0";
    out_ += ',';
  }
  void Add(const Attribute& attr) {
    out_ += ',';
    const size_t before = out_.size();
    Serializer::AppendValueText(out_, attr);
    head_ += ',';
    AppendDecimal(head_, out_.size() - before);
  }
  void Finish() { out_.insert(start_, head_); }

 private:
  std::string& out_;
  const size_t start_;
  std::string head_;
};

// Bytes of the value texts for a first reservation: exact for strings and
// bytes, a bound for the short texts of numbers.
size_t TextBytesHint(const Attribute& attr) {
  switch (attr.type()) {
    case kString:
      return attr.Get<std::string>().size() + 1;
    case kBytes:
      return attr.Get<std::vector<uint8_t>>().size() + 1;
    default:
      return 13;
  }
}

// Converts a stored value text by `type`. std::stoi/std::stof exceptions pass.
// Returns false for a type outside 0..3.
bool ParseValue(AttributeType type, const std::string& text, Attribute& attr) {
  switch (type) {
    case kInteger:
      attr = static_cast<int32_t>(std::stoi(text, nullptr, 10));
      return true;
    case kString:
      attr = text;
      return true;
    case kFloat:
      attr = TextToFloat(text);
      return true;
    case kBytes:
      // Bytes are stored as they are; copy them one for one.
      attr = std::vector<uint8_t>(text.begin(), text.end());
      return true;
  }
  return false;
}

}  // namespace

void Serializer::AppendValueText(std::string& out, const Attribute& attr) {
  if (!attr.is_set()) {
    out += Attribute::kToStringUnset;
    return;
  }
  switch (attr.type()) {
    case kInteger:
      AppendDecimal(out, attr.Get<int32_t>());
      return;
    case kString:
      out += attr.Get<std::string>();
      return;
    case kFloat: {
      // The same conversion as Attribute::ToString: "%.6g" of the value as
      // double.
      char text[32];
      const std::to_chars_result end =
          std::to_chars(text, text + sizeof(text), static_cast<double>(attr.Get<float>()),
                        std::chars_format::general, 6);
      out.append(text, static_cast<size_t>(end.ptr - text));
      return;
    }
    case kBytes: {
      const auto& bytes = attr.Get<std::vector<uint8_t>>();
      out.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      return;
    }
  }
  out += Attribute::kToStringInvalid;
}

void Serializer::SerializeScalar(std::string& out, const ScalarFields& fields) const {
  size_t text_bytes = 0;
  for (const auto& entry : fields) text_bytes += TextBytesHint(entry.second);
  Encoder enc(out, static_cast<uint32_t>(fields.size()), text_bytes);
  for (const auto& entry : fields) {
    // An unset value is stored as the empty text; an empty string reads back
    // unset too, the format does not tell the two apart.
    if (entry.second.is_set()) {
      enc.Add(entry.second);
    } else {
      enc.AddEmpty();
    }
  }
  enc.Finish();
}

void Serializer::SerializeComposite(std::string& out, const std::vector<Attribute>& values) const {
  uint32_t count = 0;
  size_t text_bytes = 0;
  for (const Attribute& attr : values) {
    if (!attr.is_set()) continue;
    ++count;
    text_bytes += TextBytesHint(attr);
  }
  Encoder enc(out, count, text_bytes);
  for (const Attribute& attr : values) {
    if (attr.is_set()) enc.Add(attr);
  }
  enc.Finish();
}

std::string Serializer::ScalarKey(const std::string& table, uint32_t id) {
  // No reservation: a short key stays in the small-string buffer.
  std::string key = table;
  key += LevelDbTable::kKeySeparator;
  AppendDecimal(key, id);
  return key;
}

void Serializer::PutOnBatch(leveldb::WriteBatch& batch, const std::string& table, uint32_t id,
                            const ScalarFields& scalars, const CompositeFields& composites) const {
  std::string value;
  SerializeScalar(value, scalars);
  // One key buffer for every key of the record. The repeated-field keys are
  // field + ":" + table + ":" + id, so the part after the field name is the
  // scalar key with a separator in front.
  std::string key = ScalarKey(table, id);
  batch.Put(key, value);
  const size_t suffix_size = LevelDbTable::kKeySeparator.size() + key.size();
  bool suffix_made = false;
  for (const auto& [field, typed_values] : composites) {
    // An empty vector writes nothing: an older stored vector of that field
    // stays as it is.
    if (typed_values.second.empty()) continue;
    if (!suffix_made) {
      key.insert(0, LevelDbTable::kKeySeparator);
      suffix_made = true;
    }
    key.replace(0, key.size() - suffix_size, field);
    value.clear();
    SerializeComposite(value, typed_values.second);
    batch.Put(key, value);
  }
}

void Serializer::ParseSizeToVector(std::vector<uint32_t>& sizes, uint32_t& pos,
                                   const std::string& text) const {
  pos = 0;
  if (text.empty()) return;
  std::string token;
  int32_t remaining = 1;
  bool first = true;
  const size_t end = text.size();
  while (pos < end && remaining != 0) {
    const char c = text[pos];
    if (c != ',') {
      token += c;
    } else if (first) {
      remaining = std::stoi(token, nullptr, 10);
      first = false;
      token.clear();
      // One push per length; every length needs at least its comma, so a
      // corrupt count cannot reserve more than the text holds.
      if (remaining > 0) {
        sizes.reserve(sizes.size() + std::min<size_t>(static_cast<size_t>(remaining), end));
      }
    } else {
      sizes.push_back(token.empty() ? 0u : static_cast<uint32_t>(std::stoi(token, nullptr, 10)));
      --remaining;
      token.clear();
    }
    ++pos;
  }
}

void Serializer::DeserializeToVector(std::vector<std::string>& values,
                                     const std::string& text) const {
  std::vector<uint32_t> sizes;
  uint32_t start = 0;
  ParseSizeToVector(sizes, start, text);
  if (sizes.empty()) return;
  values.reserve(values.size() + sizes.size());
  // 64-bit position: a corrupt length cannot wrap around; it runs past the
  // end and substr throws std::out_of_range to the caller.
  uint64_t pos = start;
  for (uint32_t size : sizes) {
    values.push_back(text.substr(pos, size));
    pos += static_cast<uint64_t>(size) + 1;
  }
}

void Serializer::DeserializeScalar(const std::string& text, ScalarFields& fields) const {
  if (text.empty()) return;
  // The field being decoded, for the error message; pointed to, not copied.
  const std::string* name = nullptr;
  std::string value;
  try {
    std::vector<uint32_t> sizes;
    uint32_t start = 0;
    ParseSizeToVector(sizes, start, text);
    uint64_t pos = start;
    auto it = fields.begin();
    for (size_t i = 0; i < sizes.size() && it != fields.end(); ++i, ++it) {
      name = &it->first;
      value.clear();
      Attribute& attr = it->second;
      const uint32_t size = sizes[i];
      if (size == 0) {
        attr = Attribute(attr.type());
      } else {
        value = text.substr(pos, size);
        ParseValue(attr.type(), value, attr);
      }
      pos += static_cast<uint64_t>(size) + 1;
    }
  } catch (const std::exception& e) {
    DB_LOG_ERROR(
        "ERROR: Failed to deserialize the scalar attribute='%s', value='%s', exception='%s'",
        name != nullptr ? name->c_str() : "", value.c_str(), e.what());
    // A half-decoded record is worse than none: the caller sees it empty.
    fields.clear();
  }
}

void Serializer::DeserializeComposite(
    std::string& text, std::pair<AttributeType, std::vector<Attribute>>& field) const {
  if (text.empty()) return;
  try {
    std::vector<uint32_t> sizes;
    uint32_t start = 0;
    ParseSizeToVector(sizes, start, text);
    field.second.clear();
    field.second.reserve(sizes.size());
    uint64_t pos = start;
    for (uint32_t size : sizes) {
      const std::string value = text.substr(pos, size);
      pos += static_cast<uint64_t>(size) + 1;
      Attribute attr(field.first);
      if (ParseValue(field.first, value, attr)) field.second.push_back(std::move(attr));
    }
  } catch (const std::exception& e) {
    // The elements decoded so far stay in the field.
    DB_LOG_ERROR("ERROR: Failed to deserialize the composite attributes, exception='%s'", e.what());
  }
}

bool Serializer::ScalarIsPresent(const ScalarFields& filter, const std::string& text) const {
  std::vector<std::string> values;
  DeserializeToVector(values, text);
  if (values.empty()) return true;
  auto it = filter.begin();
  for (size_t i = 0; i < values.size() && it != filter.end(); ++i, ++it) {
    const Attribute& attr = it->second;
    if (!attr.is_set()) continue;
    // Compared as text: an integer filter 7 matches the stored "7" only.
    if (attr.ToString() != values[i]) return false;
  }
  return true;
}

bool Serializer::AtLeastOneIsEqual(const std::pair<AttributeType, std::vector<Attribute>>& filter,
                                   const std::string& text) const {
  std::vector<std::string> stored;
  DeserializeToVector(stored, text);
  std::vector<std::string> wanted;
  wanted.reserve(filter.second.size());
  for (const Attribute& attr : filter.second) wanted.push_back(attr.ToString());
  std::sort(stored.begin(), stored.end());
  std::sort(wanted.begin(), wanted.end());
  // Both lists sorted: each search starts where the previous one ended.
  auto from = wanted.begin();
  for (const std::string& s : stored) {
    from = std::lower_bound(from, wanted.end(), s);
    if (from == wanted.end()) return false;
    if (*from == s) return true;
  }
  return false;
}

void Serializer::AddScalarField(std::string& value, const std::string& field,
                                const ScalarFields& schema) const {
  std::vector<std::string> values;
  DeserializeToVector(values, value);
  std::string lengths;
  std::string texts;
  lengths.reserve(values.size() * 4 + 2);
  texts.reserve(value.size() + 1);
  bool inserted = false;
  auto it = schema.begin();
  for (const std::string& v : values) {
    // The schema already holds `field`, so the stored value that sits at its
    // name's place is the first one to follow the new empty entry.
    if (!inserted && it != schema.end() && !(it->first < field)) {
      lengths += ",0";
      texts += ',';
      inserted = true;
    }
    lengths += ',';
    lengths += std::to_string(v.size());
    texts += ',';
    texts += v;
    if (it != schema.end()) ++it;
  }
  if (!inserted) {
    lengths += ",0";
    texts += ',';
  }
  std::string out = std::to_string(values.size() + 1);
  out.reserve(out.size() + lengths.size() + texts.size());
  out += lengths;
  out += texts;
  value = std::move(out);
}

}  // namespace db
