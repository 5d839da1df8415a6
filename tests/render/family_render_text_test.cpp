// lumora2-render speaking a text file on the packed reference family through the real executable
// and its real render-stream child, the MP4 read back with FFmpeg's tools. That the frames follow
// the sound is family_render_client_test's; --text and texts that cannot be spoken are among the
// refusals of family_render_robustness_test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "client/audio_input.h"
#include "client/speech_text.h"
#include "client/voice.h"
#include "family_fixture.h"
#include "render_test_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr std::size_t kFrameSamples = 800;
constexpr const char* kText =
    "Hello there. I am a talking avatar of the family. Every frame is rendered from my voice.";

std::vector<std::string> renderWords(const std::vector<std::string>& args, const fs::path& out) {
  std::vector<std::string> words = {renderBin().string(), avatarFile().string(), "--engine",
                                    engineFile().string()};
  words.insert(words.end(), args.begin(), args.end());
  words.insert(words.end(), {"-o", out.string()});
  return words;
}

// The RMS of each frame's 800 samples.
std::vector<double> frameLevels(const std::vector<float>& samples) {
  std::vector<double> levels;
  for (std::size_t at = 0; at < samples.size(); at += kFrameSamples) {
    const std::size_t to = std::min(samples.size(), at + kFrameSamples);
    double sum = 0;
    for (std::size_t i = at; i < to; ++i) sum += double(samples[i]) * samples[i];
    levels.push_back(std::sqrt(sum / double(to - at)));
  }
  return levels;
}

double correlation(const std::vector<double>& a, const std::vector<double>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  const double ma = std::accumulate(a.begin(), a.begin() + long(n), 0.0) / double(n);
  const double mb = std::accumulate(b.begin(), b.begin() + long(n), 0.0) / double(n);
  double ab = 0, aa = 0, bb = 0;
  for (std::size_t i = 0; i < n; ++i) {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / std::sqrt(aa * bb);
}

// A text file (a byte order mark first) in the voice asked for: the sound is the voice's speech
// for its text, through AAC frame by frame, with one picture for every 800 samples of it; the
// blank line is a pause long enough for the idle clip, between two utterances.
TEST(RenderText, TheSoundIsTheVoicesSpeechAndABlankLineAPause) {
  ASSERT_TRUE(generatedFamily().packed);
  ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "render-cache").c_str(), 1);
  const fs::path dir = scratchDir("render-text");
  const std::string text = std::string(kText) + "\n\n\nAnd goodbye.\n";
  std::ofstream(dir / "words.txt") << "\xEF\xBB\xBF" << text;
  const Shell run = shell(
      commandLine(renderWords({"--text-file", (dir / "words.txt").string(), "--voice", "en-us+m3"},
                              dir / "text.mp4")),
      dir / "stderr");
  ASSERT_EQ(run.status, 0) << readFile(dir / "stderr");
  EXPECT_THAT(readFile(dir / "stderr"), HasSubstr("voice en-us+m3: 4 sentences"));
  EXPECT_THAT(run.out, HasSubstr(", 2 utterances,"));
  std::vector<float> speech;
  render::Voice("en-us+m3").speak(render::splitSentences(text), [&](const float* s, std::size_t n) {
    speech.insert(speech.end(), s, s + n);
    return true;
  });
  const std::size_t expected = (speech.size() + kFrameSamples - 1) / kFrameSamples;
  EXPECT_EQ(decodeVideo(dir / "text.mp4").size() / kFrameBytes, expected);
  EXPECT_THAT(run.out, HasSubstr(": " + std::to_string(expected) + " frames"));
  const std::vector<float> sound = render::decodeAudio(dir / "text.mp4");
  EXPECT_NEAR(double(sound.size()), double(speech.size()), 1024.0);
  EXPECT_GT(correlation(frameLevels(sound), frameLevels(speech)), 0.95);
}

}  // namespace
}  // namespace lumora2::family::test
