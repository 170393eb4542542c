// Element log and web configuration tables: the log classes and severities of
// the element's logging service and the application categories offered by its
// web interface. Plain static tables with C linkage, so that other components
// of the element (C or C++) can look them up.
//
// Log classes, by handle: 0 "userLog", 1 "devLog", 2 "remoteUserLog".
// Severities, by syslog number: 0 "Emergency", 1 "Alert", 2 "Critical",
// 3 "Error", 4 "Warning", 5 "Notice", 6 "Informational", 7 "Debug".
//
// Every returned text is static and never freed by the caller.

#ifndef DB_INTF_INCLUDE_DB_ELEM_CFG_H_
#define DB_INTF_INCLUDE_DB_ELEM_CFG_H_

#include "db/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Handle of the log class named `class_name` (compared exactly), or -1 for a
// null or unknown name.
DB_INTF_EXPORT int ElemLogCfgGetHandle(const char* class_name);

// Name of the log class behind `handle`, or null for a handle outside 0..2.
DB_INTF_EXPORT const char* ElemLogCfgGetBaseClass(int handle);

// Name of the severity class that a log callout of syslog severity `severity`
// is filed under, or null for a severity outside 0..7.
DB_INTF_EXPORT const char* ElemLogCfgCalloutGetClassName(int severity);

// The application categories of the element, ElemWebCfgGetNumCategories() of
// them, followed by a null entry.
DB_INTF_EXPORT const char* const* ElemWebCfgGetCategories(void);

// Number of application categories.
DB_INTF_EXPORT int ElemWebCfgGetNumCategories(void);

#ifdef __cplusplus
}
#endif

#endif  // DB_INTF_INCLUDE_DB_ELEM_CFG_H_
