#include "db/elem_cfg.h"

#include "support/test_util.h"

namespace {

TEST(ElemCfgTest, LogClassesSeveritiesAndCategories) {
  const char* const classes[] = {"userLog", "devLog", "remoteUserLog"};
  const char* const severities[] = {"Emergency", "Alert",  "Critical",      "Error",
                                    "Warning",   "Notice", "Informational", "Debug"};
  for (int i = -1; i <= 8; ++i) {
    EXPECT_STREQ(i >= 0 && i < 3 ? classes[i] : nullptr, ElemLogCfgGetBaseClass(i)) << i;
    EXPECT_STREQ(i >= 0 && i < 8 ? severities[i] : nullptr, ElemLogCfgCalloutGetClassName(i)) << i;
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(i, ElemLogCfgGetHandle(classes[i]));
  for (const char* unknown :
       {"", "userlog", "userLog ", "sysLog", static_cast<const char*>(nullptr)})
    EXPECT_EQ(-1, ElemLogCfgGetHandle(unknown)) << (unknown ? unknown : "null");
  // Distinct, null-terminated, and the library's own among them.
  const int count = ElemWebCfgGetNumCategories();
  const char* const* categories = ElemWebCfgGetCategories();
  ASSERT_EQ(nullptr, categories[count]);
  std::set<std::string> seen(categories, categories + count);
  EXPECT_EQ(static_cast<size_t>(count), seen.size());
  EXPECT_EQ(1u, seen.count("db_intf"));
}

}  // namespace
