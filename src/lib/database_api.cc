#include "db/database_api.h"

#include <utility>

namespace db {

DatabaseAPI::~DatabaseAPI() = default;

CompositeFields DatabaseAPI::SetElementsOf(const CompositeFields& filter) {
  CompositeFields result;
  for (const auto& [name, field] : filter) {
    std::vector<Attribute> elements;
    for (const Attribute& element : field.second) {
      if (element.is_set()) elements.push_back(element);
    }
    if (!elements.empty()) result.emplace(name, std::make_pair(field.first, std::move(elements)));
  }
  return result;
}

}  // namespace db
