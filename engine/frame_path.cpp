// Frame conversion runs on the engine's own row kernels, not on OpenCV. Measured with
// lumora2_engine_kernels_bench on the 2-core x86-64 build machine (one thread, sharpening on,
// median of 400 frames per run, the spread over runs): these kernels 0.69-1.05 ms per frame,
// OpenCV core + imgproc (convertTo, sepFilter2D, addWeighted, convertTo, merge; one thread)
// 1.7-2.7 ms, copying the frame's input and output bytes 0.24-0.33 ms. The high ends are runs
// that shared the two cores with compilers. OpenCV pays for a full float plane per step; here
// nothing but the input and the output bytes leaves the first-level cache:
//  - rows go out one at a time, all three planes together: each plane's half-precision row is
//    widened into `_pf` and blurred along the row into `_blur` (five-row rings per plane); the
//    column pass over the five rows around an output row, the unsharp mask and the rounding to
//    8 bits follow at once, and the three 8-bit rows are interleaved into the output;
//  - the scaling by 255 is folded into the unsharp mask's weights, and the kernel's symmetry
//    halves the multiplications of each pass.
// An AVX-512 variant of the two passes measured no faster here (0.97-1.23 ms against 0.81-1.26
// ms for AVX2 in the same runs) and was dropped.
//
// The vector kernels (AVX2 + F16C, chosen at run time so the build needs nothing beyond baseline
// x86-64) and the portable ones perform the same float operations in the same order, so their
// bytes are identical. That is also why neither uses fused multiply-add: it rounds once where the
// portable code rounds twice.
#include "frame_path.h"

#include <cpuid.h>
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>

#include "engine/multi_array.h"
#include "protocol/i420.h"

namespace lumora2 {

// Kernels over one row of `FramePath::width` values.
struct FrameRowKernels {
  const char* name;
  // dst = 8-bit(half), no sharpening.
  void (*halfToU8)(const std::uint16_t* src, std::uint8_t* dst);
  // pf = float(half); rowPass[x] = t0·pf[x] + t1·(pf[x−1] + pf[x+1]) + t2·(pf[x−2] + pf[x+2]),
  // edge values extended.
  void (*readRow)(const std::uint16_t* src, float* pf, float* rowPass, const float* taps);
  // The column pass of five row passes (rows[2] is the centre row) with weights w[0 … 2], which
  // carry the factor −amount × 255, added to pf × w[3] (w[3] = (1 + amount) × 255): the
  // sharpened value already scaled to 8 bits, clipped and rounded into dst.
  void (*sharpenRow)(const float* const* rows, const float* pf, const float* w, std::uint8_t* dst);
  // out = b[0], g[0], r[0], b[1], …: the three rows in the order given (B, G, R for the
  // engine's own order; the planes passed the other way round give R, G, B).
  void (*interleave)(const std::uint8_t* b, const std::uint8_t* g, const std::uint8_t* r,
                     std::uint8_t* out);
};

namespace {

constexpr int kWidth = FramePath::width;
constexpr int kHeight = FramePath::height;

// Clip to [0, 1] (NaN becomes 0, as the vector max instruction does), scale, round to nearest
// even: the one definition of a float value's 8-bit form.
inline std::uint8_t scalarToU8(float v) {
  v = v > 0.0f ? v : 0.0f;
  v = v < 1.0f ? v : 1.0f;
  return static_cast<std::uint8_t>(std::nearbyint(v * 255.0f));
}

// The same for a value already scaled by 255: below or at 0 (NaN too) becomes 0, from 255 up 255.
inline std::uint8_t scaledToU8(float v) {
  if (!(v > 0.0f)) return 0;
  return v >= 255.0f ? 255 : static_cast<std::uint8_t>(std::nearbyint(v));
}

inline float rowTapAt(const float* s, int x, const float* taps) {
  auto at = [s](int i) { return s[std::clamp(i, 0, kWidth - 1)]; };
  return taps[0] * at(x) + taps[1] * (at(x - 1) + at(x + 1)) + taps[2] * (at(x - 2) + at(x + 2));
}

// ---- Portable kernels ----

void halfToU8Portable(const std::uint16_t* src, std::uint8_t* dst) {
  for (int x = 0; x < kWidth; ++x) dst[x] = scalarToU8(halfToFloat(src[x]));
}

void readRowPortable(const std::uint16_t* src, float* pf, float* rowPass, const float* taps) {
  for (int x = 0; x < kWidth; ++x) pf[x] = halfToFloat(src[x]);
  for (int x = 0; x < kWidth; ++x) rowPass[x] = rowTapAt(pf, x, taps);
}

void sharpenRowPortable(const float* const* rows, const float* pf, const float* w,
                        std::uint8_t* dst) {
  for (int x = 0; x < kWidth; ++x) {
    const float blur =
        w[0] * rows[2][x] + w[1] * (rows[1][x] + rows[3][x]) + w[2] * (rows[0][x] + rows[4][x]);
    dst[x] = scaledToU8(pf[x] * w[3] + blur);
  }
}

void interleavePortable(const std::uint8_t* b, const std::uint8_t* g, const std::uint8_t* r,
                        std::uint8_t* out) {
  for (int i = 0; i < kWidth; ++i) {
    out[3 * i] = b[i];
    out[3 * i + 1] = g[i];
    out[3 * i + 2] = r[i];
  }
}

constexpr FrameRowKernels kPortable{"portable", halfToU8Portable, readRowPortable,
                                    sharpenRowPortable, interleavePortable};

// ---- AVX2 + F16C kernels ----

#define LUMORA2_AVX2 __attribute__((target("avx2,f16c")))

static_assert(kWidth % 32 == 0);

LUMORA2_AVX2 inline __m256i roundClipped(__m256 v) {
  v = _mm256_max_ps(v, _mm256_setzero_ps());  // (v > 0) ? v : 0, like scalarToU8
  v = _mm256_min_ps(v, _mm256_set1_ps(1.0f));
  return _mm256_cvtps_epi32(_mm256_mul_ps(v, _mm256_set1_ps(255.0f)));
}

// 32 rounded values, saturated to [0, 255], to 32 bytes in order.
LUMORA2_AVX2 inline void store32(__m256i a, __m256i b, __m256i c, __m256i d, std::uint8_t* dst) {
  const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(a, b), _mm256_packs_epi32(c, d));
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm256_permutevar8x32_epi32(bytes, order));
}

