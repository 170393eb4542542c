#include "id_generator.h"

#include <algorithm>
#include <iterator>

namespace db {

IdGenerator& IdGenerator::GetInstance() {
  // Never destroyed: a DbObject held in a static may give its ids back after
  // every function-local static of the library is gone.
  static IdGenerator* const the_instance_ = new IdGenerator();
  return *the_instance_;
}

uint32_t IdGenerator::Next() {
  if (!free_ranges_.empty()) {
    const uint32_t id = free_ranges_.begin()->first;
    Take(id);
    return id;
  }
  // Plain unsigned increment: after 4294967295 the counter wraps to 0. Ids of
  // that range are never reached by a network element's tables.
  return ++last_id_;
}

void IdGenerator::ReleaseRange(uint32_t first, uint32_t last) {
  if (first > last) return;
  // 64 bits, so that a range ending at 4294967295 has a successor to compare.
  uint64_t low = first;
  uint64_t high = last;
  // Every range that overlaps or touches [first, last] merges into it.
  auto it = free_ranges_.upper_bound(first);
  if (it != free_ranges_.begin() && uint64_t{std::prev(it)->second} + 1 >= low) --it;
  while (it != free_ranges_.end() && it->first <= high + 1) {
    low = std::min<uint64_t>(low, it->first);
    high = std::max<uint64_t>(high, it->second);
    free_count_ -= uint64_t{it->second} - it->first + 1;
    it = free_ranges_.erase(it);
  }
  free_ranges_.emplace_hint(it, static_cast<uint32_t>(low), static_cast<uint32_t>(high));
  free_count_ += high - low + 1;
}

void IdGenerator::Take(uint32_t id) {
  auto it = free_ranges_.upper_bound(id);
  if (it == free_ranges_.begin()) return;
  --it;
  const uint32_t first = it->first;
  const uint32_t last = it->second;
  if (id > last) return;
  it = free_ranges_.erase(it);
  if (id < last) it = free_ranges_.emplace_hint(it, id + 1, last);
  if (first < id) free_ranges_.emplace_hint(it, first, id - 1);
  --free_count_;
}

void IdGenerator::Reset() {
  last_id_ = 0;
  free_ranges_.clear();
  free_count_ = 0;
}

}  // namespace db
