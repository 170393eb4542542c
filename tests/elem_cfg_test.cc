#include "db/elem_cfg.h"

#include "support/test_util.h"

namespace {

TEST(ElemCfgTest, LogClassesSeveritiesAndCategories) {
  const char* const classes[] = {"userLog", "devLog", "remoteUserLog"};
  const char* const severities[] = {"Emergency", "Alert",  "Critical",      "Error",
                                    "Warning",   "Notice", "Informational", "Debug"};
  for (int i = -1; i <= 8; ++i) {
    const bool known_class = i >= 0 && i < 3, known_severity = i >= 0 && i < 8;
    EXPECT_STREQ(known_class ? classes[i] : nullptr, ElemLogCfgGetBaseClass(i)) << i;
    EXPECT_STREQ(known_severity ? severities[i] : nullptr, ElemLogCfgCalloutGetClassName(i)) << i;
    if (known_class) {
      EXPECT_EQ(i, ElemLogCfgGetHandle(classes[i]));
    }
  }
  for (const char* unknown :
       {"", "userlog", "userLog ", "sysLog", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(-1, ElemLogCfgGetHandle(unknown)) << (unknown ? unknown : "null");
  }
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
