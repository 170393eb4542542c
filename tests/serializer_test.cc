#include "serializer.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <leveldb/write_batch.h>

#include "support/test_util.h"

namespace db {
namespace {

using Composite = std::pair<AttributeType, std::vector<Attribute>>;

template <class T>
Attribute Set(const T& v) {
  Attribute a;
  a = v;
  return a;
}

Attribute Bytes(const std::vector<uint8_t>& v) { return Set(v); }

// Collects what a WriteBatch would write.
struct BatchContents : leveldb::WriteBatch::Handler {
  std::vector<std::pair<std::string, std::string>> puts;
  std::vector<std::string> deletes;
  void Put(const leveldb::Slice& key, const leveldb::Slice& value) override {
    puts.emplace_back(key.ToString(), value.ToString());
  }
  void Delete(const leveldb::Slice& key) override { deletes.push_back(key.ToString()); }
};

TEST(SerializerTest, ScalarEncodings) {
  const std::string raw_bytes(
      "\x00\xff"
      "A",
      3);
  struct Case {
    const char* name;
    ScalarFields fields;
    std::string expected;
  } cases[] = {
      {"mixed with unset",
       {{"a", Set(5)}, {"b", Set(std::string("xy"))}, {"c", Attribute(kString)}},
       "3,1,2,0,5,xy,"},
      {"empty map", {}, "0"},
      {"negative integer", {{"n", Set(-7)}}, "1,2,-7"},
      {"float", {{"f", Set(1.5f)}}, "1,3,1.5"},
      {"string with commas", {{"s", Set(std::string("a,b,"))}}, "1,4,a,b,"},
      {"set empty string", {{"s", Set(std::string())}}, "1,0,"},
      {"raw bytes", {{"r", Bytes({0x00, 0xff, 0x41})}}, "1,3," + raw_bytes},
      {"unset integer", {{"i", Attribute(kInteger)}}, "1,0,"},
      {"name order", {{"z", Set(1)}, {"B", Set(2)}, {"a", Set(333)}}, "3,1,3,1,2,333,1"},
  };
  Serializer s;
  for (const Case& c : cases) {
    std::string out;
    s.SerializeScalar(out, c.fields);
    EXPECT_EQ(out, c.expected) << c.name;
  }
}

TEST(SerializerTest, CompositeEncodings) {
  struct Case {
    const char* name;
    std::vector<Attribute> values;
    std::string expected;
  } cases[] = {
      {"integers", {Set(10), Set(20)}, "2,2,2,10,20"},
      {"empty", {}, "0"},
      {"all unset", {Attribute(kInteger), Attribute(kInteger)}, "0"},
      {"unset skipped",
       {Attribute(kString), Set(std::string("x")), Attribute(kString), Set(std::string("y,z"))},
       "2,1,3,x,y,z"},
  };
  Serializer s;
  for (const Case& c : cases) {
    std::string out;
    s.SerializeComposite(out, c.values);
    EXPECT_EQ(out, c.expected) << c.name;
  }
}

TEST(SerializerTest, SerializeAppendsToOutput) {
  Serializer s;
  std::string out = "prefix|";
  s.SerializeScalar(out, {{"a", Set(1)}});
  s.SerializeComposite(out, {Set(2)});
  EXPECT_EQ(out, "prefix|1,1,11,1,2");
}

TEST(SerializerTest, PutOnBatchWritesRecordAndNonEmptyRepeatedFields) {
  Serializer s;
  leveldb::WriteBatch batch;
  CompositeFields composites = {
      {"vlans", {kInteger, {Set(10), Set(20)}}},
      {"empty", {kInteger, {}}},
      {"unset", {kString, {Attribute(kString)}}},
  };
  s.PutOnBatch(batch, "ports", 7, {{"a", Set(5)}}, composites);
  s.PutOnBatch(batch, "ports", 4294967295u, {}, {});
  BatchContents contents;
  ASSERT_TRUE(batch.Iterate(&contents).ok());
  EXPECT_TRUE(contents.deletes.empty());
  std::vector<std::pair<std::string, std::string>> expected = {
      {"ports:7", "1,1,5"},
      {"unset:ports:7", "0"},
      {"vlans:ports:7", "2,2,2,10,20"},
      {"ports:4294967295", "0"},
  };
  EXPECT_EQ(contents.puts, expected);
  EXPECT_EQ(Serializer::ScalarKey("t", 0), "t:0");
}

TEST(SerializerTest, ParseSizeToVectorWalk) {
  struct Case {
    std::string text;
    std::vector<uint32_t> sizes;
    uint32_t pos;
  } cases[] = {
      {"3,1,2,0,5,xy,", {1, 2, 0}, 8},
      {"0", {}, 1},
      {"0,abc", {}, 2},
      {"", {}, 0},
      {"2,,3,abc", {0, 3}, 5},
      {"2,2,2,10,20", {2, 2}, 6},
      {"1,12", {}, 4},  // the last length never ended: walk runs to the end
  };
  Serializer s;
  for (const Case& c : cases) {
    std::vector<uint32_t> sizes;
    uint32_t pos = 99;
    s.ParseSizeToVector(sizes, pos, c.text);
    EXPECT_EQ(sizes, c.sizes) << c.text;
    EXPECT_EQ(pos, c.pos) << c.text;
  }
  std::vector<uint32_t> sizes;
  uint32_t pos = 0;
  EXPECT_THROW(s.ParseSizeToVector(sizes, pos, "x,1,a"), std::invalid_argument);
  EXPECT_THROW(s.ParseSizeToVector(sizes, pos, "99999999999,1"), std::out_of_range);
}

TEST(SerializerTest, DeserializeToVector) {
  Serializer s;
  std::vector<std::string> values;
  s.DeserializeToVector(values, "3,1,2,0,5,xy,");
  EXPECT_EQ(values, (std::vector<std::string>{"5", "xy", ""}));

  values.clear();
  s.DeserializeToVector(values, "1,5,ab");  // the text ends early: shorter value
  EXPECT_EQ(values, (std::vector<std::string>{"ab"}));

  values = {"kept"};
  s.DeserializeToVector(values, "0");
  EXPECT_EQ(values, (std::vector<std::string>{"kept"}));

  values.clear();
  EXPECT_THROW(s.DeserializeToVector(values, "2,5,5,ab"), std::out_of_range);
}

ScalarFields Schema() {
  return {{"a", Attribute(kInteger)},
          {"b", Attribute(kString)},
          {"c", Attribute(kString)},
          {"d", Attribute(kFloat)},
          {"e", Attribute(kBytes)}};
}

TEST(SerializerTest, ScalarRoundTrip) {
  ScalarFields record = Schema();
  record["a"] = -123;
  record["b"] = std::string("x,y,,z");
  record["c"] = std::string();  // set but empty: reads back unset
  record["d"] = 2.25f;
  record["e"] = std::vector<uint8_t>{0x00, 0xff, ',', 0x00};
  Serializer s;
  std::string text;
  s.SerializeScalar(text, record);

  ScalarFields back = Schema();
  s.DeserializeScalar(text, back);
  ASSERT_EQ(back.size(), 5u);
  EXPECT_EQ(back["a"], record["a"]);
  EXPECT_EQ(back["b"], record["b"]);
  EXPECT_FALSE(back["c"].is_set());
  EXPECT_EQ(back["c"].type(), kString);
  EXPECT_EQ(back["d"], record["d"]);
  EXPECT_EQ(back["e"], record["e"]);
}

TEST(SerializerTest, DeserializeScalarDetails) {
  Serializer s;
  // std::stoi stops at the first non-digit.
  ScalarFields f = {{"a", Attribute(kInteger)}};
  s.DeserializeScalar("1,3,12x", f);
  ASSERT_TRUE(f["a"].is_set());
  EXPECT_EQ(f["a"].Get<int32_t>(), 12);

  // A zero length resets an attribute that was set before.
  f["a"] = 9;
  s.DeserializeScalar("1,0,", f);
  EXPECT_FALSE(f["a"].is_set());
  EXPECT_EQ(f["a"].Get<int32_t>(), 0);

  // Empty text leaves the map as it was.
  f["a"] = 4;
  s.DeserializeScalar("", f);
  EXPECT_EQ(f["a"].Get<int32_t>(), 4);

  // Fewer stored values than fields: the rest is untouched.
  ScalarFields g = {{"a", Attribute(kInteger)}, {"b", Set(std::string("old"))}};
  s.DeserializeScalar("1,1,7", g);
  EXPECT_EQ(g["a"].Get<int32_t>(), 7);
  EXPECT_EQ(g["b"].Get<std::string>(), "old");
}

TEST(SerializerTest, DeserializeScalarFailureEmptiesMapAndLogs) {
  db_test::LogCapture log;
  Serializer s;
  ScalarFields f = {{"a", Attribute(kString)}, {"b", Attribute(kInteger)}};
  s.DeserializeScalar("2,2,1,ok,x", f);
  EXPECT_TRUE(f.empty());
  EXPECT_EQ(log.Count("ERROR: Failed to deserialize the scalar attribute='b', value='x', "
                      "exception='stoi'"),
            1);
  EXPECT_TRUE(log.Contains("src/lib/serializer.cc"));

  // A length that runs past the end fails the same way.
  log.Clear();
  ScalarFields g = {{"a", Attribute(kString)}, {"b", Attribute(kString)}};
  s.DeserializeScalar("2,9,3,ab", g);
  EXPECT_TRUE(g.empty());
  EXPECT_TRUE(log.Contains("ERROR: Failed to deserialize the scalar attribute='b', value=''"));

  log.Clear();
  ScalarFields h = {{"f", Attribute(kFloat)}};
  s.DeserializeScalar("1,3,abc", h);
  EXPECT_TRUE(h.empty());
  EXPECT_TRUE(
      log.Contains("ERROR: Failed to deserialize the scalar attribute='f', value='abc', "
                   "exception='stof'"));
}

TEST(SerializerTest, DeserializeCompositeByType) {
  Serializer s;
  Composite ints{kInteger, {Set(99)}};
  std::string text = "2,2,2,10,20";
  s.DeserializeComposite(text, ints);
  EXPECT_EQ(ints.second, (std::vector<Attribute>{Set(10), Set(20)}));

  Composite strings{kString, {}};
  std::string stext;
  s.SerializeComposite(stext, {Set(std::string("a,b")), Set(std::string("c"))});
  s.DeserializeComposite(stext, strings);
  EXPECT_EQ(strings.second,
            (std::vector<Attribute>{Set(std::string("a,b")), Set(std::string("c"))}));

  Composite bytes{kBytes, {}};
  std::string btext;
  s.SerializeComposite(btext, {Bytes({0x00, 0xff})});
  s.DeserializeComposite(btext, bytes);
  EXPECT_EQ(bytes.second, (std::vector<Attribute>{Bytes({0x00, 0xff})}));

  Composite unknown{static_cast<AttributeType>(7), {Set(1)}};
  s.DeserializeComposite(text, unknown);
  EXPECT_TRUE(unknown.second.empty());

  Composite untouched{kInteger, {Set(1)}};
  std::string empty;
  s.DeserializeComposite(empty, untouched);
  EXPECT_EQ(untouched.second, (std::vector<Attribute>{Set(1)}));
}

TEST(SerializerTest, DeserializeCompositeFailureKeepsDecodedElements) {
  db_test::LogCapture log;
  Serializer s;
  Composite ints{kInteger, {}};
  std::string text = "3,1,1,1,5,x,6";
  s.DeserializeComposite(text, ints);
  EXPECT_EQ(ints.second, (std::vector<Attribute>{Set(5)}));
  EXPECT_EQ(log.Count("ERROR: Failed to deserialize the composite attributes, exception='stoi'"),
            1);
}

TEST(SerializerTest, ScalarIsPresentComparesTexts) {
  Serializer s;
  const std::string text = "3,1,2,0,5,xy,";
  ScalarFields filter = {
      {"a", Attribute(kInteger)}, {"b", Attribute(kString)}, {"c", Attribute(kString)}};
  EXPECT_TRUE(s.ScalarIsPresent(filter, text));  // nothing set: everything matches
  struct Case {
    const char* field;
    Attribute value;
    bool expected;
  } cases[] = {
      {"a", Set(5), true},
      {"a", Set(6), false},
      {"a", Set(std::string("5")), true},  // text forms, not typed values
      {"b", Set(std::string("xy")), true},
      {"b", Set(std::string("x")), false},
      {"c", Set(std::string("z")), false},
  };
  for (const Case& c : cases) {
    ScalarFields f = filter;
    f[c.field] = c.value;
    EXPECT_EQ(s.ScalarIsPresent(f, text), c.expected) << c.field << "=" << c.value.ToString();
  }
  ScalarFields set_a = filter;
  set_a["a"] = 1;
  EXPECT_TRUE(s.ScalarIsPresent(set_a, "0"));
  EXPECT_TRUE(s.ScalarIsPresent(set_a, ""));
  EXPECT_FALSE(s.ScalarIsPresent({{"a", Set(7)}}, "1,2,07"));
}

TEST(SerializerTest, AtLeastOneIsEqual) {
  Serializer s;
  struct Case {
    std::vector<Attribute> wanted;
    std::string stored;
    bool expected;
  } cases[] = {
      {{Set(20)}, "2,2,2,10,20", true},
      {{Set(30), Set(10)}, "2,2,2,10,20", true},
      {{Set(1), Set(30)}, "2,2,2,10,20", false},
      {{}, "2,2,2,10,20", false},
      {{Set(10)}, "0", false},
      {{Set(std::string("b"))}, "3,1,1,1,c,a,b", true},
      {{Set(std::string("d")), Set(std::string("0"))}, "3,1,1,1,c,a,b", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(s.AtLeastOneIsEqual({kInteger, c.wanted}, c.stored), c.expected) << c.stored;
  }
}

TEST(SerializerTest, AddScalarFieldPlacesEmptyEntryByName) {
  auto schema = [](std::initializer_list<const char*> names) {
    ScalarFields f;
    for (const char* n : names) f.emplace(n, Attribute(kString));
    return f;
  };
  struct Case {
    std::string value;
    const char* field;
    ScalarFields schema;
    std::string expected;
  } cases[] = {
      {"2,1,1,a,b", "m", schema({"a", "m", "z"}), "3,1,0,1,a,,b"},
      {"2,1,1,x,y", "a", schema({"a", "b", "c"}), "3,0,1,1,,x,y"},
      {"2,1,1,x,y", "z", schema({"a", "b", "z"}), "3,1,1,0,x,y,"},
      {"0", "a", schema({"a"}), "1,0,"},
      {"1,3,a,b", "c", schema({"a", "c"}), "2,3,0,a,b,"},
  };
  Serializer s;
  for (Case& c : cases) {
    std::string value = c.value;
    s.AddScalarField(value, c.field, c.schema);
    EXPECT_EQ(value, c.expected) << c.value << " + " << c.field;
  }
}

TEST(SerializerTest, AddedFieldReadsBackUnset) {
  Serializer s;
  ScalarFields record = {{"a", Set(1)}, {"z", Set(std::string("zz"))}};
  std::string value;
  s.SerializeScalar(value, record);
  ScalarFields schema = {
      {"a", Attribute(kInteger)}, {"m", Attribute(kFloat)}, {"z", Attribute(kString)}};
  s.AddScalarField(value, "m", schema);
  s.DeserializeScalar(value, schema);
  ASSERT_EQ(schema.size(), 3u);
  EXPECT_EQ(schema["a"], Set(1));
  EXPECT_FALSE(schema["m"].is_set());
  EXPECT_EQ(schema["z"], Set(std::string("zz")));
}

}  // namespace
}  // namespace db
