// The idle clip: frame order across the authored seam, the length correction when the estimate
// overstates the clip and the reasons a clip is refused (its colours are checked against FFmpeg's
// own decode in family_idle_colour_test). Every clip is written by the test; frame i of a ramp is
// a flat grey of level 10 + 20 i, which survives compression well enough to read the index back.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "engine/idle_clip_stream.h"
#include "support/clip_writer.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::ClipOptions;
using testing::logTexts;
using testing::Scratch;
using testing::StderrCapture;
using testing::writeClip;
using Frames = std::vector<std::vector<std::uint8_t>>;

constexpr int kW = 64, kH = 48;

Frames flat(int count, int w, int h, std::function<std::array<int, 3>(int)> bgrOf) {
  Frames frames;
  for (int i = 0; i < count; ++i) {
    std::vector<std::uint8_t>& f = frames.emplace_back(static_cast<std::size_t>(w) * h * 3);
    const auto bgr = bgrOf(i);
    for (std::size_t p = 0; p < f.size(); ++p) f[p] = static_cast<std::uint8_t>(bgr[p % 3]);
  }
  return frames;
}
Frames ramp(int count) {
  return flat(count, kW, kH, [](int i) {
    return std::array{10 + 20 * i, 10 + 20 * i, 10 + 20 * i};
  });
}

// The picture's B, G, R bytes, honouring its stride.
std::vector<std::uint8_t> bgrOf(const PixelBuffer& p) {
  std::vector<std::uint8_t> out;
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      const std::uint8_t* px = p.bytes->data() + y * p.stride + x * 4;
      out.insert(out.end(), px, px + 3);
    }
  }
  return out;
}
int rampIndex(const PixelBuffer& p) {
  const std::vector<std::uint8_t> bgr = bgrOf(p);
  double sum = 0;
  for (std::uint8_t v : bgr) sum += v;
  return static_cast<int>(std::lround((sum / static_cast<double>(bgr.size()) - 10) / 20));
}
std::string seam(int wrap, int count) {
  return "[lumora2-idle] wrap " + std::to_string(wrap) + ": frame " + std::to_string(count - 1) +
         " -> 0 (clip " + std::to_string(count) + " frames, the authored seam)";
}

template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& param) {
  return param.param.name;
}

struct LoopCase {
  const char* name;
  int frames;
  ClipOptions options;
  std::int64_t estimate;  // frameCount before the first wrap
  friend void PrintTo(const LoopCase& c, std::ostream* os) { *os << c.name; }
};

class IdleClipLoop : public ::testing::TestWithParam<LoopCase> {};

// Two full passes and the first frame of a third: 0..n-1, 0..n-1, 0, wrapping at the true end
// whatever the estimate said, with the seam logged once per wrap.
TEST_P(IdleClipLoop, DeliversEveryFrameInOrderAndWrapsAtTheTrueEnd) {
  const LoopCase& c = GetParam();
  Scratch scratch;
  const fs::path path = scratch.dir() / "idle.mp4";
  writeClip(path, ramp(c.frames), kW, kH, c.options);
  auto [clip, why] = IdleClipStream::open(path, kW, kH);
  ASSERT_TRUE(clip) << why.value_or("");
  EXPECT_EQ(clip->frameCount(), c.estimate);
  EXPECT_EQ(clip->lastIndex(), -1);

  StderrCapture capture;
  for (int call = 0; call < 2 * c.frames + 1; ++call) {
    std::optional<PixelBuffer> frame = clip->next();
    ASSERT_TRUE(frame) << "call " << call;
    EXPECT_EQ(rampIndex(*frame), call % c.frames) << "call " << call;
    EXPECT_EQ(clip->lastIndex(), call % c.frames);
    if (call == 0) {
      EXPECT_EQ(bgrOf(*frame), clip->firstFrameBGR());
    }
    if (call == c.frames - 1) {
      EXPECT_EQ(clip->frameCount(), c.estimate);
    }
  }
  EXPECT_EQ(clip->frameCount(), c.frames);
  EXPECT_EQ(clip->wraps(), 2);
  EXPECT_EQ(logTexts(capture.finish()),
            (std::vector<std::string>{seam(1, c.frames), seam(2, c.frames)}));
}

INSTANTIATE_TEST_SUITE_P(
    Clips, IdleClipLoop,
    ::testing::Values(LoopCase{"Mp4", 12, {}, 12}, LoopCase{"OneFrame", 1, {}, 1},
                      // 12 frames 0.1 s apart under a declared 20 frames per second: the
                      // container says 1.15 s (the last frame lasting 1/20 s), so 23 frames.
                      LoopCase{"LengthOverstated", 12, {"matroska", 10, 20}, 23}),
    caseName<LoopCase>);

struct RefusalCase {
  const char* name;
  bool url;                                          // open the clip's path, or no url at all
  std::function<void(const fs::path&)> make;         // prepares the clip's path; may be empty
  std::string why;                                   // "{path}" stands for the clip's path
  std::optional<fs::path> avatarDir = std::nullopt;  // named in the no-url reason
  friend void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }
};

void writeText(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
std::string le(std::uint32_t v, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  return out;
}
// A 0.1 s 16 kHz mono WAV: a media file without a video stream.
void writeWav(const fs::path& path) {
  writeText(path, "RIFF" + le(36 + 3200, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) + le(1, 2) +
                      le(16000, 4) + le(32000, 4) + le(2, 2) + le(16, 2) + "data" + le(3200, 4) +
                      std::string(3200, '\0'));
}
void writeUndecodable(const fs::path& path) {
  writeClip(path, ramp(3), kW, kH, {"mp4", 10, 0, true});
}
void write418x720(const fs::path& path) {
  writeClip(path, flat(1, 418, 720, [](int) { return std::array{90, 90, 90}; }), 418, 720);
}

class IdleClipRefusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(IdleClipRefusal, GivesTheReason) {
  const RefusalCase& c = GetParam();
  Scratch scratch;
  const fs::path path = scratch.dir() / "idle.mp4";
  if (c.make) c.make(path);
  auto [clip, why] =
      IdleClipStream::open(c.url ? std::optional(path) : std::nullopt, 416, 720, c.avatarDir);
  EXPECT_FALSE(clip);
  std::string expected = c.why;
  if (std::size_t at = expected.find("{path}"); at != std::string::npos) {
    expected.replace(at, 6, path.string());
  }
  EXPECT_EQ(why, expected);
}

const std::string kNoUrl =
    "; the per-identity dir is the only place a downloaded agent's clip is looked for)";
const std::string kNoTrack = "idle.mp4 at {path} has no video track";
INSTANTIATE_TEST_SUITE_P(
    Clips, IdleClipRefusal,
    ::testing::Values(
        RefusalCase{
            "NoUrl", false, {}, "no idle.mp4 for this identity (activeAgentDir=nil" + kNoUrl},
        RefusalCase{"AudioOnly", true, writeWav, kNoTrack},
        RefusalCase{"NotMedia", true,
                    [](const fs::path& p) { writeText(p, "not a video at all\n"); }, kNoTrack},
        RefusalCase{"NoPicture", true, writeUndecodable, "idle.mp4 at {path} decoded no frame"},
        RefusalCase{"WrongSize", true, write418x720,
                    "idle.mp4 is 418x720, the engine's frames are 416x720"}),
    caseName<RefusalCase>);

}  // namespace
}  // namespace lumora2
