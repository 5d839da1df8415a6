// The generated graphs against the contracts the engine calls them with, and the behaviour the
// family promises: loudness opens the mouth in time with the audio, silence keeps it shut, the idle
// motion (gaze cycle, blink) runs by itself, the two identities look different and sharp, and the
// failure variants fail exactly as the engine's liveness and failure paths expect.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <torch/script.h>

#include <algorithm>

#include <cmath>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "family/chain.h"
#include "family/graphs.h"
#include "family/latent.h"
#include "family/modules.h"
#include "family/portrait.h"
#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using torch::indexing::Slice;

fs::path packageDir(const fs::path& dir, std::string_view name) {
  return dir / (std::string(name) + ".mlpackage");
}

nlohmann::json readJson(const fs::path& path) {
  std::ifstream in(path);
  return nlohmann::json::parse(in);
}

std::vector<float> readCanon(const fs::path& avatarDir) {
  std::ifstream in(avatarDir / "canon.f32", std::ios::binary);
  std::vector<float> canon(kLatentSize);
  in.read(reinterpret_cast<char*>(canon.data()), kLatentSize * 4);
  return canon;
}

// The engine's liveness probe input: element i is (i mod 17) / 17 + 0.1.
torch::Tensor probeInput(const std::vector<std::int64_t>& shape) {
  torch::Tensor t = torch::arange(c10::multiply_integers(shape), torch::kInt64);
  return (t.remainder(17).to(torch::kFloat32) / 17.0f + 0.1f).reshape(shape);
}

// A steady voiced sound: harmonics of 140 Hz, at the front end's input scale (gain 3 applied).
torch::Tensor voiced(double amplitude) {
  torch::Tensor t = torch::arange(kWindowSamples, torch::kFloat64) / 16000.0;
  torch::Tensor v = torch::zeros({kWindowSamples}, torch::kFloat64);
  for (int k = 1; k <= 8; ++k) v += torch::sin(2 * std::numbers::pi * 140.0 * k * t) / k;
  v = v / v.abs().max() * amplitude * 3.0;
  return v.to(torch::kFloat32).reshape({1, kWindowSamples});
}

float channelMean(const torch::Tensor& latent, int channel) {
  return latent.index({0, channel}).mean().item<float>();
}

std::vector<std::uint8_t> rgb24(const torch::Tensor& picture) {
  Picture p;
  const torch::Tensor f = picture.to(torch::kFloat32).contiguous();
  std::memcpy(p.planes.data(), f.data_ptr<float>(), p.planes.size() * sizeof(float));
  return toRgb24(p);
}

// ---- contracts ----------------------------------------------------------------------------

struct Contract {
  std::string where;  // "engine" or an avatar code
  std::string package;
  std::vector<IoFeature> inputs;
  IoFeature output;
};

void PrintTo(const Contract& c, std::ostream* os) { *os << c.where << "/" << c.package; }

class GraphContract : public ::testing::TestWithParam<Contract> {};

TEST_P(GraphContract, IoJsonAndModelMeetTheContract) {
  const Contract& c = GetParam();
  const GeneratedFamily& family = generatedFamily();
  const fs::path dir =
      packageDir(c.where == "engine" ? family.engine() : family.avatar(c.where), c.package);
  const nlohmann::json io = readJson(dir / "io.json");
  ASSERT_EQ(io["inputs"].size(), c.inputs.size());
  for (size_t i = 0; i < c.inputs.size(); ++i) {
    EXPECT_EQ(io["inputs"][i]["name"], c.inputs[i].name);
    EXPECT_EQ(io["inputs"][i]["shape"].get<std::vector<std::int64_t>>(), c.inputs[i].shape);
    EXPECT_EQ(io["inputs"][i]["dtype"], c.inputs[i].dtype);
  }
  ASSERT_EQ(io["outputs"].size(), 1u);
  EXPECT_EQ(io["outputs"][0]["shape"].get<std::vector<std::int64_t>>(), c.output.shape);
  EXPECT_EQ(io["outputs"][0]["dtype"], c.output.dtype);

  // Run it as the engine does: frozen, saved to its cache and loaded back, inputs by position in
  // io.json order, filled as the liveness probe fills them.
  const fs::path cached = scratchDir("cache") / "model.pt";
  Chain::loadFrozen(dir).save(cached.string());
  torch::jit::Module model = torch::jit::load(cached.string());
  std::vector<torch::jit::IValue> inputs;
  for (const IoFeature& f : c.inputs) inputs.emplace_back(probeInput(f.shape));
  const torch::Tensor out = model.forward(inputs).toTensor();
  EXPECT_EQ(out.sizes().vec(), c.output.shape);
  EXPECT_EQ(out.scalar_type(), c.output.dtype == "float16" ? torch::kHalf : torch::kFloat32);
  // Alive under the probe: every value finite, some non-zero.
  const torch::Tensor f = out.to(torch::kFloat32);
  EXPECT_TRUE(torch::isfinite(f).all().item<bool>());
  EXPECT_GT(f.ne(0).sum().item<std::int64_t>(), 0);
}

