// db-shell: runs the library's debug commands on a database that an
// application wrote, from the command line (-c) or interactively.
//
//   db-shell (--sqlite FILE | --leveldb DIR) [-c COMMAND]... [-v]
//
// Exit status: 0 when every command ran, 1 when a command matched nothing or
// was refused, 2 when the arguments are wrong or the database cannot be
// opened. Standard output carries command output only; messages and library
// log lines go to standard error.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <readline/history.h>
#include <readline/readline.h>

#include "db/db_object.h"
#include "db/init.h"
#include "discovery.h"
#include "leveldb_copy.h"
#include "qelmw.h"
#include "shell.h"
#include "zlog.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitCommandFailed = 1;
constexpr int kExitCannotOpen = 2;
// The library's informational log level (object construction and
// destruction); errors use higher levels.
constexpr int kInfoLogLevel = 10;

const char kUsage[] =
    "Usage: db-shell (--sqlite FILE | --leveldb DIR) [-c COMMAND]... [-v]\n"
    "\n"
    "Opens a database written by libdb-intf, without creating or changing anything,\n"
    "and runs the debug commands of its tables: each -c COMMAND in order, or the\n"
    "lines read from standard input (with line editing, history and completion\n"
    "when it is a terminal). A LevelDB database is read from a private copy made\n"
    "at start (hard links where the file system allows, under $TMPDIR), so a\n"
    "database in use by a daemon can be read too, as it was at that moment.\n"
    "\n"
    "  --sqlite FILE   an existing SQLite database file\n"
    "  --leveldb DIR   an existing LevelDB database directory\n"
    "  -c COMMAND      run COMMAND (repeatable); standard input is not read\n"
    "  -v, --verbose   also show the library's informational log lines\n"
    "  -h, --help      show this text\n"
    "\n"
    "Commands: Dump T start-id [num-entries], Get Size T, Retrieve Record T id,\n"
    "Retrieve Records T [-s field=value,...] [-c field=[value,...]] for each table T,\n"
    "and the built-ins help, tables and quit. Lines starting with # are ignored.\n"
    "\n"
    "Exit status: 0 every command ran; 1 a command matched nothing or was refused\n"
    "(the remaining commands still run); 2 wrong arguments or the database cannot\n"
    "be opened.\n";

struct Options {
  db::DbType type = db::kSqlite;
  std::string path;
  std::vector<std::string> commands;
  bool verbose = false;
};

// Parses the arguments. Returns -1 to go on, otherwise the exit status.
int ParseArguments(int argc, char** argv, Options* options) {
  bool have_database = false;
  auto fail = [](const std::string& message) {
    fprintf(stderr, "db-shell: %s; try 'db-shell --help'\n", message.c_str());
    return kExitCannotOpen;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      fputs(kUsage, stdout);
      return kExitOk;
    }
    if (arg == "-v" || arg == "--verbose") {
      options->verbose = true;
      continue;
    }
    std::string value;
    std::string name = arg;
    const size_t equals = arg.find('=');
    if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
      name = arg.substr(0, equals);
      value = arg.substr(equals + 1);
    } else if (arg == "--sqlite" || arg == "--leveldb" || arg == "-c") {
      if (i + 1 >= argc) return fail("option " + arg + " needs a value");
      value = argv[++i];
    }
    if (name == "--sqlite" || name == "--leveldb") {
      if (have_database) return fail("give exactly one of --sqlite and --leveldb");
      if (value.empty()) return fail("option " + name + " needs a value");
      have_database = true;
      options->type = name == "--sqlite" ? db::kSqlite : db::kLevelDb;
      options->path = value;
    } else if (name == "-c") {
      options->commands.push_back(value);
    } else if (!arg.empty() && arg[0] == '-') {
      return fail("unknown option " + arg);
    } else {
      return fail("unexpected argument " + arg);
    }
  }
  if (!have_database) return fail("give one of --sqlite FILE and --leveldb DIR");
  return -1;
}

// `text` with every byte outside printable ASCII written as \xNN: messages
// quote stored records, and a damaged one may hold NUL or control bytes that
// would cut or garble the line.
std::string Printable(const std::string& text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F) {
      out += c;
    } else {
      char escaped[5];
      snprintf(escaped, sizeof(escaped), "\\x%02X", byte);
      out += escaped;
    }
  }
  return out;
}

// ---- Library log lines: to standard error, informational ones only on -v.

bool g_verbose_log = false;
std::string g_log_line;

// A zlog line is "<category> <level> <file>:<line> <function>: <message>".
void EmitLogLine(const std::string& line) {
  if (!g_verbose_log) {
    const size_t blank = line.find(' ');
    if (blank != std::string::npos && atoi(line.c_str() + blank + 1) <= kInfoLogLevel) return;
  }
  const std::string text = Printable(line.substr(0, line.size() - 1)) + "\n";
  fwrite(text.data(), 1, text.size(), stderr);
}

ssize_t LogWrite(void* /*cookie*/, const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    g_log_line.push_back(data[i]);
    if (data[i] == '\n') {
      EmitLogLine(g_log_line);
      g_log_line.clear();
    }
  }
  return static_cast<ssize_t>(size);
}

FILE* OpenLogStream(bool verbose) {
  g_verbose_log = verbose;
  cookie_io_functions_t functions = {};
  functions.write = LogWrite;
  FILE* stream = fopencookie(nullptr, "w", functions);
  if (stream != nullptr) setvbuf(stream, nullptr, _IOLBF, 0);
  return stream;
}

