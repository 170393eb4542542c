// Symbol visibility of libdb-intf. The library is built with hidden visibility;
// only what is marked DB_INTF_EXPORT is part of its binary interface.

#ifndef DB_INTF_INCLUDE_DB_EXPORT_H_
#define DB_INTF_INCLUDE_DB_EXPORT_H_

// Marks a declaration as part of libdb-intf's binary interface.
#define DB_INTF_EXPORT __attribute__((visibility("default")))

#endif  // DB_INTF_INCLUDE_DB_EXPORT_H_
