// The generated family's files as the host and the engine read them: the idle clips through the
// FFmpeg libraries, canon.f32, warm.wav through libsndfile, the provenance binding, the packed
// containers, and the generator's command line.
#include <gtest/gtest.h>
#include <sndfile.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <cmath>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "family/digest.h"
#include "family/family.h"
#include "family/host_pack.h"
#include "family/latent.h"
#include "family/portrait.h"
#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;

struct DecodedClip {
  int width = 0, height = 0;
  AVRational rate{0, 1};
  std::vector<std::vector<std::uint8_t>> frames;  // RGB24
};

// Decodes every frame of a clip's first video stream with libavformat/libavcodec.
DecodedClip decodeClip(const fs::path& path) {
  DecodedClip clip;
  AVFormatContext* raw = nullptr;
  if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) return clip;
  std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> in(
      raw, [](AVFormatContext* c) { avformat_close_input(&c); });
  if (avformat_find_stream_info(in.get(), nullptr) < 0) return clip;
  const int index = av_find_best_stream(in.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (index < 0) return clip;
  const AVStream* stream = in->streams[index];
  const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
  std::unique_ptr<AVCodecContext, void (*)(AVCodecContext*)> dec(
      avcodec_alloc_context3(codec), [](AVCodecContext* c) { avcodec_free_context(&c); });
  avcodec_parameters_to_context(dec.get(), stream->codecpar);
  if (avcodec_open2(dec.get(), codec, nullptr) < 0) return clip;
  clip.width = dec->width;
  clip.height = dec->height;
  clip.rate = stream->avg_frame_rate;
  std::unique_ptr<AVFrame, void (*)(AVFrame*)> frame(av_frame_alloc(),
                                                     [](AVFrame* f) { av_frame_free(&f); });
  std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(av_packet_alloc(),
                                                        [](AVPacket* p) { av_packet_free(&p); });
  SwsContext* sws = sws_getContext(clip.width, clip.height, dec->pix_fmt, clip.width, clip.height,
                                   AV_PIX_FMT_RGB24, SWS_POINT, nullptr, nullptr, nullptr);
  auto drain = [&] {
    while (avcodec_receive_frame(dec.get(), frame.get()) == 0) {
      std::vector<std::uint8_t> rgb(static_cast<size_t>(clip.width) * clip.height * 3);
      std::uint8_t* dst[1] = {rgb.data()};
      const int dstStride[1] = {clip.width * 3};
      sws_scale(sws, frame->data, frame->linesize, 0, clip.height, dst, dstStride);
      clip.frames.push_back(std::move(rgb));
    }
  };
  while (av_read_frame(in.get(), packet.get()) >= 0) {
    if (packet->stream_index == index) {
      avcodec_send_packet(dec.get(), packet.get());
      drain();
    }
    av_packet_unref(packet.get());
  }
  avcodec_send_packet(dec.get(), nullptr);
  drain();
  sws_freeContext(sws);
  return clip;
}

class AvatarFiles : public ::testing::TestWithParam<std::string> {};

TEST_P(AvatarFiles, IdleClipDecodesToSharpPortraitFramesWithABlink) {
  const DecodedClip clip = decodeClip(generatedFamily().avatar(GetParam()) / "idle.mp4");
  EXPECT_EQ(clip.width, 416);
  EXPECT_EQ(clip.height, 720);
  EXPECT_EQ(clip.rate.num, 20 * clip.rate.den);
  ASSERT_EQ(clip.frames.size(), static_cast<size_t>(kIdleTokens * 4));
  // The clip moves (gaze, blink) but only a little: the face stays where it is.
  size_t changed = 0;
  for (size_t i = 1; i < clip.frames.size(); ++i) changed += clip.frames[i] != clip.frames[0];
  EXPECT_GT(changed, clip.frames.size() / 2);
  // The blink: some frame's eye box differs strongly from the first frame's.
  const Rect eyes = faceRegions(identityByCode(GetParam())).eyes;
  double strongest = 0.0;
  for (const auto& f : clip.frames) {
    double diff = 0.0;
    for (int y = eyes.y0; y < eyes.y1; ++y) {
      for (int x = eyes.x0; x < eyes.x1; ++x) {
        for (int c = 0; c < 3; ++c) {
          const size_t k = (static_cast<size_t>(y) * clip.width + x) * 3 + c;
          diff += std::abs(static_cast<int>(f[k]) - static_cast<int>(clip.frames[0][k]));
        }
      }
    }
    strongest = std::max(strongest, diff / (eyes.width() * eyes.height() * 3.0));
  }
  EXPECT_GT(strongest, 25.0);
  for (const auto& f : clip.frames) {
    EXPECT_GT(laplacianVariance(f.data(), clip.width, clip.height), 60.0);
  }
}

