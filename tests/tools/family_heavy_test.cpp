// The heavy variant costs what a realistic family costs and behaves exactly like the reference:
// its extra work survives freezing (it depends on the input) and changes no picture and no motion.
#include <ATen/Parallel.h>
#include <gtest/gtest.h>
#include <torch/script.h>

#include <chrono>
#include <numbers>
#include <string>

#include "family/chain.h"
#include "family/graphs.h"
#include "family/identity.h"
#include "family/modules.h"
#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;

fs::path packageDir(const fs::path& dir, std::string_view name) {
  return dir / (std::string(name) + ".mlpackage");
}

// Frozen, saved and loaded back, as the engine's compiled-model cache holds a graph.
torch::jit::Module cachedForm(const fs::path& package) {
  const fs::path path = scratchDir("cache") / "model.pt";
  Chain::loadFrozen(package).save(path.string());
  return torch::jit::load(path.string());
}

size_t countOps(torch::jit::Module& frozen, const std::string& op) {
  const std::string graph = frozen.get_method("forward").graph()->toString();
  size_t n = 0;
  for (size_t at = graph.find(op); at != std::string::npos; at = graph.find(op, at + 1)) ++n;
  return n;
}

struct HeavyGraphs {
  fs::path light = scratchDir("light");
  fs::path heavy = scratchDir("heavy");
  HeavyGraphs() {
    writeEngineGraphs(light, {});
    writeDecoderGraph(light, identityByCode("ava"), {});
    writeEngineGraphs(heavy, {.heavy = true});
    writeDecoderGraph(heavy, identityByCode("ava"), {.heavy = true});
  }
};

const HeavyGraphs& graphs() {
  static const HeavyGraphs g;
  return g;
}

torch::Tensor speechLike() {
  torch::Tensor t = torch::arange(kWindowSamples, torch::kFloat64) / 16000.0;
  // A 150 Hz voice switched on and off four times a second.
  torch::Tensor v = torch::sin(2 * std::numbers::pi * 150.0 * t) *
                    (torch::sin(2 * std::numbers::pi * 4.0 * t) > 0).to(torch::kFloat64);
  return (0.9 * v).to(torch::kFloat32).reshape({1, kWindowSamples});
}

TEST(HeavyFrontEnd, SurvivesFreezingAndLeavesTheFeaturesAsTheyWere) {
  torch::jit::Module light = Chain::loadFrozen(packageDir(graphs().light, kFrontEndPackage));
  torch::jit::Module heavy = cachedForm(packageDir(graphs().heavy, kFrontEndPackage));
  EXPECT_EQ(countOps(light, "aten::conv1d"), 0u);
  EXPECT_GE(countOps(heavy, "aten::conv1d"), 3u);   // the feature stack
  EXPECT_GE(countOps(heavy, "aten::softmax"), 1u);  // attention (inside the twelve-layer loop)
  const torch::Tensor iv = speechLike();
  const torch::Tensor a = light.forward({iv}).toTensor();
  const torch::Tensor b = heavy.forward({iv}).toTensor();
  EXPECT_EQ(a.sizes(), b.sizes());
  EXPECT_TRUE(torch::isfinite(b).all().item<bool>());
  EXPECT_LT(torch::abs(a - b).max().item<float>(), 2e-6f);
  EXPECT_GT(torch::abs(a - b).max().item<float>(), 0.0f);  // the extra work reaches the output
}

TEST(HeavyDecoder, SurvivesFreezingAndDrawsTheSamePicture) {
  torch::jit::Module light = Chain::loadFrozen(packageDir(graphs().light, kDecoderPackage));
  torch::jit::Module heavy = cachedForm(packageDir(graphs().heavy, kDecoderPackage));
  EXPECT_EQ(countOps(light, "aten::conv2d"), 0u);
  EXPECT_GE(countOps(heavy, "aten::conv2d"), 3u);
  torch::Tensor x = torch::zeros({1, 36, 90, 52});
  x.index_put_({0, 0}, 0.8f);   // mouth well open
  x.index_put_({0, 16}, 0.2f);  // previous latent nearly shut
  x.index_put_({0, 34}, 1.0f);  // phase 2
  const torch::Tensor a = light.forward({x}).toTensor().to(torch::kFloat32);
  const torch::Tensor b = heavy.forward({x}).toTensor().to(torch::kFloat32);
  // Within one float16 step of each other everywhere.
  EXPECT_LE(torch::abs(a - b).max().item<float>(), 1.0f / 1024);
}

TEST(HeavyChain, CostsManyTimesTheReferencePerChunk) {
  at::set_num_threads(1);
  auto timeChunk = [](const fs::path& dir) {
    Chain chain = Chain::load(dir, dir);
    torch::Tensor context = torch::zeros({1, 16, 16, 90, 52});
    torch::Tensor previous;
    chain.chunk(speechLike(), context, previous, 6, 1);  // first run pays one-time costs
    const auto start = std::chrono::steady_clock::now();
    chain.chunk(speechLike(), context, previous, 6, 2);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const double light = timeChunk(graphs().light);
  const double heavy = timeChunk(graphs().heavy);
  EXPECT_GT(heavy, 10.0 * light) << "light " << light << " s, heavy " << heavy << " s";
}

}  // namespace
}  // namespace lumora2::family::test
