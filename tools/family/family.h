// The reference model family: staging directories for the engine and every identity, packed into
// vivra.model and <code>.avatar with the host's own pack commands.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "family/graphs.h"
#include "family/identity.h"

namespace lumora2::family {

inline constexpr double kWarmSpeechSeconds = 5.0;
// Idle clips last one gaze cycle (30 tokens = 120 frames = 6 s) so that they loop smoothly.
inline constexpr int kIdleTokens = 30;
inline constexpr int kFramesPerSecond = 20;

struct FamilyOptions {
  std::filesystem::path out;  // receives vivra.model, <code>.avatar and staging/
  GraphOptions graphs;
  int abi = 1;
  std::optional<std::filesystem::path> host;  // the lumora2-model binary; none: stage only
};

struct Artifact {
  std::filesystem::path path;
  std::uintmax_t bytes = 0;
  std::string sha256;
};

struct FamilyResult {
  std::filesystem::path staging;
  std::string videoEncoder;
  std::vector<Artifact> artifacts;  // packed files, empty when only staged
};

using ProgressLine = std::function<void(const std::string&)>;

// <dir>: the three engine packages and warm.wav.
void stageEngine(const std::filesystem::path& dir, const GraphOptions& graphs);
// <dir>: the decoder package, canon.f32, idle.mp4 and provenance.json, bound to the engine's
// student through its SHA-256. Returns the video encoder's name.
std::string stageAvatar(const std::filesystem::path& dir, const Identity& id,
                        const GraphOptions& graphs, const std::string& studentSha256);

// Replaces <out>/staging and writes the whole family; packs when options.host is set.
FamilyResult buildFamily(const FamilyOptions& options, const ProgressLine& progress);

}  // namespace lumora2::family
