// The render engine on the reference family: warm-up through the real graph runtime, the chunk
// geometry of a segment, back-pressure, destruction with work queued, missing avatar members,
// priming copied from another engine and lip sync across the chunk grid, all through real
// threads and the family's real packages. Tail flushes are render-stream's cases
// (family_render_stream_test).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

#include "engine/lumora2_engine.h"
#include "family/speech.h"
#include "family_engines.h"
#include "support/harness.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using Engine = std::shared_ptr<Lumora2Engine>;
using lumora2::testing::logTexts;
using lumora2::testing::StderrCapture;

constexpr std::int64_t kChunk = Lumora2Engine::SPC;

class FamilyEngine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    settings_ = new EngineSettings(familySettings("engine-test-cache"));
    lumora2::testing::StderrCapture quiet;
    graphs_ = new std::shared_ptr<const EngineGraphs>(EngineGraphs::load(*settings_));
  }

  // A warmed engine for ava.
  Engine warmed() {
    StderrCapture capture;
    Engine engine = engineFor(*graphs_, generatedFamily().avatar("ava"), *settings_);
    EXPECT_TRUE(engine) << ::testing::PrintToString(logTexts(capture.finish()));
    return engine;
  }

  static void settle(const Engine& engine) {
    ASSERT_TRUE(engine->waitForScheduledRenders(std::chrono::seconds(60)));
  }

  static std::vector<std::int64_t> positions(const std::vector<PulledFrame>& items) {
    std::vector<std::int64_t> out;
    for (const auto& item : items) out.push_back(item.info.pos);
    return out;
  }

  static std::vector<std::int64_t> range(std::int64_t from, std::int64_t to) {
    std::vector<std::int64_t> out;
    for (std::int64_t p = from; p < to; ++p) out.push_back(p);
    return out;
  }

  // Loaded once for every case of the binary; never freed (the graphs outlive every engine).
  static inline EngineSettings* settings_ = nullptr;
  static inline std::shared_ptr<const EngineGraphs>* graphs_ = nullptr;
};

// Chunk 0 gives 22 frames (its first two identical) at 0–21, chunk 1 gives 32 at 22–53; nothing
// happens until a chunk is complete.
TEST_F(FamilyEngine, ChunksYieldTheirFramesInOrder) {
  Engine engine = warmed();
  engine->feed(tone(kChunk - 1));
  settle(engine);
  EXPECT_EQ(engine->queuedFrames(), 0);
  engine->feed(tone(1));
  settle(engine);
  std::vector<PulledFrame> first = drain(*engine);
  EXPECT_EQ(positions(first), range(0, 22));
  ASSERT_GE(first.size(), 2u);
  EXPECT_EQ(first[0].pixels, first[1].pixels);
  EXPECT_NE(first[1].pixels, first[2].pixels);
  engine->feed(tone(kChunk));
  settle(engine);
  EXPECT_EQ(positions(drain(*engine)), range(22, 54));
}

// Processing pauses while 64 or more frames wait and resumes as the puller drains them.
TEST_F(FamilyEngine, BackPressureHoldsAtTheLimitAndResumesOnPulls) {
  Engine engine = warmed();
  engine->feed(tone(5 * kChunk));
  settle(engine);
  EXPECT_EQ(engine->queuedFrames(), 22 + 32 + 32);  // the third chunk started below the limit
  EXPECT_EQ(engine->chunkIndex(), 3);
  std::vector<std::uint8_t> frame(Lumora2Engine::kFrameBytes);
  for (int i = 0; i < 22; ++i) ASSERT_TRUE(engine->pullInto(frame));
  settle(engine);
  EXPECT_EQ(engine->chunkIndex(), 3) << "64 frames still wait";
  ASSERT_TRUE(engine->pullInto(frame));
  settle(engine);
  EXPECT_EQ(engine->chunkIndex(), 4);
  EXPECT_EQ(engine->queuedFrames(), 63 + 32);
}

