// Placeholder; the element log/web configuration look-ups are declared here.
#ifndef DB_INTF_INCLUDE_DB_ELEM_CFG_H_
#define DB_INTF_INCLUDE_DB_ELEM_CFG_H_
#endif  // DB_INTF_INCLUDE_DB_ELEM_CFG_H_
