// DbObject: one table in one database, with a declared schema of scalar and
// repeated ("composite") fields, a rendering choice per field, and one current
// record that serves as the buffer for storing, updating, filtering and
// retrieving.
//
// Usual order: construct, declare fields (AppendScalarAttribute,
// AppendCompositeAttribute) and indexes (DeclareTableIndex), CreateObjTables,
// then record operations. Every operation returns a ResultCode. The library
// throws only the constructor's two std::invalid_argument errors, but a stored
// value that does not convert lets the std::invalid_argument / std::out_of_range
// of the conversion pass to the caller: a SQLite column holding foreign text
// (record reads), a damaged LevelDB value (filtered queries, AddScalarField).
//
// Threads: the id allocator and the set of database names seen are process-wide
// and unguarded; use all objects of a process from one thread at a time.

#ifndef DB_INTF_INCLUDE_DB_DB_OBJECT_H_
#define DB_INTF_INCLUDE_DB_DB_OBJECT_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "db/attribute.h"
#include "db/database_api.h"
#include "db/export.h"
#include "elem_cmd.h"

namespace db {

// Field name to (display name, PrintFormat).
using StreamableInfo = std::map<std::string, std::pair<std::string, PrintFormat>>;
// Index name to the field names it covers.
using TableIndexes = std::map<std::string, std::vector<std::string>>;
// Traversal callback; returning false stops the traversal.
using TraverseCallback = bool (*)(uint32_t id, const ScalarFields& scalar,
                                  const CompositeFields& composite);

// One table of one database and its current record.
class DB_INTF_EXPORT DbObject {
 public:
  // Logs "Initializing db=%s, table=%s, in_memory=%d, type=%d", creates and
  // connects the backend and, for the first object of `db_name` in this
  // process, resynchronises the id allocator with the stored ids.
  // Throws std::invalid_argument("LevelDB does not support the in_memory
  // parameter") for type 1 with `in_memory`, and ("Invalid database type")
  // for an unknown type.
  DbObject(const std::string& db_name, const std::string& table_name, bool in_memory, DbType type);
  virtual ~DbObject();
  DbObject(const DbObject&) = delete;
  DbObject& operator=(const DbObject&) = delete;

  // Hooks for subclasses; their text is appended by the renderings.
  virtual std::string GetExtraInfo() const;
  virtual std::string GetExtraInfo();

  // ---- Schema and lifecycle.
  // Declares the scalar field `name` of the prototype's type, shown in
  // `format`. -3 when the name is already declared; -2 when not connected (the
  // declaration is kept); after CreateObjTables the backend's result.
  int AppendScalarAttribute(const std::string& name, const Attribute& prototype,
                            PrintFormat format);
  // As AppendScalarAttribute, for a repeated field whose elements have the
  // prototype's type.
  int AppendCompositeAttribute(const std::string& name, const Attribute& prototype,
                               PrintFormat format);
  // Rebuilds composite_schema() from composite_fields().
  void SetCompositeSchema();
  // Records an index to be created by CreateObjTables.
  void DeclareTableIndex(const std::string& index_name, const std::vector<std::string>& fields);
  // Creates the table with the declared fields, then the declared indexes.
  // Later declarations go to the stored table at once, also when this failed.
  int CreateObjTables();
  // Creates an index on the stored table at once; -2 when not connected.
  int AddTableIndex(const std::string& index_name, const std::vector<std::string>& fields);
  // Deletes every record (ids given back) and removes the table.
  int DestroyObjTables();
  // Deletes every record and gives every removed id back to the allocator.
  int ClearObjTable();
  // Empties the current record, keeping the schema: every field unset, every
  // repeated field empty, declared fields the record had lost put back.
  void ClearObject();
  // Makes the process-wide id allocator agree with the ids stored in this
  // table. Returns -1 when not connected, otherwise last_id minus the number of
  // free ids (0 when the table is empty or cannot be read).
  int ResynchronizeDb(bool first_object);
  // True while the backend has its database open.
  bool IsConnected() const;
  // The table name.
  std::string name() const;
  // Renames the table the object works on; nothing stored changes.
  void set_name(const std::string& name);

  // ---- Record operations.
  // Stores the current record under a new id, written to `*id` at once. On
  // failure the id is given back but left in `*id`. -1 when `id` is null.
  int StoreObject(uint32_t* id);
  // Replaces the stored record `id` by the current record.
  int UpdateObject(uint32_t id);
  // Loads record `id` into the object's buffers and into `*scalar`/`*composite`.
  int RetrieveObject(uint32_t id, ScalarFields* scalar, CompositeFields* composite) const;
  // Ids matching the current record used as filter.
  int RetrieveObjects(std::vector<uint32_t>* ids) const;
  // Ids of the records matching the filters, in the backend's order; `*ids` is
  // cleared first. Only set attributes restrict; empty maps select every
  // record.
  int RetrieveObjects(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                      const CompositeFields& composite_filter) const;
  // Loads each matching record and hands it to `callback`; -8 when a listed
  // record cannot be loaded. Overwrites the current record.
  int TraverseObjects(const ScalarFields& scalar_filter, const CompositeFields& composite_filter,
                      TraverseCallback callback) const;
  // TraverseObjects with the current record as filter.
  int TraverseObjects(TraverseCallback callback) const;
  // Deletes record `id` and gives its id back.
  int DeleteSingleObject(uint32_t id);
  // Deletes the records matching the current record used as filter.
  int DeleteMultipleObjects();
  // Writes -1 to `*size` first.
  int GetObjTableSize(int* size) const;

