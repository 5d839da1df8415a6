// Time compression of the 16 kHz analysis window before the speech front end: a 44,000-sample
// window (2.75 s) becomes the 35,200 samples (2.2 s) the front end graph takes, either by
// waveform-similarity overlap-add (the default "tempo" mode, which keeps the pitch) or by linear
// resampling (the "linear" mode, which does not).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace lumora2 {

// Which search kernel WsolaTempo uses. Both give the same bits; `portable` exists so that tests
// and benchmarks can hold the vector kernel against the baseline one on the same machine.
enum class StretchKernels { automatic, portable };

// Waveform-similarity overlap-add at tempo 1.25 with fixed parameters: segments of 1,312 samples
// written every 1,120 output samples, a 192-sample cross-fade, and a search of ±117 samples
// around each segment's nominal input position for the offset that best continues the previous
// segment. The input is first quantised to 24-bit integer PCM and the output converted back, so
// the result is a pure function of the input bits: every platform and every kernel gives the
// same samples.
struct WsolaTempo {
  static constexpr std::int64_t segmentLength = 1312;
  static constexpr std::int64_t overlapLength = 192;
  static constexpr std::int64_t searchRadius = 117;                         // 235 candidate offsets
  static constexpr std::int64_t outputHop = segmentLength - overlapLength;  // 1,120
  static constexpr std::int64_t inputHop = 1400;                            // 1,120 × 1.25
  static constexpr double tempo = 1.25;

  // Fills `out`: the first round(count of x ÷ 1.25) compressed samples, each times `gain`, cut
  // or padded with zeros to the size of `out`. A non-finite input sample counts as 0 (NaN), the
  // largest (+∞) or the smallest (−∞) 24-bit value. Each sample is written once, straight from
  // the overlap-add: no intermediate copy of the output.
  static void apply(std::span<const float> x, std::span<float> out, float gain = 1.0f,
                    StretchKernels kernels = StretchKernels::automatic);
  // The same into a new array of `targetCount` samples, gain 1. Throws std::invalid_argument for
  // a negative `targetCount`.
  static std::vector<float> apply(const std::vector<float>& x, std::int64_t targetCount,
                                  StretchKernels kernels = StretchKernels::automatic);
};

// Linear interpolation of x onto `count` evenly spaced points spanning x's first to last sample:
// y[i] = x[k] + (x[k + 1] − x[k]) × frac at position i × (count of x − 1) ÷ (count − 1). Count 0
// gives an empty array and count 1 gives x's first sample. Non-finite samples are not sanitised;
// they spread by ordinary float arithmetic. Throws std::invalid_argument for an empty x or a
// negative count.
std::vector<float> resampleTo(const std::vector<float>& x, std::int64_t count);
// The same onto the size of `y`, each sample then times `gain`.
void resampleInto(std::span<const float> x, std::span<float> y, float gain = 1.0f);

}  // namespace lumora2
