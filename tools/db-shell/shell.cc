#include "shell.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <sstream>
#include <utility>

#include "db/attribute.h"

namespace db_shell {

namespace {

const char* const kBuiltins[] = {"help", "tables", "quit"};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool HasLetterOrDigit(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
}

// Reads `text` as the filter parser reads a repeated-field filter: name up to
// "=", skip up to "[", values up to "]", until a read fails.
bool TextHasNamelessGroup(const std::string& text) {
  std::istringstream in(text);
  std::string name;
  std::string skipped;
  std::string values;
  while (std::getline(in, name, '=') && std::getline(in, skipped, '[') &&
         std::getline(in, values, ']')) {
    if (!HasLetterOrDigit(name)) return true;
  }
  return false;
}

// Argument hint shown by help for a registered command text.
std::string ArgumentHint(const std::string& command) {
  if (command.rfind("Retrieve Records ", 0) == 0) return "[-s field=value,...] [-c field=[v,...]]";
  if (command.rfind("Retrieve Record ", 0) == 0) return "id";
  if (command.rfind("Dump ", 0) == 0) return "start-id [num-entries]";
  return std::string();
}

}  // namespace

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  bool in_word = false;
  bool quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
      in_word = true;
    } else if (!quoted && IsBlank(c)) {
      if (in_word) words.push_back(word);
      word.clear();
      in_word = false;
    } else {
      word.push_back(c);
      in_word = true;
    }
  }
  if (in_word) words.push_back(word);
  return words;
}

bool HasNamelessFilterGroup(const std::vector<std::string>& args) {
  // Finds the texts that the option scanner hands to -c: options may be
  // clustered behind one "-" ("-xc=[1]" is -x, then -c with "=[1]"), an
  // option takes the rest of its word or else the next word, and "--" ends
  // the options.
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--") return false;
    if (arg.size() < 2 || arg[0] != '-') continue;
    for (size_t k = 1; k < arg.size(); ++k) {
      if (arg[k] != 's' && arg[k] != 'c') continue;
      std::string value;
      if (k + 1 < arg.size()) {
        value = arg.substr(k + 1);
      } else if (i + 1 < args.size()) {
        value = args[++i];
      }
      if (arg[k] == 'c' && TextHasNamelessGroup(value)) return true;
      break;
    }
  }
  return false;
}

Shell::Shell() = default;

Shell::~Shell() {
  // The group holds pointers to the objects: it goes first.
  ElemCmdGroupDestroy(group_);
  objects_.clear();
}

std::unique_ptr<Shell> Shell::Create(db::DbType type, const std::string& db_name,
                                     const std::vector<TableSchema>& tables, std::string* error) {
  std::unique_ptr<Shell> shell(new Shell());
  shell->tables_ = tables;
  shell->group_ = ElemCmdGroupCreate("db-shell");
  if (shell->group_ == nullptr) {
    *error = "cannot create the command group";
    return nullptr;
  }
  for (const TableSchema& table : tables) {
    std::unique_ptr<db::DbObject> object;
    try {
      object = std::make_unique<db::DbObject>(db_name, table.name, false, type);
    } catch (const std::exception& e) {
      *error = db_name + ": cannot open table " + table.name + ": " + e.what();
      return nullptr;
    }
    if (!object->IsConnected()) {
      *error = db_name + ": cannot open table " + table.name + ": database not available";
      return nullptr;
    }
    // The stored schema says nothing about rendering: every field shows in
    // its default form. The tables exist already, so the declarations only
    // describe them and nothing is written.
    for (const FieldSchema& field : table.scalar_fields) {
      object->AppendScalarAttribute(field.name, db::Attribute(field.type), db::kDefault);
    }
    for (const FieldSchema& field : table.repeated_fields) {
      object->AppendCompositeAttribute(field.name, db::Attribute(field.type), db::kDefault);
    }
    object->InstallDebugCmd(shell->group_);
    shell->objects_.push_back(std::move(object));
  }
  const size_t count = ElemCmdCommandCount(shell->group_);
  for (size_t i = 0; i < count; ++i) {
    shell->command_texts_.push_back(ElemCmdCommandText(shell->group_, i));
  }
  for (const char* builtin : kBuiltins) shell->command_texts_.push_back(builtin);
  return shell;
}