const std::vector<IoFeature> kDecoderInput{{"x", {1, 36, 90, 52}, "float32"}};
const IoFeature kDecoderOutput{"rgb", {1, 3, 720, 416}, "float16"};

INSTANTIATE_TEST_SUITE_P(
    Family, GraphContract,
    ::testing::Values(Contract{"engine",
                               "w2v_frontend_cpuAndNE",
                               {{"iv", {1, 35200}, "float32"}},
                               {"", {1, 55, 12, 768}, "float32"}},
                      Contract{"engine",
                               "audiotokenizer_cpuAndNE",
                               {{"feats", {1, 55, 12, 768}, "float32"}},
                               {"", {1, 14, 16, 384}, "float32"}},
                      Contract{"engine",
                               "student_v4_forward_frame_cpuAndNE",
                               {{"ctx_lat", {1, 16, 16, 90, 52}, "float32"},
                                {"a_tok", {1, 16, 384}, "float32"}},
                               {"", {1, 16, 90, 52}, "float32"}},
                      Contract{"ava", "dec_p2_v3_all", kDecoderInput, kDecoderOutput},
                      Contract{"bram", "dec_p2_v3_all", kDecoderInput, kDecoderOutput}));

// ---- behaviour ----------------------------------------------------------------------------

class Speaking : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    const GeneratedFamily& family = generatedFamily();
    chain_.emplace(Chain::load(family.engine(), family.avatar(GetParam())));
    canon_ = readCanon(family.avatar(GetParam()));
  }

  // Mouth openness after each student step over tokens 0..13 of the window, from rest.
  std::vector<float> opennessPerToken(const torch::Tensor& iv) {
    torch::Tensor context = Chain::seedContext(canon_);
    const torch::Tensor tokens = chain_->tokens(chain_->features(iv));
    std::vector<float> open;
    for (int t = 0; t < kTokens; ++t)
      open.push_back(channelMean(chain_->step(context, tokens, t), 0));
    return open;
  }

  // The picture after four steps on tokens 6..9, as a chunk's first frames are made.
  torch::Tensor pictureAfter(const torch::Tensor& iv) {
    torch::Tensor context = Chain::seedContext(canon_);
    const torch::Tensor tokens = chain_->tokens(chain_->features(iv));
    torch::Tensor latent;
    for (int t = 6; t < 10; ++t) latent = chain_->step(context, tokens, t);
    return chain_->picture(latent, latent, 3)[0].to(torch::kFloat32);
  }

  std::optional<Chain> chain_;
  std::vector<float> canon_;
};

TEST_P(Speaking, LoudVoiceOpensTheMouthWhereSilenceKeepsItShut) {
  const std::vector<float> silent = opennessPerToken(torch::zeros({1, kWindowSamples}));
  const std::vector<float> loud = opennessPerToken(voiced(0.3));
  for (int t = 0; t < kTokens; ++t) EXPECT_LT(silent[t], 0.01f) << "token " << t;
  EXPECT_GT(loud[3], 0.9f);

  const torch::Tensor shut = pictureAfter(torch::zeros({1, kWindowSamples}));
  const torch::Tensor open = pictureAfter(voiced(0.3));
  const Rect m = faceRegions(identityByCode(GetParam())).mouth;
  const torch::Tensor box =
      torch::abs(open - shut).index({Slice(), Slice(m.y0, m.y1), Slice(m.x0, m.x1)});
  // The opening is dark: a clear share of the box changes, and it gets darker.
  EXPECT_GT(box.mean().item<float>(), 0.05f);
  const auto brightness = [&](const torch::Tensor& p) {
    return p.index({Slice(), Slice(m.y0, m.y1), Slice(m.x0, m.x1)}).mean().item<float>();
  };
  EXPECT_LT(brightness(open), brightness(shut) - 0.03f);
  // Nothing outside the mouth box moves with the voice.
  torch::Tensor outside = torch::abs(open - shut);
  outside.index_put_({Slice(), Slice(m.y0, m.y1), Slice(m.x0, m.x1)}, 0.0f);
  EXPECT_EQ(outside.max().item<float>(), 0.0f);
}

