// Packed 8-bit pictures to 4:2:0: 8-bit Y, U, V planes, BT.601 limited range, one contiguous
// buffer (Y rows, then U rows, then V rows, no padding). The same conversion runs in the render
// process (frames of the sessions format's 4:2:0 flag) and in its parents (client/picture.h), so a
// picture converted on either side is the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumora2::wire {

enum class PackedLayout { rgb24, bgra };

// Bytes of a 4:2:0 picture of width x height (both even).
inline std::size_t i420Bytes(int width, int height) {
  return std::size_t(width) * std::size_t(height) * 3 / 2;
}

// Converts `packed` (`stride` bytes per row; 0: tightly packed) of even width x height into `out`
// (i420Bytes): every luma byte the nearest level to its pixel's colour, every chroma byte the
// nearest to the mean colour of its 2 x 2 block.
void toI420(const std::uint8_t* packed, int width, int height, std::size_t stride,
            PackedLayout layout, std::uint8_t* out);

}  // namespace lumora2::wire
