#include "qelmw.h"

#include <string>

struct qelmw_s {
  std::string app_name;
};

extern "C" {

qelmw_t* qelmw_create(const char* app_name) {
  if (app_name == nullptr) return nullptr;
  return new qelmw_t{app_name};
}

void qelmw_destroy(qelmw_t* mw) { delete mw; }

const char* qelmw_app_name(const qelmw_t* mw) { return mw == nullptr ? "" : mw->app_name.c_str(); }

zlog_category_t* qelmw_trace_register_category(const char* name, qelmw_t* mw) {
  if (mw == nullptr || name == nullptr) return nullptr;
  return zlog_get_category(name);
}

}  // extern "C"
