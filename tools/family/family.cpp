#include "family/family.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "container/archive.h"
#include "family/host_pack.h"
#include "family/idle_video.h"
#include "family/latent.h"
#include "family/portrait.h"
#include "family/speech.h"

namespace lumora2::family {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTrainerVersion = "lumora2-family/1";

void writeProvenance(const fs::path& path, const Identity& id, const GraphOptions& graphs,
                     const std::string& studentSha256, const std::string& decoderSha256) {
  // Keys are the provenance record's snake-case names; nlohmann keeps them sorted.
  const nlohmann::json provenance = {
      {"trainer_version", kTrainerVersion},
      {"student_kind", graphs.faultyStudent ? "v4_forward_frame/faulty" : "v4_forward_frame"},
      {"student_kind_source", "reference-family"},
      {"w2v_kind", graphs.heavy ? "loudness+transformer12x768" : "loudness"},
      {"agent_code", id.code},
      {"student_sha256", studentSha256},
      {"decv3_sha256", decoderSha256},
  };
  std::ofstream out(path, std::ios::trunc);
  out << provenance.dump(2) << "\n";
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

fs::path packageModel(const fs::path& dir, std::string_view package) {
  return dir / (std::string(package) + ".mlpackage") / "model.pt";
}

Artifact describe(const fs::path& path) {
  return {path, fs::file_size(path), Archive::digest(path).sha256};
}

}  // namespace

void stageEngine(const fs::path& dir, const GraphOptions& graphs) {
  fs::create_directories(dir);
  writeEngineGraphs(dir, graphs);
  writeWav(dir / "warm.wav", synthesizeSpeech(kWarmSpeechSeconds));
}

std::string stageAvatar(const fs::path& dir, const Identity& id, const GraphOptions& graphs,
                        const std::string& studentSha256) {
  fs::create_directories(dir);
  writeDecoderGraph(dir, id, graphs);
  writeFloatsLE(dir / "canon.f32", canonLatent(id));
  const std::string encoder = writeIdleClip(dir / "idle.mp4", renderIdleFrames(id, kIdleTokens),
                                            kPictureWidth, kPictureHeight, kFramesPerSecond);
  writeProvenance(dir / "provenance.json", id, graphs, studentSha256,
                  Archive::digest(packageModel(dir, kDecoderPackage)).sha256);
  return encoder;
}

FamilyResult buildFamily(const FamilyOptions& options, const ProgressLine& progress) {
  FamilyResult result;
  result.staging = options.out / "staging";
  fs::remove_all(result.staging);
  fs::create_directories(result.staging);

  const fs::path engineDir = result.staging / "engine";
  progress("writing engine graphs and warm.wav into " + engineDir.string());
  stageEngine(engineDir, options.graphs);
  const std::string studentSha = Archive::digest(packageModel(engineDir, kStudentPackage)).sha256;

  for (const Identity& id : familyIdentities()) {
    progress("writing avatar '" + id.code + "' (decoder, canon, idle clip, provenance)");
    result.videoEncoder = stageAvatar(result.staging / id.code, id, options.graphs, studentSha);
  }
  if (!options.host) return result;

  const fs::path engineOut = options.out / "vivra.model";
  progress("packing " + engineOut.string());
  packEngine(*options.host, engineDir, engineOut, options.abi);
  result.artifacts.push_back(describe(engineOut));
  for (const Identity& id : familyIdentities()) {
    const fs::path avatarOut = options.out / (id.code + ".avatar");
    progress("packing " + avatarOut.string());
    packAvatar(*options.host, result.staging / id.code, id, avatarOut, options.abi);
    result.artifacts.push_back(describe(avatarOut));
  }
  return result;
}

}  // namespace lumora2::family
