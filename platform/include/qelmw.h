// Stand-in for the element middleware library: an application handle and the
// registration of trace categories.

#ifndef PLATFORM_INCLUDE_QELMW_H_
#define PLATFORM_INCLUDE_QELMW_H_

#include "platform_export.h"
#include "zlog.h"

#ifdef __cplusplus
extern "C" {
#endif

// A middleware handle of one application (opaque).
typedef struct qelmw_s qelmw_t;

// A middleware handle for the application `app_name`; null for a null name.
ELEM_PLATFORM_EXPORT qelmw_t* qelmw_create(const char* app_name);
// Frees the handle; null is accepted.
ELEM_PLATFORM_EXPORT void qelmw_destroy(qelmw_t* mw);
// The application name given to qelmw_create.
ELEM_PLATFORM_EXPORT const char* qelmw_app_name(const qelmw_t* mw);

// Registers the trace category `name` for `mw` and returns its zlog category;
// null when `mw` or `name` is null.
ELEM_PLATFORM_EXPORT zlog_category_t* qelmw_trace_register_category(const char* name, qelmw_t* mw);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_INCLUDE_QELMW_H_