// ---- Interactive input: readline with history and command-word completion.

const std::vector<std::string>* g_completion_texts = nullptr;
std::vector<std::string> g_candidates;
size_t g_next_candidate = 0;

char* NextCandidate(const char* /*text*/, int state) {
  if (state == 0) g_next_candidate = 0;
  if (g_next_candidate >= g_candidates.size()) return nullptr;
  return strdup(g_candidates[g_next_candidate++].c_str());
}

// Completes the word under the cursor with the next word of every command
// text whose first words are the ones already typed.
char** CompleteCommandWord(const char* text, int start, int /*end*/) {
  rl_attempted_completion_over = 1;  // never fall back to file names
  g_candidates.clear();
  if (g_completion_texts == nullptr) return nullptr;
  const std::vector<std::string> typed =
      db_shell::SplitWords(std::string(rl_line_buffer, static_cast<size_t>(start)));
  const std::string prefix = text;
  for (const std::string& command : *g_completion_texts) {
    const std::vector<std::string> words = db_shell::SplitWords(command);
    if (words.size() <= typed.size()) continue;
    if (!std::equal(typed.begin(), typed.end(), words.begin())) continue;
    const std::string& next = words[typed.size()];
    if (next.compare(0, prefix.size(), prefix) != 0) continue;
    if (std::find(g_candidates.begin(), g_candidates.end(), next) == g_candidates.end()) {
      g_candidates.push_back(next);
    }
  }
  if (g_candidates.empty()) return nullptr;
  return rl_completion_matches(text, NextCandidate);
}

template <class NextLine>
int RunLines(db_shell::Shell* shell, NextLine next_line) {
  int status = kExitOk;
  std::string line;
  while (next_line(&line)) {
    const db_shell::Shell::Outcome outcome = shell->Execute(line, stdout);
    fflush(stdout);
    if (outcome == db_shell::Shell::Outcome::kQuit) break;
    if (outcome == db_shell::Shell::Outcome::kUnknown ||
        outcome == db_shell::Shell::Outcome::kRefused) {
      status = kExitCommandFailed;
    }
  }
  return status;
}

int RunInteractive(db_shell::Shell* shell) {
  rl_readline_name = "db-shell";
  g_completion_texts = &shell->command_texts();
  rl_attempted_completion_function = CompleteCommandWord;
  return RunLines(shell, [](std::string* line) {
    char* raw = readline("db-shell> ");
    if (raw == nullptr) {  // end of input (Ctrl-D)
      fputc('\n', stdout);
      return false;
    }
    *line = raw;
    free(raw);
    if (line->find_first_not_of(" \t") != std::string::npos) add_history(line->c_str());
    return true;
  });
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int parsed = ParseArguments(argc, argv, &options);
  if (parsed >= 0) return parsed;

  db_shell::EnableSqliteUris();
  FILE* log_stream = OpenLogStream(options.verbose);
  zlog_set_output(log_stream != nullptr ? log_stream : stderr);
  qelmw_t* mw = qelmw_create("db-shell");
  db::Init(mw);

  // Look before the library touches anything: its backends create a missing
  // database when they connect. LevelDB has no read-only open, so a LevelDB
  // database is read from a private copy, removed after the shell (declared
  // first, so destroyed last).
  std::unique_ptr<db_shell::LevelDbCopy> copy;
  std::string open_path = options.path;
  db_shell::Discovery discovery;
  if (options.type == db::kSqlite) {
    discovery = db_shell::DiscoverSqlite(options.path);
  } else if ((copy = db_shell::LevelDbCopy::Make(options.path, &discovery.error)) != nullptr) {
    open_path = copy->path();
    discovery = db_shell::DiscoverLevelDb(open_path, options.path);
  }
  int status = kExitOk;
  if (!discovery.error.empty()) {
    fprintf(stderr, "db-shell: %s\n", Printable(discovery.error).c_str());
    status = kExitCannotOpen;
  } else {
    for (const std::string& warning : discovery.warnings) {
      fprintf(stderr, "db-shell: %s\n", Printable(warning).c_str());
    }
    if (discovery.tables.empty()) {
      fprintf(stderr, "db-shell: %s: no tables found\n", options.path.c_str());
    }
    std::string error;
    std::unique_ptr<db_shell::Shell> shell = db_shell::Shell::Create(
        options.type,
        options.type == db::kSqlite ? db_shell::SqliteReadOnlyName(options.path) : open_path,
        discovery.tables, &error);
    if (shell == nullptr) {
      fprintf(stderr, "db-shell: %s\n", error.c_str());
      status = kExitCannotOpen;
    } else if (!options.commands.empty()) {
      size_t index = 0;
      status = RunLines(shell.get(), [&options, &index](std::string* line) {
        if (index >= options.commands.size()) return false;
        *line = options.commands[index++];
        return true;
      });
    } else if (isatty(STDIN_FILENO)) {
      status = RunInteractive(shell.get());
    } else {
      status =
          RunLines(shell.get(), [](std::string* line) { return !!std::getline(std::cin, *line); });
    }
  }

  zlog_set_output(stderr);
  if (log_stream != nullptr) fclose(log_stream);
  qelmw_destroy(mw);
  return status;
}
