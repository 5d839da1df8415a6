#include "picture.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "client_error.h"

namespace lumora2::render {

PictureConverter::PictureConverter(int width, int height, Layout layout)
    : width_(width), height_(height), layout_(layout) {
  const AVPixelFormat from = layout == Layout::rgb24 ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_BGRA;
  sws_ = sws_getContext(width, height, from, width, height, AV_PIX_FMT_YUV420P,
                        SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP | SWS_BITEXACT, nullptr,
                        nullptr, nullptr);
  if (sws_ == nullptr) throw ClientError("cannot make a picture converter");
  // Packed RGB is full range; the pictures are BT.601 limited range, as the MP4 declares.
  const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
  sws_setColorspaceDetails(sws_, coefficients, 1, coefficients, 0, 0, 1 << 16, 1 << 16);
}

PictureConverter::~PictureConverter() { sws_freeContext(sws_); }

void PictureConverter::convert(const std::uint8_t* packed, Picture& out, std::size_t stride) {
  if (out.width != width_ || out.height != height_) out = Picture(width_, height_);
  const int bytesPerPixel = layout_ == Layout::rgb24 ? 3 : 4;
  const std::uint8_t* src[4] = {packed, nullptr, nullptr, nullptr};
  const int srcStride[4] = {stride != 0 ? int(stride) : width_ * bytesPerPixel, 0, 0, 0};
  std::uint8_t* y = out.bytes.data();
  std::uint8_t* dst[4] = {y, y + out.lumaBytes(), y + out.lumaBytes() * 5 / 4, nullptr};
  const int dstStride[4] = {width_, width_ / 2, width_ / 2, 0};
  sws_scale(sws_, src, srcStride, 0, height_, dst, dstStride);
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

void mixPicturesByTile(const Picture& a, const Picture& b, const std::vector<double>& alpha,
                       int tile, Picture& out) {
  if (out.width != a.width || out.height != a.height) out = Picture(a.width, a.height);
  const int across = a.width / tile, down = a.height / tile;
  // The weight at luma pixel (x, y), interpolated between the four nearest block centres.
  auto weightAt = [&](int x, int y) {
    const double fx = std::clamp((x + 0.5) / tile - 0.5, 0.0, double(across - 1));
    const double fy = std::clamp((y + 0.5) / tile - 0.5, 0.0, double(down - 1));
    const int x0 = int(fx), y0 = int(fy);
    const int x1 = std::min(x0 + 1, across - 1), y1 = std::min(y0 + 1, down - 1);
    const double wx = fx - x0, wy = fy - y0;
    auto at = [&](int tx, int ty) { return alpha[std::size_t(ty) * std::size_t(across) + tx]; };
    const double top = at(x0, y0) * (1 - wx) + at(x1, y0) * wx;
    const double bottom = at(x0, y1) * (1 - wx) + at(x1, y1) * wx;
    return int(std::lround((top * (1 - wy) + bottom * wy) * 256));
  };
  auto mixByte = [](int pa, int pb, int w, std::size_t i) {
    const int threshold = int((std::uint32_t(i) * 2654435761u) >> 24);  // as in mixPictures
    return std::uint8_t((pa * 256 + (pb - pa) * w + threshold) >> 8);
  };
  const std::size_t luma = a.lumaBytes(), quarter = luma / 4;
  const int cw = a.width / 2;
  std::vector<int> row(std::size_t(a.width));
  for (int y = 0; y < a.height; ++y) {
    for (int x = 0; x < a.width; ++x) row[std::size_t(x)] = weightAt(x, y);
    for (int x = 0; x < a.width; ++x) {
      const std::size_t i = std::size_t(y) * std::size_t(a.width) + std::size_t(x);
      out.bytes[i] = mixByte(a.bytes[i], b.bytes[i], row[std::size_t(x)], i);
    }
    if (y % 2 == 0) {  // chroma rows take the weight of the luma pixel at their top left
      for (int x = 0; x < cw; ++x) {
        for (std::size_t plane : {luma, luma + quarter}) {
          const std::size_t i = plane + std::size_t(y / 2) * std::size_t(cw) + std::size_t(x);
          out.bytes[i] = mixByte(a.bytes[i], b.bytes[i], row[std::size_t(2 * x)], i);
        }
      }
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
