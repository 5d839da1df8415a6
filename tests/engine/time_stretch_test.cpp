// Time compression of the analysis window: WsolaTempo against a plain transcription of its
// steps, bit for bit and with both search kernels.
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
#include <stdexcept>
#include <string>
#include <vector>

namespace lumora2 {
namespace {

// The algorithm step by step, as slowly and literally as possible.
std::vector<float> plainWsola(const std::vector<float>& x, std::int64_t target) {
  const auto size = static_cast<std::int64_t>(x.size());
  std::vector<double> q;
  for (float s : x) {
    double v;
    if (std::isnan(s)) {
      v = 0;
    } else if (s == std::numeric_limits<float>::infinity()) {
      v = 2147483647.0;
    } else if (s == -std::numeric_limits<float>::infinity()) {
      v = -2147483648.0;
    } else {
      v = std::trunc(static_cast<double>(s) * 2147483648.0);
      v = std::min(std::max(v, -2147483648.0), 2147483647.0);
    }
    q.push_back(std::floor((v + 64) / 128));
  }
  auto in = [&](std::int64_t i) { return i >= 0 && i < size ? q[i] : 0.0; };

  const auto n =
      std::max<std::int64_t>(static_cast<std::int64_t>(std::floor(size / 1.25 + 0.5)), 0);
  const std::int64_t hop = 1312 - 192, overlap = 192;
  std::vector<float> out(n, 0.0f);
  std::vector<float> fadeIn(overlap), fadeOut(overlap);
  for (int j = 0; j < overlap; ++j) {
    fadeIn[j] = static_cast<float>(j) * (1.0f / static_cast<float>(overlap));
    fadeOut[j] = 1.0f - fadeIn[j];
  }
  std::int64_t c = 0;
  for (std::int64_t k = 0; k * hop < n; ++k) {
    const std::int64_t o = k * hop, count = std::min(n - o, hop);
    if (k == 0) {
      for (std::int64_t j = 0; j < count; ++j) out[j] = static_cast<float>(in(j));
      continue;
    }
    std::vector<double> t(overlap);
    for (int j = 0; j < overlap; ++j) t[j] = in(c + hop + j);
    const auto m = static_cast<std::int64_t>(std::llround(1400.0 * static_cast<double>(k)));
    double best = std::numeric_limits<double>::infinity();
    std::int64_t bestD = 0;
    for (std::int64_t d = -117; d <= 117; ++d) {
      double error = 0;
      for (int j = 0; j < overlap; ++j) {
        const double diff = in(m + d + j) - t[j];
        error += diff * diff;
      }
      if (error < best) {
        best = error;
        bestD = d;
      }
    }
    c = m + bestD;
    for (std::int64_t j = 0; j < count; ++j) {
      out[o + j] = j < overlap ? static_cast<float>(t[j]) * fadeOut[j] +
                                     static_cast<float>(in(c + j)) * fadeIn[j]
                               : static_cast<float>(in(c + j));
    }
  }
  std::vector<float> result(target, 0.0f);
  for (std::int64_t i = 0; i < std::min(n, target); ++i) {
    const double w = std::floor(static_cast<double>(out[i]) + 0.5) * 128;
    result[i] = static_cast<float>(w > 2147483647.0 ? 2147483647.0 / 2147483648.0
                                                    : std::max(w, -2147483648.0) / 2147483648.0);
  }
  return result;
}

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
};

void PrintTo(const StretchCase& c, std::ostream* os) { *os << c.name; }

class WsolaTempoTest : public ::testing::TestWithParam<StretchCase> {};

std::vector<std::uint32_t> bits(const std::vector<float>& v) {
  std::vector<std::uint32_t> b;
  for (float f : v) b.push_back(std::bit_cast<std::uint32_t>(f));
  return b;
}

TEST_P(WsolaTempoTest, MatchesThePlainStepsBitForBit) {
  const StretchCase& c = GetParam();
  const std::vector<float> x = c.signal(c.length);
  const std::vector<std::uint32_t> expected = bits(plainWsola(x, c.target));
  ASSERT_EQ(expected.size(), static_cast<std::size_t>(c.target));
  for (StretchKernels kernels : {StretchKernels::automatic, StretchKernels::portable}) {
    const std::vector<std::uint32_t> got = bits(WsolaTempo::apply(x, c.target, kernels));
    ASSERT_EQ(got.size(), expected.size());
    const auto diff = std::mismatch(got.begin(), got.end(), expected.begin());
    EXPECT_TRUE(diff.first == got.end())
        << "first differing sample " << (diff.first - got.begin())
        << " (portable kernel: " << (kernels == StretchKernels::portable) << ")";
  }
}

INSTANTIATE_TEST_SUITE_P(Signals, WsolaTempoTest,
                         ::testing::Values(StretchCase{"speech", speech, 44000, 35200},
                                           StretchCase{"square", square, 44000, 35200},
                                           StretchCase{"clicks", clicks, 44000, 35200},
                                           StretchCase{"nonFinite", nonFinite, 44000, 35200},
                                           StretchCase{"empty", speech, 0, 35200},
                                           StretchCase{"shortPadded", speech, 5000, 35200},
                                           StretchCase{"longCut", speech, 50000, 35200},
                                           StretchCase{"oddLength", speech, 3001, 2401}),
                         [](const auto& p) { return p.param.name; });

}  // namespace
}  // namespace lumora2
