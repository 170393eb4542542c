// Helpers shared by the test suites, with the headers nearly all of them use.

#ifndef DB_INTF_TESTS_SUPPORT_TEST_UTIL_H_
#define DB_INTF_TESTS_SUPPORT_TEST_UTIL_H_

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/attribute.h"
#include "db/database_api.h"
#include "elem_cmd.h"

namespace db_test {

// A set attribute of the kind `v` selects (int32_t, float, std::string, bytes).
template <class T>
db::Attribute Val(const T& v) {
  db::Attribute a;
  return a = v;
}
inline db::Attribute Int(int32_t v) { return Val(v); }
inline db::Attribute Flt(float v) { return Val(v); }
inline db::Attribute Str(const std::string& v) { return Val(v); }
inline db::Attribute Bytes(const std::vector<uint8_t>& v) { return Val(v); }

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Captures the zlog lines written while it exists; calls InitLibrary first.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> Lines() const;  // without the line breaks
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  int Count(const std::string& text) const;  // lines containing `text`
  void Clear();

 private:
  FILE* file_;
};

void InitLibrary();

template <class Fn>
std::string CaptureStderr(Fn fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

std::string ReadFile(const std::string& path);

// The words of $DB_INTF_TEST_EMULATOR (set by a cross build), then `program`.
std::vector<std::string> ProgramCommand(const std::string& program);

// Starts `argv` reading /dev/null; the caller waits for the pid. Killed when the caller dies.
pid_t StartProgram(const std::vector<std::string>& argv, int out_fd, int err_fd);

struct ProgramRun {
  int status = -1;  // -1 when killed by a signal or after a minute
  std::string out, err;
};

// Runs `argv` with `input` as standard input and waits for it.
ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input = "");

std::string BackendName(const testing::TestParamInfo<db::DbType>& info);

// What `line` printed on `group` (as the web interface with `web`); its result in `*rc`.
std::string RunCommand(ELEM_CMD_GROUP_ST* group, const std::string& line, bool web = false,
                       int* rc = nullptr);

std::set<uint32_t> FreeIds();

std::vector<db::Attribute> SetOnly(std::vector<db::Attribute> values);

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_TEST_UTIL_H_
