#include "time_stretch.h"

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>

namespace lumora2 {
namespace {

constexpr std::int64_t kOverlap = WsolaTempo::overlapLength;
constexpr std::int64_t kHop = WsolaTempo::outputHop;
constexpr int kCandidates = 2 * WsolaTempo::searchRadius + 1;  // 235
// The kernels compute errors for a few offsets past the last candidate so that every block is
// whole; the search ignores them. 240 = 15 blocks of 16 (AVX2) = 30 blocks of 8 (SSE2).
constexpr int kPaddedCandidates = 240;

// 24-bit integer PCM value of one sample, as an exact double: v = trunc(s × 2³¹) clamped to the
// 32-bit range, then floor((v + 64) ÷ 128). Non-finite samples are defined: NaN is silence, ±∞
// the extreme 32-bit values. Written with compares and a truncating conversion, not std::trunc
// and std::clamp, which baseline x86-64 has no single instructions for: this runs on every
// sample of every window.
double quantise(float s) {
  const double p = static_cast<double>(s) * 2147483648.0;
  std::int64_t v;
  if (p != p) {
    v = 0;
  } else if (p >= 2147483647.0) {
    v = 2147483647;
  } else if (p <= -2147483648.0) {
    v = -2147483648LL;
  } else {
    v = static_cast<std::int64_t>(p);  // truncates towards zero
  }
  return static_cast<double>((v + 64) >> 7);  // arithmetic shift: the floor of the quotient
}

// Back from 24-bit PCM to a float sample: w = floor(v + 0.5) × 128, clamped to the 32-bit range,
// times 2⁻³¹. v + 0.5 is exact in double for every value the overlap-add can produce, so this is
// the mathematical floor; the result is exact in float except for the upper clamp, which reads
// back as 1.0.
float dequantise(float v) {
  const double y = static_cast<double>(v) + 0.5;
  auto i = static_cast<std::int64_t>(y);
  if (static_cast<double>(i) > y) --i;  // floor below zero
  const std::int64_t w = i * 128;
  if (w > 2147483647) return static_cast<float>(2147483647.0 * 0x1p-31);
  return static_cast<float>(static_cast<double>(std::max<std::int64_t>(w, -2147483648LL)) *
                            0x1p-31);
}

// errors[i] = Σ_{j < 192} (window[i + j] − t[j])² for i < kPaddedCandidates, where window starts
// at the first candidate's input position. Every kernel keeps each sum's own order (increasing j,
// one double rounding per step); they differ only in how many sums advance side by side, so all
// give the same bits. A difference of two 24-bit values and its square are exact in double; only
// the running sums round. The search is the bulk of apply's work (235 sums of 192 terms per
// segment); measured with lumora2_engine_kernels_bench on the 2-core build machine, one window of
// 44,000 samples takes 0.55-0.82 ms with the AVX2 kernel and 0.65-1.1 ms with the SSE2 one.
using SearchKernel = void (*)(const double* window, const double* t, double* errors);

void searchPortable(const double* window, const double* t, double* errors) {
  // SSE2 is part of every x86-64 processor: 4 accumulators of 2 offsets each.
  for (int i = 0; i < kPaddedCandidates; i += 8) {
    __m128d acc0 = _mm_setzero_pd(), acc1 = _mm_setzero_pd();
    __m128d acc2 = _mm_setzero_pd(), acc3 = _mm_setzero_pd();
    const double* w = window + i;
    for (std::int64_t j = 0; j < kOverlap; ++j) {
      const __m128d tj = _mm_set1_pd(t[j]);
      const __m128d d0 = _mm_sub_pd(_mm_loadu_pd(w + j), tj);
      const __m128d d1 = _mm_sub_pd(_mm_loadu_pd(w + j + 2), tj);
      const __m128d d2 = _mm_sub_pd(_mm_loadu_pd(w + j + 4), tj);
      const __m128d d3 = _mm_sub_pd(_mm_loadu_pd(w + j + 6), tj);
      acc0 = _mm_add_pd(acc0, _mm_mul_pd(d0, d0));
      acc1 = _mm_add_pd(acc1, _mm_mul_pd(d1, d1));
      acc2 = _mm_add_pd(acc2, _mm_mul_pd(d2, d2));
      acc3 = _mm_add_pd(acc3, _mm_mul_pd(d3, d3));
    }
    _mm_storeu_pd(errors + i, acc0);
    _mm_storeu_pd(errors + i + 2, acc1);
    _mm_storeu_pd(errors + i + 4, acc2);
    _mm_storeu_pd(errors + i + 6, acc3);
  }
}

__attribute__((target("avx2"))) void searchAvx2(const double* window, const double* t,
                                                double* errors) {
  for (int i = 0; i < kPaddedCandidates; i += 16) {
    __m256d acc0 = _mm256_setzero_pd(), acc1 = _mm256_setzero_pd();
    __m256d acc2 = _mm256_setzero_pd(), acc3 = _mm256_setzero_pd();
    const double* w = window + i;
    for (std::int64_t j = 0; j < kOverlap; ++j) {
      const __m256d tj = _mm256_broadcast_sd(t + j);
      const __m256d d0 = _mm256_sub_pd(_mm256_loadu_pd(w + j), tj);
      const __m256d d1 = _mm256_sub_pd(_mm256_loadu_pd(w + j + 4), tj);
      const __m256d d2 = _mm256_sub_pd(_mm256_loadu_pd(w + j + 8), tj);
      const __m256d d3 = _mm256_sub_pd(_mm256_loadu_pd(w + j + 12), tj);
      acc0 = _mm256_add_pd(acc0, _mm256_mul_pd(d0, d0));
      acc1 = _mm256_add_pd(acc1, _mm256_mul_pd(d1, d1));
      acc2 = _mm256_add_pd(acc2, _mm256_mul_pd(d2, d2));
      acc3 = _mm256_add_pd(acc3, _mm256_mul_pd(d3, d3));
    }
    _mm256_storeu_pd(errors + i, acc0);
    _mm256_storeu_pd(errors + i + 4, acc1);
    _mm256_storeu_pd(errors + i + 8, acc2);
    _mm256_storeu_pd(errors + i + 12, acc3);
  }
}

SearchKernel chooseKernel(StretchKernels kernels) {
  static const bool haveAvx2 = __builtin_cpu_supports("avx2");
  return kernels == StretchKernels::automatic && haveAvx2 ? searchAvx2 : searchPortable;
}

}  // namespace

std::vector<float> WsolaTempo::apply(const std::vector<float>& x, std::int64_t targetCount,
                                     StretchKernels kernels) {
  if (targetCount < 0) throw std::invalid_argument("WsolaTempo: negative target count");
  std::vector<float> result(static_cast<std::size_t>(targetCount));
  apply(x, result, 1.0f, kernels);
  return result;
}

void WsolaTempo::apply(std::span<const float> x, std::span<float> result, float gain,
                       StretchKernels kernels) {
  const auto count = static_cast<std::int64_t>(x.size());
  const auto outCount = std::max<std::int64_t>(
      static_cast<std::int64_t>(std::floor(static_cast<double>(count) / tempo + 0.5)), 0);
  const std::int64_t segments = (outCount + kHop - 1) / kHop;

  // The quantised input, followed by zeros far enough that every read the algorithm makes,
  // including the kernels' spare candidates, stays inside: input positions outside x read 0.
  const std::int64_t lastNominal = segments > 0 ? inputHop * (segments - 1) : 0;
  const std::int64_t reach =
      lastNominal + std::max<std::int64_t>(searchRadius + segmentLength,
                                           kPaddedCandidates - searchRadius + kOverlap);
  std::vector<double> q(static_cast<std::size_t>(std::max(count, reach)), 0.0);
  std::transform(x.begin(), x.end(), q.begin(), quantise);

  std::array<float, kOverlap> fadeIn{}, fadeOut{};
  const float step = 1.0f / static_cast<float>(kOverlap);
  for (std::int64_t j = 0; j < kOverlap; ++j) {
    fadeIn[j] = static_cast<float>(j) * step;
    fadeOut[j] = 1.0f - fadeIn[j];
  }

  // Output sample i is finished as soon as its segment writes it: converted back and scaled
  // into `result` at once, or dropped beyond its end.
  const auto kept = std::min<std::int64_t>(outCount, static_cast<std::int64_t>(result.size()));
  auto put = [&](std::int64_t i, float v) {
    if (i < kept) result[static_cast<std::size_t>(i)] = dequantise(v) * gain;
  };
  const SearchKernel search = chooseKernel(kernels);
  alignas(32) std::array<double, kOverlap> t{};
  alignas(32) std::array<double, kPaddedCandidates> errors{};
  std::int64_t chosen = 0;  // input offset of the previous segment
  for (std::int64_t k = 0; k < segments && k * kHop < kept; ++k) {
    const std::int64_t o = k * kHop;
    const std::int64_t n = std::min(outCount - o, kHop);
    if (k == 0) {
      for (std::int64_t j = 0; j < n; ++j) put(j, static_cast<float>(q[j]));
      continue;
    }
    // The natural continuation of the previous segment, and the candidate offset around the
    // nominal position that resembles it most (the first strictly smallest error wins).
    std::copy_n(q.begin() + (chosen + kHop), kOverlap, t.begin());
    const std::int64_t nominal = inputHop * k;
    search(q.data() + (nominal - searchRadius), t.data(), errors.data());
    double best = std::numeric_limits<double>::infinity();
    std::int64_t bestOffset = 0;
    for (int i = 0; i < kCandidates; ++i) {
      if (errors[i] < best) {
        best = errors[i];
        bestOffset = i - searchRadius;
      }
    }
    chosen = nominal + bestOffset;
    // Cross-fade from the continuation into the chosen segment, in single precision.
    const double* seg = q.data() + chosen;
    const std::int64_t fade = std::min(n, kOverlap);
    for (std::int64_t j = 0; j < fade; ++j) {
      put(o + j, static_cast<float>(t[j]) * fadeOut[j] + static_cast<float>(seg[j]) * fadeIn[j]);
    }
    for (std::int64_t j = fade; j < n; ++j) put(o + j, static_cast<float>(seg[j]));
  }
  std::fill(result.begin() + kept, result.end(), 0.0f);
}

std::vector<float> resampleTo(const std::vector<float>& x, std::int64_t count) {
  if (count < 0) throw std::invalid_argument("resampleTo: negative count");
  std::vector<float> y(static_cast<std::size_t>(count));
  resampleInto(x, y);
  return y;
}

void resampleInto(std::span<const float> x, std::span<float> y, float gain) {
  if (x.empty()) throw std::invalid_argument("resampleTo: empty input");
  const auto count = static_cast<std::int64_t>(y.size());
  if (count == 1) y[0] = x[0] * gain;
  if (count <= 1) return;
  const auto last = static_cast<std::int64_t>(x.size()) - 1;
  const double step = static_cast<double>(last) / static_cast<double>(count - 1);
  for (std::int64_t i = 0; i < count; ++i) {
    const double p = step * static_cast<double>(i);
    const std::int64_t k = std::min(static_cast<std::int64_t>(p), last);
    const float a = x[static_cast<std::size_t>(k)];
    const float b = k + 1 <= last ? x[static_cast<std::size_t>(k + 1)] : a;
    y[static_cast<std::size_t>(i)] =
        (a + (b - a) * static_cast<float>(p - static_cast<double>(k))) * gain;
  }
}

}  // namespace lumora2
