// Two engines in one process, for ava and bram, on one set of shared graphs, rendering at the same
// time from two threads, give every frame byte for byte what two render-stream processes give for
// the same messages, and so do sessions of both (and a third, started warm from the first's
// priming) in one render-sessions process. What a session costs there against a render-stream
// child is bench/serve_pool.sh's.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "container/sha256.h"
#include "family/speech.h"
#include "family_engines.h"
#include "host/args.h"
#include "protocol/i420.h"
#include "protocol/session_wire.h"
#include "protocol/stream_wire.h"
#include "render_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
constexpr std::size_t kPiece = 8000;  // samples per audio message: half a second

// Frame records as they come: position and SHA-256 of the R, G, B pixels; one list per segment.
using Segments = std::vector<std::vector<std::pair<std::uint32_t, std::string>>>;

// The session both sides render: two utterances, each sent in half-second pieces and flushed.
std::vector<std::vector<float>> utterances() {
  std::vector<float> second = synthesizeSpeech(1.3);
  for (float& s : second) s *= 0.7f;
  return {synthesizeSpeech(2.2), second};
}

std::string digest(const std::uint8_t* pixels, std::size_t size = Lumora2Engine::kFrameBytes) {
  Sha256 sha;
  sha.update(pixels, size);
  return sha.hex();
}

// The digest of a frame's 4:2:0 form.
std::string i420Digest(const std::uint8_t* rgb) {
  std::vector<std::uint8_t> planes(wire::i420Bytes(Lumora2Engine::kWidth, Lumora2Engine::kHeight));
  wire::toI420(rgb, Lumora2Engine::kWidth, Lumora2Engine::kHeight, 0, wire::PackedLayout::rgb24,
               planes.data());
  return digest(planes.data(), planes.size());
}

// The session through an engine of this process, driven as render-stream drives its own.
Segments renderInProcess(Lumora2Engine& engine) {
  Segments segments;
  std::vector<std::uint8_t> rgb(Lumora2Engine::kFrameBytes);
  auto drain = [&] {
    while (auto info = engine.pullInto(rgb, PixelOrder::rgb)) {
      segments.back().emplace_back(static_cast<std::uint32_t>(info->pos), digest(rgb.data()));
    }
  };
  for (const std::vector<float>& speech : utterances()) {
    segments.emplace_back();
    for (std::size_t at = 0; at < speech.size(); at += kPiece) {
      engine.feed(std::span(speech).subspan(at, std::min(kPiece, speech.size() - at)));
      drain();
    }
    engine.flushTail();
    while (engine.hasPendingTail() || engine.queuedFrames() > 0) {
      EXPECT_TRUE(engine.waitForScheduledRenders(std::chrono::seconds(60)));
      drain();
    }
  }
  return segments;
}

struct ChildRun {
  Segments segments;
  Segments i420;  // the same frames' 4:2:0 forms
};

// Runs `args` with `input` on standard input; what it wrote after its READY line.
std::string runChild(const std::vector<std::string>& args, const std::string& input,
                     const fs::path& stem) {
  const fs::path in = stem.string() + ".in", err = stem.string() + ".err";
  std::ofstream(in, std::ios::binary) << input;
  std::string command;
  for (const std::string& a : args) command += "'" + a + "' ";
  const Shell run = shell(command + "<'" + in.string() + "'", err);
  EXPECT_EQ(run.status, 0) << readFile(err);
  const std::size_t ready = run.out.find('\n');
  EXPECT_EQ(wire::parseHeader(run.out.substr(0, ready)).width, Lumora2Engine::kWidth);
  return run.out.substr(ready + 1);
}

// The bytes of `text`, as the record readers take them.
const std::uint8_t* bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

// The session through `lumora2-model render-stream <code>.avatar`.
ChildRun renderInChild(const std::string& code, const fs::path& scratch) {
  const GeneratedFamily& family = generatedFamily();
  std::string input;
  for (const std::vector<float>& speech : utterances()) {
    wire::appendAudio(input, speech.data(), speech.size(), kPiece);
    wire::appendControl(input, wire::kFlush);
  }
  wire::appendControl(input, wire::kEndOfStream);
  wire::RecordReader records(Lumora2Engine::kWidth, Lumora2Engine::kHeight);
  Segments segments(1), i420(1);
  const std::string out =
      runChild({LUMORA2_MODEL_BIN, "render-stream", (family.root / (code + ".avatar")).string(),
                "--engine", (family.root / "vivra.model").string()},
               input, scratch / code);
  records.consume(bytes(out), out.size(), [&](const auto& item) {
    if (item.kind == wire::RecordReader::Item::Kind::marker) {
      segments.emplace_back();
      i420.emplace_back();
    } else {
      segments.back().emplace_back(item.position, digest(item.rgb));
      i420.back().emplace_back(item.position, i420Digest(item.rgb));
    }
  });
  segments.pop_back();  // nothing follows the last marker
  i420.pop_back();
  return {segments, i420};
}