// Destroying an engine with work queued neither crashes nor leaks: queued chunks are dropped,
// and a chunk running at that moment finishes and then lets the engine go.
TEST_F(FamilyEngine, DestroyingAnEngineWithQueuedWorkIsSafe) {
  Engine engine = warmed();
  engine->feed(tone(6 * kChunk));
  std::weak_ptr<Lumora2Engine> weak = engine;
  engine.reset();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!weak.expired() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(weak.expired());
}

// An identity with one member missing: without the idle clip the engine still warms up and
// shows the converged rest frame between utterances; without the canonical frame or the decoder
// it refuses, saying which.
struct MissingMember {
  const char* member;
  bool ready;
  const char* line;  // the start of the warm-up line that says so
};

class FamilyEngineMissing : public FamilyEngine,
                            public ::testing::WithParamInterface<MissingMember> {};

TEST_P(FamilyEngineMissing, WarmUpSaysWhatIsMissing) {
  const fs::path identity = scratchDir("identity") / "ava";
  fs::copy(generatedFamily().avatar("ava"), identity, fs::copy_options::recursive);
  fs::remove_all(identity / GetParam().member);
  StderrCapture capture;
  Engine engine = engineFor(*graphs_, identity, *settings_);
  const std::vector<std::string> log = logTexts(capture.finish());
  EXPECT_EQ(engine != nullptr, GetParam().ready);
  EXPECT_THAT(log, Contains(::testing::StartsWith(GetParam().line)))
      << ::testing::PrintToString(log);
  if (GetParam().ready) {
    ASSERT_TRUE(engine->idle());
    EXPECT_EQ(engine->idle()->size(), Lumora2Engine::kFrameBytes);
    EXPECT_TRUE(engine->idleUnavailableReason());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Members, FamilyEngineMissing,
    ::testing::Values(MissingMember{"idle.mp4", true,
                                    "[vivra] idle = the converged rest frame (no clip: "},
                      MissingMember{"canon.f32", false, "[vivra] MISSING canon.f32"},
                      MissingMember{"dec_p2_v3_all.mlpackage", false,
                                    "[vivra] decp2 members missing/unloadable — REFUSING"}),
    [](const auto& param) {
      std::string name = param.param.member;
      return name.substr(0, name.find('.'));
    });

// An engine started from another's priming renders what that one renders, under the arms that
// read what priming leaves: ctx_seed=warm starts every segment from the speech pass's context,
// prepend sizes chunk 0's look-back by the last token count. An engine primed without speech
// renders other bytes, so the comparison can tell.
TEST_F(FamilyEngine, AnEngineStartedFromAnothersPrimingRendersTheSameBytes) {
  EngineSettings settings = *settings_;
  settings.process.ctxSeed = {"warm", "warm", true};
  settings.process.onset = {"prepend", "prepend", true};
  StderrCapture quiet;
  auto avatar = AvatarModel::load(generatedFamily().avatar("ava"), settings);
  Engine primedHere =
      engineFor(*graphs_, generatedFamily().avatar("ava"), settings, synthesizeSpeech(2.0));
  ASSERT_TRUE(primedHere && avatar);
  Engine fromIt = Lumora2Engine::create(*graphs_, avatar, settings);
  fromIt->warmUpFrom(primedHere->primed());
  Engine unprimed = engineFor(*graphs_, generatedFamily().avatar("ava"), settings);
  quiet.finish();
  ASSERT_TRUE(fromIt->isReady() && unprimed);

  auto render = [](Lumora2Engine& engine) {
    std::vector<std::vector<std::uint8_t>> frames;
    engine.feed(tone(40000));
    engine.flushTail();
    while (engine.hasPendingTail() || engine.queuedFrames() > 0) {
      settle(engine.shared_from_this());
      for (auto& item : drain(engine)) frames.push_back(std::move(item.pixels));
    }
    return frames;
  };
  const auto expected = render(*primedHere);
  ASSERT_EQ(expected.size(), 50u);
  EXPECT_TRUE(render(*fromIt) == expected);
  EXPECT_FALSE(render(*unprimed) == expected);
}

// The decoder makes several pictures in one run where it takes a batch (the family's does):
// every batch size, full and partial batches alike, renders the very bytes of one at a time.
class DecoderBatches : public FamilyEngine, public ::testing::WithParamInterface<std::int64_t> {};

TEST_P(DecoderBatches, RenderTheBytesOfOnePictureARun) {
  auto render = [](std::int64_t batch) {
    EngineSettings settings = *settings_;
    settings.decoderBatch = batch;
    StderrCapture quiet;
    Engine engine = engineFor(*graphs_, generatedFamily().avatar("ava"), settings);
    std::vector<std::vector<std::uint8_t>> frames;
    if (!engine) return frames;
    engine->feed(synthesizeSpeech(3.0));
    engine->flushTail();
    for (int round = 0; round < 100 && (engine->hasPendingTail() || engine->queuedFrames() > 0);
         ++round) {
      settle(engine);
      for (auto& item : drain(*engine)) frames.push_back(std::move(item.pixels));
    }
    return frames;
  };
  {
    StderrCapture quiet;
    const auto avatar = AvatarModel::load(generatedFamily().avatar("ava"), *settings_);
    ASSERT_TRUE(avatar && avatar->decoderTakesBatch());
  }
  const auto single = render(1);
  ASSERT_GE(single.size(), 50u);
  EXPECT_TRUE(render(GetParam()) == single);
}

INSTANTIATE_TEST_SUITE_P(FamilyEngine, DecoderBatches, ::testing::Values(2, 3, 8, 32));

// Lip sync: tone bursts at several places relative to the chunk grid (12, 8 and 4 frames before
// a chunk boundary, on one, 4 after) open the mouth at one constant frame offset from the audio,
// the same in every chunk and again after a flush restarts the segment at position 0. Openness
// is read from the pulled frames: how much darker the mouth box is than when shut.
TEST_F(FamilyEngine, MouthFollowsTheAudioAtOneOffsetInEveryChunk) {
  constexpr std::int64_t kFrame = Lumora2Engine::SPF;
  const std::vector<std::int64_t> bursts = {20, 56, 92, 128, 164};  // first frame of each burst
  constexpr std::int64_t kBurstFrames = 8;
  std::vector<float> audio(static_cast<std::size_t>(200 * kFrame), 0.0f);
  for (const std::int64_t b : bursts) {
    const std::vector<float> burst = tone(kBurstFrames * kFrame);
    std::copy(burst.begin(), burst.end(), audio.begin() + b * kFrame);
  }

  Engine engine = warmed();
  for (int utterance = 0; utterance < 2; ++utterance) {
    // Fed a second at a time and pulled as it goes, so back-pressure never holds the segment.
    std::map<std::int64_t, double> grey;
    auto collect = [&] {
      settle(engine);
      for (const auto& item : drain(*engine)) grey[item.info.pos] = mouthGrey(item.pixels.data());
    };
    for (std::size_t at = 0; at < audio.size(); at += 16000) {
      const std::size_t end = std::min(audio.size(), at + 16000);
      engine->feed(std::vector<float>(audio.begin() + static_cast<std::ptrdiff_t>(at),
                                      audio.begin() + static_cast<std::ptrdiff_t>(end)));
      collect();
    }
    engine->flushTail();
    collect();
    ASSERT_EQ(grey.size(), 200u) << "utterance " << utterance;
    ASSERT_EQ(grey.begin()->first, 0) << "utterance " << utterance;

    double shut = 0;
    for (const auto& [pos, g] : grey) shut = std::max(shut, g);
    double widest = 0;
    for (const auto& [pos, g] : grey) widest = std::max(widest, shut - g);
    ASSERT_GT(widest, 10.0) << "the mouth never opened";
    // Each burst's opening: the first frame past half the widest opening, searched from 8
    // frames before the burst.
    std::vector<std::int64_t> offsets;
    for (const std::int64_t b : bursts) {
      std::int64_t p = b - 8;
      while (p < b + 24 && shut - grey[p] < widest / 2) ++p;
      offsets.push_back(p - b);
    }
    EXPECT_THAT(offsets, ::testing::Each(offsets.front())) << "utterance " << utterance;
    EXPECT_LE(std::abs(offsets.front()), 2) << "utterance " << utterance;
  }
}

}  // namespace
}  // namespace lumora2::family::test
