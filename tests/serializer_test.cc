#include "serializer.h"

#include <tuple>

#include "support/test_util.h"

namespace db {
namespace {

using db_test::Val;
using Values = std::vector<Attribute>;

// Float, byte and comma-holding values are checked byte for byte in tests/format, a field added
// between two in leveldb_api_test.
TEST(SerializerTest, EncodingsAndAnAddedField) {
  const std::vector<std::pair<ScalarFields, std::string>> scalars = {
      {{{"b", Val(5)}, {"B", Val("xy")}, {"c", Attribute(kString)}, {"a", Val("")}},
       "4,2,0,1,0,xy,,5,"},  // byte-wise name order; unset and empty alike
      {{}, "0"}};
  const std::vector<std::pair<Values, std::string>> composites = {
      {{Attribute(kString)}, "0"},  // no set element: a count of none
      {{Attribute(kString), Val("x"), Attribute(kString), Val("y,z")}, "2,1,3,x,y,z"}};
  Serializer s;
  for (const auto& [fields, expected] : scalars) {
    std::string out;
    s.SerializeScalar(out, fields);
    EXPECT_EQ(out, expected);
  }
  for (const auto& [values, expected] : composites) {
    std::string out = "prefix|";  // Appended to, never replaced.
    s.SerializeComposite(out, values);
    EXPECT_EQ(out, "prefix|" + expected);
  }
  // AddScalarField places an empty entry where the schema (one field per letter) puts the name.
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> added = {
      {"2,1,1,x,y", "a", "abc", "3,0,1,1,,x,y"},
      {"2,1,1,x,y", "z", "abz", "3,1,1,0,x,y,"},
      {"1,3,a,b", "c", "ac", "2,3,0,a,b,"}};
  for (auto [value, field, names, expected] : added) {
    ScalarFields schema;
    for (const char name : names) schema.emplace(std::string(1, name), Attribute(kString));
    s.AddScalarField(value, field, schema);
    EXPECT_EQ(value, expected) << field;
  }
}

TEST(SerializerTest, DecodingFailuresAndFilters) {
  Serializer s;
  ScalarFields f = {{"a", Val(12)}, {"b", Val("old")}};
  s.DeserializeScalar("1,0,", f);  // A zero length resets a set attribute.
  EXPECT_FALSE(f["a"].is_set());
  EXPECT_EQ(f["b"], Val("old"));  // Fewer stored values than fields: the rest untouched.
  db_test::LogCapture log;
  f = {{"a", Attribute(kString)}, {"b", Attribute(kInteger)}};
  s.DeserializeScalar("2,2,1,ok,x", f);
  EXPECT_TRUE(f.empty()) << "a half-decoded record is worse than none";
  f = {{"a", Attribute(kInteger)}};
  s.DeserializeScalar(",1,5", f);  // An empty count is no number.
  EXPECT_TRUE(f.empty());
  std::pair<AttributeType, Values> partial{kInteger, {Val(99)}};
  std::string bad = "3,1,1,1,5,x,6";
  s.DeserializeComposite(bad, partial);
  EXPECT_EQ(partial.second, Values{Val(5)}) << "what was decoded before a failure stays";
  EXPECT_EQ(log.Lines().size(), 3u);
  EXPECT_EQ(log.Count("src/lib/serializer.cc"), 3);
  EXPECT_EQ(log.Count("ERROR: Failed to deserialize the scalar attribute='b', value='x', "
                      "exception='stoi'"),
            1);
  EXPECT_EQ(log.Count("ERROR: Failed to deserialize the composite attributes, exception='stoi'"),
            1);

  // Text forms are compared, not typed values: "5" matches the integer 5.
  const std::vector<std::pair<Attribute, bool>> scalars = {
      {Attribute(kInteger), true}, {Val(5), true}, {Val(6), false}, {Val("5"), true}};
  for (const auto& [value, present] : scalars) {
    ScalarFields filter = {{"a", value}, {"b", Attribute(kString)}, {"c", Val("")}};
    EXPECT_EQ(s.ScalarIsPresent(filter, "3,1,2,0,5,xy,"), present) << value.ToString();
  }
  EXPECT_FALSE(s.ScalarIsPresent({{"a", Val(5)}, {"b", Val("x")}}, "2,1,2,5,xy"));
  EXPECT_TRUE(s.ScalarIsPresent({{"a", Val(1)}}, "0"));

  const std::vector<std::tuple<Values, std::string, bool>> composites = {
      {{Val(30), Val(10)}, "2,2,2,10,20", true}, {{Val("b")}, "3,1,1,1,c,a,b", true}};
  for (const auto& [wanted, stored, equal] : composites) {
    EXPECT_EQ(s.AtLeastOneIsEqual({kInteger, wanted}, stored), equal) << stored;
  }
}

}  // namespace
}  // namespace db
