#include "id_generator.h"

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "db/db_object.h"

namespace {

// One step of an allocation script: hand out an id (and expect `value`), or
// give `value` back.
struct Step {
  enum Op { kNext, kRelease } op;
  uint32_t value;
};

struct Script {
  std::string name;
  std::vector<Step> steps;
};

void PrintTo(const Script& script, std::ostream* os) { *os << script.name; }

class IdGeneratorScriptTest : public testing::TestWithParam<Script> {};

// Every case starts from a fresh process, hence a fresh allocator.
TEST_P(IdGeneratorScriptTest, HandsOutIdsInOrder) {
  for (size_t i = 0; i < GetParam().steps.size(); ++i) {
    const Step& step = GetParam().steps[i];
    if (step.op == Step::kRelease) {
      db::DbObject::ReleaseId(step.value);
    } else {
      EXPECT_EQ(db::DbObject::GetNextId(), step.value) << "step " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, IdGeneratorScriptTest,
    testing::Values(Script{"CountsFromOne", {{Step::kNext, 1}, {Step::kNext, 2}, {Step::kNext, 3}}},
                    Script{"ReusesReleasedIdBeforeCounting",
                           {{Step::kNext, 1},
                            {Step::kNext, 2},
                            {Step::kNext, 3},
                            {Step::kRelease, 2},
                            {Step::kNext, 2},
                            {Step::kNext, 4}}},
                    Script{"ReusesSmallestReleasedFirst",
                           {{Step::kRelease, 7},
                            {Step::kRelease, 3},
                            {Step::kNext, 3},
                            {Step::kNext, 7},
                            {Step::kNext, 1}}},
                    Script{"AcceptsIdNeverHandedOut",
                           {{Step::kRelease, 100}, {Step::kNext, 100}, {Step::kNext, 1}}},
                    Script{"DoubleReleaseHandsOutOnce",
                           {{Step::kNext, 1},
                            {Step::kRelease, 1},
                            {Step::kRelease, 1},
                            {Step::kNext, 1},
                            {Step::kNext, 2}}},
                    Script{"AcceptsZero",
                           {{Step::kRelease, 0}, {Step::kNext, 0}, {Step::kNext, 1}}}),
    [](const testing::TestParamInfo<Script>& info) { return info.param.name; });

TEST(IdGeneratorTest, CounterWrapsToZero) {
  db::IdGenerator& generator = db::IdGenerator::GetInstance();
  generator.set_last_id(UINT32_MAX - 1);
  EXPECT_EQ(db::DbObject::GetNextId(), UINT32_MAX);
  EXPECT_EQ(db::DbObject::GetNextId(), 0u);
  EXPECT_EQ(db::DbObject::GetNextId(), 1u);
}

TEST(IdGeneratorTest, StaticsShareOneInstance) {
  db::IdGenerator& generator = db::IdGenerator::GetInstance();
  EXPECT_EQ(&generator, &db::IdGenerator::GetInstance());
  db::DbObject::GetNextId();
  db::DbObject::GetNextId();
  db::DbObject::ReleaseId(1);
  EXPECT_EQ(generator.last_id(), 2u);
  EXPECT_EQ(generator.free_ids(), (std::set<uint32_t>{1}));
}

}  // namespace
