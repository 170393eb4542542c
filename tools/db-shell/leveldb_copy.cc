#include "leveldb_copy.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <leveldb/db.h>
#include <leveldb/env.h>
#include <leveldb/options.h>

#include "discovery.h"

namespace db_shell {

namespace {

namespace fs = std::filesystem;

// A daemon may delete a table file between the copy of its manifest and the
// link of the file; the copy is then made again.
constexpr int kAttempts = 3;

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t size = std::strlen(suffix);
  return text.size() >= size && text.compare(text.size() - size, size, suffix) == 0;
}

// Table files never change once written (".ldb", or ".sst" from older
// versions of LevelDB).
bool IsTableFile(const std::string& name) {
  return EndsWith(name, ".ldb") || EndsWith(name, ".sst");
}

// Creates every new file afresh: a name that is a hard link to a file of the
// original directory is unlinked first, so that LevelDB's truncating open can
// never reach the original (a daemon's table still being written may carry the
// number that the recovery of the copy picks for its own table).
class FreshFileEnv : public leveldb::EnvWrapper {
 public:
  FreshFileEnv() : leveldb::EnvWrapper(leveldb::Env::Default()) {}
  leveldb::Status NewWritableFile(const std::string& name, leveldb::WritableFile** file) override {
    target()->RemoveFile(name);  // absent in the usual case
    return target()->NewWritableFile(name, file);
  }
};

}  // namespace

std::unique_ptr<LevelDbCopy> LevelDbCopy::Make(const std::string& dir, std::string* error) {
  *error = LevelDbDirectoryProblem(dir);
  if (!error->empty()) return nullptr;
  const char* tmp = getenv("TMPDIR");
  const std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::string pattern = base + "/db-shell-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      *error = "cannot create a private copy of " + dir + " in " + base + ": " + strerror(errno);
      return nullptr;
    }
    std::unique_ptr<LevelDbCopy> copy(new LevelDbCopy(pattern));
    std::string reason;
    if (copy->CopyFiles(dir, &reason) && copy->Recover(&reason)) return copy;
    *error = dir + ": cannot open a private copy of the LevelDB database: " + reason;
  }
  return nullptr;
}

LevelDbCopy::~LevelDbCopy() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

bool LevelDbCopy::CopyFiles(const std::string& dir, std::string* error) const {
  std::error_code ec;
  std::vector<std::string> first;  // CURRENT and the manifests
  std::vector<std::string> rest;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name == "CURRENT" || name.rfind("MANIFEST-", 0) == 0) {
      first.push_back(name);
    } else if (EndsWith(name, ".log") || IsTableFile(name)) {
      rest.push_back(name);
    }
    // LOCK belongs to the original's owner; LOG and LOG.old are LevelDB's
    // diagnostics; anything else is not part of the database.
  }
  if (ec) {
    *error = ec.message();
    return false;
  }
  // The manifest first: the files it names were all there when it was read.
  first.insert(first.end(), rest.begin(), rest.end());
  for (const std::string& name : first) {
    const std::string from = dir + "/" + name;
    const std::string to = path_ + "/" + name;
    // A link shares a table file. Everything else may still be appended to by
    // the original's owner: copied.
    if (IsTableFile(name) && link(from.c_str(), to.c_str()) == 0) continue;
    if (!fs::copy_file(from, to, ec)) {
      // A file the owner deleted meanwhile was obsolete, unless the copy's
      // manifest still names it: then the recovery below fails.
      if (ec == std::errc::no_such_file_or_directory) continue;
      *error = from + ": " + ec.message();
      return false;
    }
  }
  return true;
}

bool LevelDbCopy::Recover(std::string* error) const {
  FreshFileEnv env;
  leveldb::Options options;
  options.env = &env;
  leveldb::DB* raw = nullptr;
  const leveldb::Status status = leveldb::DB::Open(options, path_, &raw);
  delete raw;
  if (!status.ok()) *error = status.ToString();
  return status.ok();
}

}  // namespace db_shell