  // ---- Text rendering of the current record.
  // A field is shown under its display name, its value rendered by its
  // PrintFormat; a field whose display name is empty is not shown.
  //
  // "name: value" + `separator` per scalar field, in name order.
  std::string ToStringWithSeparator(const std::string& separator) const;
  // One line per scalar field, then one line per repeated field with its set
  // elements separated by ", ".
  std::string ToString() const;
  // The scalar fields on one line separated by ", "; "" when none is shown.
  std::string ToStringSummarized() const;
  // Lists the declared field names on standard output; returns 0.
  int TraverseAttributes() const;
  // Hands a whole-table dump to `printer`; -2 when not connected or when the
  // backend does not support dumps (LevelDB).
  int PrintDatabase(DatabasePrinter printer) const;
  // Sets the display name of a declared field ("" hides it); an unknown field
  // is ignored.
  void ChangeAttributeStreamableName(const std::string& field, const std::string& display_name);
  // Sets the rendering of a declared field; an unknown field is ignored.
  void ChangeAttributeStreamableType(const std::string& field, const PrintFormat& format);
  // Renders one value by `format` (unknown formats as kDefault).
  static std::string RenderValue(const Attribute& value, PrintFormat format);

  // ---- Debug commands on the element's command shell.
  // Registers "Dump T", "Get Size T", "Retrieve Record T" and "Retrieve
  // Records T" for this object's table T on `group`.
  void InstallDebugCmd(ELEM_CMD_GROUP_ST* group);

  // ---- Identifier allocation (process-wide).
  // Hands out an id: the smallest one given back, else one above the highest
  // handed out so far.
  static uint32_t GetNextId();
  // Gives `id` back to be handed out again; any value is accepted.
  static void ReleaseId(uint32_t id);

  // Builds the backend for `type`: SQLite for 0, LevelDB for 1 (the in-memory
  // flag is not passed on), null otherwise. The caller owns the result.
  static DatabaseAPI* CreateDbApi(DbType type, const std::string& db_name,
                                  const std::string& table_name, bool in_memory);

  // ---- Current record and schema.
  // The current record's scalar values: one Attribute per declared field.
  ScalarFields& scalar_fields() { return scalar_fields_; }
  const ScalarFields& scalar_fields() const { return scalar_fields_; }
  // The declared repeated fields with the current record's elements.
  CompositeFields& composite_fields() { return composite_fields_; }
  const CompositeFields& composite_fields() const { return composite_fields_; }
  // The declared scalar fields with their prototypes, kept apart from the
  // current record so that a read that empties the record loses no field.
  const ScalarFields& scalar_schema() const { return scalar_schema_; }
  // Every repeated field with its type and one unset element.
  const CompositeFields& composite_schema() const { return composite_schema_; }
  // Display name and PrintFormat of every declared field.
  const StreamableInfo& streamable_info() const { return streamable_info_; }
  // The indexes declared with DeclareTableIndex.
  const TableIndexes& table_indexes() const { return table_indexes_; }
  // True once CreateObjTables has run, successfully or not.
  bool tables_created() const { return tables_created_; }

 protected:
  // Takes `api` as this object's backend (null leaves the object unconnected)
  // and, as the public constructor does, resynchronises the id allocator when
  // `db_name` is the first database of that name seen in this process. For
  // subclasses that bring their own backend; it logs and checks nothing else.
  DbObject(std::unique_ptr<DatabaseAPI> api, const std::string& db_name);

  // The backend; null when none was given.
  DatabaseAPI* db_api() const { return db_api_.get(); }

 private:
  // Resynchronises the id allocator for the first object of `db_name`.
  void RegisterDatabase(const std::string& db_name);
  // Puts every declared scalar field that the current record lacks back into
  // it, unset, before the record goes to the backend.
  void CompleteCurrentRecord() const;

  mutable ScalarFields scalar_fields_;
  mutable CompositeFields composite_fields_;
  bool tables_created_ = false;
  std::unique_ptr<DatabaseAPI> db_api_;
  ScalarFields scalar_schema_;
  CompositeFields composite_schema_;
  StreamableInfo streamable_info_;
  TableIndexes table_indexes_;
};

}  // namespace db

#endif  // DB_INTF_INCLUDE_DB_DB_OBJECT_H_
