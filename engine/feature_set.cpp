#include <stdexcept>

#include "engine/graph_model.h"

namespace lumora2 {

FeatureSet::FeatureSet(std::initializer_list<std::pair<std::string, MultiArray>> entries) {
  for (const auto& [name, array] : entries) set(name, array);
}

void FeatureSet::set(std::string name, MultiArray array) {
  for (auto& entry : entries_) {
    if (entry.first == name) {
      entry.second = std::move(array);
      return;
    }
  }
  entries_.emplace_back(std::move(name), std::move(array));
}

const MultiArray* FeatureSet::find(std::string_view name) const {
  for (const auto& entry : entries_) {
    if (entry.first == name) return &entry.second;
  }
  return nullptr;
}

const MultiArray& FeatureSet::at(std::string_view name) const {
  const MultiArray* array = find(name);
  if (array == nullptr) throw std::out_of_range("no feature \"" + std::string(name) + "\"");
  return *array;
}

}  // namespace lumora2
