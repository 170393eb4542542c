// The library's logging category and the macros through which every log line
// of the library goes.

#ifndef DB_INTF_SRC_LIB_LOGGER_H_
#define DB_INTF_SRC_LIB_LOGGER_H_

#include "qelmw.h"
#include "zlog.h"

namespace db {

// Level of the two informational lines (object construction and destruction).
constexpr int kLogLevelInfo = 10;
// Level of every error line.
constexpr int kLogLevelError = 12;

class Logger {
 public:
  // The process-wide instance, created on first use and never destroyed.
  static Logger& Instance();
  // Registers the trace category "db_intf" for `mw`; aborts when that fails.
  void Init(qelmw_t* mw);
  // Null until Init succeeded.
  zlog_category_t* trccat() const { return trccat_; }

 private:
  Logger() = default;
  zlog_category_t* trccat_ = nullptr;
};

}  // namespace db

// One zlog call with the source file (relative to the source root), the bare
// function name and the line. Formats of error lines begin with "ERROR".
#define DB_LOG(level, ...)                                                          \
  zlog(::db::Logger::Instance().trccat(), __FILE__, sizeof(__FILE__) - 1, __func__, \
       sizeof(__func__) - 1, __LINE__, (level), __VA_ARGS__)
#define DB_LOG_INFO(...) DB_LOG(::db::kLogLevelInfo, __VA_ARGS__)
#define DB_LOG_ERROR(...) DB_LOG(::db::kLogLevelError, __VA_ARGS__)

#endif  // DB_INTF_SRC_LIB_LOGGER_H_
