// IdGenerator: the process-wide allocator of record ids.
//
// One allocator serves every DbObject of the process, whatever its database,
// table or backend, so an id is unique across all tables of the process. It
// lives in memory only; DbObject::ResynchronizeDb rebuilds it from the stored
// tables after a restart.
//
// The free ids are held as ranges, so memory and time follow the number of
// gaps, not the size of the ids: one stored id of 4000000000 costs one range.
//
// Threads: no lock. Only the creation of the instance is thread-safe; every
// later use must come from one thread at a time.

#ifndef DB_INTF_SRC_LIB_ID_GENERATOR_H_
#define DB_INTF_SRC_LIB_ID_GENERATOR_H_

#include <cstdint>
#include <map>

namespace db {

class IdGenerator {
 public:
  // First to last free id, both included; ranges are disjoint and never
  // adjacent, in ascending order.
  using FreeRanges = std::map<uint32_t, uint32_t>;

  // The process-wide instance, created empty on first use and never destroyed.
  static IdGenerator& GetInstance();

  IdGenerator(const IdGenerator&) = delete;
  IdGenerator& operator=(const IdGenerator&) = delete;

  // The smallest free id when there is one, otherwise last_id() + 1 (which
  // becomes the new last_id()). The counter wraps from 4294967295 to 0 without
  // notice.
  uint32_t Next();
  // Makes `id` free again. Any id is accepted, also one never handed out.
  void Release(uint32_t id) { ReleaseRange(id, id); }
  // Makes every id from `first` to `last` (included) free; nothing when
  // `first` is above `last`.
  void ReleaseRange(uint32_t first, uint32_t last);
  // Takes `id` out of the free ids when it is there.
  void Take(uint32_t id);
  // Forgets every free id and sets last_id() to 0, as in a fresh process.
  void Reset();

  // The highest id handed out by counting, or raised to by resynchronisation.
  uint32_t last_id() const { return last_id_; }
  void set_last_id(uint32_t id) { last_id_ = id; }
  // Number of free ids (up to 2^32).
  uint64_t free_count() const { return free_count_; }
  const FreeRanges& free_ranges() const { return free_ranges_; }

 private:
  IdGenerator() = default;

  uint32_t last_id_ = 0;
  FreeRanges free_ranges_;
  uint64_t free_count_ = 0;
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_ID_GENERATOR_H_
