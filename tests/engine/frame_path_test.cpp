// Decoded half-precision planes to output pixels: the clipped 8-bit conversion, the B, G, R and
// R, G, B layouts, the unsharp mask against a direct 5 × 5 convolution, and the two kernel sets
// agreeing; 4:2:0 frames made from the rows as they come against the packed frame converted.
#include "frame_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

#include "engine/multi_array.h"
#include "protocol/i420.h"

namespace lumora2 {
namespace {

constexpr int W = FramePath::width;
constexpr int H = FramePath::height;
constexpr std::size_t kPlane = FramePath::planeSize;
constexpr float kInf = std::numeric_limits<float>::infinity();

using Raw = std::vector<std::uint16_t>;
using Bytes = std::vector<std::uint8_t>;
constexpr FrameKernels kBothKernels[] = {FrameKernels::automatic, FrameKernels::portable};

// plane 0, 1, 2 = R, G, B, as the decoder writes them.
Raw makeFrame(const std::function<float(int plane, int row, int col)>& value) {
  Raw raw(3 * kPlane);
  for (int p = 0; p < 3; ++p) {
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) raw[p * kPlane + y * W + x] = floatToHalf(value(p, y, x));
    }
  }
  return raw;
}

float at(const Raw& raw, int plane, int row, int col) {
  return halfToFloat(
      raw[plane * kPlane + std::clamp(row, 0, H - 1) * W + std::clamp(col, 0, W - 1)]);
}

std::size_t byteIndex(int row, int col, int plane) {
  return static_cast<std::size_t>(row) * FramePath::rowBytes + 3 * col + (2 - plane);
}

std::uint8_t toByte(double v) {
  if (!(v > 0)) return 0;
  return static_cast<std::uint8_t>(std::nearbyint(std::min(v, 1.0) * 255));
}

// The unsharp mask with the 5 × 5 kernel applied directly, in double precision.
Bytes directReference(const Raw& raw, double amount) {
  double g[5], sum = 0;
  for (int i = -2; i <= 2; ++i) {
    g[i + 2] = std::exp(-(i * i) / 2.88);
    sum += g[i + 2];
  }
  Bytes out(FramePath::frameBytes);
  for (int p = 0; p < 3; ++p) {
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) {
        double blur = 0;
        for (int a = 0; a < 5; ++a) {
          for (int b = 0; b < 5; ++b) {
            blur += g[a] / sum * (g[b] / sum) * at(raw, p, y + a - 2, x + b - 2);
          }
        }
        out[byteIndex(y, x, p)] = toByte(at(raw, p, y, x) * (1 + amount) - blur * amount);
      }
    }
  }
  return out;
}

// Smooth gradients, stripes and hash noise, overshooting [0, 1] so that clipping is exercised.
float busy(int p, int y, int x) {
  const std::uint32_t h = (static_cast<std::uint32_t>(y * W + x) * 2654435761u) ^ (p * 40503u);
  const float noise = static_cast<float>(h >> 20) / 4096.0f - 0.5f;
  const float wave = 0.5f + 0.45f * std::sin(0.05f * x + 0.031f * y + p);
  return wave + 0.3f * noise + ((x / 9 + y / 7) % 5 == 0 ? 0.4f : 0.0f);
}

class SharpenTest : public ::testing::TestWithParam<float> {};

TEST_P(SharpenTest, WithinOneOfTheDirectConvolution) {
  const float amount = GetParam();
  const Raw raw = makeFrame(busy);
  const Bytes expected = directReference(raw, amount);
  for (FrameKernels kernels : kBothKernels) {
    FramePath path(kernels);
    path.frameToBGR(makeFrame([](int, int, int) { return 0.9f; }).data(), amount);  // stale state
    Bytes out(FramePath::frameBytes), rgb(FramePath::frameBytes);
    path.frameInto(raw.data(), amount, out);
    path.frameInto(raw.data(), amount, rgb, PixelOrder::rgb);
    std::size_t far = 0, differing = 0, misordered = 0;
    for (std::size_t i = 0; i < out.size(); ++i) {
      far += std::abs(out[i] - expected[i]) > 1;
      differing += out[i] != expected[i];
      misordered += rgb[i] != out[i - i % 3 + 2 - i % 3];
    }
    EXPECT_EQ(far, 0u);
    // Off by one only where rounding sits on a knife edge, not systematically.
    EXPECT_LT(differing, out.size() / 1000) << differing;
    EXPECT_EQ(misordered, 0u) << "R, G, B must be the same bytes as B, G, R, each pixel reversed";
  }
}

INSTANTIATE_TEST_SUITE_P(Amounts, SharpenTest, ::testing::Values(0.3f, 1.0f, 2.5f));

TEST(FramePath, VectorAndPortableKernelsGiveTheSameBytes) {
  // Values outside [0, 1], infinities, NaNs and subnormals, all through both paths.
  const Raw specials = makeFrame([](int p, int y, int x) {
    const int k = (y * W + x + p) % 211;
    return k == 0 ? std::nanf("") : k == 1 ? kInf : k == 2 ? -kInf : k == 3 ? 3e-6f : busy(p, y, x);
  });
  FramePath vector(FrameKernels::automatic), portable(FrameKernels::portable);
  if (std::string_view(vector.kernelName()) == "portable") GTEST_SKIP() << "no AVX2/F16C here";
  for (const Raw& raw : {makeFrame(busy), specials}) {
    for (float amount : {0.0f, 0.7f, 3.0f}) {
      EXPECT_EQ(vector.frameToBGR(raw.data(), amount), portable.frameToBGR(raw.data(), amount))
          << "amount " << amount;
    }
  }
}

// The render process sends 4:2:0 frames made row by row (frameIntoI420); its parents compare and
// mix them with pictures converted from packed R, G, B (wire::toI420). Both must be the same
// bytes, with sharpening and without, from either kernel set.
class I420Test : public ::testing::TestWithParam<float> {};

TEST_P(I420Test, RowByRowIsThePackedFrameConverted) {
  const float amount = GetParam();
  const Raw raw = makeFrame(busy);
  for (FrameKernels kernels : kBothKernels) {
    FramePath path(kernels);
    Bytes rgb(FramePath::frameBytes), expected(FramePath::i420Bytes), planes(FramePath::i420Bytes);
    path.frameInto(raw.data(), amount, rgb, PixelOrder::rgb);
    wire::toI420(rgb.data(), W, H, 0, wire::PackedLayout::rgb24, expected.data());
    path.frameIntoI420(raw.data(), amount, planes);
    ASSERT_EQ(planes, expected) << path.kernelName();
  }
  FramePath path;
  Bytes wrong(FramePath::i420Bytes + 1);
  EXPECT_THROW(path.frameIntoI420(raw.data(), amount, wrong), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(Amounts, I420Test, ::testing::Values(0.0f, 0.7f));

}  // namespace
}  // namespace lumora2
