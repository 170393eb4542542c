// Template part of test_util.h.

#ifndef DB_INTF_TESTS_SUPPORT_TEST_UTIL_INL_H_
#define DB_INTF_TESTS_SUPPORT_TEST_UTIL_INL_H_

#include <gtest/gtest.h>

namespace db_test {

template <class Fn>
std::string CaptureStderr(Fn fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_TEST_UTIL_INL_H_