TEST_P(Speaking, OpeningFollowsLoudnessInTime) {
  // Voice only in feature frames 24..31, the frames of tokens 6 and 7.
  torch::Tensor iv = torch::zeros({1, kWindowSamples});
  const torch::Tensor v = voiced(0.3);
  iv.index_put_({0, Slice(24 * kFrameSamples, 32 * kFrameSamples)},
                v.index({0, Slice(24 * kFrameSamples, 32 * kFrameSamples)}));
  const std::vector<float> open = opennessPerToken(iv);
  for (int t = 0; t < 6; ++t) EXPECT_LT(open[t], 0.01f) << "token " << t;
  EXPECT_GT(open[6], 0.6f);
  EXPECT_GT(open[7], open[6]);
  for (int t = 8; t < kTokens; ++t) EXPECT_LT(open[t], open[t - 1]) << "token " << t;
  EXPECT_LT(open[13], 0.05f);
}

TEST_P(Speaking, WarmSpeechOpensAndClosesTheMouthWordByWord) {
  SF_INFO info{};
  SNDFILE* file = sf_open((generatedFamily().engine() / "warm.wav").c_str(), SFM_READ, &info);
  ASSERT_NE(file, nullptr);
  std::vector<float> speech(static_cast<size_t>(info.frames));
  sf_readf_float(file, speech.data(), info.frames);
  sf_close(file);

  // Chunks as the engine cuts them: 44,000-sample windows reaching one chunk back, squeezed to
  // 35,200 samples (linearly here), gain 3; tokens 0..5 of chunk 0, tokens 6..13 of later ones.
  torch::Tensor context = Chain::seedContext(canon_);
  std::vector<float> open;
  for (std::int64_t ci = 0; (ci + 1) * 25600 <= static_cast<std::int64_t>(speech.size()); ++ci) {
    const std::int64_t start = ci < 2 ? 0 : (ci - 1) * 25600;
    const std::int64_t end = std::min<std::int64_t>(ci == 0 ? 25600 : start + 44000,
                                                    static_cast<std::int64_t>(speech.size()));
    torch::Tensor window = torch::zeros({1, 1, 44000});
    window.index_put_({0, 0, Slice(0, end - start)},
                      torch::from_blob(speech.data() + start, {end - start}));
    const torch::Tensor iv =
        3.0f *
        torch::upsample_linear1d(window, {kWindowSamples}, true).reshape({1, kWindowSamples});
    const torch::Tensor tokens = chain_->tokens(chain_->features(iv));
    const int first = ci == 0 ? 0 : 6, count = ci == 0 ? 6 : 8;
    for (int t = first; t < first + count; ++t) {
      open.push_back(channelMean(chain_->step(context, tokens, t), kChannelMouth));
    }
  }
  ASSERT_GE(open.size(), 20u);
  int openings = 0;
  bool shut = true;
  for (float o : open) {
    if (shut && o > 0.6f) ++openings, shut = false;
    if (!shut && o < 0.25f) shut = true;
  }
  EXPECT_GE(openings, 3) << "the mouth should open for words and close in the pauses between them";
  EXPECT_GT(*std::max_element(open.begin(), open.end()), 0.85f);
}

TEST_P(Speaking, IdleMotionBlinksOnceAndCyclesTheGaze) {
  torch::Tensor context = Chain::seedContext(canon_);
  const torch::Tensor silence = chain_->tokens(chain_->features(torch::zeros({1, kWindowSamples})));
  int blinks = 0;
  torch::Tensor latent;
  for (int t = 0; t < Motion::kSwayPeriodTokens; ++t) {
    latent = chain_->step(context, silence, 6);
    const float blink = channelMean(latent, kChannelBlink);
    EXPECT_TRUE(blink == 0.0f || blink == 1.0f) << blink;
    blinks += blink == 1.0f;
    const float s = channelMean(latent, kChannelSwaySin), c = channelMean(latent, kChannelSwayCos);
    EXPECT_NEAR(s * s + c * c, 1.0f, 1e-4f);
  }
  EXPECT_EQ(blinks, 1);
  // A full gaze cycle returns to the canonical phase.
  EXPECT_NEAR(channelMean(latent, kChannelSwaySin), canon_[kChannelSwaySin * kLatentPlane], 1e-3f);
  // Style channels are carried through untouched.
  for (int c = kFirstStyleChannel; c < kLatentChannels; ++c) {
    EXPECT_TRUE(torch::equal(latent.index({0, c}).flatten(),
                             torch::from_blob(canon_.data() + c * kLatentPlane, {kLatentPlane})));
  }
}

