// lumora2-render on the packed reference family: real audio files in, the real executable with its
// real render-stream child, the MP4 read back with FFmpeg's own tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "client/audio_input.h"
#include "client/stream_child.h"
#include "client/utterances.h"
#include "family_fixture.h"
#include "render_test_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using render::kSamplesPerFrame;
using ::testing::HasSubstr;

// Three tone bursts of 8 frames, three and a half seconds apart: three utterances.
constexpr std::size_t kBursts[] = {20, 90, 160};  // first frame of each burst
constexpr std::size_t kBurstFrames = 8;
constexpr std::size_t kTotalSamples = 190 * kSamplesPerFrame + 123;  // a partial last frame

std::vector<float> bursts() {
  std::vector<float> audio(kTotalSamples, 0.0f);
  const std::vector<float> burst = tone(kBurstFrames * kSamplesPerFrame);
  for (std::size_t b : kBursts) {
    std::copy(burst.begin(), burst.end(), audio.begin() + long(b * kSamplesPerFrame));
  }
  return audio;
}

// The frame offset of each burst's opening: the first frame whose mouth is darker than half the
// widest opening, from 8 frames before the burst. `grey(frame)` reads frame numbers of the audio.
template <typename Grey>
std::vector<long> openingOffsets(const Grey& grey, std::size_t frames) {
  double shut = 0, widest = 0;
  for (std::size_t f = 0; f < frames; ++f) shut = std::max(shut, grey(f));
  for (std::size_t f = 0; f < frames; ++f) widest = std::max(widest, shut - grey(f));
  std::vector<long> offsets;
  for (std::size_t b : kBursts) {
    std::size_t f = b - 8;
    while (f < b + 24 && f < frames && shut - grey(f) < widest / 2) ++f;
    offsets.push_back(long(f) - long(b));
  }
  return offsets;
}

double meanDifference(const std::uint8_t* a, const std::uint8_t* b) {
  double sum = 0;
  for (std::size_t i = 0; i < kFrameBytes; ++i) sum += std::abs(int(a[i]) - int(b[i]));
  return sum / double(kFrameBytes);
}

// The burst recording rendered once for every case of the suite.
class RenderClient : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(generatedFamily().packed);
    ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "render-cache").c_str(), 1);
    dir_ = scratchDir("render-client");
    writeWav(dir_ / "bursts.wav", bursts());
    summary_ = shell(renderCommand(dir_ / "bursts.wav", dir_ / "bursts.mp4"), dir_ / "stderr");
    video_ = decodeVideo(dir_ / "bursts.mp4");
  }

  static const std::uint8_t* frame(std::size_t f) {
    return reinterpret_cast<const std::uint8_t*>(video_.data()) + f * kFrameBytes;
  }
  static std::size_t frames() { return video_.size() / kFrameBytes; }

  static inline fs::path dir_;
  static inline Shell summary_;
  static inline std::string video_;
};

TEST_F(RenderClient, TheMp4HoldsOneFramePer800SamplesAndTheAudioSampleExact) {
  ASSERT_EQ(summary_.status, 0) << readFile(dir_ / "stderr");
  EXPECT_THAT(summary_.out, HasSubstr("191 frames (9.55 s at 20 fps), 3 utterances"));
  auto probe = [&](const std::string& entries) {
    return shell("ffprobe -v error " + entries + " -of compact=p=0 '" +
                 (dir_ / "bursts.mp4").string() + "'")
        .out;
  };
  EXPECT_EQ(
      probe("-select_streams v -show_entries "
            "stream=codec_name,width,height,pix_fmt,r_frame_rate,nb_frames"),
      "codec_name=h264|width=416|height=720|pix_fmt=yuv420p|r_frame_rate=20/1|nb_frames=191\n");
  // A 1/16000 time base: every sample, no more.
  EXPECT_EQ(
      probe("-select_streams a -show_entries stream=codec_name,sample_rate,channels,duration_ts"),
      "codec_name=aac|sample_rate=16000|channels=1|duration_ts=" + std::to_string(kTotalSamples) +
          "\n");
  EXPECT_EQ(probe("-show_entries format=duration"), "duration=9.550000\n");
  EXPECT_EQ(frames(), 191u);
  // The index is at the front: the first box after "ftyp" is "moov".
  const std::string head = readFile(dir_ / "bursts.mp4").substr(0, 256);
  ASSERT_EQ(head.substr(4, 4), "ftyp");
  const auto ftypSize = std::size_t(std::uint8_t(head[2])) << 8 | std::uint8_t(head[3]);
  EXPECT_EQ(head.substr(ftypSize + 4, 4), "moov") << "the index is not at the front";
}

