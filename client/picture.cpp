#include "picture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

#include "client_error.h"
#include "protocol/i420.h"

namespace lumora2::render {

PictureConverter::PictureConverter(int width, int height, Layout layout)
    : width_(width), height_(height), layout_(layout) {
  if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) {
    throw ClientError("cannot convert pictures of " + std::to_string(width) + " x " +
                      std::to_string(height) + " (even, positive sizes only)");
  }
}

// Luma is exactly rounded per pixel; each chroma sample is the exactly rounded colour of its 2 x 2
// block's mean, so that a flat area converts to the same bytes wherever it lies. (The live server
// converts every rendered picture it does not get in 4:2:0 from its render process.)
void PictureConverter::convert(const std::uint8_t* packed, Picture& out, std::size_t stride) {
  if (out.width != width_ || out.height != height_) out = Picture(width_, height_);
  wire::toI420(packed, width_, height_, stride,
               layout_ == Layout::rgb24 ? wire::PackedLayout::rgb24 : wire::PackedLayout::bgra,
               out.bytes.data());
}

double pictureStep(const Picture& a, const Picture& b) {
  const std::size_t size = std::min(a.bytes.size(), b.bytes.size());
  const std::size_t luma = std::min(a.lumaBytes(), size);
  std::uint64_t absolute = 0;
  std::int64_t lumaSigned = 0;
  // In blocks small enough for 32-bit sums and without a branch inside, so that the compiler
  // vectorises the loops: the live server measures every rendered picture.
  constexpr std::size_t kBlock = 1 << 16;
  const std::uint8_t* pa = a.bytes.data();
  const std::uint8_t* pb = b.bytes.data();
  for (std::size_t from = 0; from < size; from += kBlock) {
    const std::size_t to = std::min(size, from + kBlock), lumaTo = std::clamp(luma, from, to);
    std::uint32_t blockAbsolute = 0;
    std::int32_t blockSigned = 0;
    for (std::size_t i = from; i < lumaTo; ++i) {
      const int d = int(pa[i]) - int(pb[i]);
      blockAbsolute += std::uint32_t(std::abs(d));
      blockSigned += d;
    }
    for (std::size_t i = lumaTo; i < to; ++i) {
      blockAbsolute += std::uint32_t(std::abs(int(pa[i]) - int(pb[i])));
    }
    absolute += blockAbsolute;
    lumaSigned += blockSigned;
  }
  if (size == 0) return 0;
  const double mean = double(absolute) / double(size);
  const double brightness = luma == 0 ? 0 : std::fabs(double(lumaSigned) / double(luma));
  return std::max(mean, brightness);
}

void mixPictures(const Picture& a, const Picture& b, double alpha, Picture& out) {
  if (out.width != a.width || out.height != a.height) out = Picture(a.width, a.height);
  const auto w = int(std::lround(alpha * 256));
  const std::uint8_t* pa = a.bytes.data();
  const std::uint8_t* pb = b.bytes.data();
  std::uint8_t* o = out.bytes.data();
  const std::size_t size = out.bytes.size();
  for (std::size_t i = 0; i < size; ++i) {
    const int threshold = int((std::uint32_t(i) * 2654435761u) >> 24);  // 0 .. 255
    o[i] = std::uint8_t((int(pa[i]) * 256 + (int(pb[i]) - int(pa[i])) * w + threshold) >> 8);
  }
}

std::vector<double> tileSteps(const Picture& a, const Picture& b, int tile) {
  const int across = a.width / tile, down = a.height / tile;
  std::vector<double> steps(std::size_t(across) * std::size_t(down));
  for (int ty = 0; ty < down; ++ty) {
    for (int tx = 0; tx < across; ++tx) {
      int sum = 0;
      for (int y = ty * tile; y < (ty + 1) * tile; ++y) {
        const std::size_t row = std::size_t(y) * std::size_t(a.width) + std::size_t(tx * tile);
        for (int x = 0; x < tile; ++x)
          sum += std::abs(int(a.bytes[row + x]) - int(b.bytes[row + x]));
      }
      steps[std::size_t(ty) * std::size_t(across) + std::size_t(tx)] =
          double(sum) / double(tile * tile);
    }
  }
  return steps;
}

