// ModelDescription: a graph's named inputs and outputs as its package's io.json declares them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/multi_array.h"

namespace lumora2 {

// The multi-array constraint of a feature. A dimension of 0 or below is flexible; an empty
// shape leaves the shape unspecified (allowed for outputs).
struct MultiArrayConstraint {
  std::vector<std::int64_t> shape;
  ArrayDataType dataType = ArrayDataType::float32;
};

struct FeatureDescription {
  std::string name;
  // Absent for a feature that io.json lists without "shape" and "dtype".
  std::optional<MultiArrayConstraint> multiArray;
};

struct ModelDescription {
  std::vector<FeatureDescription> inputs;   // in forward's argument order
  std::vector<FeatureDescription> outputs;  // in the order forward returns them

  const FeatureDescription* input(std::string_view name) const;
  const FeatureDescription* output(std::string_view name) const;
  // The first listed output, nothing when the graph lists none.
  const FeatureDescription* firstOutput() const;

  // Parses io.json text: {"inputs":[…],"outputs":[…]}, each entry {"name", "shape", "dtype"}
  // with a non-empty name unique within its list, "shape" an array of integers and "dtype" one of
  // "float32", "float16", "int32"; "shape" and "dtype" come together or not at all. Nothing on
  // any violation, with the reason in *error.
  static std::optional<ModelDescription> parse(std::string_view json, std::string* error = nullptr);
  static std::optional<ModelDescription> read(const std::filesystem::path& ioJson,
                                              std::string* error = nullptr);
};

}  // namespace lumora2
