// Any line typed at db-shell's prompt, on SQLite or LevelDB (first byte).

#include "discovery.h"
#include "fuzz_util.h"
#include "shell.h"

namespace {

std::unique_ptr<db_shell::Shell> OpenShell(db::DbType type, const std::string& path) {
  db_fuzz::PopulatedTable(type, path, "t");
  const db_shell::Discovery found =
      type == db::kSqlite ? db_shell::DiscoverSqlite(path) : db_shell::DiscoverLevelDb(path, path);
  std::string error;
  auto shell = db_shell::Shell::Create(type, path, found.tables, &error);
  db_fuzz::Require(shell != nullptr && found.tables.size() == 1, "db-shell opens its database");
  return shell;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::unique_ptr<db_shell::Shell> shells[] = {
      OpenShell(db::kSqlite, db_fuzz::Scratch() + "/shell.db"),
      OpenShell(db::kLevelDb, db_fuzz::Scratch() + "/shell")};
  if (size == 0) return 0;
  shells[data[0] & 1]->Execute(std::string(reinterpret_cast<const char*>(data) + 1, size - 1),
                               db_fuzz::Sink());
  return 0;
}
