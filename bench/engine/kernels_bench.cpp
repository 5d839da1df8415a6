// Measures the engine's two hot pure-computation kernels against their budgets, on one thread:
//  - FramePath::frameInto with sharpening on: at most 1 ms per frame, shown next to copying the
//    same bytes (the 1,797,120 input bytes and the 898,560 output bytes) and next to the same
//    pipeline built from OpenCV core + imgproc, the evidence for the engine's own kernels;
//  - FramePath::frameIntoI420 (4:2:0 planes made row by row, the render process's frames for the
//    live server) next to frameInto followed by wire::toI420 on the packed frame, its two steps;
//  - WsolaTempo::apply on one 44,000-sample speech-like window: at most 2 ms.
// Medians over many runs; the inputs rotate over several frames so that they come from the
// last-level cache, as a freshly decoded frame does. Exit status 1 when a budget is missed.
//
//   lumora2_engine_kernels_bench [frames (default 300)] [windows (default 100)]
#ifdef LUMORA2_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <numbers>
#include <vector>

#include "engine/multi_array.h"
#include "frame_path.h"
#include "protocol/i420.h"
#include "time_stretch.h"

using lumora2::FrameKernels;
using lumora2::FramePath;
using Clock = std::chrono::steady_clock;

namespace {

constexpr float kAmount = 0.8f;
constexpr int kRotation = 8;  // distinct input frames, 14 MiB in all

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Milliseconds per call of `step(i)`, median over `runs` calls after a few warm-up calls.
double timeMs(int runs, const std::function<void(int)>& step) {
  for (int i = 0; i < 5; ++i) step(i);
  std::vector<double> t;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    step(i);
    t.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return median(t);
}

std::vector<std::vector<std::uint16_t>> makeFrames() {
  std::vector<std::vector<std::uint16_t>> frames(kRotation);
  std::uint32_t seed = 1;
  for (auto& f : frames) {
    f.resize(3 * FramePath::planeSize);
    for (std::size_t i = 0; i < f.size(); ++i) {
      seed = seed * 1664525u + 1013904223u;
      const float smooth = 0.5f + 0.4f * std::sin(static_cast<float>(i % 416) * 0.02f);
      f[i] = lumora2::floatToHalf(smooth + static_cast<float>(seed >> 24) / 1024.0f - 0.12f);
    }
  }
  return frames;
}

#ifdef LUMORA2_BENCH_OPENCV
// The same conversion from OpenCV's building blocks, kept here as the measured alternative.
class OpenCvFramePath {
 public:
  void frameToBGR(const std::uint16_t* raw, float amount, std::uint8_t* out) {
    const double g[3] = {std::exp(-4 / 2.88), std::exp(-1 / 2.88), 1.0};
    const double sum = 2 * g[0] + 2 * g[1] + g[2];
    const cv::Mat taps =
        (cv::Mat_<float>(5, 1) << g[0] / sum, g[1] / sum, g[2] / sum, g[1] / sum, g[0] / sum);
    cv::Mat u8[3];
    for (int p = 0; p < 3; ++p) {
      // The planes come R, G, B; merge wants B, G, R.
      cv::Mat half(FramePath::height, FramePath::width, CV_16FC1,
                   const_cast<std::uint16_t*>(raw + p * FramePath::planeSize));
      half.convertTo(pf_, CV_32F);
      cv::sepFilter2D(pf_, blur_, CV_32F, taps, taps, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
      cv::addWeighted(pf_, 1.0 + amount, blur_, -amount, 0.0, pf_);
      pf_.convertTo(u8[2 - p], CV_8U, 255.0);  // saturating: the clip to [0, 1]
    }
    cv::Mat bgr(FramePath::height, FramePath::width, CV_8UC3, out);
    cv::merge(u8, 3, bgr);
  }

 private:
  cv::Mat pf_, blur_;
};
#endif

std::vector<float> speech(std::int64_t n) {
  std::vector<float> x(n);
  std::uint32_t seed = 7;
  for (std::int64_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / 16000.0;
    double v = 0;
    for (int h = 1; h <= 5; ++h) v += std::sin(2 * std::numbers::pi * 120.0 * h * t) / h;
    seed = seed * 1664525u + 1013904223u;
    const double envelope = std::pow(std::sin(std::numbers::pi * 3.5 * t), 2);
    x[i] = static_cast<float>(0.25 * v * envelope + (seed >> 8) / 16777216.0 * 0.01);
  }
  return x;
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = std::max(argc > 1 ? std::atoi(argv[1]) : 300, 1);
  const int windows = std::max(argc > 2 ? std::atoi(argv[2]) : 100, 1);
#ifdef LUMORA2_BENCH_OPENCV
  cv::setNumThreads(1);
#endif
  bool ok = true;

  const auto input = makeFrames();
  std::vector<std::uint8_t> out(FramePath::frameBytes);
  std::vector<std::uint8_t> inCopy(input[0].size() * 2), outCopy(FramePath::frameBytes, 1);
  const double copy = timeMs(frames, [&](int i) {
    std::memcpy(inCopy.data(), input[i % kRotation].data(), inCopy.size());
    std::memcpy(out.data(), outCopy.data(), out.size());
  });
  FramePath own;
  const double ownMs =
      timeMs(frames, [&](int i) { own.frameInto(input[i % kRotation].data(), kAmount, out); });
  FramePath portable(FrameKernels::portable);
  const double portableMs = timeMs(frames / 10 + 1, [&](int i) {
    portable.frameInto(input[i % kRotation].data(), kAmount, out);
  });
#ifdef LUMORA2_BENCH_OPENCV
  OpenCvFramePath cvPath;
  const double cvMs = timeMs(
      frames, [&](int i) { cvPath.frameToBGR(input[i % kRotation].data(), kAmount, out.data()); });
#endif

  std::printf("frameInto, sharpening %.1f, one thread, median of %d frames:\n", kAmount, frames);
  std::printf("  copy of the input and output bytes  %7.3f ms\n", copy);
  std::printf("  engine, automatic (%-9s)       %7.3f ms = %4.1fx the copy (budget 1 ms: %s)\n",
              own.kernelName(), ownMs, ownMs / copy, ownMs <= 1.0 ? "met" : "MISSED");
  std::printf("  engine, portable                    %7.3f ms = %4.1fx the copy\n", portableMs,
              portableMs / copy);
#ifdef LUMORA2_BENCH_OPENCV
  std::printf("  OpenCV core+imgproc, %d thread       %7.3f ms = %4.1fx the copy\n",
              cv::getNumThreads(), cvMs, cvMs / copy);
#endif
  ok = ok && ownMs <= 1.0;

  std::vector<std::uint8_t> planes(FramePath::i420Bytes);
  const double twoSteps = timeMs(frames, [&](int i) {
    own.frameInto(input[i % kRotation].data(), kAmount, out, lumora2::PixelOrder::rgb);
    lumora2::wire::toI420(out.data(), FramePath::width, FramePath::height, 0,
                          lumora2::wire::PackedLayout::rgb24, planes.data());
  });
  const double rowByRow = timeMs(
      frames, [&](int i) { own.frameIntoI420(input[i % kRotation].data(), kAmount, planes); });
  std::printf("4:2:0 frames, the same bytes either way:\n");
  std::printf("  frameInto, then toI420              %7.3f ms\n", twoSteps);
  std::printf("  frameIntoI420, row by row           %7.3f ms = %4.2fx\n", rowByRow,
              rowByRow / twoSteps);

  const std::vector<float> window = speech(44000);
  const double wsola =
      timeMs(windows, [&](int) { (void)lumora2::WsolaTempo::apply(window, 35200); });
  const double wsolaPortable = timeMs(windows, [&](int) {
    (void)lumora2::WsolaTempo::apply(window, 35200, lumora2::StretchKernels::portable);
  });
  const double linear = timeMs(windows, [&](int) { (void)lumora2::resampleTo(window, 35200); });
  std::printf("WsolaTempo.apply, 44,000 samples -> 35,200, median of %d windows:\n", windows);
  std::printf("  automatic kernels %7.3f ms (budget 2 ms: %s)\n", wsola,
              wsola <= 2.0 ? "met" : "MISSED");
  std::printf("  portable kernels  %7.3f ms\n", wsolaPortable);
  std::printf("  resampleTo        %7.3f ms\n", linear);
  ok = ok && wsola <= 2.0;
  return ok ? 0 : 1;
}
