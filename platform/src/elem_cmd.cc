#include "elem_cmd.h"

#include <stdarg.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Command {
  std::vector<std::string> words;
  std::string text;  // the words joined by single blanks
  std::string help;
  std::string description;
  int access_level = 0;
  uint32_t flags = 0;
  ELEM_CMD_CALLBACK callback = nullptr;
  void* user = nullptr;
};

struct Table {
  std::string title;
  size_t num_columns = 1;
  uint32_t flags = 0;
  std::vector<uint32_t> wanted_widths;
  uint32_t min_width = 0;
  uint32_t max_width = 0;
  std::vector<std::vector<std::string>> rows;
  // Column of the last cell added to the last row; -1 before the first cell.
  int last_column = -1;
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Splits `line` into words at runs of blanks; double quotes group blanks into
// a word and are themselves dropped ("" is an empty word). An unterminated
// quote runs to the end of the line.
std::vector<std::string> SplitWords(const char* line) {
  std::vector<std::string> words;
  std::string word;
  bool in_word = false;
  bool quoted = false;
  for (const char* p = line; *p != '\0'; ++p) {
    if (*p == '"') {
      quoted = !quoted;
      in_word = true;
    } else if (!quoted && IsBlank(*p)) {
      if (in_word) words.push_back(word);
      word.clear();
      in_word = false;
    } else {
      word.push_back(*p);
      in_word = true;
    }
  }
  if (in_word) words.push_back(word);
  return words;
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty()) text.push_back(' ');
    text += word;
  }
  return text;
}

std::string FormatV(const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length <= 0) return std::string();
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  return text;
}

// The physical lines of one cell: its own line breaks, then pieces of at most
// `width` bytes (a width of 0 does not wrap).
std::vector<std::string> CellLines(const std::string& cell, size_t width) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (true) {
    size_t end = cell.find('\n', start);
    std::string part = cell.substr(start, end == std::string::npos ? end : end - start);
    if (width == 0 || part.size() <= width) {
      lines.push_back(part);
    } else {
      for (size_t pos = 0; pos < part.size(); pos += width)
        lines.push_back(part.substr(pos, width));
    }
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return lines;
}

size_t LongestLine(const std::string& cell) {
  size_t longest = 0;
  for (const auto& line : CellLines(cell, 0)) longest = std::max(longest, line.size());
  return longest;
}

void PrintTable(const Table& table, FILE* out) {
  std::vector<size_t> widths(table.num_columns, 0);
  for (size_t c = 0; c < table.num_columns; ++c) {
    size_t width = c < table.wanted_widths.size() ? table.wanted_widths[c] : 0;
    for (const auto& row : table.rows) {
      if (c < row.size()) width = std::max(width, LongestLine(row[c]));
    }
    width = std::max<size_t>(width, table.min_width);
    if (table.max_width != 0 && width > table.max_width) width = table.max_width;
    widths[c] = width;
  }
  size_t total = 0;
  for (size_t c = 0; c < widths.size(); ++c) total += widths[c] + (c == 0 ? 0 : 2);
  const std::string rule(total, '-');

  fprintf(out, "%s\n%s\n", table.title.c_str(), rule.c_str());
  for (size_t r = 0; r < table.rows.size(); ++r) {
    const auto& row = table.rows[r];
    std::vector<std::vector<std::string>> cells(table.num_columns);
    size_t height = 1;
    for (size_t c = 0; c < table.num_columns; ++c) {
      cells[c] = CellLines(c < row.size() ? row[c] : std::string(), widths[c]);
      height = std::max(height, cells[c].size());
    }
    for (size_t line = 0; line < height; ++line) {
      std::string text;
      for (size_t c = 0; c < table.num_columns; ++c) {
        if (c != 0) text += "  ";
        std::string piece = line < cells[c].size() ? cells[c][line] : std::string();
        piece.resize(std::max(piece.size(), widths[c]), ' ');
        text += piece;
      }
      text.erase(text.find_last_not_of(' ') + 1);
      fprintf(out, "%s\n", text.c_str());
    }
    if (r == 0 && (table.flags & ELEM_CMD_TABLE_HEADING) != 0) fprintf(out, "%s\n", rule.c_str());
  }
  fprintf(out, "%s\n", rule.c_str());
}

}  // namespace

struct ELEM_CMD_GROUP_ST {
  std::string name;
  std::vector<Command> commands;
};

struct ELEM_CMD_CONTEXT_ST {
  FILE* out = nullptr;
  // A copy: a callback may register commands, which moves the registrations.
  std::string command_text;
  bool web = false;
  std::unique_ptr<Table> table;
};

