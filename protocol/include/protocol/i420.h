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

// One row of a picture held as three 8-bit planes.
struct PlanarRow {
  const std::uint8_t* r;
  const std::uint8_t* g;
  const std::uint8_t* b;
};

// Two neighbouring rows (`top` above `bottom`, `width` even) to their two luma rows and one row of
// each chroma plane: the same bytes toI420 gives for the same pixels packed. For a producer that
// has its pictures as planes row by row (the engine's frame path), so that no packed picture is
// made just to be converted. Takes AVX2 where the processor has it.
void planarRowsToI420(PlanarRow top, PlanarRow bottom, int width, std::uint8_t* y0,
                      std::uint8_t* y1, std::uint8_t* u, std::uint8_t* v);

}  // namespace lumora2::wire