// A frame in the middle of an utterance is the frame render-stream produced for it, through
// H.264's small losses; the burst openings keep the engine's own constant offset; between the
// bursts the mouth rests and the picture is the idle clip's.
TEST_F(RenderClient, FramesAreTheStreamsInSyncAndTheIdleClipBetween) {
  ASSERT_EQ(frames(), 191u);
  // The samples the client sent: the recording as the client decodes it.
  const std::vector<float> audio = render::decodeAudio(dir_ / "bursts.wav");
  const std::vector<render::Utterance> spans = render::splitUtterances(audio, {});
  ASSERT_EQ(spans.size(), 3u);

  std::unique_ptr<render::StreamChild> child =
      render::StreamChild::start({LUMORA2_MODEL_BIN, avatarFile(), engineFile()});
  std::map<std::size_t, std::vector<std::uint8_t>> streamed;  // by output frame
  for (const render::Utterance& u : spans) {
    const std::size_t from = u.firstFrame * kSamplesPerFrame;
    const std::size_t to = std::min(audio.size(), u.endFrame * kSamplesPerFrame);
    ASSERT_TRUE(child->renderSegment(audio.data() + from, to - from,
                                     [&](std::uint32_t pos, const std::uint8_t* rgb) {
                                       streamed[u.firstFrame + pos].assign(rgb, rgb + kFrameBytes);
                                     }));
  }

  // The video's frame is nearer to the streamed frame of its own time than to its neighbours,
  // and within H.264's losses of it, the mouth (which moves) as well as the whole picture.
  const std::size_t middle = kBursts[1] + kBurstFrames / 2;
  ASSERT_TRUE(streamed.count(middle - 1) && streamed.count(middle) && streamed.count(middle + 1));
  const double own = meanDifference(frame(middle), streamed[middle].data());
  EXPECT_LT(own, 2.0);
  EXPECT_LT(own, meanDifference(frame(middle), streamed[middle - 1].data()));
  EXPECT_LT(own, meanDifference(frame(middle), streamed[middle + 1].data()));
  EXPECT_NEAR(mouthGrey(frame(middle)), mouthGrey(streamed[middle].data()), 2.0);

  const std::vector<long> inVideo =
      openingOffsets([&](std::size_t f) { return mouthGrey(frame(f)); }, frames());
  const std::vector<long> alone = openingOffsets(
      [&](std::size_t f) {
        return streamed.count(f) ? mouthGrey(streamed[f].data()) : mouthGrey(frame(0));
      },
      frames());
  EXPECT_THAT(inVideo, ::testing::Each(alone.front())) << "engine alone: " << alone.front();
  EXPECT_THAT(alone, ::testing::Each(alone.front()));

  // Half way between bursts lies the idle clip: the picture is one of its frames.
  const std::string clip = decodeVideo(generatedFamily().avatar("ava") / "idle.mp4");
  ASSERT_GE(clip.size(), kFrameBytes);
  for (std::size_t f : {kBursts[0] + 50, kBursts[1] + 50}) {
    double nearest = 1e9;
    for (std::size_t at = 0; at + kFrameBytes <= clip.size(); at += kFrameBytes) {
      nearest = std::min(
          nearest,
          meanDifference(frame(f), reinterpret_cast<const std::uint8_t*>(clip.data()) + at));
    }
    EXPECT_LT(nearest, 1.5) << "frame " << f << " is not from the idle clip";
  }
}