TEST_P(Speaking, PicturesAreSharpShutAndOpen) {
  for (const double amplitude : {0.0, 0.3}) {
    const torch::Tensor iv =
        amplitude == 0.0 ? torch::zeros({1, kWindowSamples}) : voiced(amplitude);
    const std::vector<std::uint8_t> frame = rgb24(pictureAfter(iv));
    // The self-test's floor is 12; unsharpened frames stay far above it.
    EXPECT_GT(laplacianVariance(frame.data(), kPictureWidth, kPictureHeight), 120.0)
        << "amplitude " << amplitude;
  }
}

INSTANTIATE_TEST_SUITE_P(Family, Speaking, ::testing::Values("ava", "bram"));

TEST(Identities, TheTwoAvatarsLookClearlyDifferent) {
  const GeneratedFamily& family = generatedFamily();
  std::vector<torch::Tensor> pictures;
  for (const std::string code : {"ava", "bram"}) {
    torch::jit::Module decoder =
        Chain::loadFrozen(packageDir(family.avatar(code), kDecoderPackage));
    const std::vector<float> canon = readCanon(family.avatar(code));
    const torch::Tensor lat = torch::from_blob(const_cast<float*>(canon.data()), {1, 16, 90, 52});
    torch::Tensor phase = torch::zeros({1, 4, 90, 52});
    phase.select(1, 3).fill_(1.0f);
    pictures.push_back(
        decoder.forward({torch::cat({lat, lat, phase}, 1)}).toTensor().to(torch::kFloat32));
  }
  EXPECT_GT(torch::abs(pictures[0] - pictures[1]).mean().item<float>(), 0.1f);
  // Different palettes, not just different shapes: the mean colours differ too.
  EXPECT_GT(torch::abs(pictures[0].mean({2, 3}) - pictures[1].mean({2, 3})).max().item<float>(),
            0.05f);
}

// ---- variants -----------------------------------------------------------------------------

struct StudentCase {
  const char* name;
  bool faulty;
  const char* poison;  // "none", "ctx-nan", "tok-nan", "tok-inf"
  bool throws;
};

void PrintTo(const StudentCase& c, std::ostream* os) { *os << c.name; }

class StudentVariant : public ::testing::TestWithParam<StudentCase> {};

TEST_P(StudentVariant, RefusesNonFiniteInputOnlyWhenFaulty) {
  const StudentCase& c = GetParam();
  const fs::path dir = scratchDir("student");
  writeEngineGraphs(dir, {.heavy = false, .faultyStudent = c.faulty});
  torch::jit::Module student = Chain::loadFrozen(packageDir(dir, kStudentPackage));
  torch::Tensor ctx = probeInput({1, 16, 16, 90, 52});
  torch::Tensor tok = probeInput({1, 16, 384});
  const std::string poison = c.poison;
  if (poison == "ctx-nan") ctx.index_put_({0, 7, 3, 10, 10}, NAN);
  if (poison == "tok-nan") tok.index_put_({0, 2, 5}, NAN);
  if (poison == "tok-inf") tok.index_put_({0, 2, 5}, INFINITY);
  if (c.throws) {
    EXPECT_THROW(student.forward({ctx, tok}), std::exception);
  } else {
    const torch::Tensor out = student.forward({ctx, tok}).toTensor();
    EXPECT_EQ(out.sizes().vec(), (std::vector<std::int64_t>{1, 16, 90, 52}));
  }
}

