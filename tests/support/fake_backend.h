// FakeBackend: an in-memory DatabaseAPI for tests of the object layer's own
// bookkeeping (ids, output resets, forwarding of declarations), independent of
// SQLite and LevelDB. It records every call it receives and can be told to
// fail the next one.
//
// Filters follow the object-level rules: only set attributes restrict, scalar
// fields must all be equal (Attribute ==), and a repeated field matches when it
// shares a set element with the filter. Ids come back in ascending order.

#ifndef DB_INTF_TESTS_SUPPORT_FAKE_BACKEND_H_
#define DB_INTF_TESTS_SUPPORT_FAKE_BACKEND_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "db/attribute.h"
#include "db/database_api.h"
#include "db/db_object.h"

namespace db_test {

class FakeBackend : public db::DatabaseAPI {
 public:
  struct Record {
    db::ScalarFields scalar;
    db::CompositeFields composite;
  };

  explicit FakeBackend(const std::string& table = "fake_table");
  ~FakeBackend() override;

  // The next call whose recorded text (see calls()) begins with `prefix` (any
  // call when empty) returns `rc` instead of succeeding. A failing StoreRecord,
  // UpdateRecord, DeleteRecord or CreateTable stores or changes nothing; a
  // failing DeleteRecords or ClearTable behaves like a backend that stopped
  // part way: it removes and reports only the first record it would have
  // removed.
  void FailNext(int rc, const std::string& prefix = "") {
    fail_next_ = true;
    fail_rc_ = rc;
    fail_prefix_ = prefix;
  }
  void set_connected(bool connected) { connected_ = connected; }

  // Every call received, in order, as its name followed by its main arguments,
  // e.g. "StoreRecord 3", "AddScalarField x", "AddTableIndex idx a,b".
  // IsConnected and GetTableName are not recorded.
  const std::vector<std::string>& calls() const { return calls_; }
  // Number of recorded calls whose text begins with `prefix`.
  int CallCount(const std::string& prefix) const;
  void ClearCalls() { calls_.clear(); }

  // The stored records by id; tests may seed or inspect them.
  std::map<uint32_t, Record>& records() { return records_; }

  int CreateTable(const db::ScalarFields& scalar_schema,
                  const db::CompositeFields& composite_schema) override;
  int AddTableIndex(const std::string& index_name, const std::vector<std::string>& fields) override;
  int AddScalarField(const std::string& name, const db::Attribute& prototype) override;
  int AddCompositeField(
      const std::string& name,
      const std::pair<db::AttributeType, std::vector<db::Attribute>>& field) override;
  int DestroyTable(const db::CompositeFields& composite_schema) override;
  int StoreRecord(uint32_t id, const db::ScalarFields& scalar,
                  const db::CompositeFields& composite) override;
  int DeleteRecord(uint32_t id, const std::vector<std::string>& composite_names) override;
  int DeleteRecords(std::vector<uint32_t>* ids, const db::ScalarFields& scalar_filter,
                    const db::CompositeFields& composite_filter) override;
  int UpdateRecord(uint32_t id, const db::ScalarFields& scalar,
                   const db::CompositeFields& composite) override;
  int RetrieveRecord(uint32_t id, db::ScalarFields* scalar,
                     db::CompositeFields* composite) const override;
  int RetrieveRecords(std::vector<uint32_t>* ids, const db::ScalarFields& scalar_filter,
                      const db::CompositeFields& composite_filter) const override;
  int GetTableSize(int* size) const override;
  // Hands "id=N\n" per record to `printer`.
  int PrintDatabase(const db::CompositeFields& composite_schema,
                    db::DatabasePrinter printer) const override;
  bool IsConnected() const override { return connected_; }
  int ClearTable(const db::CompositeFields& composite_schema, std::vector<uint32_t>* ids) override;
  void SetTableName(const std::string& name) override;
  const std::string& GetTableName() const override { return table_; }

 private:
  // Records `call`; true when this call is to fail (the failure is consumed).
  bool Enter(const std::string& call) const;
  bool Matches(const Record& record, const db::ScalarFields& scalar_filter,
               const db::CompositeFields& composite_filter) const;

  std::string table_;
  bool connected_ = true;
  mutable bool fail_next_ = false;
  int fail_rc_ = 0;
  std::string fail_prefix_;
  mutable std::vector<std::string> calls_;
  std::map<uint32_t, Record> records_;
};

// A DbObject whose backend is a FakeBackend. backend() stays valid for the
// object's life (null when built without one).
class FakeObject : public db::DbObject {
 public:
  explicit FakeObject(const std::string& db_name = "fake.db")
      : FakeObject(new FakeBackend(), db_name) {}
  // Takes a prepared (for example seeded) backend; null builds an object
  // without backend.
  FakeObject(std::unique_ptr<FakeBackend> backend, const std::string& db_name)
      : FakeObject(backend.release(), db_name) {}

  FakeBackend& backend() { return *backend_; }

 private:
  FakeObject(FakeBackend* backend, const std::string& db_name)
      : db::DbObject(std::unique_ptr<db::DatabaseAPI>(backend), db_name), backend_(backend) {}

  FakeBackend* backend_;
};

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_FAKE_BACKEND_H_
