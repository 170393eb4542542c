// Stand-in for the element's command shell: command groups, registration of
// commands with callbacks, and the output calls that callbacks use (text,
// tables, usage).
//
// Host side: a program creates a group, lets components register commands on
// it, and runs command lines with ElemCmdExecute (or ElemCmdExecuteWeb for a
// request that comes from the web interface). Each run gets a fresh context
// whose output goes to the FILE* given to the run.
//
// Tables: ElemCmdStartTable opens a table on a context, ElemCmdTableEntry adds
// one cell, ElemCmdEndTable prints the whole table. Cells are buffered until
// the table ends, because column widths depend on every cell. Printed form:
//
//   <title>
//   ------------------------------
//   <cell>    <cell>
//   <cell>    <cell>
//   ------------------------------
//
// Each column is padded to its width and columns are separated by two blanks;
// trailing blanks are dropped. With ELEM_CMD_TABLE_HEADING the first row is a
// heading, followed by its own dashed line. A cell longer than its column's
// final width is never cut: it wraps onto continuation lines in that column.
// Text printed with ElemCmdPrintf while a table is open appears before it.
//
// Threads: a group may be used by one thread at a time.

#ifndef PLATFORM_INCLUDE_ELEM_CMD_H_
#define PLATFORM_INCLUDE_ELEM_CMD_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

// A group of commands (opaque).
typedef struct ELEM_CMD_GROUP_ST ELEM_CMD_GROUP_ST;
// The run of one command line: its output and open table (opaque).
typedef struct ELEM_CMD_CONTEXT_ST ELEM_CMD_CONTEXT_ST;

// A command callback: `argv[0]` is the first argument after the command text,
// `argv[argc]` is null. `user` is the pointer given at registration. The
// result is the callback's own; ElemCmdExecute does not interpret it.
typedef int (*ELEM_CMD_CALLBACK)(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);

// Flag of ElemCmdStartTable: the first row holds the column headings.
#define ELEM_CMD_TABLE_HEADING 0x1
// Column index of ElemCmdTableEntry: the cell after the last one added.
#define ELEM_CMD_NEXT_COLUMN (-1)

// ---- Host side.

// A new, empty group; null when `name` is null. Free with ElemCmdGroupDestroy.
ELEM_PLATFORM_EXPORT ELEM_CMD_GROUP_ST* ElemCmdGroupCreate(const char* name);
// Frees the group and its registrations; null is accepted.
ELEM_PLATFORM_EXPORT void ElemCmdGroupDestroy(ELEM_CMD_GROUP_ST* group);
// Name given at creation, or null for a null group.
ELEM_PLATFORM_EXPORT const char* ElemCmdGroupName(const ELEM_CMD_GROUP_ST* group);

// Runs the registered command whose command text is the longest prefix of
// `line` ending at a word boundary, passing the remaining words (double quotes
// group a word with blanks) as argc/argv. Words are separated by blanks or
// tabs; runs of blanks count as one separator, also inside the command text.
// Output goes to `out`. Returns 0 when a command ran, -1 when none matched or
// an argument is null.
ELEM_PLATFORM_EXPORT int ElemCmdExecute(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out);
// As ElemCmdExecute, for a request coming from the web interface: inside the
// callback ElemCmdWebInterface reports 1.
ELEM_PLATFORM_EXPORT int ElemCmdExecuteWeb(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out);

// Registered commands, in registration order (for help texts and completion).
// The accessors return null for a null group or an index out of range.
//
// Number of registered commands; 0 for a null group.
ELEM_PLATFORM_EXPORT size_t ElemCmdCommandCount(const ELEM_CMD_GROUP_ST* group);
// Command text of command `index`, its words separated by one blank.
ELEM_PLATFORM_EXPORT const char* ElemCmdCommandText(const ELEM_CMD_GROUP_ST* group, size_t index);
// One-line help given at registration.
ELEM_PLATFORM_EXPORT const char* ElemCmdCommandHelp(const ELEM_CMD_GROUP_ST* group, size_t index);
// Description given at registration.
ELEM_PLATFORM_EXPORT const char* ElemCmdCommandDescription(const ELEM_CMD_GROUP_ST* group,
                                                           size_t index);
