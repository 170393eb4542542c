#include "serializer.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
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

// Bytes enough for the text of any integer or float ("-2147483648",
// "-1.17549e-38").
constexpr size_t kNumberTextSize = 24;

// Where the bytes of one value text are.
struct Text {
  const char* data;
  size_t size;
};

// The bytes of attr.ToString() for a set attribute, without building a
// string: strings and bytes are referred to where they are, numbers are
// written into `scratch` (kNumberTextSize bytes).
Text SetValueText(const Attribute& attr, char* scratch) {
  switch (attr.type()) {
    case kInteger:
      return {scratch,
              static_cast<size_t>(
                  std::to_chars(scratch, scratch + kNumberTextSize, attr.Get<int32_t>()).ptr -
                  scratch)};
    case kString: {
      const std::string& text = attr.Get<std::string>();
      return {text.data(), text.size()};
    }
    case kFloat:
      // The same conversion as Attribute::ToString: "%.6g" of the value as
      // double.
      return {scratch, static_cast<size_t>(std::to_chars(scratch, scratch + kNumberTextSize,
                                                         static_cast<double>(attr.Get<float>()),
                                                         std::chars_format::general, 6)
                                               .ptr -
                                           scratch)};
    case kBytes: {
      const auto& bytes = attr.Get<std::vector<uint8_t>>();
      return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
  }
  return {Attribute::kToStringInvalid.data(), Attribute::kToStringInvalid.size()};
}

size_t DecimalSize(size_t value) {
  size_t digits = 1;
  for (; value >= 10; value /= 10) ++digits;
  return digits;
}

// Collects the value texts of one encoded value, then writes the count, the
// lengths and the texts in one pass into memory sized for them. The texts
// (and the number texts behind them) stay on the stack up to kInline values.
class ValueEncoder {
 public:
  explicit ValueEncoder(size_t capacity) {
    if (capacity > kInline) {
      heap_texts_ = std::make_unique<Text[]>(capacity);
      heap_scratch_ = std::make_unique<char[]>(capacity * kNumberTextSize);
      texts_ = heap_texts_.get();
      scratch_ = heap_scratch_.get();
    }
  }
  ValueEncoder(const ValueEncoder&) = delete;
  ValueEncoder& operator=(const ValueEncoder&) = delete;

  void AddSet(const Attribute& attr) {
    texts_[count_] = SetValueText(attr, scratch_ + count_ * kNumberTextSize);
    size_ += 2 + DecimalSize(texts_[count_].size) + texts_[count_].size;
    ++count_;
  }
  // An entry of length 0: how an unset scalar is stored.
  void AddEmpty() {
    texts_[count_++] = {"", 0};
    size_ += 3;
  }
  // Bytes of the encoded value.
  size_t size() const { return DecimalSize(count_) + size_; }
  // Writes the size() bytes of the encoded value at `out`.
  void WriteTo(char* out) const {
    char* const end = out + size();
    out = std::to_chars(out, end, count_).ptr;
    for (size_t i = 0; i < count_; ++i) {
      *out++ = ',';
      out = std::to_chars(out, end, texts_[i].size).ptr;
    }
    for (size_t i = 0; i < count_; ++i) {
      *out++ = ',';
      std::memcpy(out, texts_[i].data, texts_[i].size);
      out += texts_[i].size;
    }
  }
  void AppendTo(std::string& out) const {
    const size_t start = out.size();
    out.resize(start + size());
    WriteTo(&out[start]);
  }

 private:
  static constexpr size_t kInline = 16;
  Text inline_texts_[kInline];
  char inline_scratch_[kInline * kNumberTextSize];
  std::unique_ptr<Text[]> heap_texts_;
  std::unique_ptr<char[]> heap_scratch_;
  Text* texts_ = inline_texts_;
  char* scratch_ = inline_scratch_;
  size_t count_ = 0;
  size_t size_ = 0;  // of the lengths and texts with their commas
};

void EncodeScalar(const ScalarFields& fields, ValueEncoder& encoder) {
  for (const auto& entry : fields) {
    // An unset value is stored as the empty text; an empty string reads back
    // unset too, the format does not tell the two apart.
    if (entry.second.is_set()) {
      encoder.AddSet(entry.second);
    } else {
      encoder.AddEmpty();
    }
  }
}

void EncodeComposite(const std::vector<Attribute>& values, ValueEncoder& encoder) {
  for (const Attribute& attr : values) {
    if (attr.is_set()) encoder.AddSet(attr);
  }
}

// Puts `key` with the encoded value into `batch`; a value that fits is
// written on the stack, so a record needs no heap memory of its own.
void PutEncoded(leveldb::WriteBatch& batch, const leveldb::Slice& key,
                const ValueEncoder& encoder) {
  const size_t size = encoder.size();
  char local[512];
  std::unique_ptr<char[]> heap;
  char* value = local;
  if (size > sizeof(local)) {
    heap = std::make_unique<char[]>(size);
    value = heap.get();
  }
  encoder.WriteTo(value);
  batch.Put(key, leveldb::Slice(value, size));
}

// std::stoi of the `size` bytes at `data`, with its exceptions, without
// building a string for the common text: an optional "-" and at most nine
// digits, nothing else. Every other text goes to std::stoi itself.
int32_t DecimalToInt(const char* data, size_t size) {
  const size_t first = size > 1 && data[0] == '-' ? 1 : 0;
  if (size > first && size - first <= 9) {
    int32_t value = 0;
    size_t i = first;
    for (; i < size && data[i] >= '0' && data[i] <= '9'; ++i) value = value * 10 + (data[i] - '0');
    if (i == size) return first == 1 ? -value : value;
  }
  return std::stoi(std::string(data, size), nullptr, 10);
}

// Converts a stored value text by `type`. std::stoi/std::stof exceptions pass.
// Returns false for a type outside 0..3.
bool ParseValue(AttributeType type, const std::string& text, Attribute& attr) {
  switch (type) {
    case kInteger:
      attr = DecimalToInt(text.data(), text.size());
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
  char scratch[kNumberTextSize];
  const Text text = SetValueText(attr, scratch);
  out.append(text.data, text.size);
}

void Serializer::SerializeScalar(std::string& out, const ScalarFields& fields) const {
  ValueEncoder encoder(fields.size());
  EncodeScalar(fields, encoder);
  encoder.AppendTo(out);
}

void Serializer::SerializeComposite(std::string& out, const std::vector<Attribute>& values) const {
  ValueEncoder encoder(values.size());
  EncodeComposite(values, encoder);
  encoder.AppendTo(out);
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
  PutOnBatch(batch, ScalarKey(table, id), scalars, composites);
}

void Serializer::PutOnBatch(leveldb::WriteBatch& batch, const std::string& scalar_key,
                            const ScalarFields& scalars, const CompositeFields& composites) const {
  {
    ValueEncoder encoder(scalars.size());
    EncodeScalar(scalars, encoder);
    PutEncoded(batch, scalar_key, encoder);
  }
  // The repeated-field keys are field + ":" + table + ":" + id: the field
  // name and a separator in front of the scalar key. Built on the stack when
  // they fit.
  char local_key[128];
  std::string long_key;
  for (const auto& [field, typed_values] : composites) {
    // An empty vector writes nothing: an older stored vector of that field
    // stays as it is.
    if (typed_values.second.empty()) continue;
    const size_t key_size = field.size() + LevelDbTable::kKeySeparator.size() + scalar_key.size();
    char* key = local_key;
    if (key_size > sizeof(local_key)) {
      long_key.resize(key_size);
      key = &long_key[0];
    }
    char* end = std::copy(field.begin(), field.end(), key);
    end = std::copy(LevelDbTable::kKeySeparator.begin(), LevelDbTable::kKeySeparator.end(), end);
    std::copy(scalar_key.begin(), scalar_key.end(), end);
    ValueEncoder encoder(typed_values.second.size());
    EncodeComposite(typed_values.second, encoder);
    PutEncoded(batch, leveldb::Slice(key, key_size), encoder);
  }
}

void Serializer::ParseSizeToVector(std::vector<uint32_t>& sizes, uint32_t& pos,
                                   const std::string& text) const {
  pos = 0;
  if (text.empty()) return;
  int32_t remaining = 1;
  bool first = true;
  const size_t end = text.size();
  // The number being read runs from `token` up to the comma at `pos`.
  size_t token = 0;
  while (pos < end && remaining != 0) {
    if (text[pos] == ',') {
      const size_t size = pos - token;
      if (first) {
        remaining = DecimalToInt(text.data() + token, size);
        first = false;
        // One push per length; every length needs at least its comma, so a
        // corrupt count cannot reserve more than the text holds.
        if (remaining > 0) {
          sizes.reserve(sizes.size() + std::min<size_t>(static_cast<size_t>(remaining), end));
        }
      } else {
        sizes.push_back(size == 0 ? 0u
                                  : static_cast<uint32_t>(DecimalToInt(text.data() + token, size)));
        --remaining;
      }
      token = pos + 1;
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
