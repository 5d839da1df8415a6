// The generated graphs against the contracts the engine calls them with, and the behaviour the
// family promises: loudness opens the mouth in time with the audio, silence keeps it shut, the two
// identities look different, the failure variants fail exactly as the engine's liveness and failure
// paths expect, and the same options always give the same bytes.
#include <gtest/gtest.h>
#include <torch/script.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <numbers>
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

std::vector<float> readCanon(const fs::path& avatarDir) {
  const std::string bytes = readFile(avatarDir / "canon.f32");
  std::vector<float> canon(kLatentSize);
  std::memcpy(canon.data(), bytes.data(), std::min(bytes.size(), canon.size() * 4));
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

struct Contract {
  std::string where;  // "engine" or an avatar code
  std::string package;
  const char* io;  // io.json as the engine reads it
};

void PrintTo(const Contract& c, std::ostream* os) { *os << c.where << "/" << c.package; }

class GraphContract : public ::testing::TestWithParam<Contract> {};

TEST_P(GraphContract, IoJsonAndModelMeetTheContract) {
  const Contract& c = GetParam();
  const GeneratedFamily& family = generatedFamily();
  const fs::path dir =
      packageDir(c.where == "engine" ? family.engine() : family.avatar(c.where), c.package);
  const nlohmann::json io = nlohmann::json::parse(c.io);
  EXPECT_EQ(nlohmann::json::parse(readFile(dir / "io.json")), io);
  // Run it as the engine does: frozen, saved to its cache and loaded back, inputs by position in
  // io.json order, filled as the liveness probe fills them.
  const fs::path cached = scratchDir("cache") / "model.pt";
  Chain::loadFrozen(dir).save(cached.string());
  torch::jit::Module model = torch::jit::load(cached.string());
  std::vector<torch::jit::IValue> inputs;
  for (const auto& in : io["inputs"])
    inputs.emplace_back(probeInput(in["shape"].get<std::vector<std::int64_t>>()));
  const torch::Tensor out = model.forward(inputs).toTensor();
  EXPECT_EQ(out.sizes().vec(), io["outputs"][0]["shape"].get<std::vector<std::int64_t>>());
  EXPECT_EQ(out.scalar_type(),
            io["outputs"][0]["dtype"] == "float16" ? torch::kHalf : torch::kFloat32);
  // Alive under the probe: every value finite, some non-zero.
  const torch::Tensor f = out.to(torch::kFloat32);
  EXPECT_TRUE(torch::isfinite(f).all().item<bool>());
  EXPECT_GT(f.ne(0).sum().item<std::int64_t>(), 0);
}

const char* const kDecoderIo =
    R"({"inputs": [{"name": "x", "shape": [1, 36, 90, 52], "dtype": "float32"}],
        "outputs": [{"name": "rgb", "shape": [1, 3, 720, 416], "dtype": "float16"}]})";

INSTANTIATE_TEST_SUITE_P(
    Family, GraphContract,
    ::testing::Values(
        Contract{"engine", "w2v_frontend_cpuAndNE",
                 R"({"inputs": [{"name": "iv", "shape": [1, 35200], "dtype": "float32"}],
                     "outputs": [{"name": "feats", "shape": [1, 55, 12, 768], "dtype": "float32"}]})"},
        Contract{"engine", "audiotokenizer_cpuAndNE",
                 R"({"inputs": [{"name": "feats", "shape": [1, 55, 12, 768], "dtype": "float32"}],
                     "outputs": [{"name": "tokens", "shape": [1, 14, 16, 384], "dtype": "float32"}]})"},
        Contract{
            "engine", "student_v4_forward_frame_cpuAndNE",
            R"({"inputs": [{"name": "ctx_lat", "shape": [1, 16, 16, 90, 52], "dtype": "float32"},
                                {"name": "a_tok", "shape": [1, 16, 384], "dtype": "float32"}],
                     "outputs": [{"name": "lat", "shape": [1, 16, 90, 52], "dtype": "float32"}]})"},
        Contract{"ava", "dec_p2_v3_all", kDecoderIo},
        Contract{"bram", "dec_p2_v3_all", kDecoderIo}));

class Speaking : public ::testing::TestWithParam<std::string> {
 protected:
  Chain chain_ = Chain::load(generatedFamily().engine(), generatedFamily().avatar(GetParam()));
  std::vector<float> canon_ = readCanon(generatedFamily().avatar(GetParam()));

