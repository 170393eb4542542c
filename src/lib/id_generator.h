// IdGenerator: the process-wide allocator of record ids.
//
// One allocator serves every DbObject of the process, whatever its database,
// table or backend, so an id is unique across all tables of the process. It
// lives in memory only; DbObject::ResynchronizeDb rebuilds it from the stored
// tables after a restart.
//
// Threads: no lock. Only the creation of the instance is thread-safe; every
// later use must come from one thread at a time.

#ifndef DB_INTF_SRC_LIB_ID_GENERATOR_H_
#define DB_INTF_SRC_LIB_ID_GENERATOR_H_

#include <cstdint>
#include <set>

namespace db {

class IdGenerator {
 public:
  // The process-wide instance, created empty on first use.
  static IdGenerator& GetInstance();

  IdGenerator(const IdGenerator&) = delete;
  IdGenerator& operator=(const IdGenerator&) = delete;

  // The smallest free id when there is one, otherwise last_id() + 1 (which
  // becomes the new last_id()). The counter wraps from 4294967295 to 0 without
  // notice.
  uint32_t Next();
  // Makes `id` free again. Any id is accepted, also one never handed out.
  void Release(uint32_t id);

  // The highest id handed out by counting, or raised to by resynchronisation.
  uint32_t last_id() const { return last_id_; }
  void set_last_id(uint32_t id) { last_id_ = id; }
  // Ids handed out (or skipped) and free again, ascending.
  std::set<uint32_t>& free_ids() { return free_ids_; }
  const std::set<uint32_t>& free_ids() const { return free_ids_; }

 private:
  IdGenerator() = default;

  uint32_t last_id_ = 0;
  std::set<uint32_t> free_ids_;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_ID_GENERATOR_H_
