// The last step of a decoded frame on its way out: the decoder's half-precision RGB planes become
// the engine's output pixels, 8-bit B, G, R (or R, G, B) interleaved, optionally sharpened by an
// unsharp mask.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "engine/pixel_order.h"

namespace lumora2 {

// Which row kernels a FramePath uses. `automatic` takes the AVX2/F16C kernels when the processor
// has them; `portable` always takes the plain ones. Both give the same bytes.
enum class FrameKernels { automatic, portable };

struct FrameRowKernels;  // frame_path.cpp

// Converts decoded frames to output pixels, reusing its scratch planes from frame to frame.
// One FramePath serves one thread at a time (the puller); it starts no threads of its own.
class FramePath {
 public:
  static constexpr int width = 416;
  static constexpr int height = 720;
  static constexpr std::size_t planeSize = 299520;   // width × height
  static constexpr std::size_t rowBytes = 1248;      // width × 3
  static constexpr std::size_t frameBytes = 898560;  // planeSize × 3
  static constexpr std::size_t i420Bytes = 449280;   // planeSize × 3 / 2

  explicit FramePath(FrameKernels kernels = FrameKernels::automatic);

  // Allocates the scratch planes (zeroed) and builds the 5 × 5 Gaussian kernel (σ = 1.2,
  // normalised to sum 1) unless that was done already.
  void ensureRGBScratch();

  // `raw` holds three half-precision planes R, G, B of 720 rows × 416, one after the other.
  // The result is 720 rows of 416 pixels, each B, G, R: every value clipped to [0, 1], scaled by
  // 255 and rounded to nearest (ties to even). With sharpenAmount > 0 each plane is first
  // sharpened: plane × (1 + amount) − blur × amount, where blur is the plane convolved with the
  // 5 × 5 kernel, edge pixels extended; every sharpened byte is within 1 of that computed
  // exactly. Any other amount (zero, negative, NaN) leaves the planes as they are, and the
  // bytes are exact.
  std::vector<std::uint8_t> frameToBGR(const std::uint16_t* raw, float sharpenAmount);
  // The same into a caller's buffer of exactly frameBytes (std::invalid_argument otherwise), so
  // that a steady stream of frames allocates nothing, with the pixels' bytes in `order`: the
  // interleave writes R, G, B as cheaply as B, G, R.
  void frameInto(const std::uint16_t* raw, float sharpenAmount, std::span<std::uint8_t> out,
                 PixelOrder order = PixelOrder::bgr);

  // The same frame as 4:2:0 planes (protocol/i420.h) into a buffer of exactly i420Bytes
  // (std::invalid_argument otherwise): the bytes wire::toI420 makes of frameInto's, converted
  // from each pair of rows as they are made, with no packed picture in between.
  void frameIntoI420(const std::uint16_t* raw, float sharpenAmount, std::span<std::uint8_t> out);

  // The kernels in use: "AVX2/F16C" or "portable".
  const char* kernelName() const;

 private:
  // Makes the frame's 8-bit rows in order and hands each to `emit(y, rgb)`, `rgb` its R, G and B
  // rows, valid until row y + 2 is made.
  template <class Emit>
  void convertRows(const std::uint16_t* raw, float sharpenAmount, Emit emit);

  const FrameRowKernels* _kernels;  // chosen at construction
  // Scratch of one plane's size each, allocated once. Rows stream through them (see
  // frame_path.cpp): `_pf` holds each plane's last rows as floats and `_blur` their row pass, in
  // rings of five rows per plane; `_u8r`, `_u8g`, `_u8b` hold the last two 8-bit rows.
  std::vector<float> _pf;
  std::vector<float> _blur;
  std::vector<std::uint8_t> _u8r, _u8g, _u8b;
  std::vector<float> _usmKernel;  // 25 weights, row-major
  // The kernel is the outer product of these taps (centre, ±1, ±2); the blur is computed as a
  // row pass then a column pass over them.
  std::array<float, 3> _usmTaps{};
};

}  // namespace lumora2
