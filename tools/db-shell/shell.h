// The command side of db-shell: one DbObject per discovered table, their
// debug commands on one command group, and the built-in commands.

#ifndef DB_INTF_TOOLS_DB_SHELL_SHELL_H_
#define DB_INTF_TOOLS_DB_SHELL_SHELL_H_

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "db/db_object.h"
#include "discovery.h"
#include "elem_cmd.h"

namespace db_shell {

// Splits a command line into words as the command group does: runs of blanks
// separate words, double quotes group blanks into a word and are dropped.
std::vector<std::string> SplitWords(const std::string& line);

// True when a "Retrieve Records" argument would make the filter parser spin
// forever: a complete repeated-field group name=[...] whose name holds no
// letter or digit (for example "-c =[1]", or "-xc=[1]" with the options
// clustered). Such lines are refused before they reach the command.
bool HasNamelessFilterGroup(const std::vector<std::string>& args);

class Shell {
 public:
  enum class Outcome {
    kRan,      // a command or a built-in ran
    kNothing,  // an empty line or a comment
    kUnknown,  // no command matched; a message went to standard error
    kRefused,  // the command was not run; a message went to standard error
    kQuit,     // the quit built-in
  };

  // Builds one object per table on database `db_name` (`type` 0 SQLite, 1
  // LevelDB) and installs their commands. On failure returns null with a
  // one-line reason in `*error`.
  static std::unique_ptr<Shell> Create(db::DbType type, const std::string& db_name,
                                       const std::vector<TableSchema>& tables, std::string* error);
  ~Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Runs one line; command output goes to `out`.
  Outcome Execute(const std::string& line, FILE* out);

  // Command texts for completion: the registered commands, then the built-ins.
  const std::vector<std::string>& command_texts() const { return command_texts_; }

  void PrintHelp(FILE* out) const;
  void PrintTables(FILE* out) const;

 private:
  Shell();

  std::vector<TableSchema> tables_;
  std::vector<std::unique_ptr<db::DbObject>> objects_;
  ELEM_CMD_GROUP_ST* group_ = nullptr;
  std::vector<std::string> command_texts_;
};

}  // namespace db_shell

#endif  // DB_INTF_TOOLS_DB_SHELL_SHELL_H_
