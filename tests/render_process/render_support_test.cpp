// The render host's WAV loader on real files: the first channel, looping, and the rate it refuses.
#include "render_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

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
  const char* label;
  std::optional<std::int64_t> loopTo;
  std::vector<float> expected;
};

class LoadWav : public ::testing::TestWithParam<LoopCase> {};

TEST_P(LoadWav, TakesTheFirstChannelAndLoopsWholeCopies) {
  // Two channels: the first holds 0.25, 0.5, 0.75; the second must never show up.
  const fs::path wav = writeWav("three", {0.25f, -1.0f, 0.5f, -1.0f, 0.75f, -1.0f}, 2);
  EXPECT_EQ(loadWav(wav, GetParam().loopTo), GetParam().expected);
  fs::remove(wav);
}

INSTANTIATE_TEST_SUITE_P(Lengths, LoadWav,
                         ::testing::Values(LoopCase{"whole", std::nullopt, {0.25f, 0.5f, 0.75f}},
                                           LoopCase{"looped", 5, {0.25f, 0.5f, 0.75f, 0.25f, 0.5f}},
                                           LoopCase{"cut", 2, {0.25f, 0.5f}},
                                           LoopCase{"zero", 0, {}}, LoopCase{"negative", -4, {}}),
                         [](const auto& param) { return std::string(param.param.label); });

// Samples at another rate would play too fast or too slow: such a file is refused, never read as
// if it were 16 kHz.
TEST(LoadWav, RefusesAnotherRate) {
  const fs::path wav = writeWav("cd-rate", {0.25f, 0.5f, 0.75f}, 1, 22050);
  EXPECT_THAT([&] { loadWav(wav); },
              ::testing::ThrowsMessage<Err>(::testing::HasSubstr(
                  wav.string() + " is 22050 Hz; the engine takes 16000 Hz audio")));
  fs::remove(wav);
}

}  // namespace
}  // namespace lumora2
