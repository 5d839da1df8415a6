// The engine's failure path on the family's faulty student, which refuses non-finite input: a
// chunk whose prediction fails twice is dropped, the engine pauses (later audio renders nothing)
// and a reset brings it back. The linear resampler passes NaN through to the graphs (the
// time-stretch would quantise it to silence), so this suite runs with it; the setting is read once
// per process, which is why these cases live in a test program of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "engine/lumora2_engine.h"
#include "family/graphs.h"
#include "family_fixture.h"
#include "model_resolution.h"
#include "support/harness.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::StartsWith;

std::vector<float> tone(std::int64_t count) {
  std::vector<float> out(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] =
        0.3f * static_cast<float>(std::sin(2.0 * M_PI * 220.0 * static_cast<double>(i) / 16000.0));
  }
  return out;
}

class FailingEngine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const fs::path dir = scratchDir("faulty-engine");
    writeEngineGraphs(dir / "engine", GraphOptions{false, true});
    ::setenv("LUMORA2_AUDIO_PREPROC", "linear", 1);
    ::setenv("LUMORA2_MLMODELC_CACHE", (dir / "cache").c_str(), 1);
    ::setenv("MORVANE_VIVRA_DIR", (dir / "engine").c_str(), 1);
  }

  static void settle(const std::shared_ptr<Lumora2Engine>& engine) {
    ASSERT_TRUE(engine->waitForScheduledRenders(std::chrono::seconds(60)));
  }
};

TEST_F(FailingEngine, AChunkThatFailsTwiceIsDroppedAndPausesTheEngineUntilAReset) {
  ModelResolution::setActiveAgentDir(generatedFamily().avatar("ava"));
  std::shared_ptr<Lumora2Engine> engine = Lumora2Engine::create();
  {
    lumora2::testing::StderrCapture quiet;
    engine->warmUp(std::nullopt);
    quiet.finish();
  }
  ASSERT_TRUE(engine->isReady());
  constexpr std::int64_t kChunk = Lumora2Engine::SPC;

  lumora2::testing::StderrCapture capture;
  engine->feed(std::vector<float>(kChunk, std::numeric_limits<float>::quiet_NaN()));
  settle(engine);
  // Paused: good audio after the failure renders nothing.
  engine->feed(tone(2 * kChunk));
  settle(engine);
  const std::vector<std::string> log = lumora2::testing::logTexts(capture.finish());
  EXPECT_TRUE(engine->failed());
  EXPECT_EQ(engine->queuedFrames(), 0);
  EXPECT_EQ(engine->chunkIndex(), 0);
  EXPECT_THAT(log, Contains(StartsWith("[vivra] CoreML predict failed — retrying once: ")));
  EXPECT_THAT(log, Contains(StartsWith("[vivra] CHUNK FAILED after retry (ci=0) — chunk dropped, "
                                       "engine paused until next reset: ")));

  // A reset clears the failure; the next segment renders from position 0.
  engine->resetState(true);
  EXPECT_FALSE(engine->failed());
  engine->feed(tone(kChunk));
  settle(engine);
  EXPECT_EQ(engine->queuedFrames(), 22);
  auto first = engine->pullPos();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->pos, 0);
}

}  // namespace
}  // namespace lumora2::family::test
