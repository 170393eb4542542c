// Set-up shared by the fuzz targets.

#ifndef DB_INTF_TESTS_FUZZ_FUZZ_UTIL_H_
#define DB_INTF_TESTS_FUZZ_FUZZ_UTIL_H_

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/db_object.h"

namespace db_fuzz {

// Starts the library once, logging to Sink() (/dev/null); a directory removed at exit.
const std::string& Scratch();
FILE* Sink();
// `data` split at every `separator` byte (an empty input gives one empty part).
std::vector<std::string> Split(const uint8_t* data, size_t size, char separator);
// Five records with a field per kind and print format, two repeated (LevelDB: an index).
std::unique_ptr<db::DbObject> PopulatedTable(db::DbType type, const std::string& path,
                                             const std::string& table);
// Aborts with `what` unless `ok`: a broken property is a finding.
void Require(bool ok, const char* what);

// Runs `fn`, ending quietly on the conversion errors the library lets pass from damaged values.
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
