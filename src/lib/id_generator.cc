#include "id_generator.h"

namespace db {

IdGenerator& IdGenerator::GetInstance() {
  static IdGenerator the_instance_;
  return the_instance_;
}

uint32_t IdGenerator::Next() {
  if (!free_ids_.empty()) {
    auto smallest = free_ids_.begin();
    uint32_t id = *smallest;
    free_ids_.erase(smallest);
    return id;
  }
  // Plain unsigned increment: after 4294967295 the counter wraps to 0. Ids of
  // that range are never reached by a network element's tables.
  return ++last_id_;
}

void IdGenerator::Release(uint32_t id) { free_ids_.insert(id); }

}  // namespace db
