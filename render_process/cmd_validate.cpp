// validate <X.avatar> --engine vivra.model [--min-sharp F] [--onset-ratio R]: the one-shot
// self-test of an avatar against an engine. Manifests, formats, the ABI pairing and every member's
// checksum are checked first, in that order; then both are unpacked into a private temporary
// directory (removed on every path), an engine is warmed up on them, a short piece of speech is
// rendered and the frames are judged by their sharpness. The first failed check throws.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "container/archive.h"
#include "container/error.h"
#include "container/manifest.h"
#include "container/platform.h"
#include "container/verify.h"
#include "engine/lumora2_engine.h"
#include "host/args.h"
#include "host/command.h"
#include "render_commands.h"
#include "render_staging.h"
#include "render_support.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

constexpr double kDefaultMinSharp = 12.0;
constexpr double kDefaultOnsetRatio = 0.6;
constexpr std::size_t kMaxFrames = 60;
constexpr std::size_t kMinFrames = 20;
constexpr auto kCollectBudget = std::chrono::duration<double>(40.0);
constexpr auto kPollPause = std::chrono::milliseconds(20);

// An option read as a number; absent or not a number gives the fallback.
double decimalOption(const Options& options, const std::string& name, double fallback) {
  const std::string* raw = option(options, name);
  if (raw == nullptr) return fallback;
  return parseDecimal(*raw).value_or(fallback);
}

template <typename... Args>
std::string formatted(const char* format, Args... args) {
  char text[512];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

void print(const std::string& line) { std::cout << line << std::endl; }

double meanOf(const std::vector<double>& values, std::size_t from, std::size_t to) {
  double sum = 0;
  for (std::size_t i = from; i < to; ++i) sum += values[i];
  return sum / static_cast<double>(to - from);
}

// Frames of the test speech, polled until 60 are held or the budget is spent.
std::vector<std::vector<std::uint8_t>> collectFrames(Lumora2Engine& engine) {
  std::vector<std::vector<std::uint8_t>> frames;
  std::vector<std::uint8_t> frame;
  const auto deadline = std::chrono::steady_clock::now() + kCollectBudget;
  while (frames.size() < kMaxFrames) {
    if (std::chrono::steady_clock::now() > deadline) {
      if (frames.size() < kMinFrames) {
        throw Err("only " + std::to_string(frames.size()) +
                  " frames rendered (expected ≥20) — engine not producing");
      }
      break;
    }
    frame.resize(Lumora2Engine::kFrameBytes);  // a new buffer only after one was kept
    if (engine.pullInto(frame)) {
      frames.push_back(std::move(frame));
    } else {
      std::this_thread::sleep_for(kPollPause);
    }
  }
  return frames;
}

}  // namespace

int renderValidate(const Positionals& positionals, const Options& options) {
  const fs::path avatarPath = positionals.at(0);
  const fs::path enginePath = *option(options, "engine");
  const double minSharp = decimalOption(options, "min-sharp", kDefaultMinSharp);
  const double onsetRatio = decimalOption(options, "onset-ratio", kDefaultOnsetRatio);
  // The environment is read here, once; the engine is handed what it says.
  const EngineSettings settings = EngineSettings::fromEnvironment();

  // Swapped files are named as such; then the format tags.
  const RenderManifests manifests = readRenderManifests(enginePath, avatarPath);
  const EngineManifest& engineManifest = manifests.engine;
  const AvatarManifest& avatarManifest = manifests.avatar;
  if (avatarManifest.requiresEngineAbi != engineManifest.abi) {
    throw Err("ABI mismatch: avatar requires engine abi " +
              std::to_string(avatarManifest.requiresEngineAbi) + ", engine is abi " +
              std::to_string(engineManifest.abi));
  }
  std::vector<std::string> problems = verifyChecksums(enginePath, engineManifest.files);
  for (std::string& p : verifyChecksums(avatarPath, avatarManifest.files)) {
    problems.push_back(std::move(p));
  }
  if (!problems.empty()) {
    std::string message = "checksum problems:";
    for (const std::string& p : problems) message += "\n  " + p;
    throw Err(message);
  }
  print("  manifests OK · ABI " + std::to_string(engineManifest.abi) +
        " compatible · checksums OK");

  const ScratchDir scratch("");
  const StagedRender staged = stageForRendering(enginePath, avatarPath, scratch.path());
  print("  warming up (this loads + compiles the graphs)…");
  std::shared_ptr<Lumora2Engine> engine = warmEngine(staged, settings);
  if (!engine) throw Err("warmUp failed — engine not ready (missing/incompatible graphs?)");

  const std::vector<float> testSpeech = loadWav(staged.engineDir / "warm.wav");
  engine->resetState(true);
  engine->feed(testSpeech);
  const std::vector<std::vector<std::uint8_t>> frames = collectFrames(*engine);

  if (std::all_of(frames.begin(), frames.end(),
                  [&](const std::vector<std::uint8_t>& f) { return f == frames.front(); })) {
    throw Err("degenerate: every rendered frame is identical (not animating)");
  }
  std::vector<double> sharp;
  sharp.reserve(frames.size());
  for (const auto& frame : frames)
    sharp.push_back(sharpness(frame, Lumora2Engine::kWidth, Lumora2Engine::kHeight));
  const std::size_t n = sharp.size();
  const std::size_t span = std::min<std::size_t>(10, n);
  const double onset = meanOf(sharp, 0, span);
  const double converged = meanOf(sharp, n - span, n);
  const double mean = meanOf(sharp, 0, n);
  print(formatted("  rendered %d frames · sharpness onset=%.0f converged=%.0f mean=%.0f",
                  static_cast<int>(n), onset, converged, mean));
  if (mean < minSharp) {
    throw Err(
        formatted("render blank/degenerate: mean sharpness %.0f < floor %.0f", mean, minSharp));
  }
  if (converged > 1.0 && onset < onsetRatio * converged) {
    throw Err(
        formatted("onset warped/soft: onset %.0f < %.2f × converged %.0f (speech-warm not "
                  "applied?)",
                  onset, onsetRatio, converged));
  }
  print("  ✓ VALID — " + avatarManifest.code + " (" + avatarManifest.name +
        ") loads + renders a usable identity on engine abi " + std::to_string(engineManifest.abi));
  return kExitOk;
}

}  // namespace lumora2