  // Mouth openness after each student step over tokens 0..13 of the window, from rest, and the
  // picture after the step on token 7.
  std::vector<float> openness(const torch::Tensor& iv, torch::Tensor* picture) {
    torch::Tensor context = Chain::seedContext(canon_);
    const torch::Tensor tokens = chain_.tokens(chain_.features(iv));
    std::vector<float> open;
    for (int t = 0; t < kTokens; ++t) {
      const torch::Tensor latent = chain_.step(context, tokens, t);
      open.push_back(channelMean(latent, kChannelMouth));
      if (t == 7) *picture = chain_.picture(latent, latent, 3)[0].to(torch::kFloat32);
    }
    return open;
  }
};

TEST_P(Speaking, LoudVoiceOpensTheMouthWhereSilenceKeepsItShut) {
  // Voice only in feature frames 24..31, the frames of tokens 6 and 7.
  torch::Tensor iv = torch::zeros({1, kWindowSamples});
  const auto frames = Slice(24 * kFrameSamples, 32 * kFrameSamples);
  iv.index_put_({0, frames}, voiced(0.3).index({0, frames}));
  torch::Tensor shut, open;
  const std::vector<float> silent = openness(torch::zeros({1, kWindowSamples}), &shut);
  const std::vector<float> loud = openness(iv, &open);
  for (int t = 0; t < kTokens; ++t) EXPECT_LT(silent[t], 0.01f) << "token " << t;
  for (int t = 0; t < 6; ++t) EXPECT_LT(loud[t], 0.01f) << "token " << t;
  EXPECT_GT(loud[6], 0.6f);
  EXPECT_GT(loud[7], loud[6]);
  for (int t = 8; t < kTokens; ++t) EXPECT_LT(loud[t], loud[t - 1]) << "token " << t;
  EXPECT_LT(loud[13], 0.05f);

  // The opening is dark, and nothing outside the mouth box moves with the voice.
  const Rect m = faceRegions(identityByCode(GetParam())).mouth;
  const auto box = [&](const torch::Tensor& p) {
    return p.index({Slice(), Slice(m.y0, m.y1), Slice(m.x0, m.x1)});
  };
  EXPECT_GT(torch::abs(box(open) - box(shut)).mean().item<float>(), 0.05f);
  EXPECT_LT(box(open).mean().item<float>(), box(shut).mean().item<float>() - 0.03f);
  torch::Tensor outside = torch::abs(open - shut);
  box(outside).fill_(0.0f);
  EXPECT_EQ(outside.max().item<float>(), 0.0f);
}

INSTANTIATE_TEST_SUITE_P(Family, Speaking, ::testing::Values("ava", "bram"));

TEST(Identities, TheTwoAvatarsLookClearlyDifferent) {
  std::vector<torch::Tensor> pictures;
  for (const std::string code : {"ava", "bram"}) {
    Chain chain = Chain::load(generatedFamily().engine(), generatedFamily().avatar(code));
    std::vector<float> canon = readCanon(generatedFamily().avatar(code));
    const torch::Tensor rest = torch::from_blob(canon.data(), {1, 16, 90, 52});
    pictures.push_back(chain.picture(rest, rest, 3)[0].to(torch::kFloat32));
  }
  EXPECT_GT(torch::abs(pictures[0] - pictures[1]).mean().item<float>(), 0.1f);
  // Different palettes, not just different shapes: the mean colours differ too.
  EXPECT_GT(torch::abs(pictures[0].mean({1, 2}) - pictures[1].mean({1, 2})).max().item<float>(),
            0.05f);
}

