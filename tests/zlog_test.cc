// The logger and middleware stand-ins: line format, output stream, categories.

#include "zlog.h"

#include <stdio.h>

#include <string>

#include <gtest/gtest.h>

#include "qelmw.h"
#include "support/test_util.h"

namespace {

// Runs `fn` with zlog writing to a temporary file and returns what it wrote.
template <class Fn>
std::string CaptureZlog(Fn fn) {
  FILE* file = tmpfile();
  EXPECT_NE(file, nullptr);
  zlog_set_output(file);
  fn();
  zlog_set_output(nullptr);
  rewind(file);
  std::string text;
  char buf[4096];
  for (size_t got; (got = fread(buf, 1, sizeof(buf), file)) > 0;) text.append(buf, got);
  fclose(file);
  return text;
}

TEST(ZlogTest, WritesOneLineInTheDocumentedFormat) {
  zlog_category_t* category = zlog_get_category("db_intf");
  std::string text = CaptureZlog([&] {
    zlog(category, "src/lib/db_object.cc", 20, "StoreObject", 11, 123, 12,
         "ERROR: table %s id %u code %d", "t1", 7u, -4);
  });
  EXPECT_EQ(text,
            "db_intf 12 src/lib/db_object.cc:123 StoreObject: ERROR: table t1 id 7 code -4\n");
}

TEST(ZlogTest, NullCategoryIsWrittenAsDash) {
  std::string text =
      CaptureZlog([] { zlog(nullptr, "src/lib/logger.cc", 17, "Init", 4, 5, 10, "hello"); });
  EXPECT_EQ(text, "- 10 src/lib/logger.cc:5 Init: hello\n");
}

TEST(ZlogTest, FileAndFunctionAreTakenWithTheirGivenLengths) {
  std::string text = CaptureZlog([] {
    zlog(zlog_get_category("c"), "src/lib/x.cc-garbage", 12, "Func-garbage", 4, 1, 10, "m");
  });
  EXPECT_EQ(text, "c 10 src/lib/x.cc:1 Func: m\n");
}

TEST(ZlogTest, NullTextsGiveEmptyFieldsNotACrash) {
  std::string text = CaptureZlog([] { zlog(nullptr, nullptr, 3, nullptr, 3, 0, 12, nullptr); });
  EXPECT_EQ(text, "- 12 :0 : \n");
}

TEST(ZlogTest, LongMessagesAreNotCutShort) {
  const std::string payload(10000, 'x');
  std::string text = CaptureZlog(
      [&] { zlog(nullptr, "f.cc", 4, "g", 1, 9, 12, "ERROR: %s|end", payload.c_str()); });
  EXPECT_EQ(text, "- 12 f.cc:9 g: ERROR: " + payload + "|end\n");
}

TEST(ZlogTest, EveryCallIsOneLineInCallOrder) {
  std::string text = CaptureZlog([] {
    for (int i = 0; i < 3; ++i) zlog(nullptr, "f.cc", 4, "g", 1, i, 10, "n=%d", i);
  });
  EXPECT_EQ(text, "- 10 f.cc:0 g: n=0\n- 10 f.cc:1 g: n=1\n- 10 f.cc:2 g: n=2\n");
}

TEST(ZlogTest, NullOutputRestoresStandardError) {
  FILE* file = tmpfile();
  ASSERT_NE(file, nullptr);
  zlog_set_output(file);
  zlog_set_output(nullptr);
  std::string err =
      db_test::CaptureStderr([] { zlog(nullptr, "f.cc", 4, "g", 1, 2, 12, "to stderr"); });
  EXPECT_EQ(err, "- 12 f.cc:2 g: to stderr\n");
  EXPECT_EQ(ftell(file), 0);
  fclose(file);
}

TEST(ZlogTest, CategoriesAreOnePerName) {
  zlog_category_t* a = zlog_get_category("alpha");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(zlog_get_category("alpha"), a);
  EXPECT_NE(zlog_get_category("beta"), a);
  EXPECT_STREQ(zlog_category_name(a), "alpha");
  EXPECT_EQ(zlog_get_category(nullptr), nullptr);
  EXPECT_STREQ(zlog_category_name(nullptr), "-");
}

TEST(QelmwTest, RegistrationNeedsAHandleAndAName) {
  EXPECT_EQ(qelmw_create(nullptr), nullptr);
  EXPECT_EQ(qelmw_trace_register_category("db_intf", nullptr), nullptr);

  qelmw_t* mw = qelmw_create("app");
  ASSERT_NE(mw, nullptr);
  EXPECT_STREQ(qelmw_app_name(mw), "app");
  EXPECT_EQ(qelmw_trace_register_category(nullptr, mw), nullptr);
  zlog_category_t* category = qelmw_trace_register_category("db_intf", mw);
  ASSERT_NE(category, nullptr);
  EXPECT_EQ(category, zlog_get_category("db_intf"));
  EXPECT_STREQ(zlog_category_name(category), "db_intf");
  qelmw_destroy(mw);
  qelmw_destroy(nullptr);
  EXPECT_STREQ(qelmw_app_name(nullptr), "");
}

}  // namespace
