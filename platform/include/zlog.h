// Stand-in for the element's zlog logger.
//
// Each zlog() call writes one line to standard error, or to the stream given to
// zlog_set_output():
//   <category> <level> <file>:<line> <function>: <message>
// A null category is written as "-".

#ifndef PLATFORM_INCLUDE_ZLOG_H_
#define PLATFORM_INCLUDE_ZLOG_H_

#include <stddef.h>
#include <stdio.h>

#include "platform_export.h"

#ifdef __cplusplus
extern "C" {
#endif

// A log category (opaque), named by zlog_get_category.
typedef struct zlog_category_s zlog_category_t;

// Returns the category registered under `name`, creating it on first use.
// The same name always gives the same category. Null for a null name.
ELEM_PLATFORM_EXPORT zlog_category_t* zlog_get_category(const char* name);

// The category's name.
ELEM_PLATFORM_EXPORT const char* zlog_category_name(const zlog_category_t* category);

// Sends every later line to `out`; null restores standard error.
ELEM_PLATFORM_EXPORT void zlog_set_output(FILE* out);

// Writes one log line. `file` and `func` are taken with their given lengths.
ELEM_PLATFORM_EXPORT void zlog(zlog_category_t* category, const char* file, size_t filelen,
                               const char* func, size_t funclen, long line, int level,
                               const char* format, ...) __attribute__((format(printf, 8, 9)));

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_INCLUDE_ZLOG_H_
