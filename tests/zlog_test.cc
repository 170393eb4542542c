#include "zlog.h"

#include "support/test_util.h"

namespace {

TEST(ZlogTest, LineFormat) {
  const std::string payload(10000, 'x');
  zlog_category_t* category = zlog_get_category("db_intf");
  EXPECT_EQ(db_test::CaptureStderr([&] {
              zlog(category, "src/lib/db_object.cc", 20, "StoreObject", 11, 123, 12,
                   "ERROR: table %s id %u code %d", "t1", 7u, -4);
              // File and function are cut to their given lengths; a null category is "-".
              zlog(nullptr, "src/lib/x.cc-garbage", 12, "Init-garbage", 4, 5, 10, "hello");
              zlog(nullptr, nullptr, 3, nullptr, 3, 0, 12, nullptr);
              zlog(nullptr, "f.cc", 4, "g", 1, 9, 12, "%s|end", payload.c_str());
            }),
            "db_intf 12 src/lib/db_object.cc:123 StoreObject: ERROR: table t1 id 7 code -4\n"
            "- 10 src/lib/x.cc:5 Init: hello\n- 12 :0 : \n- 12 f.cc:9 g: " +
                payload + "|end\n");
}

}  // namespace
