#include "support/test_util.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "db/init.h"
#include "id_generator.h"
#include "qelmw.h"
#include "zlog.h"

namespace db_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/db-intf-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

LogCapture::LogCapture() : file_(tmpfile()) {
  InitLibrary();
  zlog_set_output(file_);
}

LogCapture::~LogCapture() {
  zlog_set_output(nullptr);
  if (file_ != nullptr) fclose(file_);
}

std::vector<std::string> LogCapture::Lines() const {
  std::vector<std::string> lines;
  if (file_ == nullptr) return lines;
  fflush(file_);
  long end = ftell(file_);
  rewind(file_);
  std::string text(static_cast<size_t>(end), '\0');
  size_t got = fread(text.data(), 1, text.size(), file_);
  text.resize(got);
  fseek(file_, 0, SEEK_END);
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool LogCapture::Contains(const std::string& text) const { return Count(text) > 0; }

int LogCapture::Count(const std::string& text) const {
  int n = 0;
  for (const auto& line : Lines()) n += line.find(text) != std::string::npos ? 1 : 0;
  return n;
}

void LogCapture::Clear() {
  if (file_ == nullptr) return;
  fclose(file_);
  file_ = tmpfile();
  zlog_set_output(file_);
}

void InitLibrary() {
  static qelmw_t* mw = [] {
    qelmw_t* handle = qelmw_create("db-intf-test");
    db::Init(handle);
    return handle;
  }();
  (void)mw;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> ProgramCommand(const std::string& program) {
  std::vector<std::string> argv;
  const char* emulator = getenv("DB_INTF_TEST_EMULATOR");
  std::istringstream words(emulator != nullptr ? emulator : "");
  for (std::string word; words >> word;) argv.push_back(word);
  argv.push_back(program);
  return argv;
}

namespace {

pid_t Start(const std::vector<std::string>& argv, int in_fd, int out_fd, int err_fd) {
  std::vector<std::string> args = argv;
  std::vector<char*> pointers;
  for (std::string& arg : args) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the test, even one that dies
  dup2(in_fd, 0);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  execvp(pointers[0], pointers.data());
  _exit(127);
}

}  // namespace

pid_t StartProgram(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  const int null_fd = open("/dev/null", O_RDONLY);
  const pid_t pid = Start(argv, null_fd, out_fd, err_fd);
  close(null_fd);
  return pid;
}

ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input) {
  TempDir io;
  std::ofstream(io.File("in")) << input;
  const int in = open(io.File("in").c_str(), O_RDONLY);
  const int out = open(io.File("out").c_str(), O_WRONLY | O_CREAT, 0600);
  const int err = open(io.File("err").c_str(), O_WRONLY | O_CREAT, 0600);
  const pid_t pid = Start(argv, in, out, err);
  close(in), close(out), close(err);
  int status = 0;
  for (int waited_ms = 0; waitpid(pid, &status, WNOHANG) == 0; waited_ms += 5) {
    if (waited_ms >= 60000) kill(pid, SIGKILL);
    usleep(5000);
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(io.File("out")),
          ReadFile(io.File("err"))};
}

std::string BackendName(const testing::TestParamInfo<db::DbType>& info) {
  return info.param == db::kSqlite ? "Sqlite" : "LevelDb";
}

std::string RunCommand(ELEM_CMD_GROUP_ST* group, const std::string& line, bool web, int* rc) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  const int result =
      web ? ElemCmdExecuteWeb(group, line.c_str(), out) : ElemCmdExecute(group, line.c_str(), out);
  fclose(out);
  std::string text(buffer, size);
  free(buffer);
  if (rc != nullptr) *rc = result;
  return text;
}

std::set<uint32_t> FreeIds() {
  std::set<uint32_t> ids;
  for (const auto& [first, last] : db::IdGenerator::GetInstance().free_ranges()) {
    for (uint64_t id = first; id <= last; ++id) ids.insert(static_cast<uint32_t>(id));
  }
  return ids;
}

std::vector<db::Attribute> SetOnly(std::vector<db::Attribute> values) {
  values.erase(std::remove_if(values.begin(), values.end(), [](auto& a) { return !a.is_set(); }),
               values.end());
  return values;
}

}  // namespace db_test
