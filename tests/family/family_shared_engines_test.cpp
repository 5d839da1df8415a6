// Two engines in one process, for ava and bram, on one set of shared graphs, rendering at the same
// time from two threads, give every frame byte for byte what two render-stream processes give for
// the same messages, and so do sessions of both (and a third, started warm from the first's
// priming) in one render-sessions process. The test also prints what the second engine costs
// (resident memory, start time) beside what a fresh render-stream process costs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include "container/sha256.h"
#include "family/speech.h"
#include "family_engines.h"
#include "host/args.h"
#include "protocol/i420.h"
#include "protocol/session_wire.h"
#include "protocol/stream_wire.h"
#include "render_support.h"

extern char** environ;

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

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

double residentMiB(const std::string& process = "self") {
  std::ifstream in("/proc/" + process + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
  }
  return 0;
}

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
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
  Segments i420;           // the same frames' 4:2:0 forms
  double readyMs = 0;      // from the spawn to its READY line
  double readyRssMiB = 0;  // its resident set then
  double peakRssMiB = 0;   // its largest resident set
  std::string readyLine;   // its "[render-stream] ready in …" line
};

// Runs `args` with `input` on standard input, handing its output to `consume` as it comes.
ChildRun runChild(std::vector<std::string> args, const std::string& input, const fs::path& stem,
                  const std::function<void(const std::uint8_t*, std::size_t)>& consume) {
  const fs::path in = stem.string() + ".in", err = stem.string() + ".err";
  std::ofstream(in, std::ios::binary) << input;
  int out[2];
  if (::pipe(out) != 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const auto started = Clock::now();
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (spawned != 0) throw std::runtime_error("cannot start " + args[0]);

  ChildRun run;
  std::string header;
  char c = 0;
  while (::read(out[0], &c, 1) == 1 && c != '\n') header += c;
  run.readyMs = msSince(started);
  run.readyRssMiB = residentMiB(std::to_string(pid));
  EXPECT_EQ(wire::parseHeader(header).width, Lumora2Engine::kWidth);
  std::vector<std::uint8_t> buffer(1 << 20);
  for (ssize_t n; (n = ::read(out[0], buffer.data(), buffer.size())) > 0;) {
    consume(buffer.data(), static_cast<std::size_t>(n));
  }
  ::close(out[0]);
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  run.peakRssMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(err);
  std::ifstream errors(err);
  for (std::string line; std::getline(errors, line);) {
    if (line.find(" ready in ", 0) != std::string::npos) run.readyLine += line + "; ";
  }
  return run;
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
  ChildRun run =
      runChild({LUMORA2_MODEL_BIN, "render-stream", (family.root / (code + ".avatar")).string(),
                "--engine", (family.root / "vivra.model").string()},
               input, scratch / code, [&](const std::uint8_t* data, std::size_t size) {
                 records.consume(data, size, [&](const auto& item) {
                   if (item.kind == wire::RecordReader::Item::Kind::marker) {
                     segments.emplace_back();
                     i420.emplace_back();
                   } else {
                     segments.back().emplace_back(item.position, digest(item.rgb));
                     i420.back().emplace_back(item.position, i420Digest(item.rgb));
                   }
                 });
               });
  segments.pop_back();  // nothing follows the last marker
  i420.pop_back();
  run.segments = std::move(segments);
  run.i420 = std::move(i420);
  return run;
}

// Sessions of `codes` in one `render-sessions` process, their messages interleaved piece by
// piece; each session's segments, by session. A code ending in "+i420" asks for 4:2:0 frames.
std::vector<Segments> renderInSessions(const std::vector<std::string>& codes,
                                       const fs::path& scratch, ChildRun& run) {
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
  run = runChild(
      {renderHost.string(), "render-sessions", "--engine", (family.root / "vivra.model").string()},
      input, scratch / "sessions", [&](const std::uint8_t* data, std::size_t size) {
        records.consume(data, size, [&](const sw::RecordReader::Item& item) {
          Segments& segments = sessions.at(item.session);
          if (item.kind == sw::RecordReader::Item::Kind::marker) {
            segments.emplace_back();
          } else if (item.kind == sw::RecordReader::Item::Kind::frame) {
            segments.back().emplace_back(
                item.position, digest(item.pixels, sw::framePixelBytes(Lumora2Engine::kWidth,
                                                                       Lumora2Engine::kHeight,
                                                                       flags[item.session])));
          } else if (item.kind == sw::RecordReader::Item::Kind::opened) {
            flags.at(item.session) = item.flags;
          } else if (item.kind == sw::RecordReader::Item::Kind::closed) {
            closed.at(item.session) = item.text;
          }
        });
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
  const double baseMiB = residentMiB();
  auto started = Clock::now();
  std::shared_ptr<const EngineGraphs> graphs = EngineGraphs::load(settings);
  ASSERT_TRUE(graphs);
  auto first = engineFor(graphs, generatedFamily().avatar("ava"), settings, warmSpeech);
  ASSERT_TRUE(first);
  const double firstMs = msSince(started), firstMiB = residentMiB();
  started = Clock::now();
  auto second = engineFor(graphs, generatedFamily().avatar("bram"), settings, warmSpeech);
  ASSERT_TRUE(second);
  const double secondMs = msSince(started), secondMiB = residentMiB();

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
  ChildRun shared;
  const std::vector<Segments> sessions =
      renderInSessions({"ava", "bram", "ava+i420"}, scratch, shared);
  EXPECT_EQ(sessions, (std::vector<Segments>{ava.segments, bram.segments, ava.i420}));

  std::printf(
      "graphs + first engine (ava): %+.1f MiB resident, %.0f ms\n"
      "second engine (bram) on the same graphs: %+.1f MiB resident, %.0f ms\n"
      "a fresh render-stream process: READY after %.0f ms (%s), %.1f MiB resident then, "
      "%.1f MiB at its peak\n"
      "render-sessions (ava, bram, ava): READY after %.0f ms, %.1f MiB at its peak; %s\n",
      firstMiB - baseMiB, firstMs, secondMiB - firstMiB, secondMs, ava.readyMs,
      ava.readyLine.c_str(), ava.readyRssMiB, ava.peakRssMiB, shared.readyMs, shared.peakRssMiB,
      shared.readyLine.c_str());
}

}  // namespace
}  // namespace lumora2::family::test
