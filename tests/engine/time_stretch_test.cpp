// Time compression of the analysis window: WsolaTempo's output bits are a pure function of its
// input, the same with both search kernels and on every machine, so each signal's output is held
// to a digest taken from a step-by-step transcription of the algorithm. A changed search, tie
// break, quantisation or cross-fade changes the digest.
#include "time_stretch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <ostream>
#include <string>
#include <vector>

namespace lumora2 {
namespace {

// Speech-like: a 140 Hz voice with four harmonics under a 4 Hz syllable envelope, plus noise.
std::vector<float> speech(std::int64_t n) {
  std::vector<float> x(n);
  std::uint32_t seed = 12345;
  for (std::int64_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / 16000.0;
    double v = 0;
    for (int h = 1; h <= 4; ++h) v += std::sin(2 * std::numbers::pi * 140.0 * h * t + h) / h;
    seed = seed * 1664525u + 1013904223u;
    const double noise = (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 0.02;
    x[i] = static_cast<float>(0.3 * v * std::pow(std::sin(std::numbers::pi * 4.0 * t), 2) + noise);
  }
  return x;
}

// ±1.0: +1.0 is beyond the largest 32-bit value and must clamp.
std::vector<float> square(std::int64_t n) {
  std::vector<float> x(n);
  for (std::int64_t i = 0; i < n; ++i) x[i] = (i / 57) % 2 ? -1.0f : 1.0f;
  return x;
}

// Isolated clicks in silence: many candidate offsets tie at zero error, and which one wins
// decides where the clicks land.
std::vector<float> clicks(std::int64_t n) {
  std::vector<float> x(n, 0.0f);
  for (std::int64_t i = 250; i < n; i += 733) x[i] = 0.5f;
  return x;
}

std::vector<float> nonFinite(std::int64_t n) {
  std::vector<float> x = speech(n);
  const float inf = std::numeric_limits<float>::infinity();
  for (std::int64_t i = 0; i < n; i += 997) x[i] = std::nanf("");
  for (std::int64_t i = 300; i < n; i += 1303) x[i] = inf;
  for (std::int64_t i = 700; i < n; i += 1709) x[i] = -inf;
  if (n > 20000) std::fill(x.begin() + 20000, x.begin() + 20600, inf);  // a run the search meets
  return x;
}

struct StretchCase {
  std::string name;
  std::function<std::vector<float>(std::int64_t)> signal;
  std::int64_t length;
  std::int64_t target;
  std::uint64_t digest;  // FNV-1a of the output's bits
};

void PrintTo(const StretchCase& c, std::ostream* os) { *os << c.name; }

class WsolaTempoTest : public ::testing::TestWithParam<StretchCase> {};

std::uint64_t digest(const std::vector<float>& v) {
  std::uint64_t h = 14695981039346656037ull;
  for (float f : v) h = (h ^ std::bit_cast<std::uint32_t>(f)) * 1099511628211ull;
  return h;
}

TEST_P(WsolaTempoTest, GivesTheSameBitsWithEitherKernel) {
  const StretchCase& c = GetParam();
  const std::vector<float> x = c.signal(c.length);
  for (StretchKernels kernels : {StretchKernels::automatic, StretchKernels::portable}) {
    const std::vector<float> got = WsolaTempo::apply(x, c.target, kernels);
    ASSERT_EQ(got.size(), static_cast<std::size_t>(c.target));
    EXPECT_EQ(digest(got), c.digest)
        << std::hex << "0x" << digest(got)
        << " (portable kernel: " << (kernels == StretchKernels::portable) << ")";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Signals, WsolaTempoTest,
    ::testing::Values(StretchCase{"speech", speech, 44000, 35200, 0xee0d4aaa7f857757},
                      StretchCase{"square", square, 44000, 35200, 0xfbb27a0e58852125},
                      StretchCase{"clicks", clicks, 44000, 35200, 0x0e3fb642057f6619},
                      StretchCase{"nonFinite", nonFinite, 44000, 35200, 0x7c3471e807bf3b73},
                      StretchCase{"empty", speech, 0, 35200, 0xb0f37d63a4852125},
                      StretchCase{"shortPadded", speech, 5000, 35200, 0x7e6f6c1a91b8bf93},
                      StretchCase{"longCut", speech, 50000, 35200, 0xee0d4aaa7f857757},
                      StretchCase{"oddLength", speech, 3001, 2401, 0xdfb488aeab604947}),
    [](const auto& p) { return p.param.name; });

}  // namespace
}  // namespace lumora2