INSTANTIATE_TEST_SUITE_P(Family, StudentVariant,
                         ::testing::Values(StudentCase{"faulty_finite", true, "none", false},
                                           StudentCase{"faulty_nan_context", true, "ctx-nan", true},
                                           StudentCase{"faulty_nan_token", true, "tok-nan", true},
                                           StudentCase{"faulty_inf_token", true, "tok-inf", true},
                                           StudentCase{"normal_nan_token", false, "tok-nan",
                                                       false}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(StudentVariant, NanAudioReachesTheFaultyStudentAndFailsIt) {
  const fs::path dir = scratchDir("nan-audio");
  writeEngineGraphs(dir, {.heavy = false, .faultyStudent = true});
  torch::jit::Module frontEnd = Chain::loadFrozen(packageDir(dir, kFrontEndPackage));
  torch::jit::Module tokenizer = Chain::loadFrozen(packageDir(dir, kTokenizerPackage));
  torch::jit::Module student = Chain::loadFrozen(packageDir(dir, kStudentPackage));
  const torch::Tensor ctx = probeInput({1, 16, 16, 90, 52});
  auto studentOn = [&](const torch::Tensor& iv) {
    const torch::Tensor tokens = tokenizer.forward({frontEnd.forward({iv}).toTensor()}).toTensor();
    return student.forward({ctx, tokens.select(1, 6).contiguous()});
  };
  torch::Tensor iv = voiced(0.2);
  EXPECT_NO_THROW(studentOn(iv));
  // One bad sample anywhere in the window poisons every token, as in a real tokenizer.
  iv.index_put_({0, 40 * kFrameSamples + 5}, NAN);
  EXPECT_THROW(studentOn(iv), std::exception);
}

struct DecoderCase {
  DecoderKind kind;
  std::int64_t nans;
  bool allZero;
};

class DecoderVariant : public ::testing::TestWithParam<DecoderCase> {};

TEST_P(DecoderVariant, OutputsWhatTheLivenessLadderJudges) {
  const DecoderCase& c = GetParam();
  const fs::path dir = scratchDir("decoder");
  writeDecoderGraph(dir, identityByCode("ava"), {.decoder = c.kind});
  torch::jit::Module decoder = Chain::loadFrozen(packageDir(dir, kDecoderPackage));
  const nlohmann::json io = readJson(packageDir(dir, kDecoderPackage) / "io.json");
  EXPECT_EQ(io["outputs"][0]["dtype"], "float16");
  // Twice: a frozen graph must not keep state between predictions.
  for (int run = 0; run < 2; ++run) {
    const torch::Tensor out = decoder.forward({probeInput({1, 36, 90, 52})}).toTensor();
    ASSERT_EQ(out.scalar_type(), torch::kHalf);
    const torch::Tensor f = out.to(torch::kFloat32);
    EXPECT_EQ(torch::isnan(f).sum().item<std::int64_t>(), c.nans);
    EXPECT_EQ(torch::isinf(f).sum().item<std::int64_t>(), 0);
    const std::int64_t nonZero = (f.ne(0) & torch::isfinite(f)).sum().item<std::int64_t>();
    if (c.allZero) {
      EXPECT_EQ(nonZero, 0);
    } else {
      EXPECT_GT(nonZero, f.numel() / 2);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Family, DecoderVariant,
                         ::testing::Values(DecoderCase{DecoderKind::kNormal, 0, false},
                                           DecoderCase{DecoderKind::kZeros, 0, true},
                                           DecoderCase{DecoderKind::kNan, 1, false}),
                         [](const auto& p) { return std::string(decoderKindName(p.param.kind)); });

// ---- determinism --------------------------------------------------------------------------

std::string bytesOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(Determinism, SameOptionsGiveByteIdenticalPackages) {
  const fs::path a = scratchDir("det-a"), b = scratchDir("det-b");
  for (const fs::path& dir : {a, b}) {
    writeEngineGraphs(dir, {});
    writeDecoderGraph(dir, identityByCode("bram"), {});
  }
  for (const std::string_view name :
       {kFrontEndPackage, kTokenizerPackage, kStudentPackage, kDecoderPackage}) {
    for (const char* file : {"model.pt", "io.json"}) {
      const std::string x = bytesOf(packageDir(a, name) / file);
      EXPECT_FALSE(x.empty()) << name << "/" << file;
      EXPECT_TRUE(x == bytesOf(packageDir(b, name) / file)) << name << "/" << file;
    }
  }
  // The generated family came from another process with the same options.
  EXPECT_TRUE(bytesOf(packageDir(a, kStudentPackage) / "model.pt") ==
              bytesOf(packageDir(generatedFamily().engine(), kStudentPackage) / "model.pt"));
}

}  // namespace
}  // namespace lumora2::family::test
