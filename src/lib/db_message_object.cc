#include "db/db_message_object.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "logger.h"

namespace db {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

constexpr char kNoText[] = "NULL";
constexpr unsigned long long kMaxUnsigned32 = 0xFFFFFFFFull;

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text;
  if (needed > 0) {
    text.resize(static_cast<size_t>(needed) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
    text.resize(static_cast<size_t>(needed));
  }
  va_end(again);
  return text;
}

// std::stoul in base 10 as the board computes it, where unsigned long has 32
// bits: leading blanks and a sign are accepted, a negative value wraps modulo
// 2^32 ("-5" gives the pattern of -5) and a magnitude above 4294967295 throws
// std::out_of_range. A host's 64-bit unsigned long would silently keep or
// truncate such values, so the range is checked here; the result is the
// 32-bit pattern held by an integer Attribute.
int32_t Stoul32(const std::string& text) {
  const unsigned long long parsed = std::stoull(text, nullptr, 10);
  size_t first = 0;
  while (first < text.size() && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
  const bool negative = first < text.size() && text[first] == '-';
  const unsigned long long magnitude = negative ? 0ull - parsed : parsed;
  if (magnitude > kMaxUnsigned32) throw std::out_of_range("stoul");
  uint32_t pattern = static_cast<uint32_t>(magnitude);
  if (negative) pattern = 0u - pattern;
  return static_cast<int32_t>(pattern);
}

// The value of `text` in an Attribute of `type`.
Attribute TextToAttribute(AttributeType type, const std::string& text) {
  Attribute attribute(type);
  switch (type) {
    case kInteger:
      attribute = Stoul32(text);
      break;
    case kFloat:
      attribute = std::stof(text);
      break;
    case kString:
      attribute = text;
      break;
    case kBytes:
    default:
      attribute = std::vector<uint8_t>(text.begin(), text.end());
      break;
  }
  return attribute;
}

// True when `field` can be read or written on `message` as a singular field
// (`repeated` false) or a repeated one; logs otherwise. Reflection aborts the
// process on such a mismatch, so it is caught before any reflection call.
bool FieldFits(const Message* message, const FieldDescriptor* field, bool repeated) {
  if (message == nullptr || field == nullptr) {
    DB_LOG_ERROR("ERROR! Null message or field");
    return false;
  }
  if (field->containing_type() != message->GetDescriptor()) {
    DB_LOG_ERROR("ERROR! Field='%s' is not a field of message type='%s'",
                 field->full_name().c_str(), message->GetDescriptor()->full_name().c_str());
    return false;
  }
  if (field->is_repeated() != repeated) {
    DB_LOG_ERROR("ERROR! Field='%s' is %s", field->full_name().c_str(),
                 field->is_repeated() ? "repeated" : "not repeated");
    return false;
  }
  return true;
}

// The enum value of the number in `text`, or null (logged) when the enum type
// has none of that number.
const EnumValueDescriptor* FindEnumValue(const FieldDescriptor* field, const std::string& text) {
  const EnumValueDescriptor* value =
      field->enum_type()->FindValueByNumber(std::stoi(text, nullptr));
  if (value == nullptr) {
    // The quote stays unclosed: log readers match this line as it has always
    // been written.
    DB_LOG_ERROR("ERROR! Could not find value='%s", text.c_str());
  }
  return value;
}

}  // namespace

DbMessageObject::DbMessageObject(const std::string& db_name, const std::string& table_name,
                                 bool in_memory, DbType type, const Descriptor* descriptor)
    : DbObject(db_name, table_name, in_memory, type) {
  if (descriptor == nullptr) {
    DB_LOG_ERROR("ERROR! No message type for table='%s'", table_name.c_str());
    return;
  }
  for (int i = 0; i < descriptor->field_count(); ++i) {
    AppendMessageAttribute(descriptor->field(i)->name(), descriptor);
  }
}

DbMessageObject::~DbMessageObject() = default;

int DbMessageObject::AppendMessageAttribute(const std::string& name, const Descriptor* descriptor) {
  if (descriptor == nullptr) {
    DB_LOG_ERROR("ERROR! No message type for field='%s'", name.c_str());
    return kFailure;
  }
  const FieldDescriptor* field = descriptor->FindFieldByName(name);
  if (field == nullptr) {
    DB_LOG_ERROR("ERROR! Could not find field='%s' in message type='%s'", name.c_str(),
                 descriptor->full_name().c_str());
    return kFailure;
  }
  const Attribute prototype = CreateAttribute(FieldDescriptor::TypeToCppType(field->type()));
  if (field->is_repeated()) {
    composite_field_map_[name] = field;
    return AppendCompositeAttribute(name, prototype, kDefault);
  }
  scalar_field_map_[name] = field;
  return AppendScalarAttribute(name, prototype, kDefault);
}

Attribute DbMessageObject::CreateAttribute(FieldDescriptor::CppType type) {
  switch (type) {
    case FieldDescriptor::CPPTYPE_INT32:
    case FieldDescriptor::CPPTYPE_INT64:
    case FieldDescriptor::CPPTYPE_UINT32:
    case FieldDescriptor::CPPTYPE_UINT64:
    case FieldDescriptor::CPPTYPE_BOOL:
    case FieldDescriptor::CPPTYPE_ENUM:
      return Attribute(kInteger);
    case FieldDescriptor::CPPTYPE_DOUBLE:
    case FieldDescriptor::CPPTYPE_FLOAT:
      return Attribute(kFloat);
    case FieldDescriptor::CPPTYPE_STRING:
      return Attribute(kString);
    default:
      return Attribute(kBytes);
  }
}

std::string DbMessageObject::GetScalarValueAsString(const Message* message,
                                                    const FieldDescriptor* field) {
  if (!FieldFits(message, field, false)) return kNoText;
  const Reflection* reflection = message->GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return Format("%d", static_cast<int>(reflection->GetInt32(*message, field)));
    case FieldDescriptor::CPPTYPE_INT64:
      return Format("%lld", static_cast<long long>(reflection->GetInt64(*message, field)));
    case FieldDescriptor::CPPTYPE_UINT32:
      return Format("%u", static_cast<unsigned>(reflection->GetUInt32(*message, field)));
    case FieldDescriptor::CPPTYPE_UINT64:
      return Format("%llu",
                    static_cast<unsigned long long>(reflection->GetUInt64(*message, field)));
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return Format("%f", reflection->GetDouble(*message, field));
    case FieldDescriptor::CPPTYPE_FLOAT:
      return Format("%f", static_cast<double>(reflection->GetFloat(*message, field)));
    case FieldDescriptor::CPPTYPE_BOOL:
      return Format("%d", reflection->GetBool(*message, field) ? 1 : 0);
    case FieldDescriptor::CPPTYPE_ENUM:
      return Format("%d", static_cast<int>(reflection->GetEnumValue(*message, field)));
    case FieldDescriptor::CPPTYPE_STRING:
      return reflection->GetString(*message, field);
    default:
      return kNoText;
  }
}