// Access level given at registration; 0 when out of range.
ELEM_PLATFORM_EXPORT int ElemCmdCommandAccessLevel(const ELEM_CMD_GROUP_ST* group, size_t index);
// Flag word given at registration; 0 when out of range.
ELEM_PLATFORM_EXPORT uint32_t ElemCmdCommandFlags(const ELEM_CMD_GROUP_ST* group, size_t index);

// ---- Calls made by the commands.

// Registers `callback` under the command text `command` (words separated by
// blanks), with a one-line `help` and a longer `description`, both copied;
// null texts are kept as empty texts. `access_level` and `flags` are stored as
// they are for the shell's own use. Returns 0, or -1 when `group`, `command`
// or `callback` is null, `command` holds no word, or a command with the same
// words is already registered (the first registration stays).
ELEM_PLATFORM_EXPORT int ElemCmdRegisterCommand(ELEM_CMD_GROUP_ST* group, const char* command,
                                                const char* help, const char* description,
                                                int access_level, uint32_t flags,
                                                ELEM_CMD_CALLBACK callback, void* user);

// printf to the context's output. Returns the number of bytes written, or -1
// for a null context or format.
ELEM_PLATFORM_EXPORT int ElemCmdPrintf(ELEM_CMD_CONTEXT_ST* ctx, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Opens a table of `num_columns` columns (1 or more) under `title`. `flags` is
// 0 or ELEM_CMD_TABLE_HEADING. `widths` gives a wanted width per column (may
// be null: no wanted width). A column's final width is the larger of its
// wanted width and its longest cell, kept within [min_width, max_width]
// (max_width 0: no maximum); cells longer than the final width wrap. A table
// still open is printed first. Returns 0, or -1 for a null context or fewer
// than one column.
ELEM_PLATFORM_EXPORT int ElemCmdStartTable(ELEM_CMD_CONTEXT_ST* ctx, const char* title,
                                           int num_columns, uint32_t flags, const uint32_t* widths,
                                           uint32_t min_width, uint32_t max_width);

// Adds one cell, the printf-formatted text, at `column` (0-based) or, with
// ELEM_CMD_NEXT_COLUMN, after the last cell added. A column at or before the
// last cell of the current row starts a new row; the cells skipped over stay
// empty. So (0,"Id") (1,"7") (1,"Content") gives the rows [Id|7] and
// [|Content]. Returns 0, or -1 without an open table or for a column outside
// the table.
ELEM_PLATFORM_EXPORT int ElemCmdTableEntry(ELEM_CMD_CONTEXT_ST* ctx, int column, const char* format,
                                           ...) __attribute__((format(printf, 3, 4)));

// Prints the open table and closes it. Returns 0, or -1 without an open table.
// A table that a callback leaves open is printed when the command returns.
ELEM_PLATFORM_EXPORT int ElemCmdEndTable(ELEM_CMD_CONTEXT_ST* ctx);

// 1 when the running command came in through the web interface, else 0.
ELEM_PLATFORM_EXPORT int ElemCmdWebInterface(ELEM_CMD_CONTEXT_ST* ctx);

// Tells the web interface that `command_word` takes `num_args` variable
// arguments, as the line "<command_word>: <num_args> variable arguments".
// Returns 0, or -1 for a null context or word or a negative count.
ELEM_PLATFORM_EXPORT int ElemCmdGetVarArgs(ELEM_CMD_CONTEXT_ST* ctx, const char* command_word,
                                           int num_args);

// Prints "Usage: <command text> <arguments>". Returns 0, or -1 for a null
// context.
ELEM_PLATFORM_EXPORT int ElemCmdUsage(ELEM_CMD_CONTEXT_ST* ctx, const char* arguments);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_INCLUDE_ELEM_CMD_H_
