// Helpers shared by the test suites: scratch directories, captured log lines,
// library start-up, attribute values. Suites include it for the standard
// headers, gtest and gmock that nearly all of them use.

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
  a = v;
  return a;
}
inline db::Attribute Int(int32_t v) { return Val(v); }
inline db::Attribute Flt(float v) { return Val(v); }
inline db::Attribute Str(const std::string& v) { return Val(v); }
inline db::Attribute Bytes(const std::vector<uint8_t>& v) { return Val(v); }

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Captures every zlog line written while it exists (zlog_set_output), and
// calls db::Init once per process with a middleware handle.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  // Every line captured so far, without the line breaks.
  std::vector<std::string> Lines() const;
  // True when some captured line contains `text`.
  bool Contains(const std::string& text) const;
  // Number of captured lines containing `text`.
  int Count(const std::string& text) const;
  // Forgets what was captured so far.
  void Clear();

 private:
  FILE* file_;
};

// Calls db::Init with a process-wide middleware handle (idempotent).
void InitLibrary();

// Captures what `fn` writes to standard error (file descriptor 2).
template <class Fn>
std::string CaptureStderr(Fn fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

std::string ReadFile(const std::string& path);

// The argv that starts `program`, a program of this build: the words of
// $DB_INTF_TEST_EMULATOR (blank-separated; set by a cross build, where target
// programs run under an emulator) followed by `program`.
std::vector<std::string> ProgramCommand(const std::string& program);

// Starts `argv` (a ProgramCommand plus arguments) with standard input from
// /dev/null and standard output and error on `out_fd` and `err_fd`; returns
// its process id (the caller waits for it). The program is killed when the
// calling process dies.
pid_t StartProgram(const std::vector<std::string>& argv, int out_fd, int err_fd);

// What a program wrote and how it ended: its exit status, or -1 when it was
// killed by a signal or after a minute.
struct ProgramRun {
  int status = -1;
  std::string out, err;
};

// Runs `argv` (a ProgramCommand plus arguments) with `input` on standard
// input and waits for it.
ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input = "");

// "Sqlite" or "LevelDb": the name of a test that runs on backend `info.param`.
std::string BackendName(const testing::TestParamInfo<db::DbType>& info);

// Runs `line` on `group` (as the web interface with `web`) and returns what it
// printed; `*rc`, when given, gets the result.
std::string RunCommand(ELEM_CMD_GROUP_ST* group, const std::string& line, bool web = false,
                       int* rc = nullptr);

// The free ids of the process-wide allocator, one by one (small tests only).
std::set<uint32_t> FreeIds();

// `values` without the unset elements (a repeated field read back empty may hold one).
std::vector<db::Attribute> SetOnly(std::vector<db::Attribute> values);

}  // namespace db_test

#endif  // DB_INTF_TESTS_SUPPORT_TEST_UTIL_H_
