// The option parser on argument words (split at NUL bytes), against a table
// with a field of every kind and print format.

#include "elem_parser.h"
#include "fuzz_util.h"
#include "shell.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto object =
      db_fuzz::PopulatedTable(db::kSqlite, db_fuzz::Scratch() + "/parser.db", "t");
  std::vector<std::string> words = db_fuzz::Split(data, size, '\0');
  // A -c group named without letter or digit loops for ever, as required.
  if (db_shell::HasNamelessFilterGroup(words)) return 0;
  std::string program = "Retrieve Records t";
  std::vector<char*> argv = {program.data()};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  db::ScalarFields scalar;
  db::CompositeFields composite;
  db::ElemParser::ParseCmdParam(static_cast<int>(argv.size() - 1), argv.data(), *object, scalar,
                                composite);
  for (const auto& [name, value] : scalar)
    db_fuzz::Require(object->scalar_fields().at(name).type() == value.type(), "filter type");
  return 0;
}
