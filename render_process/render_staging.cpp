#include "render_staging.h"

#include <cstdlib>
#include <exception>
#include <string>

#include "container/archive.h"
#include "container/error.h"
#include "container/verify.h"
#include "engine/lumora2_engine.h"
#include "host/args.h"
#include "host/command.h"
#include "render_support.h"

namespace lumora2 {
RenderManifests readRenderManifests(const std::filesystem::path& engine,
                                    const std::filesystem::path& avatar) {
  const std::string engineBytes = Archive::readManifest(engine);
  const std::string avatarBytes = Archive::readManifest(avatar);
  std::string swapped;
  if (ManifestJSON::kindOf(engineBytes) == ManifestJSON::Kind::avatar) {
    swapped = engine.string() + " is an avatar file, not an engine file";
  }
  if (ManifestJSON::kindOf(avatarBytes) == ManifestJSON::Kind::engine) {
    swapped +=
        (swapped.empty() ? "" : "; ") + avatar.string() + " is an engine file, not an avatar file";
  }
  if (!swapped.empty()) throw Err(swapped);
  RenderManifests manifests{ManifestJSON::decodeEngine(engineBytes),
                            ManifestJSON::decodeAvatar(avatarBytes)};
  if (!EngineManifest::kAcceptedFormats.contains(manifests.engine.format)) {
    throw Err("engine: bad format '" + manifests.engine.format + "'");
  }
  if (!AvatarManifest::kAcceptedFormats.contains(manifests.avatar.format)) {
    throw Err("avatar: bad format '" + manifests.avatar.format + "'");
  }
  return manifests;
}

void verifyStaged(const std::filesystem::path& dir, const RenderManifests& manifests) {
  std::string problems;
  auto check = [&](const std::filesystem::path& root, const std::map<std::string, FileRef>& files) {
    for (const auto& [key, ref] : files) {  // std::map: ascending key order
      const MemberCheck result = checkDeclaredMember(root, key, ref);
      if (!result.problem.empty()) problems += (problems.empty() ? "" : "; ") + result.problem;
    }
  };
  check(dir / "engine", manifests.engine.files);
  check(dir / "avatar", manifests.avatar.files);
  if (!problems.empty()) throw Err("checksum problems: " + problems);
}

std::optional<std::vector<float>> stageForRendering(const std::filesystem::path& engine,
                                                    const std::filesystem::path& avatar,
                                                    const std::filesystem::path& dir) {
  const std::filesystem::path engineDir = dir / "engine";
  const std::filesystem::path avatarDir = dir / "avatar";
  Archive::unzip(engine, engineDir);
  Archive::unzip(avatar, avatarDir);
  Lumora2Engine::setActiveAgentDir(avatarDir);
  ::setenv("MORVANE_VIVRA_DIR", engineDir.c_str(), 1);
  try {
    return loadWav(engineDir / "warm.wav", warmSamples());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace lumora2
