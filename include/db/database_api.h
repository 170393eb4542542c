// DatabaseAPI: the contract between DbObject and a storage engine.
//
// A DbObject owns exactly one backend, chosen by DbType, and reaches it only
// through this interface. Records are addressed by unsigned 32-bit ids that
// DbObject allocates; backends never invent ids. Operations never throw for
// storage errors: they log an "ERROR..." line and return a result code.

#ifndef DB_INTF_INCLUDE_DB_DATABASE_API_H_
#define DB_INTF_INCLUDE_DB_DATABASE_API_H_

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "db/attribute.h"
#include "db/export.h"

namespace db {

// Backend selector.
enum DbType : int32_t {
  kSqlite = 0,
  kLevelDb = 1,
};

// Result codes of every int-returning operation of the library.
enum ResultCode : int32_t {
  kOk = 0,
  kFailure = -1,       // storage error, invalid parameters or schema
  kNotConnected = -2,  // not connected, or not supported by the backend
  kAlreadyDeclared = -3,
  kNotFound = -4,
  kBusy = -6,  // SQLite still busy after its busy time-out
  kCorruption = -7,
  kTraversalLoad = -8,  // a traversal could not load a listed record
};

// Receives a whole-table dump (PrintDatabase).
using DatabasePrinter = void (*)(std::stringstream&);

// A storage backend: one table of one database. Every int result is a
// ResultCode.
class DB_INTF_EXPORT DatabaseAPI {
 public:
  virtual ~DatabaseAPI();

  // Creates the table with the fields of both schemas (the attributes' types
  // are what matters).
  virtual int CreateTable(const ScalarFields& scalar_schema,
                          const CompositeFields& composite_schema) = 0;
  // Creates the index `index_name` over `fields` of the table.
  virtual int AddTableIndex(const std::string& index_name,
                            const std::vector<std::string>& fields) = 0;
  // Adds a scalar field of the prototype's type to the existing table.
  virtual int AddScalarField(const std::string& name, const Attribute& prototype) = 0;
  // Adds a repeated field of element type `field.first` to the existing table.
  virtual int AddCompositeField(const std::string& name,
                                const std::pair<AttributeType, std::vector<Attribute>>& field) = 0;
  // Removes the table, its records and the storage of its repeated fields.
  virtual int DestroyTable(const CompositeFields& composite_schema) = 0;
  // Stores a new record under `id`.
  virtual int StoreRecord(uint32_t id, const ScalarFields& scalar,
                          const CompositeFields& composite) = 0;
  // `composite_names` are the names of the object's repeated fields.
  virtual int DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) = 0;
  // Deletes the records matching the filters; every id removed is appended to
  // `ids` so that the caller can give it back to the id allocator.
  virtual int DeleteRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                            const CompositeFields& composite_filter) = 0;
  // Replaces the stored record `id`.
  virtual int UpdateRecord(uint32_t id, const ScalarFields& scalar,
                           const CompositeFields& composite) = 0;
  // `scalar` and `composite` already name the wanted fields with their types;
  // the backend overwrites their values in place.
  virtual int RetrieveRecord(uint32_t id, ScalarFields* scalar,
                             CompositeFields* composite) const = 0;
  // Ids of the records matching the filters. Only set attributes restrict;
  // empty maps select every record.
  virtual int RetrieveRecords(std::vector<uint32_t>* ids, const ScalarFields& scalar_filter,
                              const CompositeFields& composite_filter) const = 0;
  // Writes -1 to `*size` before anything else.
  virtual int GetTableSize(int* size) const = 0;
  // Hands the table's records to `printer`, one stream per record; -2 when the
  // backend has no such dump.
  virtual int PrintDatabase(const CompositeFields& composite_schema,
                            DatabasePrinter printer) const = 0;
  // True while the database is open.
  virtual bool IsConnected() const = 0;
  // Removes every record; every id removed is appended to `ids`.
  virtual int ClearTable(const CompositeFields& composite_schema, std::vector<uint32_t>* ids) = 0;
  // Renames the table this backend works on (nothing stored changes).
  virtual void SetTableName(const std::string& name) = 0;
  // The table this backend works on.
  virtual const std::string& GetTableName() const = 0;

 protected:
  // The set elements of every repeated field of `filter`. A field without a
  // set element (such as the single unset element of a composite schema)
  // imposes nothing and is left out.
  static CompositeFields SetElementsOf(const CompositeFields& filter);
};

}  // namespace db

#endif  // DB_INTF_INCLUDE_DB_DATABASE_API_H_
