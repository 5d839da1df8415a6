// Pictures to 4:2:0: the limits of the levels, and rows given as planes (the render process's
// frames) against the same pixels packed (its parents' pictures), byte for byte, at widths that
// take the vector loop, its scalar tail, or only the tail.
#include "protocol/i420.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace lumora2::wire {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Planes {
  Bytes r, g, b;
};

// `height` rows of `width` pixels whose levels come from `level(channel, row, column)`.
template <class Level>
Planes makePlanes(int width, int height, Level level) {
  Planes p;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      p.r.push_back(std::uint8_t(level(0, y, x)));
      p.g.push_back(std::uint8_t(level(1, y, x)));
      p.b.push_back(std::uint8_t(level(2, y, x)));
    }
  }
  return p;
}

Bytes packed(const Planes& p, PackedLayout layout) {
  Bytes out;
  for (std::size_t i = 0; i < p.r.size(); ++i) {
    if (layout == PackedLayout::rgb24) {
      out.insert(out.end(), {p.r[i], p.g[i], p.b[i]});
    } else {
      out.insert(out.end(), {p.b[i], p.g[i], p.r[i], 255});
    }
  }
  return out;
}

Bytes fromPlanes(const Planes& p, int width, int height) {
  Bytes out(i420Bytes(width, height));
  std::uint8_t* y = out.data();
  std::uint8_t* u = y + std::size_t(width) * height;
  std::uint8_t* v = u + std::size_t(width) * height / 4;
  auto row = [&](int r) {
    const std::size_t at = std::size_t(r) * width;
    return PlanarRow{p.r.data() + at, p.g.data() + at, p.b.data() + at};
  };
  for (int r = 0; r < height; r += 2) {
    planarRowsToI420(row(r), row(r + 1), width, y + std::size_t(r) * width,
                     y + std::size_t(r + 1) * width, u + std::size_t(r / 2) * (width / 2),
                     v + std::size_t(r / 2) * (width / 2));
  }
  return out;
}

int noise(int c, int y, int x) {
  const std::uint32_t h = (std::uint32_t(y * 7919 + x) * 2654435761u) ^ std::uint32_t(c * 40503);
  return int(h >> 24);
}

class PlanarRowsTest : public ::testing::TestWithParam<int> {};

TEST_P(PlanarRowsTest, SameBytesAsThePackedPicture) {
  const int width = GetParam();
  const int height = 6;
  const auto extremes = [](int c, int y, int x) { return ((x + y + c) / 2) % 2 == 0 ? 0 : 255; };
  for (const Planes& p : {makePlanes(width, height, noise), makePlanes(width, height, extremes)}) {
    const Bytes expected = fromPlanes(p, width, height);
    for (PackedLayout layout : {PackedLayout::rgb24, PackedLayout::bgra}) {
      Bytes converted(i420Bytes(width, height));
      toI420(packed(p, layout).data(), width, height, 0, layout, converted.data());
      EXPECT_EQ(converted, expected) << "width " << width;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, PlanarRowsTest, ::testing::Values(2, 30, 32, 34, 64, 94, 416));

TEST(I420, LevelsSpanTheLimitedRangeAndGreysHaveNoColour) {
  for (int level : {0, 1, 127, 128, 254, 255}) {
    const Planes p = makePlanes(32, 2, [&](int, int, int) { return level; });
    const Bytes out = fromPlanes(p, 32, 2);
    const int luma = 16 + (level * 219 + 127) / 255;
    EXPECT_EQ(out[0], luma) << "level " << level;
    EXPECT_EQ(out[64], 128) << "level " << level;       // U
    EXPECT_EQ(out[64 + 16], 128) << "level " << level;  // V
  }
}

}  // namespace
}  // namespace lumora2::wire