std::string DbMessageObject::GetCompositeValueAsString(const Message* message,
                                                       const FieldDescriptor* field, int index) {
  if (!FieldFits(message, field, true)) return kNoText;
  const Reflection* reflection = message->GetReflection();
  if (index < 0 || index >= reflection->FieldSize(*message, field)) {
    DB_LOG_ERROR("ERROR! Index=%d out of range, field='%s'", index, field->full_name().c_str());
    return kNoText;
  }
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return Format("%d", static_cast<int>(reflection->GetRepeatedInt32(*message, field, index)));
    case FieldDescriptor::CPPTYPE_INT64:
      return Format("%lld",
                    static_cast<long long>(reflection->GetRepeatedInt64(*message, field, index)));
    case FieldDescriptor::CPPTYPE_UINT32:
      return Format("%u",
                    static_cast<unsigned>(reflection->GetRepeatedUInt32(*message, field, index)));
    case FieldDescriptor::CPPTYPE_UINT64:
      return Format("%llu", static_cast<unsigned long long>(
                                reflection->GetRepeatedUInt64(*message, field, index)));
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return Format("%f", reflection->GetRepeatedDouble(*message, field, index));
    case FieldDescriptor::CPPTYPE_FLOAT:
      return Format("%f",
                    static_cast<double>(reflection->GetRepeatedFloat(*message, field, index)));
    case FieldDescriptor::CPPTYPE_BOOL:
      return Format("%d", reflection->GetRepeatedBool(*message, field, index) ? 1 : 0);
    case FieldDescriptor::CPPTYPE_ENUM:
      return Format("%d",
                    static_cast<int>(reflection->GetRepeatedEnumValue(*message, field, index)));
    case FieldDescriptor::CPPTYPE_STRING:
      return reflection->GetRepeatedString(*message, field, index);
    default:
      return kNoText;
  }
}

