// DbMessageObject: a DbObject whose schema and records come from a protobuf
// message type, so that applications store, update, find and delete protobuf
// messages directly.
//
// Every field of the message type becomes one field of the table: a repeated
// field a composite field, any other a scalar field. Values cross between a
// message and the object's Attributes as text, through protobuf reflection
// only (no generated type is needed):
//
//   int32 "%d", int64 "%lld", uint32 "%u", uint64 "%llu", double and float
//   "%f", bool "%d" (0 or 1), enum its number "%d", string (and bytes) as is;
//   a nested message is not carried and reads "NULL".
//
// Integer kinds, bool and enum are held in the 32-bit integer Attribute, so
// 64-bit values survive only within the 32-bit range; a text that does not
// convert throws the std::invalid_argument / std::out_of_range of the
// standard conversion. Every other failure is logged and returned as a code.
//
// Example:
//   db::DbMessageObject ports("net.db", "ports", false, db::kSqlite,
//                             Port::descriptor());
//   ports.CreateObjTables();
//   uint32_t id;
//   ports.StoreMessageObject(&id, &port);
//   Port copy;
//   ports.RetrieveMessageObject(id, &copy);

#ifndef DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_
#define DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "db/attribute.h"
#include "db/database_api.h"
#include "db/db_object.h"
#include "db/export.h"

namespace db {

// Field name to the message field it stands for.
using MessageFieldMap = std::map<std::string, const google::protobuf::FieldDescriptor*>;

// A DbObject whose fields are those of one protobuf message type.
class DB_INTF_EXPORT DbMessageObject : public DbObject {
 public:
  // Builds the DbObject (which may throw std::invalid_argument, see there)
  // and registers every field of `descriptor`, in declaration order, through
  // AppendMessageAttribute. A null descriptor is logged and registers nothing.
  DbMessageObject(const std::string& db_name, const std::string& table_name, bool in_memory,
                  DbType type, const google::protobuf::Descriptor* descriptor);
  ~DbMessageObject() override;

  // Declares the field `name` of `descriptor`: a repeated field as a composite
  // field, any other as a scalar field, of the kind CreateAttribute gives, and
  // enters it in the matching field map. Returns the declaration's result, or
  // -1 (logged) when `descriptor` is null or has no field `name`.
  int AppendMessageAttribute(const std::string& name,
                             const google::protobuf::Descriptor* descriptor);

  // A new unset Attribute of the kind that holds fields of `type`: integer for
  // the integer kinds, bool and enum; float for double and float; string for
  // string (and bytes); byte vector for messages and anything else.
  static Attribute CreateAttribute(google::protobuf::FieldDescriptor::CppType type);

  // The text of a singular field (the formats above), or of element `index`
  // of a repeated field. "NULL" for a nested message; also "NULL", logged,
  // when the field does not fit the call (null arguments, field of another
  // message type, wrong label, index out of range).
  static std::string GetScalarValueAsString(const google::protobuf::Message* message,
                                            const google::protobuf::FieldDescriptor* field);
  // As GetScalarValueAsString, for element `index` of the repeated `field`.
  static std::string GetCompositeValueAsString(const google::protobuf::Message* message,
                                               const google::protobuf::FieldDescriptor* field,
                                               int index);

  // Parses `text` and sets the singular field (SetScalarField) or appends one
  // element to the repeated field (AddCompositeField): int32, int64 and bool
  // by std::stoi (so int64 takes only 32-bit values), uint32 by std::stoul,
  // uint64 by std::stoull, double by std::stod, float by std::stof, enum by
  // std::stoi and the enum's value of that number, string as it stands. A
  // nested message field is left untouched. Returns 0; -4 when the enum has no
  // value of that number (logged, field untouched); -1 (logged) when the field
  // does not fit the call. Throws what the conversion throws.
  static int SetScalarField(google::protobuf::Message* message,
                            const google::protobuf::FieldDescriptor* field,
                            const std::string& text);
  // As SetScalarField, appending one element to the repeated `field`.
  static int AddCompositeField(google::protobuf::Message* message,
                               const google::protobuf::FieldDescriptor* field,
                               const std::string& text);

  // Fills the current record from `message`: every scalar field (set in the
  // message or not) and every repeated field. Returns 0, or -1 (logged,
  // record untouched) when `message` is null or is not of the type whose
  // fields the object holds. Throws what the conversions throw.
  int ParseFromMessage(const google::protobuf::Message* message) const;
  // ParseFromMessage, then copies into `scalar` the scalar fields that the
  // message has set (HasField) and into `composite` the repeated fields with
  // at least one element: a filter made of the fields the message sets.
  int ParseFromMessageSettedFields(const google::protobuf::Message* message, ScalarFields* scalar,
                                   CompositeFields* composite) const;

  // ParseFromMessage, then StoreObject.
  int StoreMessageObject(uint32_t* id, const google::protobuf::Message* message);
  // ParseFromMessage, then UpdateObject.
  int UpdateMessageObject(uint32_t id, const google::protobuf::Message* message);
  // ParseFromMessage, then DeleteMultipleObjects: every field of `message`,
  // set or not, becomes part of the filter.
  int DeleteMultipleMessageObjects(const google::protobuf::Message* message);

  // Ids of the records matching the fields that `filter` sets; a message that
  // sets no field selects every record.
  int RetrieveMessageObjects(std::vector<uint32_t>* ids,
                             const google::protobuf::Message* filter) const;
  // Loads record `id`, which may hold more fields than the message type: the
  // message's fields go into `*out` (cleared first), the other scalar and
  // repeated fields into `*scalar` and `*composite` (emptied first). Returns
  // 0 or the retrieval error.
  int RetrieveMixedObject(uint32_t id, google::protobuf::Message* out, ScalarFields* scalar,
                          CompositeFields* composite) const;
  // RetrieveMixedObject without the fields outside the message type.
  int RetrieveMessageObject(uint32_t id, google::protobuf::Message* out) const;

  // The message fields behind the object's scalar fields.
  const MessageFieldMap& scalar_field_map() const { return scalar_field_map_; }
  // The message fields behind the object's repeated fields.
  const MessageFieldMap& composite_field_map() const { return composite_field_map_; }

 private:
  // True when every field of both maps belongs to the type of `message`;
  // otherwise logs and returns false.
  bool HoldsFieldsOf(const google::protobuf::Message& message) const;

  MessageFieldMap scalar_field_map_;
  MessageFieldMap composite_field_map_;
};

}  // namespace db

#endif  // DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_
