#include "protocol/i420.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

// ---- Rows held as planes ----

void planarLuma(PlanarRow row, int from, int width, std::uint8_t* y) {
  for (int x = from; x < width; ++x) y[x] = luma(row.r[x], row.g[x], row.b[x]);
}

void planarChroma(PlanarRow top, PlanarRow bottom, int from, int width, std::uint8_t* u,
                  std::uint8_t* v) {
  for (int x = from / 2; x < width / 2; ++x) {
    auto sum4 = [&](const std::uint8_t* a, const std::uint8_t* c) {
      return a[2 * x] + a[2 * x + 1] + c[2 * x] + c[2 * x + 1];
    };
    const int r4 = sum4(top.r, bottom.r);
    const int g4 = sum4(top.g, bottom.g);
    const int b4 = sum4(top.b, bottom.b);
    u[x] = chroma(kUr, kUg, kUb, r4, g4, b4);
    v[x] = chroma(kVr, kVg, kVb, r4, g4, b4);
  }
}

void planarRowsPortable(PlanarRow top, PlanarRow bottom, int width, std::uint8_t* y0,
                        std::uint8_t* y1, std::uint8_t* u, std::uint8_t* v) {
  planarLuma(top, 0, width, y0);
  planarLuma(bottom, 0, width, y1);
  planarChroma(top, bottom, 0, width, u, v);
}

#if defined(__x86_64__)
// The same sums in 32-bit lanes, 32 pixels a step: every intermediate fits (the largest,
// 33039 x 255 x 4 plus the rounding terms, is under 2^26), so the bytes are the scalar code's.
#define LUMORA2_AVX2 __attribute__((target("avx2")))

// 32 values in four vectors of eight, saturated to bytes, in order.
LUMORA2_AVX2 inline __m256i packBytes(__m256i a, __m256i b, __m256i c, __m256i d) {
  const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
  return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

LUMORA2_AVX2 inline __m256i widen8(const std::uint8_t* p) {
  return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

LUMORA2_AVX2 inline __m256i luma8(PlanarRow row, int x) {
  const __m256i sum = _mm256_add_epi32(
      _mm256_add_epi32(_mm256_mullo_epi32(widen8(row.r + x), _mm256_set1_epi32(kYr)),
                       _mm256_mullo_epi32(widen8(row.g + x), _mm256_set1_epi32(kYg))),
      _mm256_add_epi32(_mm256_mullo_epi32(widen8(row.b + x), _mm256_set1_epi32(kYb)),
                       _mm256_set1_epi32((16 << 16) + (1 << 15))));
  return _mm256_srai_epi32(sum, 16);
}

LUMORA2_AVX2 void lumaAvx2(PlanarRow row, int width, std::uint8_t* y) {
  int x = 0;
  for (; x + 32 <= width; x += 32) {
    _mm256_storeu_si256(
        reinterpret_cast<__m256i*>(y + x),
        packBytes(luma8(row, x), luma8(row, x + 8), luma8(row, x + 16), luma8(row, x + 24)));
  }
  planarLuma(row, x, width, y);
}

// Sums of the 2 x 2 blocks of 16 pixels of one plane: eight 32-bit lanes.
LUMORA2_AVX2 inline __m256i blockSums(const std::uint8_t* top, const std::uint8_t* bottom, int x) {
  const __m256i columns = _mm256_add_epi16(
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(top + x))),
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom + x))));
  return _mm256_madd_epi16(columns, _mm256_set1_epi16(1));
}

LUMORA2_AVX2 inline __m256i chroma8(int kr, int kg, int kb, __m256i r4, __m256i g4, __m256i b4) {
  const __m256i sum =
      _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(r4, _mm256_set1_epi32(kr)),
                                        _mm256_mullo_epi32(g4, _mm256_set1_epi32(kg))),
                       _mm256_add_epi32(_mm256_mullo_epi32(b4, _mm256_set1_epi32(kb)),
                                        _mm256_set1_epi32((128 << 18) + (1 << 17))));
  return _mm256_min_epi32(_mm256_max_epi32(_mm256_srai_epi32(sum, 18), _mm256_set1_epi32(16)),
                          _mm256_set1_epi32(240));
}

LUMORA2_AVX2 void chromaAvx2(PlanarRow top, PlanarRow bottom, int width, std::uint8_t* u,
                             std::uint8_t* v) {
  int x = 0;
  for (; x + 32 <= width; x += 32) {
    __m256i us[2], vs[2];
    for (int half = 0; half < 2; ++half) {
      const int at = x + 16 * half;
      const __m256i r4 = blockSums(top.r, bottom.r, at);
      const __m256i g4 = blockSums(top.g, bottom.g, at);
      const __m256i b4 = blockSums(top.b, bottom.b, at);
      us[half] = chroma8(kUr, kUg, kUb, r4, g4, b4);
      vs[half] = chroma8(kVr, kVg, kVb, r4, g4, b4);
    }
    // Sixteen U bytes, then sixteen V bytes.
    const __m256i both = packBytes(us[0], us[1], vs[0], vs[1]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x / 2), _mm256_castsi256_si128(both));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x / 2), _mm256_extracti128_si256(both, 1));
  }
  planarChroma(top, bottom, x, width, u, v);
}

LUMORA2_AVX2 void planarRowsAvx2(PlanarRow top, PlanarRow bottom, int width, std::uint8_t* y0,
                                 std::uint8_t* y1, std::uint8_t* u, std::uint8_t* v) {
  lumaAvx2(top, width, y0);
  lumaAvx2(bottom, width, y1);
  chromaAvx2(top, bottom, width, u, v);
}

#undef LUMORA2_AVX2
#endif

using PlanarRows = void (*)(PlanarRow, PlanarRow, int, std::uint8_t*, std::uint8_t*, std::uint8_t*,
                            std::uint8_t*);

PlanarRows choosePlanarRows() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) return planarRowsAvx2;
#endif
  return planarRowsPortable;
}

}  // namespace

void planarRowsToI420(PlanarRow top, PlanarRow bottom, int width, std::uint8_t* y0,
                      std::uint8_t* y1, std::uint8_t* u, std::uint8_t* v) {
  static const PlanarRows rows = choosePlanarRows();
  rows(top, bottom, width, y0, y1, u, v);
}

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
