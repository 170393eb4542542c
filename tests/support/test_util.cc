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
  path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/db-intf-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
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
  fclose(file_);
}

std::vector<std::string> LogCapture::Lines() const {
  rewind(file_);
  std::vector<std::string> lines;
  char* line = nullptr;
  size_t capacity = 0;
  for (ssize_t n; (n = getline(&line, &capacity, file_)) > 0;)
    lines.emplace_back(line, n - (line[n - 1] == '\n' ? 1 : 0));
  free(line);
  fseek(file_, 0, SEEK_END);
  return lines;
}

int LogCapture::Count(const std::string& text) const {
  const auto lines = Lines();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != line.npos;
  }));
}

void LogCapture::Clear() {
  fclose(file_);
  file_ = tmpfile();
  zlog_set_output(file_);
}

void InitLibrary() {
  static qelmw_t* const mw = [] {  // once per process
    qelmw_t* handle = qelmw_create("db-intf-test");
    db::Init(handle);
    return handle;
  }();
  (void)mw;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

std::vector<std::string> ProgramCommand(const std::string& program) {
  const char* emulator = getenv("DB_INTF_TEST_EMULATOR");
  std::istringstream words(emulator != nullptr ? emulator : "");
  std::vector<std::string> argv;
  for (std::string word; words >> word;) argv.push_back(word);
  argv.push_back(program);
  return argv;
}

namespace {

pid_t Start(std::vector<std::string> args, const std::string& input, int out_fd, int err_fd) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the test, even one that dies
  dup2(open(input.c_str(), O_RDONLY | O_CLOEXEC), 0);  // fd 0 itself stays open
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  execvp(argv[0], argv.data());
  _exit(127);
}

}  // namespace

pid_t StartProgram(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  return Start(argv, "/dev/null", out_fd, err_fd);
}

ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input) {
  TempDir io;
  std::ofstream(io.File("in")) << input;
  const int out = open(io.File("out").c_str(), O_WRONLY | O_CREAT, 0600);
  const int err = open(io.File("err").c_str(), O_WRONLY | O_CREAT, 0600);
  const pid_t pid = Start(argv, io.File("in"), out, err);
  close(out);
  close(err);
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
  for (const auto& [first, last] : db::IdGenerator::GetInstance().free_ranges())
    for (uint64_t id = first; id <= last; ++id) ids.insert(static_cast<uint32_t>(id));
  return ids;
}

std::vector<db::Attribute> SetOnly(std::vector<db::Attribute> values) {
  values.erase(std::remove_if(values.begin(), values.end(), [](auto& a) { return !a.is_set(); }),
               values.end());
  return values;
}

}  // namespace db_test