Shell::Outcome Shell::Execute(const std::string& line, FILE* out) {
  const std::vector<std::string> words = SplitWords(line);
  if (words.empty() || words[0][0] == '#') return Outcome::kNothing;
  if (words.size() == 1) {
    if (words[0] == "quit" || words[0] == "exit") return Outcome::kQuit;
    if (words[0] == "help") {
      PrintHelp(out);
      return Outcome::kRan;
    }
    if (words[0] == "tables") {
      PrintTables(out);
      return Outcome::kRan;
    }
  }
  if (words.size() >= 2 && words[0] == "Retrieve" && words[1] == "Records" &&
      HasNamelessFilterGroup(std::vector<std::string>(words.begin() + 2, words.end()))) {
    fprintf(stderr, "db-shell: refused: a -c group needs a field name before '=': %s\n",
            line.c_str());
    return Outcome::kRefused;
  }
  int rc;
  try {
    rc = ElemCmdExecute(group_, line.c_str(), out);
  } catch (const std::exception& e) {
    fflush(out);
    fprintf(stderr, "db-shell: command failed: %s\n", e.what());
    return Outcome::kRefused;
  } catch (...) {
    fflush(out);
    fprintf(stderr, "db-shell: command failed\n");
    return Outcome::kRefused;
  }
  if (rc != 0) {
    fprintf(stderr, "db-shell: unknown command: %s (try 'help')\n", line.c_str());
    return Outcome::kUnknown;
  }
  return Outcome::kRan;
}

void Shell::PrintHelp(FILE* out) const {
  std::vector<std::pair<std::string, std::string>> rows;
  const size_t count = ElemCmdCommandCount(group_);
  for (size_t i = 0; i < count; ++i) {
    std::string usage = ElemCmdCommandText(group_, i);
    const std::string hint = ArgumentHint(usage);
    if (!hint.empty()) usage += " " + hint;
    rows.emplace_back(usage, ElemCmdCommandDescription(group_, i));
  }
  rows.emplace_back("help", "List the commands");
  rows.emplace_back("tables", "List the tables with their fields and types");
  rows.emplace_back("quit", "Leave the shell");
  size_t width = 0;
  for (const auto& row : rows) width = std::max(width, row.first.size());
  fprintf(out, "Commands:\n");
  for (const auto& row : rows) {
    fprintf(out, "  %-*s  %s\n", static_cast<int>(width), row.first.c_str(), row.second.c_str());
  }
  fprintf(out,
          "start-id and num-entries: a number, all or *. Filters name fields as the "
          "tables command shows them.\n");
}

void Shell::PrintTables(FILE* out) const {
  if (tables_.empty()) {
    fprintf(out, "(no tables)\n");
    return;
  }
  for (const TableSchema& table : tables_) {
    fprintf(out, "%s\n", table.name.c_str());
    size_t width = 0;
    for (const FieldSchema& field : table.scalar_fields) width = std::max(width, field.name.size());
    for (const FieldSchema& field : table.repeated_fields) {
      width = std::max(width, field.name.size());
    }
    for (const FieldSchema& field : table.scalar_fields) {
      fprintf(out, "  %-*s  %s\n", static_cast<int>(width), field.name.c_str(),
              TypeName(field.type));
    }
    for (const FieldSchema& field : table.repeated_fields) {
      fprintf(out, "  %-*s  %s, repeated\n", static_cast<int>(width), field.name.c_str(),
              TypeName(field.type));
    }
  }
}

}  // namespace db_shell