TEST_P(AvatarFiles, CanonHoldsTheRestLatentWithMouthShutAndEyesOpen) {
  const fs::path path = generatedFamily().avatar(GetParam()) / "canon.f32";
  ASSERT_EQ(fs::file_size(path), 74880u * 4);
  std::vector<float> canon(74880);
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(canon.data()), 74880 * 4);
  EXPECT_EQ(canon, canonLatent(identityByCode(GetParam())));
  for (const int channel : {kChannelMouth, kChannelBlink}) {
    const auto plane = canon.begin() + channel * kLatentPlane;
    EXPECT_TRUE(std::all_of(plane, plane + kLatentPlane, [](float v) { return v == 0.0f; }));
  }
}

INSTANTIATE_TEST_SUITE_P(Family, AvatarFiles, ::testing::Values("ava", "bram"));

TEST(EngineFiles, WarmWavIsSpeechLikeAtSixteenKilohertzMono) {
  const fs::path path = generatedFamily().engine() / "warm.wav";
  SF_INFO info{};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
  std::vector<float> samples(static_cast<size_t>(info.frames));
  sf_readf_float(f, samples.data(), info.frames);
  sf_close(f);
  EXPECT_EQ(info.samplerate, 16000);
  EXPECT_EQ(info.channels, 1);
  EXPECT_GE(info.frames, 4 * 16000);
  EXPECT_LE(info.frames, 6 * 16000);
  // Voiced syllables and pauses: count 50 ms windows that are loud and that are silent.
  int loud = 0, quiet = 0;
  for (size_t w = 0; w + 800 <= samples.size(); w += 800) {
    double power = 0.0;
    for (size_t i = w; i < w + 800; ++i) power += samples[i] * samples[i];
    loud += std::sqrt(power / 800.0) > 0.05;
    quiet += std::sqrt(power / 800.0) < 0.005;
  }
  EXPECT_GT(loud, 20);
  EXPECT_GT(quiet, 10);
}

// Each avatar carries provenance bound to the engine's student and to its own decoder: in the
// containers as the host unpacks them when the family was packed, in the staging tree otherwise.
TEST(Family, AvatarsCarryABoundProvenance) {
  const GeneratedFamily& family = generatedFamily();
  fs::path engine = family.engine();
  std::function<fs::path(const std::string&)> avatar = [&](const std::string& c) {
    return family.avatar(c);
  };
#ifdef LUMORA2_MODEL_BIN
  const fs::path out = scratchDir("unpacked");
  for (const char* name : {"vivra.model", "ava.avatar", "bram.avatar"}) {
    const ProcessResult r =
        runProcess({LUMORA2_MODEL_BIN, "unpack", (family.root / name).string(), out / name});
    ASSERT_EQ(r.status, 0) << name << ": " << r.output;
  }
  engine = out / "vivra.model";
  avatar = [&](const std::string& c) { return out / (c + ".avatar"); };
#endif
  const std::string student =
      sha256File(engine / "student_v4_forward_frame_cpuAndNE.mlpackage/model.pt");
  for (const std::string code : {"ava", "bram"}) {
    const nlohmann::json p = nlohmann::json::parse(std::ifstream(avatar(code) / "provenance.json"));
    EXPECT_EQ(p["agent_code"], code);
    EXPECT_EQ(p["student_sha256"], student);
    EXPECT_EQ(p["decv3_sha256"], sha256File(avatar(code) / "dec_p2_v3_all.mlpackage/model.pt"));
    for (const char* key : {"trainer_version", "student_kind", "w2v_kind"}) {
      EXPECT_TRUE(p.contains(key) && p[key].is_string()) << key;
    }
  }
}

TEST(GeneratorCommandLine, RefusesBadArgumentsWithUsage) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--heavy"}, "--out DIR is required"},
      {{"--out", "x", "--decoder", "blank"}, "unknown decoder kind 'blank'"},
      {{"--out", "x", "--abi", "3x"}, "--abi wants an integer"},
      {{"--out", "x", "--fast"}, "unknown argument '--fast'"}};
  for (const auto& [args, expected] : cases) {
    std::vector<std::string> argv{LUMORA2_FAMILY_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    const ProcessResult r = runProcess(argv);
    EXPECT_EQ(r.status, 1) << expected;
    EXPECT_NE(r.output.find(expected), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("usage: lumora2-family"), std::string::npos) << r.output;
  }
}

}  // namespace
}  // namespace lumora2::family::test
