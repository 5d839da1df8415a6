// The heavy variant does a realistic family's extra work and behaves like the reference: the work
// survives freezing (it depends on the input) and changes no feature and no picture beyond
// rounding.
#include <gtest/gtest.h>
#include <torch/script.h>

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

size_t countOps(torch::jit::Module& frozen, const std::string& op) {
  const std::string graph = frozen.get_method("forward").graph()->toString();
  size_t n = 0;
  for (size_t at = graph.find(op); at != std::string::npos; at = graph.find(op, at + 1)) ++n;
  return n;
}

TEST(HeavyVariant, SurvivesFreezingAndComputesWhatTheReferenceDoes) {
  const fs::path light = scratchDir("light"), heavy = scratchDir("heavy");
  for (const bool isHeavy : {false, true}) {
    writeEngineGraphs(isHeavy ? heavy : light, {.heavy = isHeavy});
    writeDecoderGraph(isHeavy ? heavy : light, identityByCode("ava"), {.heavy = isHeavy});
  }
  // A 150 Hz voice switched on and off four times a second.
  const torch::Tensor t = torch::arange(kWindowSamples, torch::kFloat64) / 16000.0;
  const torch::Tensor voice = (0.9 * torch::sin(2 * std::numbers::pi * 150.0 * t) *
                               (torch::sin(2 * std::numbers::pi * 4.0 * t) > 0))
                                  .to(torch::kFloat32)
                                  .reshape({1, kWindowSamples});
  torch::Tensor latents = torch::zeros({1, 36, 90, 52});
  latents.index_put_({0, 0}, 0.8f);   // mouth well open
  latents.index_put_({0, 16}, 0.2f);  // previous latent nearly shut
  latents.index_put_({0, 34}, 1.0f);  // phase 2
  const struct {
    std::string_view package, op;
    int ops;  // at least this many in the heavy graph, none in the light one
    torch::Tensor input;
    float tolerance;
  } cases[] = {{kFrontEndPackage, "aten::conv1d", 3, voice, 2e-6f},
               {kFrontEndPackage, "aten::softmax", 1, voice, 2e-6f},         // attention, in a loop
               {kDecoderPackage, "aten::conv2d", 3, latents, 1.0f / 1024}};  // one float16 step
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.package) + " " + std::string(c.op));
    const std::string package = std::string(c.package) + ".mlpackage";
    torch::jit::Module a = Chain::loadFrozen(light / package);
    // Frozen, saved and loaded back, as the engine's compiled-model cache holds a graph.
    const fs::path cached = scratchDir("cache") / "model.pt";
    Chain::loadFrozen(heavy / package).save(cached.string());
    torch::jit::Module b = torch::jit::load(cached.string());
    EXPECT_EQ(countOps(a, std::string(c.op)), 0u);
    EXPECT_GE(countOps(b, std::string(c.op)), static_cast<size_t>(c.ops));
    const torch::Tensor x = a.forward({c.input}).toTensor().to(torch::kFloat32);
    const torch::Tensor y = b.forward({c.input}).toTensor().to(torch::kFloat32);
    EXPECT_EQ(x.sizes(), y.sizes());
    EXPECT_TRUE(torch::isfinite(y).all().item<bool>());
    EXPECT_LE(torch::abs(x - y).max().item<float>(), c.tolerance);
  }
}

}  // namespace
}  // namespace lumora2::family::test
