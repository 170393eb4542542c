// Any line run on the debug commands of a SQLite and a LevelDB table.

#include "elem_cmd.h"
#include "fuzz_util.h"
#include "shell.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::unique_ptr<db::DbObject> tables[] = {
      db_fuzz::PopulatedTable(db::kSqlite, db_fuzz::Scratch() + "/cmd.db", "sq"),
      db_fuzz::PopulatedTable(db::kLevelDb, db_fuzz::Scratch() + "/cmd", "lv")};
  static ELEM_CMD_GROUP_ST* group = [] {
    ELEM_CMD_GROUP_ST* g = ElemCmdGroupCreate("fuzz");
    for (auto& table : tables) table->InstallDebugCmd(g);
    return g;
  }();
  const std::string line = db_fuzz::Split(data, size, '\0')[0];
  // The filter parser's required endless loop.
  if (db_shell::HasNamelessFilterGroup(db_shell::SplitWords(line))) return 0;
  ElemCmdExecute(group, line.c_str(), db_fuzz::Sink());
  return 0;
}
