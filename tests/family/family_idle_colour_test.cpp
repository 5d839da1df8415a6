// The idle picture is the clip's picture: the engine's idle frames, byte for byte, against FFmpeg's
// own command-line decode of the same clip to B, G, R, A with the colour matrix and range the clip
// declares, for a family avatar and for clips made here in limited and full range.
#include <gtest/gtest.h>

#include <string>

#include "engine/idle_clip_stream.h"
#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;

constexpr int kW = 416, kH = 720;
constexpr int kFrames = 12;

struct ColourCase {
  const char* name;
  const char* avatar;  // a family avatar's clip, or nullptr for one made with `encode`
  const char* encode;  // ffmpeg output options for a test-pattern clip
  const char* matrix;  // what the clip declares, as FFmpeg's scale filter names it
  const char* range;
  friend void PrintTo(const ColourCase& c, std::ostream* os) { *os << c.name; }
};

class IdleColour : public ::testing::TestWithParam<ColourCase> {};

TEST_P(IdleColour, EngineFramesAreFfmpegsDecode) {
  const ColourCase& c = GetParam();
  fs::path clip;
  if (c.avatar != nullptr) {
    clip = generatedFamily().avatar(c.avatar) / "idle.mp4";
  } else {
    clip = scratchDir(c.name) / "idle.mp4";
    shell("ffmpeg -v error -y -f lavfi -i testsrc2=s=416x720:r=20:d=0.6 " + std::string(c.encode) +
          " -c:v libx264 -preset veryfast '" + clip.string() + "'");
  }
  ASSERT_TRUE(fs::exists(clip)) << clip;
  const std::string reference =
      shell("ffmpeg -v error -i '" + clip.string() + "' -vf scale=in_color_matrix=" + c.matrix +
            ":in_range=" + c.range +
            ":flags=bicubic+accurate_rnd+full_chroma_int+bitexact,format=bgra" + " -frames:v " +
            std::to_string(kFrames) + " -f rawvideo -")
          .out;
  const std::size_t frameBytes = std::size_t(kW) * kH * 4;
  ASSERT_EQ(reference.size(), frameBytes * kFrames);

  auto [stream, why] = IdleClipStream::open(clip, kW, kH);
  ASSERT_TRUE(stream) << why.value_or("");
  for (int f = 0; f < kFrames; ++f) {
    std::optional<PixelBuffer> picture = stream->next();
    ASSERT_TRUE(picture && picture->bytes) << "frame " << f;
    std::size_t differing = 0;
    for (int y = 0; y < kH; ++y) {
      const auto* mine = picture->bytes->data() + std::size_t(y) * picture->stride;
      const auto* theirs =
          reinterpret_cast<const std::uint8_t*>(reference.data()) + frameBytes * f + y * kW * 4;
      for (int x = 0; x < kW * 4; ++x) {
        if (x % 4 != 3 && mine[x] != theirs[x]) ++differing;
      }
    }
    EXPECT_EQ(differing, 0u) << "frame " << f;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Clips, IdleColour,
    ::testing::Values(
        // The family's clips carry no colour tags: BT.601, limited range.
        ColourCase{"Ava", "ava", nullptr, "bt601", "tv"},
        ColourCase{"Limited709", nullptr,
                   "-pix_fmt yuv420p -colorspace bt709 -color_primaries bt709 -color_trc bt709 "
                   "-color_range tv",
                   "bt709", "tv"},
        ColourCase{
            "Full601", nullptr,
            "-vf scale=out_range=full -pix_fmt yuv420p -colorspace smpte170m -color_range pc",
            "bt601", "pc"}),
    [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace lumora2::family::test
