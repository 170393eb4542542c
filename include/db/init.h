// Library start-up.

#ifndef DB_INTF_INCLUDE_DB_INIT_H_
#define DB_INTF_INCLUDE_DB_INIT_H_

#include "db/export.h"
#include "qelmw.h"

namespace db {

// Registers the trace category "db_intf" with the middleware handle `mw` and
// keeps it for every later log line. Call once before building any DbObject;
// a later call re-registers. A failed registration aborts the process.
DB_INTF_EXPORT void Init(qelmw_t* mw);

}  // namespace db

#endif  // DB_INTF_INCLUDE_DB_INIT_H_
