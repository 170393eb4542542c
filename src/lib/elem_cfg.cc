#include "db/elem_cfg.h"

#include <cstring>
#include <iterator>

namespace {

constexpr const char* kLogClasses[] = {"userLog", "devLog", "remoteUserLog"};

// Indexed by syslog severity.
constexpr const char* kSeverities[] = {"Emergency", "Alert",  "Critical",      "Error",
                                       "Warning",   "Notice", "Informational", "Debug"};

// Null-terminated, so that C callers may also walk it without the count.
constexpr const char* kCategories[] = {
    "system", "db_intf", "ipc", "interfaces", "routing", "switching", "alarms",   "security",
    "snmp",   "web",     "cli", "ntp",        "dhcp",    "qos",       "firmware", nullptr,
};

template <class T, size_t N>
const char* Lookup(const T (&table)[N], int index) {
  return index >= 0 && static_cast<size_t>(index) < N ? table[index] : nullptr;
}

}  // namespace

extern "C" {

int ElemLogCfgGetHandle(const char* class_name) {
  if (class_name == nullptr) return -1;
  for (size_t i = 0; i < std::size(kLogClasses); ++i) {
    if (std::strcmp(kLogClasses[i], class_name) == 0) return static_cast<int>(i);
  }
  return -1;
}

const char* ElemLogCfgGetBaseClass(int handle) { return Lookup(kLogClasses, handle); }

const char* ElemLogCfgCalloutGetClassName(int severity) { return Lookup(kSeverities, severity); }

const char* const* ElemWebCfgGetCategories(void) { return kCategories; }

int ElemWebCfgGetNumCategories(void) { return static_cast<int>(std::size(kCategories) - 1); }

}  // extern "C"