LUMORA2_AVX2 inline __m256 loadHalf(const std::uint16_t* src) {
  return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src)));
}

LUMORA2_AVX2 void halfToU8Avx2(const std::uint16_t* src, std::uint8_t* dst) {
  for (int x = 0; x < kWidth; x += 32) {
    store32(roundClipped(loadHalf(src + x)), roundClipped(loadHalf(src + x + 8)),
            roundClipped(loadHalf(src + x + 16)), roundClipped(loadHalf(src + x + 24)), dst + x);
  }
}

LUMORA2_AVX2 inline __m256 taps3(__m256 centre, __m256 near, __m256 far, const __m256* t) {
  return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(t[0], centre), _mm256_mul_ps(t[1], near)),
                       _mm256_mul_ps(t[2], far));
}

LUMORA2_AVX2 inline void rowPassBlock(const float* pf, float* dst, int x, const __m256* t) {
  const float* s = pf + x;
  const __m256 near = _mm256_add_ps(_mm256_loadu_ps(s - 1), _mm256_loadu_ps(s + 1));
  const __m256 far = _mm256_add_ps(_mm256_loadu_ps(s - 2), _mm256_loadu_ps(s + 2));
  _mm256_storeu_ps(dst + x, taps3(_mm256_loadu_ps(s), near, far, t));
}

LUMORA2_AVX2 void readRowAvx2(const std::uint16_t* src, float* pf, float* rowPass,
                              const float* taps) {
  for (int x = 0; x < kWidth; x += 8) _mm256_storeu_ps(pf + x, loadHalf(src + x));
  const __m256 t[3] = {_mm256_set1_ps(taps[0]), _mm256_set1_ps(taps[1]), _mm256_set1_ps(taps[2])};
  // Interior pixels x in [2, width − 2) by whole vectors, the last one overlapping its
  // predecessor; the two pixels at each edge read extended values.
  for (int x = 2; x + 8 <= kWidth - 2; x += 8) rowPassBlock(pf, rowPass, x, t);
  rowPassBlock(pf, rowPass, kWidth - 2 - 8, t);
  for (int e : {0, 1, kWidth - 2, kWidth - 1}) rowPass[e] = rowTapAt(pf, e, taps);
}

LUMORA2_AVX2 inline __m256i sharpenBlock(const float* const* rows, const float* pf, int x,
                                         const __m256* w) {
  const __m256 near = _mm256_add_ps(_mm256_loadu_ps(rows[1] + x), _mm256_loadu_ps(rows[3] + x));
  const __m256 far = _mm256_add_ps(_mm256_loadu_ps(rows[0] + x), _mm256_loadu_ps(rows[4] + x));
  const __m256 blur = taps3(_mm256_loadu_ps(rows[2] + x), near, far, w);
  const __m256 v = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(pf + x), w[3]), blur);
  // (510 < v) ? 510 : v keeps NaN, which converts to the integer minimum, as does −∞; the
  // saturating packs of store32 then give 0, as scaledToU8 does.
  return _mm256_cvtps_epi32(_mm256_min_ps(_mm256_set1_ps(510.0f), v));
}

