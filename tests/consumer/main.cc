// Stores and reads back one record through the installed library.
#include <cstdio>
#include <string>

#include "db/db.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  qelmw_t* mw = qelmw_create("consumer");
  db::Init(mw);
  db::DbObject object(std::string(argv[1]) + "/consumer.db", "items", false, db::kSqlite);
  object.AppendScalarAttribute("name", db::Attribute(db::kString), db::kDefault);
  if (object.CreateObjTables() != 0) return 1;
  object.scalar_fields()["name"] = "consumer";
  uint32_t id = 0;
  if (object.StoreObject(&id) != 0) return 1;
  db::ScalarFields scalar;
  db::CompositeFields composite;
  if (object.RetrieveObject(id, &scalar, &composite) != 0) return 1;
  std::printf("%s\n", object.ToStringSummarized().c_str());
  qelmw_destroy(mw);
  if (ipc_self(nullptr) != 0) return 1;  // the messaging interface is exported too
  return scalar["name"].ToString() == "consumer" ? 0 : 1;
}
