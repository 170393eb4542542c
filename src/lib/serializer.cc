#include "serializer.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <leveldb/write_batch.h>

#include "leveldb_table.h"
#include "logger.h"

namespace db {

namespace {

// Lengths and values go into two strings that are joined once at the end.
struct Encoder {
  uint32_t count = 0;
  std::string lengths;
  std::string values;

  void Reserve(size_t entries) {
    lengths.reserve(entries * 4);
    values.reserve(entries * 8);
  }
  void Add(const std::string& text) {
    ++count;
    lengths += ',';
    lengths += std::to_string(text.size());
    values += ',';
    values += text;
  }
  void AppendTo(std::string& out) const {
    std::string head = std::to_string(count);
    out.reserve(out.size() + head.size() + lengths.size() + values.size());
    out += head;
    out += lengths;
    out += values;
  }
};

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
      attr = std::stof(text);
      return true;
    case kBytes:
      // Bytes are stored as they are; copy them one for one.
      attr = std::vector<uint8_t>(text.begin(), text.end());
      return true;
  }
  return false;
}

}  // namespace

void Serializer::SerializeScalar(std::string& out, const ScalarFields& fields) const {
  Encoder enc;
  enc.Reserve(fields.size());
  for (const auto& [name, attr] : fields) {
    // An unset value is stored as the empty text; an empty string reads back
    // unset too, the format does not tell the two apart.
    enc.Add(attr.is_set() ? attr.ToString() : std::string());
  }
  enc.AppendTo(out);
}

void Serializer::SerializeComposite(std::string& out, const std::vector<Attribute>& values) const {
  Encoder enc;
  enc.Reserve(values.size());
  for (const Attribute& attr : values) {
    if (attr.is_set()) enc.Add(attr.ToString());
  }
  enc.AppendTo(out);
}

std::string Serializer::ScalarKey(const std::string& table, uint32_t id) {
  return table + LevelDbTable::kKeySeparator + std::to_string(id);
}

void Serializer::PutOnBatch(leveldb::WriteBatch& batch, const std::string& table, uint32_t id,
                            const ScalarFields& scalars, const CompositeFields& composites) const {
  std::string value;
  SerializeScalar(value, scalars);
  batch.Put(ScalarKey(table, id), value);
  for (const auto& [field, typed_values] : composites) {
    // An empty vector writes nothing: an older stored vector of that field
    // stays as it is.
    if (typed_values.second.empty()) continue;
    value.clear();
    SerializeComposite(value, typed_values.second);
    batch.Put(LevelDbTable::BuildCompositeKey(table, id, field), value);
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