void mixPicturesByTile(const Picture& a, const Picture& b, const std::vector<double>& alpha,
                       int tile, Picture& out) {
  if (out.width != a.width || out.height != a.height) out = Picture(a.width, a.height);
  const int across = a.width / tile, down = a.height / tile;
  // The weight at luma pixel (x, y), interpolated between the four nearest block centres: where
  // between them each column and each row lies is worked out once (the live server blends whole
  // pictures with this while it keeps time).
  struct Between {
    int first, second;
    double toSecond;
  };
  auto between = [tile](int at, int count) {
    const double f = std::clamp((at + 0.5) / tile - 0.5, 0.0, double(count - 1));
    const int first = int(f);
    return Between{first, std::min(first + 1, count - 1), f - first};
  };
  std::vector<Between> columns(std::size_t(a.width));
  for (int x = 0; x < a.width; ++x) columns[std::size_t(x)] = between(x, across);
  std::vector<double> blocks(
      static_cast<std::size_t>(across));  // the row's weight at each block centre
  auto weightRow = [&](int y, std::vector<int>& row) {
    const Between r = between(y, down);
    const double* upper = alpha.data() + std::size_t(r.first) * std::size_t(across);
    const double* lower = alpha.data() + std::size_t(r.second) * std::size_t(across);
    for (int t = 0; t < across; ++t) {
      blocks[std::size_t(t)] = upper[t] * (1 - r.toSecond) + lower[t] * r.toSecond;
    }
    for (int x = 0; x < a.width; ++x) {
      const Between& c = columns[std::size_t(x)];
      const double weight = blocks[std::size_t(c.first)] * (1 - c.toSecond) +
                            blocks[std::size_t(c.second)] * c.toSecond;
      // Weights lie in [0, 1]: adding a half and truncating rounds them.
      row[std::size_t(x)] = int(weight * 256 + 0.5);
    }
  };
  // Bytes [from, from + count) of `out` with the weights `w` (one per byte, `wStep` apart);
  // each byte rounds at its threshold as in mixPictures.
  auto mixRun = [&](std::size_t from, std::size_t count, const int* __restrict w, int wStep) {
    const std::uint8_t* __restrict pa = a.bytes.data() + from;
    const std::uint8_t* __restrict pb = b.bytes.data() + from;
    std::uint8_t* __restrict o = out.bytes.data() + from;
    for (std::size_t k = 0; k < count; ++k) {
      const int threshold = int((std::uint32_t(from + k) * 2654435761u) >> 24);
      const int wk = w[k * std::size_t(wStep)];
      o[k] = std::uint8_t((int(pa[k]) * 256 + (int(pb[k]) - int(pa[k])) * wk + threshold) >> 8);
    }
  };
  const std::size_t luma = a.lumaBytes(), quarter = luma / 4;
  const std::size_t width = std::size_t(a.width), cw = width / 2;
  std::vector<int> row(width);
  for (int y = 0; y < a.height; ++y) {
    weightRow(y, row);
    mixRun(std::size_t(y) * width, width, row.data(), 1);
    if (y % 2 == 0) {  // chroma rows take the weight of the luma pixel at their top left
      const std::size_t offset = std::size_t(y / 2) * cw;
      mixRun(luma + offset, cw, row.data(), 2);
      mixRun(luma + quarter + offset, cw, row.data(), 2);
    }
  }
}

std::vector<std::uint8_t> thumbnail(const Picture& picture) {
  constexpr int kBlock = 4;
  const int tw = picture.width / kBlock, th = picture.height / kBlock;
  std::vector<std::uint8_t> out(std::size_t(tw) * std::size_t(th));
  for (int ty = 0; ty < th; ++ty) {
    for (int tx = 0; tx < tw; ++tx) {
      int sum = 0;
      for (int y = 0; y < kBlock; ++y) {
        const std::uint8_t* row =
            picture.y() + std::size_t(ty * kBlock + y) * std::size_t(picture.width) + tx * kBlock;
        for (int x = 0; x < kBlock; ++x) sum += row[x];
      }
      out[std::size_t(ty) * std::size_t(tw) + std::size_t(tx)] =
          std::uint8_t((sum + kBlock * kBlock / 2) / (kBlock * kBlock));
    }
  }
  return out;
}

double thumbnailDistance(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
  const std::size_t size = std::min(a.size(), b.size());
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < size; ++i) sum += std::uint64_t(std::abs(int(a[i]) - int(b[i])));
  return size == 0 ? 0 : double(sum) / double(size);
}

}  // namespace lumora2::render