LUMORA2_AVX2 void sharpenRowAvx2(const float* const* rows, const float* pf, const float* w,
                                 std::uint8_t* dst) {
  const __m256 ws[4] = {_mm256_set1_ps(w[0]), _mm256_set1_ps(w[1]), _mm256_set1_ps(w[2]),
                        _mm256_set1_ps(w[3])};
  for (int x = 0; x < kWidth; x += 32) {
    store32(sharpenBlock(rows, pf, x, ws), sharpenBlock(rows, pf, x + 8, ws),
            sharpenBlock(rows, pf, x + 16, ws), sharpenBlock(rows, pf, x + 24, ws), dst + x);
  }
}

// Byte shuffles that place 16 pixels of one channel into the 48 interleaved bytes: mask[k][c]
// fills output bytes 16k … 16k + 15 from channel c (0x80 leaves a byte zero).
struct InterleaveMasks {
  alignas(16) std::uint8_t mask[3][3][16];
};
constexpr InterleaveMasks makeInterleaveMasks() {
  InterleaveMasks m{};
  for (int k = 0; k < 3; ++k) {
    for (int c = 0; c < 3; ++c) {
      for (int i = 0; i < 16; ++i) {
        const int pos = 16 * k + i;
        m.mask[k][c][i] = static_cast<std::uint8_t>(pos % 3 == c ? pos / 3 : 0x80);
      }
    }
  }
  return m;
}
constexpr InterleaveMasks kInterleave = makeInterleaveMasks();

LUMORA2_AVX2 void interleaveAvx2(const std::uint8_t* b, const std::uint8_t* g,
                                 const std::uint8_t* r, std::uint8_t* out) {
  __m128i mask[3][3];
  for (int k = 0; k < 3; ++k) {
    for (int c = 0; c < 3; ++c) {
      mask[k][c] = _mm_load_si128(reinterpret_cast<const __m128i*>(kInterleave.mask[k][c]));
    }
  }
  for (int i = 0; i < kWidth; i += 16) {
    const __m128i ch[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i)),
                           _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + i)),
                           _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + i))};
    for (int k = 0; k < 3; ++k) {
      const __m128i v = _mm_or_si128(
          _mm_or_si128(_mm_shuffle_epi8(ch[0], mask[k][0]), _mm_shuffle_epi8(ch[1], mask[k][1])),
          _mm_shuffle_epi8(ch[2], mask[k][2]));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * i + 16 * k), v);
    }
  }
}

#undef LUMORA2_AVX2

constexpr FrameRowKernels kAvx2{"AVX2/F16C", halfToU8Avx2, readRowAvx2, sharpenRowAvx2,
                                interleaveAvx2};

// clang 14's __builtin_cpu_supports does not know "f16c", so ask CPUID leaf 1 directly.
bool cpuHasF16c() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_F16C) != 0;
}

const FrameRowKernels* chooseKernels(FrameKernels kernels) {
  static const bool haveAvx2 = __builtin_cpu_supports("avx2") && cpuHasF16c();
  return kernels == FrameKernels::automatic && haveAvx2 ? &kAvx2 : &kPortable;
}

}  // namespace

FramePath::FramePath(FrameKernels kernels) : _kernels(chooseKernels(kernels)) {}

const char* FramePath::kernelName() const { return _kernels->name; }

void FramePath::ensureRGBScratch() {
  if (_pf.size() != planeSize) {
    _pf.assign(planeSize, 0.0f);
    _blur.assign(planeSize, 0.0f);
    _u8r.assign(planeSize, 0);
    _u8g.assign(planeSize, 0);
    _u8b.assign(planeSize, 0);
  }
  if (_usmKernel.empty()) {
    double g[5];
    double sum = 0;
    for (int i = -2; i <= 2; ++i) {
      g[i + 2] = std::exp(-(i * i) / 2.88);
      sum += g[i + 2];
    }
    for (double& v : g) v /= sum;
    for (int a = 0; a < 5; ++a) {
      for (int b = 0; b < 5; ++b) _usmKernel.push_back(static_cast<float>(g[a] * g[b]));
    }
    _usmTaps = {static_cast<float>(g[2]), static_cast<float>(g[1]), static_cast<float>(g[0])};
  }
}

std::vector<std::uint8_t> FramePath::frameToBGR(const std::uint16_t* raw, float sharpenAmount) {
  std::vector<std::uint8_t> out(frameBytes);
  frameInto(raw, sharpenAmount, out);
  return out;
}

void FramePath::frameInto(const std::uint16_t* raw, float sharpenAmount,
                          std::span<std::uint8_t> out, PixelOrder order) {
  if (out.size() != frameBytes) {
    throw std::invalid_argument("frameInto: the output buffer must hold 898,560 bytes");
  }
  const FrameRowKernels& k = *_kernels;
  const bool bgr = order == PixelOrder::bgr;
  convertRows(raw, sharpenAmount, [&](int y, const std::uint8_t* const* rgb) {
    k.interleave(bgr ? rgb[2] : rgb[0], rgb[1], bgr ? rgb[0] : rgb[2], out.data() + y * rowBytes);
  });
}

