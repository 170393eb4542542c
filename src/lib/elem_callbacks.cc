#include "elem_callbacks.h"

#include <errno.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "db/db_object.h"
#include "elem_parser.h"
#include "logger.h"

namespace db {
namespace ElemCallbacks {

namespace {

// "all" and "*" in an argument.
constexpr int32_t kAll = -1;
// A numeric Dump range up to this many ids is probed id by id; a longer one
// is answered from the ids stored, so that a huge count costs no more than
// the table holds.
constexpr uint32_t kMaxProbedRange = 4096;

// Reads one start-id or num-entries token: "all", "*" or a decimal number
// that fits a non-negative signed 32-bit value.
bool ParseIdToken(const char* token, int32_t* value) {
  if (std::strcmp(token, "all") == 0 || std::strcmp(token, "*") == 0) {
    *value = kAll;
    return true;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(token, &end, 10);
  if (end == token || *end != '\0' || errno == ERANGE) return false;
  if (number > UINT32_MAX || number > INT32_MAX) return false;
  *value = static_cast<int32_t>(number);
  return true;
}

// start-id [num-entries]; a missing num-entries means all.
bool ParseRange(int argc, char** argv, int32_t* start, int32_t* num) {
  *num = kAll;
  if (!ParseIdToken(argv[0], start)) return false;
  return argc < 2 || ParseIdToken(argv[1], num);
}

void PrintUsage(ELEM_CMD_CONTEXT_ST* ctx) {
  if (ElemCmdWebInterface(ctx)) {
    // The web forms of these commands all describe themselves by the Dump
    // word and its two arguments.
    ElemCmdGetVarArgs(ctx, "Dump", 2);
  } else {
    ElemCmdUsage(ctx, "<id>");
  }
}

void PrintError(ELEM_CMD_CONTEXT_ST* ctx, const char* text) { ElemCmdPrintf(ctx, "%s", text); }

// Reads the start-id [num-entries] arguments; false, after telling the user
// why, when they are missing or not valid.
bool ReadRange(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, int32_t* start, int32_t* num) {
  if (argc < 1) {
    PrintUsage(ctx);
    return false;
  }
  if (!ParseRange(argc, argv, start, num)) {
    PrintError(ctx, ErrorMgs::KInvalidArgs);
    return false;
  }
  return true;
}

// The shown text of one value, one word wherever a blank could appear.
std::string ValueText(const Attribute& value, PrintFormat format) {
  std::string text = DbObject::RenderValue(value, format);
  if (format == kLimId || (format == kDefault && value.type() == kString)) {
    std::replace(text.begin(), text.end(), ' ', kSpaceReplacer[0]);
  }
  return text;
}

// Display name of `field`, or null when the field is hidden or unknown.
const std::string* DisplayName(const DbObject& object, const std::string& field) {
  auto info = object.streamable_info().find(field);
  if (info == object.streamable_info().end() || info->second.first.empty()) return nullptr;
  return &info->second.first;
}

void StartRecordTable(ELEM_CMD_CONTEXT_ST* ctx, const DbObject& object, const std::string& title) {
  uint32_t longest = 0;
  for (const auto& info : object.streamable_info()) {
    longest = std::max(longest, static_cast<uint32_t>(info.second.first.size()));
  }
  const uint32_t widths[] = {longest, 150};
  ElemCmdStartTable(ctx, title.c_str(), 2, 0, widths, 8, 150);
}

void PrintRecord(ELEM_CMD_CONTEXT_ST* ctx, const DbObject& object, uint32_t id,
                 const ScalarFields& scalar, const CompositeFields& composite) {
  ElemCmdTableEntry(ctx, 0, "Id");
  ElemCmdTableEntry(ctx, 1, "%d", static_cast<int>(id));
  ElemCmdTableEntry(ctx, 1, "Content");
  for (const auto& field : scalar) {
    const std::string* display = DisplayName(object, field.first);
    if (display == nullptr) continue;
    const PrintFormat format = object.streamable_info().at(field.first).second;
    ElemCmdTableEntry(ctx, 0, "%s", display->c_str());
    ElemCmdTableEntry(ctx, 1, "%s", ValueText(field.second, format).c_str());
  }
  for (const auto& field : composite) {
    const std::string* display = DisplayName(object, field.first);
    if (display == nullptr) continue;
    const PrintFormat format = object.streamable_info().at(field.first).second;
    std::string text;
    bool first = true;
    for (const auto& element : field.second.second) {
      if (!element.is_set()) continue;
      // Every element but the first is preceded by the separator, also when
      // an element before it shows as the empty text.
      if (!first) text += ", ";
      first = false;
      text += ValueText(element, format);
    }
    ElemCmdTableEntry(ctx, 0, "%s", display->c_str());
    ElemCmdTableEntry(ctx, 1, "%s", text.c_str());
  }
}

// Runs one command; an exception from the object operations (a stored value
// that does not convert, or memory) becomes one error line, since unwinding
// into the C shell would end the process.
template <class Command>
int Guarded(ELEM_CMD_CONTEXT_ST* ctx, Command command) {
  try {
    return command();
  } catch (const std::exception& e) {
    ElemCmdPrintf(ctx, ErrorMgs::kReadFailed, e.what());
  } catch (...) {
    ElemCmdPrintf(ctx, ErrorMgs::kReadFailed, "unknown exception");
  }
  return 0;
}

int Dump(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  const DbObject& object = *static_cast<const DbObject*>(user);
  int32_t start = 0;
  int32_t num = kAll;
  if (!ReadRange(ctx, argc, argv, &start, &num)) return 0;
  const bool start_all = start == kAll;
  if (start_all) start = 1;

  std::vector<uint32_t> ids;
  // "Dump T 5" selects nothing while "Dump T all" selects everything: a bare
  // numeric start shows the heading only, which operators use to check that a
  // table is installed without listing it.
  if (num == kAll && (argc >= 2 || start_all)) {
    if (object.RetrieveObjects(&ids, ScalarFields(), CompositeFields()) != 0) {
      PrintError(ctx, ErrorMgs::kDatabaseNotAvailable);
      return 0;
    }
  } else if (num > 0) {
    const uint32_t first = static_cast<uint32_t>(start);
    const uint32_t count = static_cast<uint32_t>(num);
    if (count <= kMaxProbedRange) {
      for (uint32_t i = 0; i < count; ++i) ids.push_back(first + i);
    } else {
      std::vector<uint32_t> stored;
      if (object.RetrieveObjects(&stored, ScalarFields(), CompositeFields()) != 0) {
        PrintError(ctx, ErrorMgs::kDatabaseNotAvailable);
        return 0;
      }
      // first + count stays below 2^32: both are at most 2^31 - 1.
      for (uint32_t id : stored) {
        if (id >= first && id - first < count) ids.push_back(id);
      }
    }
  }

  const std::string table = object.name();
  ElemCmdPrintf(ctx, "Dumping %s information\n\n", table.c_str());
  StartRecordTable(ctx, object, table + " Internal Information");
  std::sort(ids.begin(), ids.end());
  std::string unreadable;
  for (uint32_t id : ids) {
    ScalarFields scalar;
    CompositeFields composite;
    try {
      // Ids without a record are skipped: a range may well have gaps.
      if (object.RetrieveObject(id, &scalar, &composite) != 0) continue;
    } catch (const std::exception& e) {
      // One damaged record does not hide the others; the first is reported.
      if (unreadable.empty()) unreadable = "id=" + std::to_string(id) + ": " + e.what();
      continue;
    }
    PrintRecord(ctx, object, id, scalar, composite);
  }
  ElemCmdEndTable(ctx);
  if (!unreadable.empty()) ElemCmdPrintf(ctx, ErrorMgs::kReadFailed, unreadable.c_str());
  return 0;
}

int GetSize(ELEM_CMD_CONTEXT_ST* ctx, void* user) {
  const DbObject& object = *static_cast<const DbObject*>(user);
  const std::string table = object.name();
  int size = -1;
  if (object.GetObjTableSize(&size) != 0) {
    PrintError(ctx, ErrorMgs::kDatabaseNotAvailable);
    return 0;
  }
  ElemCmdPrintf(ctx, "Getting Database size from %s\n\n", table.c_str());
  ElemCmdStartTable(ctx, (table + " database size").c_str(), 1, 0, nullptr, 8, 150);
  ElemCmdTableEntry(ctx, 0, "%d", size);
  ElemCmdEndTable(ctx);
  return 0;
}

int RetrieveRecord(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  const DbObject& object = *static_cast<const DbObject*>(user);
  int32_t start = 0;
  int32_t num = kAll;
  if (!ReadRange(ctx, argc, argv, &start, &num)) return 0;
  // One record only: "all" is not an id here, and is reported as -1.
  if (start <= 0) {
    ElemCmdPrintf(ctx, ErrorMgs::kInvalidId, start);
    return 0;
  }
  const uint32_t id = static_cast<uint32_t>(start);
  ScalarFields scalar;
  CompositeFields composite;
  const int rc = object.RetrieveObject(id, &scalar, &composite);
  if (rc == kNotConnected) {
    PrintError(ctx, ErrorMgs::kDatabaseNotAvailable);
    return 0;
  }
  if (rc == kNotFound) {
    PrintError(ctx, ErrorMgs::kEntryNotFound);
    return 0;
  }
  // Other failures still show what could be read: a record whose repeated
  // fields could not all be loaded is better seen in part than not at all.
  const std::string table = object.name();
  ElemCmdPrintf(ctx, "Retrieving %s information\n\n", table.c_str());
  StartRecordTable(ctx, object, table + " internal Information");
  PrintRecord(ctx, object, id, scalar, composite);
  ElemCmdEndTable(ctx);
  return 0;
}

int RetrieveRecords(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  const DbObject& object = *static_cast<const DbObject*>(user);
  if (argc < 1) {
    PrintUsage(ctx);
    return 0;
  }
  const std::string table = object.name();
  // The option scanner expects a program name in front.
  std::string program = "Retrieve Records " + table;
  std::vector<char*> args;
  args.push_back(program.data());
  for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);

  ScalarFields scalar_filter;
  CompositeFields composite_filter;
  ElemParser::ParseCmdParam(argc + 1, args.data(), object, scalar_filter, composite_filter);
  std::vector<uint32_t> ids;
  if (object.RetrieveObjects(&ids, scalar_filter, composite_filter) != 0) {
    PrintError(ctx, ErrorMgs::kDatabaseNotAvailable);
    return 0;
  }
  std::sort(ids.begin(), ids.end());
  ElemCmdStartTable(ctx, (table + " ids").c_str(), 2, ELEM_CMD_TABLE_HEADING, nullptr, 8, 150);
  ElemCmdTableEntry(ctx, 0, "Entry Num.");
  ElemCmdTableEntry(ctx, 1, "Entry Id");
  for (size_t i = 0; i < ids.size(); ++i) {
    ElemCmdTableEntry(ctx, 0, "%zu", i + 1);
    ElemCmdTableEntry(ctx, 1, "%u", static_cast<unsigned>(ids[i]));
  }
  ElemCmdEndTable(ctx);
  return 0;
}

}  // namespace

int DumpObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  return Guarded(ctx, [&] { return Dump(ctx, argc, argv, user); });
}

int GetDbSizeToElem(ELEM_CMD_CONTEXT_ST* ctx, int, char**, void* user) {
  return Guarded(ctx, [&] { return GetSize(ctx, user); });
}

int RetrieveRecordObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  return Guarded(ctx, [&] { return RetrieveRecord(ctx, argc, argv, user); });
}

int RetrieveRecordsObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user) {
  return Guarded(ctx, [&] { return RetrieveRecords(ctx, argc, argv, user); });
}

}  // namespace ElemCallbacks

void DbObject::InstallDebugCmd(ELEM_CMD_GROUP_ST* group) {
  const std::string table = name();
  struct Command {
    std::string text;
    std::string help;
    std::string description;
    ELEM_CMD_CALLBACK callback;
  };
  const Command commands[] = {
      {"Dump " + table, "Dump " + table, "Dump " + table + " Information",
       ElemCallbacks::DumpObjectToElem},
      {"Get Size " + table, "Get size from " + table, "Get size from " + table,
       ElemCallbacks::GetDbSizeToElem},
      {"Retrieve Record " + table, "Retrieve record from " + table, "Retrieve record from " + table,
       ElemCallbacks::RetrieveRecordObjectToElem},
      {"Retrieve Records " + table, "Retrieve records from " + table,
       "Retrieve records from " + table, ElemCallbacks::RetrieveRecordsObjectToElem},
  };
  for (const auto& command : commands) {
    // 5120 is the shell's flag word for these read-only debug commands.
    if (ElemCmdRegisterCommand(group, command.text.c_str(), command.help.c_str(),
                               command.description.c_str(), 0, 5120, command.callback, this) != 0) {
      DB_LOG_ERROR("ERROR: Failed to register command '%s'", command.text.c_str());
    }
  }
}

}  // namespace db