TEST(StudentVariant, FaultyStudentRefusesNonFiniteInputOnly) {
  const fs::path normal = scratchDir("normal"), faulty = scratchDir("faulty");
  writeEngineGraphs(normal, {});
  writeEngineGraphs(faulty, {.heavy = false, .faultyStudent = true});
  const auto load = [](const fs::path& dir, std::string_view package) {
    return Chain::loadFrozen(packageDir(dir, package));
  };
  torch::jit::Module frontEnd = load(faulty, kFrontEndPackage);
  torch::jit::Module tokenizer = load(faulty, kTokenizerPackage);
  // Through the whole chain: one bad audio sample poisons every token, as in a real tokenizer.
  const auto tokensOf = [&](torch::Tensor iv) {
    return tokenizer.forward({frontEnd.forward({iv}).toTensor()}).toTensor().select(1, 6);
  };
  torch::Tensor badAudio = voiced(0.2);
  badAudio.index_put_({0, 40 * kFrameSamples + 5}, NAN);
  const torch::Tensor ctx = probeInput({1, 16, 16, 90, 52}), tok = probeInput({1, 16, 384});
  torch::Tensor nanCtx = ctx.clone(), nanTok = tok.clone(), infTok = tok.clone();
  nanCtx.index_put_({0, 7, 3, 10, 10}, NAN);
  nanTok.index_put_({0, 2, 5}, NAN);
  infTok.index_put_({0, 2, 5}, INFINITY);
  const struct {
    const char* name;
    fs::path dir;
    torch::Tensor ctx, tok;
    bool throws;
  } cases[] = {{"faulty, finite", faulty, ctx, tok, false},
               {"faulty, finite speech", faulty, ctx, tokensOf(voiced(0.2)), false},
               {"faulty, NaN context", faulty, nanCtx, tok, true},
               {"faulty, NaN token", faulty, ctx, nanTok, true},
               {"faulty, infinite token", faulty, ctx, infTok, true},
               {"faulty, NaN in the audio", faulty, ctx, tokensOf(badAudio), true},
               {"normal, NaN token", normal, ctx, nanTok, false}};
  for (const auto& c : cases) {
    torch::jit::Module student = load(c.dir, kStudentPackage);
    if (c.throws) {
      EXPECT_THROW(student.forward({c.ctx, c.tok.contiguous()}), std::exception) << c.name;
    } else {
      EXPECT_EQ(student.forward({c.ctx, c.tok.contiguous()}).toTensor().sizes().vec(),
                (std::vector<std::int64_t>{1, 16, 90, 52}))
          << c.name;
    }
  }
}

struct DecoderCase {
  DecoderKind kind;
  std::int64_t nans;
  std::int64_t minNonZero;  // finite non-zero values; at most this many when the decoder is zeros
};

class DecoderVariant : public ::testing::TestWithParam<DecoderCase> {};

TEST_P(DecoderVariant, OutputsWhatTheLivenessLadderJudges) {
  const auto [kind, nans, minNonZero] = GetParam();
  const fs::path dir = scratchDir("decoder");
  writeDecoderGraph(dir, identityByCode("ava"), {.decoder = kind});
  torch::jit::Module decoder = Chain::loadFrozen(packageDir(dir, kDecoderPackage));
  for (int run = 0; run < 2; ++run) {  // a frozen graph keeps no state between predictions
    const torch::Tensor out = decoder.forward({probeInput({1, 36, 90, 52})}).toTensor();
    ASSERT_EQ(out.scalar_type(), torch::kHalf);
    const torch::Tensor f = out.to(torch::kFloat32);
    EXPECT_EQ(torch::isnan(f).sum().item<std::int64_t>(), nans);
    EXPECT_EQ(torch::isinf(f).sum().item<std::int64_t>(), 0);
    const std::int64_t nonZero = (f.ne(0) & torch::isfinite(f)).sum().item<std::int64_t>();
    EXPECT_TRUE(minNonZero == 0 ? nonZero == 0 : nonZero >= minNonZero) << nonZero;
  }
}

INSTANTIATE_TEST_SUITE_P(Family, DecoderVariant,
                         ::testing::Values(DecoderCase{DecoderKind::kNormal, 0, 3 * 720 * 416 / 2},
                                           DecoderCase{DecoderKind::kZeros, 0, 0},
                                           DecoderCase{DecoderKind::kNan, 1, 3 * 720 * 416 / 2}),
                         [](const auto& p) { return std::string(decoderKindName(p.param.kind)); });

// Another process, with the same options, generated the family: every package is byte-identical.
TEST(Determinism, SameOptionsGiveByteIdenticalPackages) {
  const fs::path dir = scratchDir("det");
  writeEngineGraphs(dir, {});
  writeDecoderGraph(dir, identityByCode("bram"), {});
  for (const std::string_view name :
       {kFrontEndPackage, kTokenizerPackage, kStudentPackage, kDecoderPackage}) {
    const GeneratedFamily& family = generatedFamily();
    const fs::path generated = name == kDecoderPackage ? family.avatar("bram") : family.engine();
    for (const char* file : {"model.pt", "io.json"}) {
      const std::string x = readFile(packageDir(dir, name) / file);
      EXPECT_FALSE(x.empty()) << name << "/" << file;
      EXPECT_TRUE(x == readFile(packageDir(generated, name) / file)) << name << "/" << file;
    }
  }
}

}  // namespace
}  // namespace lumora2::family::test
