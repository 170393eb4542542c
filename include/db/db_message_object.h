// Placeholder; the protobuf front end is declared here.
#ifndef DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_
#define DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_
#endif  // DB_INTF_INCLUDE_DB_DB_MESSAGE_OBJECT_H_
