// The assertion on a failed registration is kept in every build type: the
// daemons rely on the process ending there, so NDEBUG is undone for this file.
#undef NDEBUG

#include "logger.h"

#include <cassert>

#include "db/init.h"

namespace db {

void Init(qelmw_t* mw) { Logger::Instance().Init(mw); }

Logger& Logger::Instance() {
  static Logger* const the_instance = new Logger();  // never destroyed
  return *the_instance;
}

void Logger::Init(qelmw_t* mw) {
  trccat_ = qelmw_trace_register_category("db_intf", mw);
  assert(trccat_ != nullptr);  // a start-up error nothing can recover from
}

}  // namespace db
