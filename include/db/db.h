// Everything an application of libdb-intf includes.

#ifndef DB_INTF_INCLUDE_DB_DB_H_
#define DB_INTF_INCLUDE_DB_DB_H_

#include "db/attribute.h"
#include "db/database_api.h"
#include "db/db_message_object.h"
#include "db/db_object.h"
#include "db/elem_cfg.h"
#include "db/init.h"
#include "db/ipc.h"

#endif  // DB_INTF_INCLUDE_DB_DB_H_
