#include "protocol/i420.h"

#include <algorithm>

namespace lumora2::wire {
namespace {

// BT.601 from full-range R, G, B to limited-range Y, Cb, Cr, in 16-bit fixed point: luma spans
// 16..235 (219 levels), chroma 16..240 (224 levels). Each row sums to the range it spans (and the
// chroma rows to zero, so that every grey has Cb = Cr = 128 exactly).
constexpr int kYr = 16829, kYg = 33039, kYb = 6416;
constexpr int kUr = -9714, kUg = -19070, kUb = 28784;
constexpr int kVr = 28784, kVg = -24103, kVb = -4681;
static_assert(kUr + kUg + kUb == 0 && kVr + kVg + kVb == 0);

inline std::uint8_t luma(int r, int g, int b) {
  return std::uint8_t((kYr * r + kYg * g + kYb * b + (16 << 16) + (1 << 15)) >> 16);
}

// Chroma from the sums of a 2 x 2 block's R, G and B: the block's mean colour, rounded once.
inline std::uint8_t chroma(int kr, int kg, int kb, int r4, int g4, int b4) {
  return std::uint8_t(
      std::clamp((kr * r4 + kg * g4 + kb * b4 + (128 << 18) + (1 << 17)) >> 18, 16, 240));
}

// One row of luma from a row of `Step`-byte pixels with R, G, B at byte offsets R, G, B.
template <int Step, int R, int G, int B>
void lumaRow(const std::uint8_t* __restrict from, int width, std::uint8_t* __restrict to) {
  for (int x = 0; x < width; ++x) {
    const std::uint8_t* p = from + x * Step;
    to[x] = luma(p[R], p[G], p[B]);
  }
}

// One row of each chroma plane from two rows of pixels: each sample from a 2 x 2 block.
template <int Step, int R, int G, int B>
void chromaRow(const std::uint8_t* __restrict top, const std::uint8_t* __restrict bottom, int width,
               std::uint8_t* __restrict u, std::uint8_t* __restrict v) {
  for (int x = 0; x < width / 2; ++x) {
    const std::uint8_t* a = top + 2 * x * Step;
    const std::uint8_t* c = bottom + 2 * x * Step;
    const int r4 = a[R] + a[Step + R] + c[R] + c[Step + R];
    const int g4 = a[G] + a[Step + G] + c[G] + c[Step + G];
    const int b4 = a[B] + a[Step + B] + c[B] + c[Step + B];
    u[x] = chroma(kUr, kUg, kUb, r4, g4, b4);
    v[x] = chroma(kVr, kVg, kVb, r4, g4, b4);
  }
}

template <int Step, int R, int G, int B>
void convertRows(const std::uint8_t* top, const std::uint8_t* bottom, int width, std::uint8_t* y0,
                 std::uint8_t* y1, std::uint8_t* u, std::uint8_t* v) {
  lumaRow<Step, R, G, B>(top, width, y0);
  lumaRow<Step, R, G, B>(bottom, width, y1);
  chromaRow<Step, R, G, B>(top, bottom, width, u, v);
}

}  // namespace

// (The live server converts every rendered picture: this takes about 60 % of a general scaler's
// time.)
void toI420(const std::uint8_t* packed, int width, int height, std::size_t stride,
            PackedLayout layout, std::uint8_t* out) {
  const std::size_t step = layout == PackedLayout::rgb24 ? 3 : 4;
  if (stride == 0) stride = std::size_t(width) * step;
  const std::size_t w = std::size_t(width);
  std::uint8_t* y = out;
  std::uint8_t* u = y + w * std::size_t(height);
  std::uint8_t* v = u + w * std::size_t(height) / 4;
  for (int row = 0; row < height; row += 2) {
    const std::uint8_t* top = packed + std::size_t(row) * stride;
    std::uint8_t* y0 = y + std::size_t(row) * w;
    std::uint8_t* uRow = u + std::size_t(row / 2) * (w / 2);
    std::uint8_t* vRow = v + std::size_t(row / 2) * (w / 2);
    if (layout == PackedLayout::rgb24) {
      convertRows<3, 0, 1, 2>(top, top + stride, width, y0, y0 + w, uRow, vRow);
    } else {
      convertRows<4, 2, 1, 0>(top, top + stride, width, y0, y0 + w, uRow, vRow);
    }
  }
}

}  // namespace lumora2::wire
