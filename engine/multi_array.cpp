#include "engine/multi_array.h"

#include <bit>
#include <cstring>
#include <stdexcept>
#include <string>

namespace lumora2 {

std::string_view dataTypeName(ArrayDataType type) {
  switch (type) {
    case ArrayDataType::float32:
      return "float32";
    case ArrayDataType::float16:
      return "float16";
    case ArrayDataType::int32:
      return "int32";
    case ArrayDataType::float64:
      return "float64";
    case ArrayDataType::int64:
      return "int64";
  }
  return "?";
}

std::optional<ArrayDataType> describedDataType(std::string_view name) {
  if (name == "float32") return ArrayDataType::float32;
  if (name == "float16") return ArrayDataType::float16;
  if (name == "int32") return ArrayDataType::int32;
  return std::nullopt;
}

std::size_t elementSize(ArrayDataType type) {
  switch (type) {
    case ArrayDataType::float16:
      return 2;
    case ArrayDataType::float32:
    case ArrayDataType::int32:
      return 4;
    case ArrayDataType::float64:
    case ArrayDataType::int64:
      return 8;
  }
  return 1;
}

float halfToFloat(std::uint16_t h) {
  std::uint32_t sign = static_cast<std::uint32_t>(h & 0x8000u) << 16;
  std::uint32_t exp = (h >> 10) & 0x1Fu;
  std::uint32_t mant = h & 0x3FFu;
  std::uint32_t bits;
  if (exp == 0x1F) {
    bits = sign | 0x7F800000u | (mant << 13);  // infinity or NaN
  } else if (exp != 0) {
    bits = sign | ((exp + 112) << 23) | (mant << 13);
  } else if (mant == 0) {
    bits = sign;  // signed zero
  } else {
    // Subnormal half: normalise into a float.
    int shift = std::countl_zero(mant) - 21;  // leading zeros within the 10-bit field, plus one
    mant = (mant << shift) & 0x3FFu;
    bits = sign | (static_cast<std::uint32_t>(113 - shift) << 23) | (mant << 13);
  }
  return std::bit_cast<float>(bits);
}

std::uint16_t floatToHalf(float value) {
  std::uint32_t f = std::bit_cast<std::uint32_t>(value);
  std::uint16_t sign = static_cast<std::uint16_t>((f >> 16) & 0x8000u);
  std::uint32_t absf = f & 0x7FFFFFFFu;
  if (absf >= 0x7F800000u) {  // infinity or NaN (keep NaN quiet and non-zero)
    return static_cast<std::uint16_t>(sign | 0x7C00u | (absf > 0x7F800000u ? 0x200u : 0u));
  }
  if (absf >= 0x477FF000u) return static_cast<std::uint16_t>(sign | 0x7C00u);  // overflow
  if (absf < 0x38800000u) {  // below the smallest normal half: subnormal or zero
    if (absf < 0x33000000u) return sign;
    std::uint32_t exp = absf >> 23;
    std::uint32_t mant = (absf & 0x7FFFFFu) | 0x800000u;
    std::uint32_t shift = 126 - exp;  // 14 + (113 - exp) - 1
    std::uint32_t halfMant = mant >> shift;
    std::uint32_t rest = mant & ((1u << shift) - 1);
    std::uint32_t halfway = 1u << (shift - 1);
    if (rest > halfway || (rest == halfway && (halfMant & 1u))) ++halfMant;
    return static_cast<std::uint16_t>(sign | halfMant);
  }
  std::uint32_t h = ((absf - 0x38000000u) >> 13);
  std::uint32_t rest = absf & 0x1FFFu;
  if (rest > 0x1000u || (rest == 0x1000u && (h & 1u))) ++h;  // may carry into the exponent
  return static_cast<std::uint16_t>(sign | h);
}

MultiArray::MultiArray(ArrayDataType type, std::vector<std::int64_t> shape)
    : type_(type), shape_(std::move(shape)), count_(1) {
  for (std::int64_t d : shape_) {
    if (d < 0) throw std::invalid_argument("negative dimension in multi-array shape");
    count_ *= d;
  }
  std::size_t bytes = byteCount();
  // Value-initialised: the array starts zero-filled.
  storage_ = std::shared_ptr<std::byte[]>(new std::byte[bytes == 0 ? 1 : bytes]());
}

MultiArray MultiArray::wrap(ArrayDataType type, std::vector<std::int64_t> shape,
                            std::shared_ptr<void> storage) {
  MultiArray a;
  a.type_ = type;
  a.shape_ = std::move(shape);
  a.count_ = 1;
  for (std::int64_t d : a.shape_) a.count_ *= d;
  a.storage_ = std::move(storage);
  return a;
}

namespace {
void requireType(ArrayDataType have, ArrayDataType want) {
  if (have != want) {
    throw std::logic_error("multi-array holds " + std::string(dataTypeName(have)) + ", not " +
                           std::string(dataTypeName(want)));
  }
}
}  // namespace

float* MultiArray::floats() const {
  requireType(type_, ArrayDataType::float32);
  return static_cast<float*>(storage_.get());
}

std::uint16_t* MultiArray::halves() const {
  requireType(type_, ArrayDataType::float16);
  return static_cast<std::uint16_t*>(storage_.get());
}

std::int32_t* MultiArray::ints() const {
  requireType(type_, ArrayDataType::int32);
  return static_cast<std::int32_t*>(storage_.get());
}

}  // namespace lumora2
