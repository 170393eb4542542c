// Stand-in for the element's command shell: command groups, registration of
// commands with callbacks, and the output calls that callbacks use (text,
// tables, usage).

#ifndef PLATFORM_INCLUDE_ELEM_CMD_H_
#define PLATFORM_INCLUDE_ELEM_CMD_H_

#include <stdint.h>
#include <stdio.h>

#include "platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ELEM_CMD_GROUP_ST ELEM_CMD_GROUP_ST;
typedef struct ELEM_CMD_CONTEXT_ST ELEM_CMD_CONTEXT_ST;

// A command callback: `argv[0]` is the first argument after the command text.
typedef int (*ELEM_CMD_CALLBACK)(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);

// ---- Host side.
ELEM_PLATFORM_EXPORT ELEM_CMD_GROUP_ST* ElemCmdGroupCreate(const char* name);
ELEM_PLATFORM_EXPORT void ElemCmdGroupDestroy(ELEM_CMD_GROUP_ST* group);
// Runs the registered command whose command text is the longest prefix of
// `line` ending at a word boundary, passing the remaining words (double quotes
// group a word with blanks) as argc/argv. Output goes to `out`. Returns 0 when a
// command ran, -1 when none matched.
ELEM_PLATFORM_EXPORT int ElemCmdExecute(ELEM_CMD_GROUP_ST* group, const char* line, FILE* out);

// ---- Calls made by the library (completed by the command-shell stand-in).
ELEM_PLATFORM_EXPORT int ElemCmdRegisterCommand(ELEM_CMD_GROUP_ST* group, const char* command,
                                                const char* help, const char* description,
                                                int access_level, uint32_t flags,
                                                ELEM_CMD_CALLBACK callback, void* user);
ELEM_PLATFORM_EXPORT int ElemCmdPrintf(ELEM_CMD_CONTEXT_ST* ctx, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_INCLUDE_ELEM_CMD_H_
