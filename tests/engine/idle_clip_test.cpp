// The idle clip: frame order across the authored seam, the length correction when the estimate
// overstates the clip and the reasons a clip is refused (its colours are checked against FFmpeg's
// own decode in family_idle_colour_test). Every clip is written by the test; frame i of a ramp is
// a flat grey of level 10 + 20 i, which survives compression well enough to read the index back.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>

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

// `count` flat grey pictures of w x h, picture i of level 10 + 20 i.
Frames ramp(int count, int w = kW, int h = kH) {
  Frames frames;
  for (int i = 0; i < count; ++i) {
    frames.emplace_back(static_cast<std::size_t>(w) * h * 3,
                        static_cast<std::uint8_t>(10 + 20 * i));
  }
  return frames;
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
    [](const auto& p) { return std::string(p.param.name); });

struct RefusalCase {
  const char* name;
  bool url;                                          // open the clip's path, or no url at all
  std::function<void(const fs::path&)> make;         // prepares the clip's path; may be empty
  std::string why;                                   // "{path}" stands for the clip's path
  std::optional<fs::path> avatarDir = std::nullopt;  // named in the no-url reason
  friend void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }
};

// A media file without a video stream: 0.1 s of silence.
void writeAudioOnly(const fs::path& path) {
  const std::string command =
      "ffmpeg -v error -y -f lavfi -i anullsrc=r=16000:cl=mono -t 0.1 -f mp4 '" + path.string() +
      "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
}
void writeUndecodable(const fs::path& path) {
  writeClip(path, ramp(3), kW, kH, {"mp4", 10, 0, true});
}
void write418x720(const fs::path& path) { writeClip(path, ramp(1, 418, 720), 418, 720); }

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
        RefusalCase{"AudioOnly", true, writeAudioOnly, kNoTrack},
        RefusalCase{"NotMedia", true,
                    [](const fs::path& p) { std::ofstream(p) << "not a video at all\n"; },
                    kNoTrack},
        RefusalCase{"NoPicture", true, writeUndecodable, "idle.mp4 at {path} decoded no frame"},
        RefusalCase{"WrongSize", true, write418x720,
                    "idle.mp4 is 418x720, the engine's frames are 416x720"}),
    [](const auto& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace lumora2