void FramePath::frameIntoI420(const std::uint16_t* raw, float sharpenAmount,
                              std::span<std::uint8_t> out) {
  if (out.size() != i420Bytes) {
    throw std::invalid_argument("frameIntoI420: the output buffer must hold 449,280 bytes");
  }
  std::uint8_t* const luma = out.data();
  std::uint8_t* const u = luma + planeSize;
  std::uint8_t* const v = u + planeSize / 4;
  // Row y's planes are in scratch row y % 2, so the even row above is still there when its odd
  // partner is done.
  convertRows(raw, sharpenAmount, [&](int y, const std::uint8_t* const* rgb) {
    if (y % 2 == 0) return;
    const wire::PlanarRow bottom{rgb[0], rgb[1], rgb[2]};
    const wire::PlanarRow top{rgb[0] - kWidth, rgb[1] - kWidth, rgb[2] - kWidth};
    const std::size_t chroma = std::size_t(y / 2) * (kWidth / 2);
    wire::planarRowsToI420(top, bottom, kWidth, luma + (y - 1) * kWidth, luma + y * kWidth,
                           u + chroma, v + chroma);
  });
}

template <class Emit>
void FramePath::convertRows(const std::uint16_t* raw, float sharpenAmount, Emit emit) {
  ensureRGBScratch();
  const FrameRowKernels& k = *_kernels;
  const std::uint16_t* const half[3] = {raw, raw + planeSize, raw + 2 * planeSize};  // R, G, B
  auto row = [](auto* plane, int r) { return plane + static_cast<std::ptrdiff_t>(r) * kWidth; };
  // Rows go out as soon as they are done, all three planes together: each plane's 8-bit row y is
  // made in row y % 2 of `_u8r`, `_u8g`, `_u8b` and handed to `emit` while still in the
  // first-level cache. Nothing of the frame but its output bytes travels to memory.
  auto u8 = [&](int y) {
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(y % 2) * kWidth;
    return std::array<std::uint8_t*, 3>{_u8r.data() + at, _u8g.data() + at, _u8b.data() + at};
  };
  if (!(sharpenAmount > 0.0f)) {
    for (int y = 0; y < kHeight; ++y) {
      const auto rgb = u8(y);
      for (int p = 0; p < 3; ++p) k.halfToU8(row(half[p], y), rgb[p]);
      emit(y, rgb.data());
    }
    return;
  }
  // Plane p's row r has its floats in `_pf` row 5p + r % 5 and its row pass in `_blur` row
  // 5p + r % 5. Output row y needs the row passes of rows y − 2 … y + 2, clamped to the plane,
  // which are all there once row y + 2 (or the last row) has been read.
  // The three planes are read as three far-apart streams; asking for each plane's rows two rows
  // ahead keeps the reads from waiting on memory.
  auto prefetchRow = [&](const std::uint16_t* plane, int r) {
    const char* bytes = reinterpret_cast<const char*>(row(plane, r));
    for (int i = 0; i < kWidth * 2; i += 64) __builtin_prefetch(bytes + i);
  };
  auto ring = [&](std::vector<float>& v, int p, int r) { return row(v.data(), 5 * p + r % 5); };
  auto readRow = [&](int p, int r) {
    k.readRow(row(half[p], r), ring(_pf, p, r), ring(_blur, p, r), _usmTaps.data());
  };
  for (int p = 0; p < 3; ++p) {
    readRow(p, 0);
    readRow(p, 1);
  }
  // The unsharp mask pf × (1 + amount) + blur × (−amount), with the scaling to 8 bits folded
  // into its weights: three fewer operations per pixel, a difference in the last bits only.
  const float take = -sharpenAmount * 255.0f;
  const float w[4] = {_usmTaps[0] * take, _usmTaps[1] * take, _usmTaps[2] * take,
                      (1.0f + sharpenAmount) * 255.0f};
  for (int y = 0; y < kHeight; ++y) {
    const auto rgb = u8(y);
    for (int p = 0; p < 3; ++p) {
      if (y + 2 < kHeight) readRow(p, y + 2);
      if (y + 4 < kHeight) prefetchRow(half[p], y + 4);
      const float* rows[5];
      for (int i = 0; i < 5; ++i) rows[i] = ring(_blur, p, std::clamp(y + i - 2, 0, kHeight - 1));
      k.sharpenRow(rows, ring(_pf, p, y), w, rgb[p]);
    }
    emit(y, rgb.data());
  }
}

}  // namespace lumora2