// The family's faulty student fails on non-finite audio (the linear preprocessing lets NaN reach
// it). Two NaN utterances: the first fails in a live child; after the second the child asks to be
// respawned, the utterance goes to a new child, fails again and is covered by idle frames; the
// tone that follows renders, and the video keeps its full length.
TEST(RenderClientRespawn, FailedUtterancesAreCoveredAndTheRenderGoesOn) {
  const fs::path dir = scratchDir("render-respawn");
  const fs::path faulty = faultyFamily();
  std::vector<float> audio(120 * kSamplesPerFrame, 0.0f);
  for (std::size_t b : {20u, 60u}) {
    std::fill_n(audio.begin() + long(b * kSamplesPerFrame), 10 * kSamplesPerFrame, std::nanf(""));
  }
  const std::vector<float> burst = tone(10 * kSamplesPerFrame);
  std::copy(burst.begin(), burst.end(), audio.begin() + long(100 * kSamplesPerFrame));
  writeWav(dir / "in.wav", audio, true);
  const Shell r = shell("LUMORA2_AUDIO_PREPROC=linear '" + renderBin().string() + "' '" +
                            (faulty / "ava.avatar").string() + "' --engine '" +
                            (faulty / "vivra.model").string() + "' --audio '" +
                            (dir / "in.wav").string() + "' -o '" + (dir / "out.mp4").string() + "'",
                        dir / "stderr");
  const std::string err = readFile(dir / "stderr");
  ASSERT_EQ(r.status, 0) << err;
  EXPECT_THAT(r.out, HasSubstr("120 frames (6.00 s at 20 fps), 3 utterances"));
  EXPECT_THAT(err,
              HasSubstr("warning: utterance 1 could not be rendered; the idle clip covers it"));
  EXPECT_THAT(err, HasSubstr("warning: render-stream asked to be respawned during utterance 2; "
                             "sending it again to a new one"));
  EXPECT_THAT(err,
              HasSubstr("warning: utterance 2 could not be rendered; the idle clip covers it"));
  EXPECT_THAT(err, ::testing::Not(HasSubstr("utterance 3 could not")));
}

// Audio in other formats, rates and channel counts lands on the same timeline: resampled up and
// down, mixed down, and with a lossy codec's padding.
struct Format {
  const char* name;
  const char* ffmpegArgs;
};

class AudioFormats : public ::testing::TestWithParam<Format> {};

TEST_P(AudioFormats, DecodeToTheSameTimelineLength) {
  const fs::path dir = scratchDir("audio-formats");
  writeWav(dir / "mono16k.wav", bursts());
  const fs::path converted = dir / GetParam().name;
  ASSERT_EQ(shell("ffmpeg -v error -i '" + (dir / "mono16k.wav").string() + "' " +
                  GetParam().ffmpegArgs + " '" + converted.string() + "'")
                .status,
            0);
  const std::vector<float> samples = render::decodeAudio(converted);
  EXPECT_EQ((samples.size() + kSamplesPerFrame - 1) / kSamplesPerFrame, 191u);
  // Lossy codecs may keep a little of their padding: within a quarter of a frame.
  EXPECT_NEAR(double(samples.size()), double(kTotalSamples), 200.0);
  EXPECT_EQ(render::splitUtterances(samples, {}).size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Inputs, AudioFormats,
                         ::testing::Values(Format{"stereo44k.flac", "-ac 2 -ar 44100"},
                                           Format{"mono8k.wav", "-ar 8000"},
                                           Format{"mono48k.m4a", "-ar 48000"}),
                         [](const auto& p) {
                           std::string n = p.param.name;
                           std::replace(n.begin(), n.end(), '.', '_');
                           return n;
                         });

// A child that dies while it renders: the error names what it said last, and no output file is
// left. (A child that dies before it is ready is family_render_robustness_test's damaged member.)
TEST(RenderClientBrokenHost, EndsWithTheChildsLastLines) {
  const fs::path dir = scratchDir("render-host");
  writeWav(dir / "in.wav", bursts());
  const fs::path host = dir / "host.sh";
  std::ofstream(host)
      << "#!/bin/sh\necho 'READY {\"fps\":20,\"width\":416,\"height\":720,"
         "\"sample_rate\":16000}'; head -c 100 >/dev/null; echo 'engine crashed' >&2; "
         "exit 9\n";
  fs::permissions(host, fs::perms::owner_all);
  const Shell r =
      shell(renderCommand(dir / "in.wav", dir / "out.mp4") + " --host '" + host.string() + "'",
            dir / "stderr");
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(readFile(dir / "stderr"),
              HasSubstr("render-stream ended with exit status 9 during utterance 1; its last "
                        "lines:\nengine crashed"));
  EXPECT_FALSE(fs::exists(dir / "out.mp4"));
}

}  // namespace
}  // namespace lumora2::family::test
