// Set-up shared by the fuzz targets: library start-up, scratch databases, a
// populated table with a field of every kind and print format, and the
// splitting of an input into parts.

#ifndef DB_INTF_TESTS_FUZZ_FUZZ_UTIL_H_
#define DB_INTF_TESTS_FUZZ_FUZZ_UTIL_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/db_object.h"

namespace db_fuzz {

// Starts the library once per process with its log lines going to /dev/null
// (the targets look for crashes, hangs and sanitizer reports, not for
// messages) and returns a scratch directory that is removed at exit.
const std::string& Scratch();

// /dev/null, for command output.
FILE* Sink();

// `data` split at every `separator` byte (an empty input gives one empty part).
std::vector<std::string> Split(const uint8_t* data, size_t size, char separator);

// An object on `table` of the SQLite file or LevelDB directory `path`, with
// one scalar field per kind and print format and two repeated fields (LevelDB:
// two of the fields indexed), the tables created and five records stored.
std::unique_ptr<db::DbObject> PopulatedTable(db::DbType type, const std::string& path,
                                             const std::string& table);

// Aborts with `what` on standard error when `ok` is false: a broken property
// is a finding like a crash.
void Require(bool ok, const char* what);

// Runs `fn`. The conversion errors that the library lets pass from damaged
// values (std::invalid_argument and std::out_of_range of std::stoi,
// std::stoul and substr) end it quietly; any other exception is a finding.
template <class Fn>
void AllowConversionErrors(Fn fn) {
  try {
    fn();
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
}

}  // namespace db_fuzz

#endif  // DB_INTF_TESTS_FUZZ_FUZZ_UTIL_H_