namespace {

const Command* CommandAt(const ELEM_CMD_GROUP_ST* group, size_t index) {
  if (group == nullptr || index >= group->commands.size()) return nullptr;
  return &group->commands[index];
}

int Execute(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out, bool web) {
  if (group == nullptr || line == nullptr || out == nullptr) return -1;
  std::vector<std::string> words = SplitWords(line);
  const Command* best = nullptr;
  for (const auto& command : group->commands) {
    if (command.words.size() > words.size()) continue;
    if (!std::equal(command.words.begin(), command.words.end(), words.begin())) continue;
    if (best == nullptr || command.words.size() > best->words.size()) best = &command;
  }
  if (best == nullptr) return -1;

  std::vector<std::string> args(words.begin() + static_cast<std::ptrdiff_t>(best->words.size()),
                                words.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  ELEM_CMD_CONTEXT_ST ctx;
  ctx.out = out;
  ctx.command_text = best->text;
  ctx.web = web;
  ELEM_CMD_CALLBACK callback = best->callback;
  void* user = best->user;
  callback(&ctx, static_cast<int>(args.size()), argv.data(), user);
  if (ctx.table) ElemCmdEndTable(&ctx);
  fflush(out);
  return 0;
}

}  // namespace

extern "C" {

ELEM_CMD_GROUP_ST* ElemCmdGroupCreate(const char* name) {
  if (name == nullptr) return nullptr;
  auto* group = new ELEM_CMD_GROUP_ST;
  group->name = name;
  return group;
}

void ElemCmdGroupDestroy(ELEM_CMD_GROUP_ST* group) { delete group; }

const char* ElemCmdGroupName(const ELEM_CMD_GROUP_ST* group) {
  return group == nullptr ? nullptr : group->name.c_str();
}

int ElemCmdExecute(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out) {
  return Execute(group, line, out, false);
}

int ElemCmdExecuteWeb(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out) {
  return Execute(group, line, out, true);
}

size_t ElemCmdCommandCount(const ELEM_CMD_GROUP_ST* group) {
  return group == nullptr ? 0 : group->commands.size();
}

const char* ElemCmdCommandText(const ELEM_CMD_GROUP_ST* group, size_t index) {
  const Command* command = CommandAt(group, index);
  return command == nullptr ? nullptr : command->text.c_str();
}

const char* ElemCmdCommandHelp(const ELEM_CMD_GROUP_ST* group, size_t index) {
  const Command* command = CommandAt(group, index);
  return command == nullptr ? nullptr : command->help.c_str();
}

const char* ElemCmdCommandDescription(const ELEM_CMD_GROUP_ST* group, size_t index) {
  const Command* command = CommandAt(group, index);
  return command == nullptr ? nullptr : command->description.c_str();
}

int ElemCmdCommandAccessLevel(const ELEM_CMD_GROUP_ST* group, size_t index) {
  const Command* command = CommandAt(group, index);
  return command == nullptr ? 0 : command->access_level;
}

uint32_t ElemCmdCommandFlags(const ELEM_CMD_GROUP_ST* group, size_t index) {
  const Command* command = CommandAt(group, index);
  return command == nullptr ? 0 : command->flags;
}

int ElemCmdRegisterCommand(ELEM_CMD_GROUP_ST* group, const char* command, const char* help,
                           const char* description, int access_level, uint32_t flags,
                           ELEM_CMD_CALLBACK callback, void* user) {
  if (group == nullptr || command == nullptr || callback == nullptr) return -1;
  Command entry;
  entry.words = SplitWords(command);
  if (entry.words.empty()) return -1;
  for (const auto& existing : group->commands) {
    if (existing.words == entry.words) return -1;
  }
  entry.text = JoinWords(entry.words);
  entry.help = help == nullptr ? "" : help;
  entry.description = description == nullptr ? "" : description;
  entry.access_level = access_level;
  entry.flags = flags;
  entry.callback = callback;
  entry.user = user;
  group->commands.push_back(std::move(entry));
  return 0;
}

int ElemCmdPrintf(ELEM_CMD_CONTEXT_ST* ctx, const char* format, ...) {
  if (ctx == nullptr || format == nullptr) return -1;
  va_list args;
  va_start(args, format);
  int written = vfprintf(ctx->out, format, args);
  va_end(args);
  return written;
}

int ElemCmdStartTable(ELEM_CMD_CONTEXT_ST* ctx, const char* title, int num_columns, uint32_t flags,
                      const uint32_t* widths, uint32_t min_width, uint32_t max_width) {
  if (ctx == nullptr || num_columns < 1) return -1;
  if (ctx->table) ElemCmdEndTable(ctx);
  auto table = std::make_unique<Table>();
  table->title = title == nullptr ? "" : title;
  table->num_columns = static_cast<size_t>(num_columns);
  table->flags = flags;
  if (widths != nullptr) table->wanted_widths.assign(widths, widths + num_columns);
  table->min_width = min_width;
  table->max_width = max_width;
  ctx->table = std::move(table);
  return 0;
}

int ElemCmdTableEntry(ELEM_CMD_CONTEXT_ST* ctx, int column, const char* format, ...) {
  if (ctx == nullptr || !ctx->table || format == nullptr) return -1;
  Table& table = *ctx->table;
  if (column == ELEM_CMD_NEXT_COLUMN) {
    column = table.last_column + 1;
    if (static_cast<size_t>(column) >= table.num_columns) column = 0;
  }
  if (column < 0 || static_cast<size_t>(column) >= table.num_columns) return -1;
  if (table.rows.empty() || column <= table.last_column) {
    table.rows.emplace_back(table.num_columns);
  }
  va_list args;
  va_start(args, format);
  table.rows.back()[static_cast<size_t>(column)] = FormatV(format, args);
  va_end(args);
  table.last_column = column;
  return 0;
}

int ElemCmdEndTable(ELEM_CMD_CONTEXT_ST* ctx) {
  if (ctx == nullptr || !ctx->table) return -1;
  std::unique_ptr<Table> table = std::move(ctx->table);
  PrintTable(*table, ctx->out);
  return 0;
}

int ElemCmdWebInterface(ELEM_CMD_CONTEXT_ST* ctx) { return ctx != nullptr && ctx->web ? 1 : 0; }

int ElemCmdGetVarArgs(ELEM_CMD_CONTEXT_ST* ctx, const char* command_word, int num_args) {
  if (ctx == nullptr || command_word == nullptr || num_args < 0) return -1;
  fprintf(ctx->out, "%s: %d variable arguments\n", command_word, num_args);
  return 0;
}

int ElemCmdUsage(ELEM_CMD_CONTEXT_ST* ctx, const char* arguments) {
  if (ctx == nullptr) return -1;
  fprintf(ctx->out, "Usage: %s %s\n", ctx->command_text.c_str(),
          arguments == nullptr ? "" : arguments);
  return 0;
}

}  // extern "C"
