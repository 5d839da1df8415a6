// The picture converter against BT.601 computed in double precision: every luma byte the nearest
// level to its pixel, every chroma byte the nearest to its 2 x 2 block's mean colour, for both
// packed layouts and for colours at the ends of the range.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "client/client_error.h"
#include "client/picture.h"

namespace lumora2::render {
namespace {

struct Rgb {
  int r, g, b;
};

int nearest(double level) { return int(std::floor(level + 0.5)); }
int lumaOf(Rgb c) { return nearest(16 + 219.0 / 255 * (0.299 * c.r + 0.587 * c.g + 0.114 * c.b)); }
int cbOf(double r, double g, double b) {
  return nearest(128 + 224.0 / 255 * (-0.168736 * r - 0.331264 * g + 0.5 * b));
}
int crOf(double r, double g, double b) {
  return nearest(128 + 224.0 / 255 * (0.5 * r - 0.418688 * g - 0.081312 * b));
}

struct Case {
  std::string name;
  PictureConverter::Layout layout;
  std::size_t padding;  // bytes after each source row
  int pattern;          // 0 random, 1 the eight corners of the colour cube, 2 greys
};

class Converter : public testing::TestWithParam<Case> {};

TEST_P(Converter, RoundsEveryByteToTheNearestLevel) {
  const Case& c = GetParam();
  constexpr int kW = 36, kH = 10;
  std::mt19937 random(7);
  std::vector<Rgb> pixels(kW * kH);
  for (int i = 0; i < kW * kH; ++i) {
    const int corner = (i / 2) % 8, grey = (i * 37) % 256;
    pixels[i] = c.pattern == 0 ? Rgb{int(random() % 256), int(random() % 256), int(random() % 256)}
                : c.pattern == 1
                    ? Rgb{corner & 1 ? 255 : 0, corner & 2 ? 255 : 0, corner & 4 ? 255 : 0}
                    : Rgb{grey, grey, grey};
  }
  const std::size_t step = c.layout == PictureConverter::Layout::rgb24 ? 3 : 4;
  const std::size_t stride = kW * step + c.padding;
  std::vector<std::uint8_t> packed(stride * kH, 0xAB);
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      std::uint8_t* at = &packed[std::size_t(y) * stride + std::size_t(x) * step];
      const Rgb p = pixels[y * kW + x];
      if (step == 3) {
        at[0] = std::uint8_t(p.r), at[1] = std::uint8_t(p.g), at[2] = std::uint8_t(p.b);
      } else {
        at[0] = std::uint8_t(p.b), at[1] = std::uint8_t(p.g), at[2] = std::uint8_t(p.r), at[3] = 0;
      }
    }
  }
  PictureConverter converter(kW, kH, c.layout);
  Picture out;
  converter.convert(packed.data(), out, c.padding ? stride : 0);
  ASSERT_EQ(out.bytes.size(), std::size_t(kW * kH * 3 / 2));
  for (int i = 0; i < kW * kH; ++i) ASSERT_EQ(out.y()[i], lumaOf(pixels[i])) << "luma " << i;
  for (int y = 0; y < kH / 2; ++y) {
    for (int x = 0; x < kW / 2; ++x) {
      double r = 0, g = 0, b = 0;
      for (int k = 0; k < 4; ++k) {
        const Rgb p = pixels[(2 * y + k / 2) * kW + 2 * x + k % 2];
        r += p.r / 4.0, g += p.g / 4.0, b += p.b / 4.0;
      }
      const int at = y * kW / 2 + x;
      ASSERT_EQ(out.u()[at], cbOf(r, g, b)) << "Cb " << x << "," << y;
      ASSERT_EQ(out.v()[at], crOf(r, g, b)) << "Cr " << x << "," << y;
    }
  }
  if (c.pattern == 2) {
    for (int i = 0; i < kW * kH / 4; ++i) ASSERT_EQ(out.u()[i], 128) << "a grey has no colour";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, Converter,
    testing::Values(Case{"rgb24_random", PictureConverter::Layout::rgb24, 0, 0},
                    Case{"rgb24_padded_corners", PictureConverter::Layout::rgb24, 5, 1},
                    Case{"rgb24_greys", PictureConverter::Layout::rgb24, 0, 2},
                    Case{"bgra_random", PictureConverter::Layout::bgra, 0, 0},
                    Case{"bgra_padded_corners", PictureConverter::Layout::bgra, 64, 1},
                    Case{"bgra_greys", PictureConverter::Layout::bgra, 8, 2}),
    [](const auto& param) { return param.param.name; });

TEST(Converter, RefusesOddOrEmptySizes) {
  for (auto [w, h] : {std::pair{0, 2}, {3, 2}, {4, 5}, {-2, 2}}) {
    EXPECT_THROW(PictureConverter(w, h, PictureConverter::Layout::rgb24), ClientError)
        << w << "x" << h;
  }
}

}  // namespace
}  // namespace lumora2::render
