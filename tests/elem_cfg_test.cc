#include "db/elem_cfg.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(ElemCfgTest, LogClassesSeveritiesAndCategories) {
  const char* const classes[] = {"userLog", "devLog", "remoteUserLog"};
  for (int handle = 0; handle < 3; ++handle) {
    EXPECT_EQ(handle, ElemLogCfgGetHandle(classes[handle]));
    EXPECT_STREQ(classes[handle], ElemLogCfgGetBaseClass(handle));
  }
  for (const char* unknown : {"", "userlog", "userLog ", "sysLog"}) {
    EXPECT_EQ(-1, ElemLogCfgGetHandle(unknown)) << unknown;
  }
  EXPECT_EQ(-1, ElemLogCfgGetHandle(nullptr));
  EXPECT_EQ(nullptr, ElemLogCfgGetBaseClass(-1));
  EXPECT_EQ(nullptr, ElemLogCfgGetBaseClass(3));

  const char* const severities[] = {"Emergency", "Alert",  "Critical",      "Error",
                                    "Warning",   "Notice", "Informational", "Debug"};
  for (int severity = 0; severity < 8; ++severity) {
    EXPECT_STREQ(severities[severity], ElemLogCfgCalloutGetClassName(severity));
  }
  EXPECT_EQ(nullptr, ElemLogCfgCalloutGetClassName(-1));
  EXPECT_EQ(nullptr, ElemLogCfgCalloutGetClassName(8));

  // Distinct, non-empty, null-terminated, and the library's own among them.
  const int count = ElemWebCfgGetNumCategories();
  const char* const* categories = ElemWebCfgGetCategories();
  ASSERT_GT(count, 0);
  std::set<std::string> seen;
  for (int i = 0; i < count; ++i) {
    ASSERT_NE(nullptr, categories[i]) << i;
    EXPECT_NE("", std::string(categories[i]));
    EXPECT_TRUE(seen.insert(categories[i]).second) << categories[i];
  }
  EXPECT_EQ(nullptr, categories[count]);
  EXPECT_EQ(1u, seen.count("db_intf"));
}

}  // namespace
