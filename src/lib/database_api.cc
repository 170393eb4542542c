#include "db/database_api.h"

namespace db {

DatabaseAPI::~DatabaseAPI() = default;

}  // namespace db