// Sessions of `codes` in one `render-sessions` process, their messages interleaved piece by
// piece; each session's segments, by session. A code ending in "+i420" asks for 4:2:0 frames.
std::vector<Segments> renderInSessions(const std::vector<std::string>& codes,
                                       const fs::path& scratch) {
  namespace sw = wire::sessions;
  const GeneratedFamily& family = generatedFamily();
  std::string input;
  for (std::uint32_t s = 0; s < codes.size(); ++s) {
    const bool i420 = codes[s].ends_with("+i420");
    const std::string code = codes[s].substr(0, codes[s].find('+'));
    sw::appendOpen(input, s + 1, i420 ? sw::kFlagI420 : 0,
                   (family.root / (code + ".avatar")).string());
  }
  for (const std::vector<float>& speech : utterances()) {
    for (std::size_t at = 0; at < speech.size(); at += kPiece) {
      for (std::uint32_t s = 0; s < codes.size(); ++s) {
        sw::appendAudio(input, s + 1, speech.data() + at, std::min(kPiece, speech.size() - at));
      }
    }
    for (std::uint32_t s = 0; s < codes.size(); ++s) sw::appendControl(input, s + 1, wire::kFlush);
  }
  for (std::uint32_t s = 0; s < codes.size(); ++s) {
    sw::appendControl(input, s + 1, wire::kEndOfStream);
  }
  sw::RecordReader records(Lumora2Engine::kWidth, Lumora2Engine::kHeight);
  std::vector<Segments> sessions(codes.size() + 1, Segments(1));
  std::vector<std::string> closed(codes.size() + 1);
  std::vector<std::uint32_t> flags(codes.size() + 1);
  const fs::path renderHost = fs::path(LUMORA2_MODEL_BIN).parent_path() / "lumora2-model-render";
  const std::string out = runChild(
      {renderHost.string(), "render-sessions", "--engine", (family.root / "vivra.model").string()},
      input, scratch / "sessions");
  records.consume(bytes(out), out.size(), [&](const sw::RecordReader::Item& item) {
    Segments& segments = sessions.at(item.session);
    if (item.kind == sw::RecordReader::Item::Kind::marker) {
      segments.emplace_back();
    } else if (item.kind == sw::RecordReader::Item::Kind::frame) {
      segments.back().emplace_back(
          item.position,
          digest(item.pixels, sw::framePixelBytes(Lumora2Engine::kWidth, Lumora2Engine::kHeight,
                                                  flags[item.session])));
    } else if (item.kind == sw::RecordReader::Item::Kind::opened) {
      flags.at(item.session) = item.flags;
    } else if (item.kind == sw::RecordReader::Item::Kind::closed) {
      closed.at(item.session) = item.text;
    }
  });
  for (std::size_t s = 1; s < sessions.size(); ++s) {
    EXPECT_EQ(closed[s], sw::kClosedByParent) << "session " << s;
    sessions[s].pop_back();
  }
  sessions.erase(sessions.begin());
  return sessions;
}

TEST(SharedEngines, TwoIdentitiesInOneProcessRenderWhatTwoProcessesRender) {
  if (!generatedFamily().packed) GTEST_SKIP() << "the family is packed only with the host built";
  // This process's edge: the children and the engines here share one compiled-model cache.
  ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "shared-engines-cache").c_str(), 1);
  const fs::path scratch = scratchDir("shared-engines");
  const ChildRun ava = renderInChild("ava", scratch);
  const ChildRun bram = renderInChild("bram", scratch);

  const EngineSettings settings = familySettings("shared-engines-cache");
  const std::optional<std::vector<float>> warmSpeech =
      loadWav(generatedFamily().engine() / "warm.wav", warmSamples());
  std::shared_ptr<const EngineGraphs> graphs = EngineGraphs::load(settings);
  ASSERT_TRUE(graphs);
  auto first = engineFor(graphs, generatedFamily().avatar("ava"), settings, warmSpeech);
  ASSERT_TRUE(first);
  auto second = engineFor(graphs, generatedFamily().avatar("bram"), settings, warmSpeech);
  ASSERT_TRUE(second);

  Segments avaHere, bramHere;
  std::thread other([&] { bramHere = renderInProcess(*second); });
  avaHere = renderInProcess(*first);
  other.join();

  ASSERT_EQ(avaHere.size(), 2u);
  EXPECT_GT(avaHere[0].size(), 30u);
  EXPECT_EQ(avaHere, ava.segments) << "ava: one process's engine against render-stream";
  EXPECT_EQ(bramHere, bram.segments) << "bram: one process's engine against render-stream";
  EXPECT_NE(avaHere, bramHere);

  // One render-sessions process: ava, bram, and ava again started from the first's priming, in
  // 4:2:0.
  const std::vector<Segments> sessions = renderInSessions({"ava", "bram", "ava+i420"}, scratch);
  EXPECT_EQ(sessions, (std::vector<Segments>{ava.segments, bram.segments, ava.i420}));
}

}  // namespace
}  // namespace lumora2::family::test
