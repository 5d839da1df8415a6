// The render host's WAV loader and sharpness measure, on real files and hand-made frames.
#include "render_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/command.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

// A 16-bit PCM WAV of `channels` interleaved channels at `rate`.
fs::path writeWav(const std::string& name, const std::vector<float>& interleaved, int channels,
                  int rate = 16000) {
  const fs::path path =
      fs::temp_directory_path() / (name + "-" + std::to_string(::getpid()) + ".wav");
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  EXPECT_NE(f, nullptr) << sf_strerror(nullptr);
  sf_writef_float(f, interleaved.data(), static_cast<sf_count_t>(interleaved.size()) / channels);
  sf_close(f);
  return path;
}

struct LoopCase {
  std::optional<std::int64_t> loopTo;
  std::vector<float> expected;
};

class LoadWav : public ::testing::TestWithParam<LoopCase> {};

TEST_P(LoadWav, TakesTheFirstChannelAndLoopsWholeCopies) {
  // Two channels: the first holds 0.25, 0.5, 0.75; the second must never show up.
  const fs::path wav = writeWav("three", {0.25f, -1.0f, 0.5f, -1.0f, 0.75f, -1.0f}, 2, 22050);
  EXPECT_EQ(loadWav(wav, GetParam().loopTo), GetParam().expected);
  fs::remove(wav);
}

INSTANTIATE_TEST_SUITE_P(Lengths, LoadWav,
                         ::testing::Values(LoopCase{std::nullopt, {0.25f, 0.5f, 0.75f}},
                                           LoopCase{5, {0.25f, 0.5f, 0.75f, 0.25f, 0.5f}},
                                           LoopCase{2, {0.25f, 0.5f}}, LoopCase{0, {}},
                                           LoopCase{-4, {}}));

struct SharpCase {
  const char* label;
  int w, h;
  std::vector<std::uint8_t> frame;
  double expected;  // NaN: not a number
};

class Sharpness : public ::testing::TestWithParam<SharpCase> {};

TEST_P(Sharpness, IsThePopulationVarianceOfTheGreyLaplacian) {
  const SharpCase& c = GetParam();
  const double got = sharpness(c.frame, c.w, c.h);
  if (std::isnan(c.expected)) {
    EXPECT_TRUE(std::isnan(got)) << got;
  } else {
    EXPECT_DOUBLE_EQ(got, c.expected);
  }
}

// 4 × 3 grey levels (each pixel's three bytes equal): interior pixels (1,1) and (2,1).
std::vector<std::uint8_t> greyFrame(const std::vector<std::uint8_t>& levels) {
  std::vector<std::uint8_t> out;
  for (std::uint8_t v : levels) out.insert(out.end(), {v, v, v});
  return out;
}

INSTANTIATE_TEST_SUITE_P(
    Frames, Sharpness,
    ::testing::Values(
        // Grey 10 at (1,1) among zeros: Laplacians −40 there and 10 at (2,1), mean −15.
        SharpCase{"two_interior", 4, 3, greyFrame({0, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0}), 625.0},
        SharpCase{"flat", 4, 3, greyFrame(std::vector<std::uint8_t>(12, 7)), 0.0},
        // The grey value is the mean of the three bytes, in stored order.
        SharpCase{"byte_mean", 4, 3,
                  [] {
                    std::vector<std::uint8_t> f(36, 0);
                    f[15] = 30;  // pixel (1,1): bytes 30, 0, 0 → grey 10, as above
                    return f;
                  }(),
                  625.0},
        SharpCase{"short_frame", 4, 3, std::vector<std::uint8_t>(35, 1), 0.0},
        SharpCase{"one_pixel_wide", 1, 5, std::vector<std::uint8_t>(15, 1), std::nan("")}),
    [](const auto& param) { return std::string(param.param.label); });

}  // namespace
}  // namespace lumora2
