// The engine's half of family_chain_test, apart from the LibTorch half because the engine's
// headers need C++20 and LibTorch's sources here are compiled as C++17.
#include <gtest/gtest.h>

#include <chrono>

#include "family_engines.h"
#include "support/harness.h"
#include "time_stretch.h"

namespace lumora2::family::test {

std::vector<float> engineContextAfter(const std::vector<float>& speech, std::int64_t* chunks) {
  lumora2::testing::StderrCapture quiet;
  const EngineSettings settings = familySettings("chain-test-cache");
  std::shared_ptr<const EngineGraphs> graphs = EngineGraphs::load(settings);
  if (!graphs) return {};
  std::shared_ptr<Lumora2Engine> engine =
      engineFor(graphs, generatedFamily().avatar("ava"), settings);
  if (!engine) return {};
  engine->feed(speech);
  EXPECT_TRUE(engine->waitForScheduledRenders(std::chrono::seconds(120)));
  *chunks = engine->chunkIndex();
  return engine->latentContext();
}

std::vector<float> compressedWindow(const std::vector<float>& window) {
  return WsolaTempo::apply(window, Lumora2Engine::kStretched);
}

}  // namespace lumora2::family::test
