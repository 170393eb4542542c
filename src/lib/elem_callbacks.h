// ElemCallbacks: the debug commands that DbObject::InstallDebugCmd puts on the
// element's command shell for one table T:
//   "Dump T start-id [num-entries]"        records as a table
//   "Get Size T"                           number of records
//   "Retrieve Record T start-id"           one record as a table
//   "Retrieve Records T [-s ...] [-c ...]" ids matching a filter (ElemParser)
// start-id and num-entries are decimal numbers, "all" or "*".
//
// Every callback has the shell's signature, takes the DbObject as `user`,
// writes only through the shell's output calls and returns 0; user errors are
// answered with one of the ErrorMgs texts. No exception leaves a callback (the
// shell is C): one from the object operations is answered with kReadFailed.

#ifndef DB_INTF_SRC_LIB_ELEM_CALLBACKS_H_
#define DB_INTF_SRC_LIB_ELEM_CALLBACKS_H_

#include "elem_cmd.h"

namespace db {
namespace ElemCallbacks {

namespace ErrorMgs {
constexpr char kInvalidId[] = "\nERROR! Invalid id=%d\n";
constexpr char kEntryNotFound[] = "\nERROR! Entry not found.\n";
constexpr char kDatabaseNotAvailable[] = "\nERROR! Database not available.\n";
// A stored value that does not convert, with the conversion's text.
constexpr char kReadFailed[] = "\nERROR! Could not read the table: %s\n";
// The capital K is the name operators' scripts and older callers know.
constexpr char KInvalidArgs[] =
    "\nERROR! Invalid arguments.\nUsage: <cmd> start-id [num-entries]\n"
    "    where start-id and num-entries can be: NUM, all or *\n";
}  // namespace ErrorMgs

// Replaces blanks in shown values, so that each value is one word that can be
// typed back in a filter.
constexpr char kSpaceReplacer[] = "_";

int DumpObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);
int GetDbSizeToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);
int RetrieveRecordObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);
int RetrieveRecordsObjectToElem(ELEM_CMD_CONTEXT_ST* ctx, int argc, char** argv, void* user);

}  // namespace ElemCallbacks
}  // namespace db

#endif  // DB_INTF_SRC_LIB_ELEM_CALLBACKS_H_
