// MultiArray: the engine's own n-dimensional array of one scalar type, the currency of graph
// inputs and outputs. It keeps LibTorch out of every header that uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace lumora2 {

// Scalar types a graph exchanges. Graph descriptions declare only the first three; outputs of
// the other two types can still come back from a graph and are reported as they are.
enum class ArrayDataType { float32, float16, int32, float64, int64 };

// "float32", "float16", "int32", "float64", "int64".
std::string_view dataTypeName(ArrayDataType type);
// Only the three names a graph description may use; anything else is nothing.
std::optional<ArrayDataType> describedDataType(std::string_view name);
std::size_t elementSize(ArrayDataType type);

// IEEE 754 binary16 conversions (round to nearest even).
float halfToFloat(std::uint16_t bits);
std::uint16_t floatToHalf(float value);

// A dense row-major array. Copies share their storage, like views of one buffer: an array handed
// to a prediction is read in place, and a prediction result may keep the graph's own output
// buffer alive instead of copying it.
class MultiArray {
 public:
  MultiArray() = default;  // no shape, no storage
  // A zero-filled array of `shape`. Throws std::invalid_argument for a negative dimension.
  MultiArray(ArrayDataType type, std::vector<std::int64_t> shape);
  // An array over `storage`, which must hold count(shape) elements of `type` and stays alive as
  // long as any copy of the array does.
  static MultiArray wrap(ArrayDataType type, std::vector<std::int64_t> shape,
                         std::shared_ptr<void> storage);

  bool isNull() const { return storage_ == nullptr; }
  ArrayDataType dataType() const { return type_; }
  const std::vector<std::int64_t>& shape() const { return shape_; }
  std::int64_t count() const { return count_; }
  std::size_t byteCount() const { return static_cast<std::size_t>(count_) * elementSize(type_); }

  void* data() const { return storage_.get(); }
  // The owner of the elements; whoever holds it keeps them alive.
  const std::shared_ptr<void>& storage() const { return storage_; }
  // Typed views; each throws std::logic_error when the array holds another type.
  float* floats() const;
  std::uint16_t* halves() const;  // binary16 bit patterns
  std::int32_t* ints() const;

 private:
  ArrayDataType type_ = ArrayDataType::float32;
  std::vector<std::int64_t> shape_;
  std::int64_t count_ = 0;
  std::shared_ptr<void> storage_;
};

}  // namespace lumora2