int DbMessageObject::SetScalarField(Message* message, const FieldDescriptor* field,
                                    const std::string& text) {
  if (!FieldFits(message, field, false)) return kFailure;
  const Reflection* reflection = message->GetReflection();
  switch (field->cpp_type()) {
    // Sixty-four-bit integers are parsed as 32-bit values on purpose: they
    // are stored in the 32-bit integer kind, and a text beyond that range
    // throws std::out_of_range rather than being written back altered.
    case FieldDescriptor::CPPTYPE_INT32:
      reflection->SetInt32(message, field, std::stoi(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_INT64:
      reflection->SetInt64(message, field, std::stoi(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_UINT32:
      reflection->SetUInt32(message, field, static_cast<uint32_t>(Stoul32(text)));
      break;
    case FieldDescriptor::CPPTYPE_UINT64:
      reflection->SetUInt64(message, field, std::stoull(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_DOUBLE:
      reflection->SetDouble(message, field, std::stod(text));
      break;
    case FieldDescriptor::CPPTYPE_FLOAT:
      reflection->SetFloat(message, field, std::stof(text));
      break;
    case FieldDescriptor::CPPTYPE_BOOL:
      reflection->SetBool(message, field, std::stoi(text, nullptr, 10) != 0);
      break;
    case FieldDescriptor::CPPTYPE_ENUM: {
      const EnumValueDescriptor* value = FindEnumValue(field, text);
      if (value == nullptr) return kNotFound;
      reflection->SetEnum(message, field, value);
      break;
    }
    case FieldDescriptor::CPPTYPE_STRING:
      reflection->SetString(message, field, text);
      break;
    default:
      // Nested messages are not carried; their stored text is "NULL".
      break;
  }
  return kOk;
}

int DbMessageObject::AddCompositeField(Message* message, const FieldDescriptor* field,
                                       const std::string& text) {
  if (!FieldFits(message, field, true)) return kFailure;
  const Reflection* reflection = message->GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      reflection->AddInt32(message, field, std::stoi(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_INT64:
      reflection->AddInt64(message, field, std::stoi(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_UINT32:
      reflection->AddUInt32(message, field, static_cast<uint32_t>(Stoul32(text)));
      break;
    case FieldDescriptor::CPPTYPE_UINT64:
      reflection->AddUInt64(message, field, std::stoull(text, nullptr, 10));
      break;
    case FieldDescriptor::CPPTYPE_DOUBLE:
      reflection->AddDouble(message, field, std::stod(text));
      break;
    case FieldDescriptor::CPPTYPE_FLOAT:
      reflection->AddFloat(message, field, std::stof(text));
      break;
    case FieldDescriptor::CPPTYPE_BOOL:
      reflection->AddBool(message, field, std::stoi(text, nullptr, 10) != 0);
      break;
    case FieldDescriptor::CPPTYPE_ENUM: {
      const EnumValueDescriptor* value = FindEnumValue(field, text);
      if (value == nullptr) return kNotFound;
      reflection->AddEnum(message, field, value);
      break;
    }
    case FieldDescriptor::CPPTYPE_STRING:
      reflection->AddString(message, field, text);
      break;
    default:
      break;
  }
  return kOk;
}

bool DbMessageObject::HoldsFieldsOf(const Message& message) const {
  const Descriptor* type = message.GetDescriptor();
  for (const MessageFieldMap* map : {&scalar_field_map_, &composite_field_map_}) {
    for (const auto& [name, field] : *map) {
      if (field->containing_type() != type) {
        DB_LOG_ERROR("ERROR! Field='%s' is not a field of message type='%s'",
                     field->full_name().c_str(), type->full_name().c_str());
        return false;
      }
    }
  }
  return true;
}

int DbMessageObject::ParseFromMessage(const Message* message) const {
  if (message == nullptr) {
    DB_LOG_ERROR("ERROR! Null message, table='%s'", name().c_str());
    return kFailure;
  }
  if (!HoldsFieldsOf(*message)) return kFailure;
  // Retrievals are const and refill the same buffer: the current record is
  // mutable state of the object.
  auto* self = const_cast<DbMessageObject*>(this);
  ScalarFields& scalars = self->scalar_fields();
  CompositeFields& composites = self->composite_fields();

  for (const auto& [field_name, field] : scalar_field_map_) {
    auto it = scalars.find(field_name);
    const AttributeType type =
        it != scalars.end() ? it->second.type() : CreateAttribute(field->cpp_type()).type();
    Attribute value = TextToAttribute(type, GetScalarValueAsString(message, field));
    if (it != scalars.end()) {
      it->second = std::move(value);
    } else {
      scalars.emplace(field_name, std::move(value));
    }
  }
  const Reflection* reflection = message->GetReflection();
  for (const auto& [field_name, field] : composite_field_map_) {
    auto it = composites.find(field_name);
    if (it == composites.end()) {
      it = composites
               .emplace(field_name, std::make_pair(CreateAttribute(field->cpp_type()).type(),
                                                   std::vector<Attribute>()))
               .first;
    }
    std::vector<Attribute> elements;
    const int count = reflection->FieldSize(*message, field);
    elements.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      elements.push_back(
          TextToAttribute(it->second.first, GetCompositeValueAsString(message, field, i)));
    }
    it->second.second = std::move(elements);
  }
  return kOk;
}

int DbMessageObject::ParseFromMessageSettedFields(const Message* message, ScalarFields* scalar,
                                                  CompositeFields* composite) const {
  if (scalar == nullptr || composite == nullptr) {
    DB_LOG_ERROR("ERROR! Null output map, table='%s'", name().c_str());
    return kFailure;
  }
  const int rc = ParseFromMessage(message);
  if (rc != kOk) return rc;
  scalar->clear();
  composite->clear();
  const Reflection* reflection = message->GetReflection();
  for (const auto& [field_name, field] : scalar_field_map_) {
    if (!reflection->HasField(*message, field)) continue;
    auto it = scalar_fields().find(field_name);
    if (it != scalar_fields().end()) scalar->emplace(*it);
  }
  for (const auto& [field_name, field] : composite_field_map_) {
    if (reflection->FieldSize(*message, field) < 1) continue;
    auto it = composite_fields().find(field_name);
    if (it != composite_fields().end()) composite->emplace(*it);
  }
  return kOk;
}

int DbMessageObject::StoreMessageObject(uint32_t* id, const Message* message) {
  const int rc = ParseFromMessage(message);
  if (rc != kOk) return rc;
  return StoreObject(id);
}

int DbMessageObject::UpdateMessageObject(uint32_t id, const Message* message) {
  const int rc = ParseFromMessage(message);
  if (rc != kOk) return rc;
  return UpdateObject(id);
}

int DbMessageObject::DeleteMultipleMessageObjects(const Message* message) {
  const int rc = ParseFromMessage(message);
  if (rc != kOk) return rc;
  return DeleteMultipleObjects();
}

int DbMessageObject::RetrieveMessageObjects(std::vector<uint32_t>* ids,
                                            const Message* filter) const {
  if (ids == nullptr) {
    DB_LOG_ERROR("ERROR! Null id list, table='%s'", name().c_str());
    return kFailure;
  }
  ids->clear();
  ScalarFields set_scalars;
  CompositeFields set_composites;
  const int rc = ParseFromMessageSettedFields(filter, &set_scalars, &set_composites);
  if (rc != kOk) return rc;

  ScalarFields scalar_filter;
  for (const auto& [field_name, value] : set_scalars) {
    if (scalar_field_map_.count(field_name) != 0 && value.is_set()) {
      scalar_filter.emplace(field_name, value);
    }
  }
  CompositeFields composite_filter;
  for (const auto& [field_name, values] : set_composites) {
    if (composite_field_map_.count(field_name) != 0) composite_filter.emplace(field_name, values);
  }
  return RetrieveObjects(ids, scalar_filter, composite_filter);
}

int DbMessageObject::RetrieveMixedObject(uint32_t id, Message* out, ScalarFields* scalar,
                                         CompositeFields* composite) const {
  if (out == nullptr || scalar == nullptr || composite == nullptr) {
    DB_LOG_ERROR("ERROR! Null output, table='%s', id=%u", name().c_str(),
                 static_cast<unsigned>(id));
    return kFailure;
  }
  // The outputs are emptied before anything can fail, so that a failed call
  // never leaves an earlier record in them.
  out->Clear();
  scalar->clear();
  composite->clear();
  if (!HoldsFieldsOf(*out)) return kFailure;

  ScalarFields record_scalars;
  CompositeFields record_composites;
  const int rc = RetrieveObject(id, &record_scalars, &record_composites);
  if (rc != kOk) return rc;

  for (const auto& [field_name, value] : record_scalars) {
    auto field = scalar_field_map_.find(field_name);
    if (field == scalar_field_map_.end()) {
      scalar->emplace(field_name, value);
    } else if (value.is_set()) {
      // An unset value carries nothing (its text would be "(unset)"), so the
      // message field stays unset rather than receiving that text.
      SetScalarField(out, field->second, value.ToString());
    }
  }
  for (const auto& [field_name, values] : record_composites) {
    auto field = composite_field_map_.find(field_name);
    if (field == composite_field_map_.end()) {
      composite->emplace(field_name, values);
      continue;
    }
    for (const Attribute& element : values.second) {
      if (element.is_set()) AddCompositeField(out, field->second, element.ToString());
    }
  }
  return kOk;
}

int DbMessageObject::RetrieveMessageObject(uint32_t id, Message* out) const {
  ScalarFields scalar;
  CompositeFields composite;
  return RetrieveMixedObject(id, out, &scalar, &composite);
}

}  // namespace db
