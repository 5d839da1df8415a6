// The engine's latents against the family's own full-tensor chain. One chunk of speech goes
// through the engine (window assembly, time-stretch, input gain, the four graphs through the
// compiled-model cache, the context shift) and through the family's Chain on the same packages;
// the latent context both leave behind must agree value for value. The family's decoder reads
// per-channel means, so comparing pictures alone would let a transposed plane or a channel offset
// pass; the whole context does not.
//
// This file includes LibTorch, so it keeps to C++17.
#include <gtest/gtest.h>
#include <torch/script.h>

#include <cmath>
#include <cstring>
#include <sstream>
#include <vector>

#include "family/chain.h"
#include "family/speech.h"
#include "family_fixture.h"

namespace lumora2::family::test {

// From family_chain_engine.cpp: the latent context a warmed engine on ava leaves after `speech`,
// and the chunks it processed (empty when the engine did not warm up); and the engine's
// time-compression of a 44,000-sample window to 35,200.
std::vector<float> engineContextAfter(const std::vector<float>& speech, std::int64_t* chunks);
std::vector<float> compressedWindow(const std::vector<float>& window);

namespace {

constexpr std::int64_t kChunk = 25600;
constexpr std::int64_t kStretched = 35200;

std::vector<float> readFloats(const std::filesystem::path& path) {
  const std::string bytes = readFile(path);
  std::vector<float> out(bytes.size() / sizeof(float));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(float));
  return out;
}

// "channel c, slot s, row y, column x" of a flat index into [16][16][90][52].
std::string where(std::size_t index) {
  const std::size_t plane = 90 * 52;
  std::ostringstream text;
  text << "channel " << index / (16 * plane) << ", slot " << index / plane % 16 << ", row "
       << index % plane / 52 << ", column " << index % 52;
  return text.str();
}

TEST(FamilyChain, OneChunkLeavesTheSameLatentContextAsTheFamilysChain) {
  const GeneratedFamily& family = generatedFamily();
  // Exactly one chunk of speech: chunk 0 reads its own 25,600 samples and no look-ahead.
  std::vector<float> speech = synthesizeSpeech(2.0);
  speech.resize(static_cast<std::size_t>(kChunk));
  std::int64_t chunks = 0;
  const std::vector<float> engineContext = engineContextAfter(speech, &chunks);
  ASSERT_FALSE(engineContext.empty()) << "the engine did not warm up";
  ASSERT_EQ(chunks, 1);

  // The same chunk through the family's chain: the window zero-padded to 44,000 samples,
  // time-compressed to 35,200, gain 3, then six student steps from token 0.
  std::vector<float> window = speech;
  window.resize(44000, 0.0f);
  std::vector<float> stretched = compressedWindow(window);
  torch::NoGradGuard noGrad;
  const torch::Tensor iv =
      torch::from_blob(stretched.data(), {1, kStretched}, torch::kFloat32) * 3.0;
  Chain chain = Chain::load(family.engine(), family.avatar("ava"));
  const std::vector<float> canon = readFloats(family.avatar("ava") / "canon.f32");
  torch::Tensor context = Chain::seedContext(canon);
  const torch::Tensor tokens = chain.tokens(chain.features(iv));
  for (int i = 0; i < 6; ++i) chain.step(context, tokens, i);
  context = context.contiguous();

  ASSERT_EQ(engineContext.size(), static_cast<std::size_t>(context.numel()));
  const float* expected = context.data_ptr<float>();
  std::size_t mismatches = 0;
  std::size_t first = 0;
  for (std::size_t i = 0; i < engineContext.size(); ++i) {
    if (std::fabs(engineContext[i] - expected[i]) > 1e-5f * (1.0f + std::fabs(expected[i]))) {
      if (mismatches++ == 0) first = i;
    }
  }
  EXPECT_EQ(mismatches, 0u) << "first at " << where(first) << ": engine " << engineContext[first]
                            << ", chain " << expected[first];
  // The six new latents really moved the context away from the seed.
  const torch::Tensor seed = Chain::seedContext(canon);
  EXPECT_GT((context - seed).abs().max().item<float>(), 1e-3f);
}

}  // namespace
}  // namespace lumora2::family::test
