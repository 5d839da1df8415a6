#include "render_staging.h"

#include <exception>
#include <string>

#include "container/archive.h"
#include "container/error.h"
#include "container/verify.h"
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

void checkMembers(const std::filesystem::path& root, const std::map<std::string, FileRef>& files,
                  std::string& problems) {
  for (const auto& [key, ref] : files) {  // std::map: ascending key order
    const MemberCheck result = checkDeclaredMember(root, key, ref);
    if (!result.problem.empty()) problems += (problems.empty() ? "" : "; ") + result.problem;
  }
}

void verifyStaged(const std::filesystem::path& dir, const RenderManifests& manifests) {
  std::string problems;
  checkMembers(dir / "engine", manifests.engine.files, problems);
  checkMembers(dir / "avatar", manifests.avatar.files, problems);
  if (!problems.empty()) throw Err("checksum problems: " + problems);
}

StagedRender stageForRendering(const std::filesystem::path& engine,
                               const std::filesystem::path& avatar,
                               const std::filesystem::path& dir) {
  StagedRender staged{dir / "engine", dir / "avatar", std::nullopt};
  Archive::unzip(engine, staged.engineDir);
  Archive::unzip(avatar, staged.avatarDir);
  try {
    staged.warmSpeech = loadWav(staged.engineDir / "warm.wav", warmSamples());
  } catch (const std::exception&) {
    staged.warmSpeech.reset();
  }
  return staged;
}

std::shared_ptr<Lumora2Engine> warmEngine(const StagedRender& staged, EngineSettings settings) {
  settings.vivraDir = staged.engineDir;
  // The avatar first: a refused one ends the start before the graphs are loaded.
  std::shared_ptr<const AvatarModel> avatar = AvatarModel::load(staged.avatarDir, settings);
  if (!avatar) return nullptr;
  std::shared_ptr<const EngineGraphs> graphs = EngineGraphs::load(settings);
  return Lumora2Engine::warmed(std::move(graphs), std::move(avatar), settings, staged.warmSpeech);
}

}  // namespace lumora2
