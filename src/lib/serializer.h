// Serializer: the value text format of LevelDB records, stateless.
//
// Scalar record value: N, then "," + byte length of each entry's value text in
// ascending field-name order, then "," + each value text. Unset entries have
// length 0. {a = 5, b = "xy", c unset} gives "3,1,2,0,5,xy,".
// Composite value: the same for the set elements of one vector, in order;
// unset elements are skipped and not counted. 10, 20 gives "2,2,2,10,20".
// Keys: table + ":" + id for the scalar record, field + ":" + table + ":" + id
// for each repeated field.

#ifndef DB_INTF_SRC_LIB_SERIALIZER_H_
#define DB_INTF_SRC_LIB_SERIALIZER_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "db/attribute.h"

namespace leveldb {
class WriteBatch;
}

namespace db {

class Serializer {
 public:
  // Appends the scalar value of `fields` to `out`.
  void SerializeScalar(std::string& out, const ScalarFields& fields) const;
  // Appends the composite value of `values` to `out`.
  void SerializeComposite(std::string& out, const std::vector<Attribute>& values) const;
  // Puts the scalar record and every non-empty repeated field into `batch`;
  // an empty vector writes no key (and deletes none).
  void PutOnBatch(leveldb::WriteBatch& batch, const std::string& table, uint32_t id,
                  const ScalarFields& scalars, const CompositeFields& composites) const;
  // The same, for a caller that holds the record's ScalarKey already.
  void PutOnBatch(leveldb::WriteBatch& batch, const std::string& scalar_key,
                  const ScalarFields& scalars, const CompositeFields& composites) const;
  // Reads the count and lengths; `pos` ends at the first value byte.
  // std::invalid_argument / std::out_of_range pass through.
  void ParseSizeToVector(std::vector<uint32_t>& sizes, uint32_t& pos,
                         const std::string& text) const;
  // Splits a stored value into its value texts; exceptions pass through.
  void DeserializeToVector(std::vector<std::string>& values, const std::string& text) const;
  // Fills a schema-shaped map; on a bad value logs and empties the whole map.
  void DeserializeScalar(const std::string& text, ScalarFields& fields) const;
  // Fills a repeated field by its element type; on a bad value logs and stops.
  void DeserializeComposite(std::string& text,
                            std::pair<AttributeType, std::vector<Attribute>>& field) const;
  // Scalar filter test on a stored value (text forms compared).
  bool ScalarIsPresent(const ScalarFields& filter, const std::string& text) const;
  // Composite filter test: any filter element equal to any stored element.
  bool AtLeastOneIsEqual(const std::pair<AttributeType, std::vector<Attribute>>& filter,
                         const std::string& text) const;
  // Rewrites a stored scalar value with one more, empty, entry at the place of
  // `field` in `schema` (which already holds `field`).
  void AddScalarField(std::string& value, const std::string& field,
                      const ScalarFields& schema) const;

  // Appends exactly the bytes of attr.ToString() to `out`, without building
  // the string first.
  static void AppendValueText(std::string& out, const Attribute& attr);

  // table + ":" + id.
  static std::string ScalarKey(const std::string& table, uint32_t id);
};

}  // namespace db

#endif  // DB_INTF_SRC_LIB_SERIALIZER_H_
