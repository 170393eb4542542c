// A private copy of a LevelDB database directory for db-shell.
//
// LevelDB has no read-only open: opening a directory rewrites its CURRENT,
// MANIFEST and LOG files, and a database whose LOCK a daemon holds cannot be
// opened at all. db-shell therefore always works on a copy, so the original
// directory is never modified and a live database can be inspected: what the
// operator sees is a consistent view of the database as of the copy.

#ifndef DB_INTF_TOOLS_DB_SHELL_LEVELDB_COPY_H_
#define DB_INTF_TOOLS_DB_SHELL_LEVELDB_COPY_H_

#include <memory>
#include <string>
#include <utility>

namespace db_shell {

class LevelDbCopy {
 public:
  // Copies the database in `dir` into a fresh directory under $TMPDIR (or
  // /tmp): table files are hard-linked where the file system allows and
  // copied otherwise, CURRENT, the manifests and the write-ahead logs are
  // copied, LOCK and the info logs are left out. The copy is then recovered
  // once, so that later opens never write into a file it shares with `dir`.
  // Null, with a one-line reason in `*error`, when `dir` is not a LevelDB
  // database or cannot be copied.
  static std::unique_ptr<LevelDbCopy> Make(const std::string& dir, std::string* error);

  // Removes the copy. Every handle on it must be closed first.
  ~LevelDbCopy();
  LevelDbCopy(const LevelDbCopy&) = delete;
  LevelDbCopy& operator=(const LevelDbCopy&) = delete;

  const std::string& path() const { return path_; }

 private:
  explicit LevelDbCopy(std::string path) : path_(std::move(path)) {}

  // Copies the files of `dir`; false with the reason in `*error`.
  bool CopyFiles(const std::string& dir, std::string* error) const;
  // Opens and closes the copy once; false with the reason in `*error`.
  bool Recover(std::string* error) const;

  std::string path_;
};

}  // namespace db_shell

#endif  // DB_INTF_TOOLS_DB_SHELL_LEVELDB_COPY_H_
