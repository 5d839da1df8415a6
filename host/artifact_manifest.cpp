#include "artifact_manifest.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "container/progress.h"
#include "host/command.h"

namespace lumora2 {

namespace fs = std::filesystem;

std::string ArtifactManifest::description() const {
  if (engine) return "ENGINE format=" + engine->format + " abi=" + std::to_string(engine->abi);
  return "AVATAR code=" + avatar->code +
         " requires_engine_abi=" + std::to_string(avatar->requiresEngineAbi);
}

const std::map<std::string, FileRef>& ArtifactManifest::files() const {
  return engine ? engine->files : avatar->files;
}

std::int64_t ArtifactManifest::engineAbi() const {
  nlohmann::json parsed = nlohmann::json::parse(bytes, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_object()) {
    auto it = parsed.find("engine_abi");
    if (it != parsed.end() && it->is_number_integer()) return it->get<std::int64_t>();
  }
  return engine ? engine->abi : avatar->requiresEngineAbi;
}

ArtifactManifest readArtifactManifest(const fs::path& artifact) {
  // Neither magic: let the IMX reader say what the file is, rather than the zip tool's complaint.
  if (!Lumora2Container::isContainer(artifact) && !Lumora2Container::isLegacyZip(artifact)) {
    try {
      Lumora2Container::members(artifact);
    } catch (const Lumora2ContainerError& e) {
      throw Err(std::string("IMX: ") + e.what());
    }
  }
  ArtifactManifest manifest;
  manifest.bytes = Archive::readManifest(artifact);
  try {
    EngineManifest engine = ManifestJSON::decodeEngine(manifest.bytes);
    if (EngineManifest::kAcceptedFormats.contains(engine.format)) {
      manifest.engine = std::move(engine);
      return manifest;
    }
  } catch (const ArtifactError&) {
    // Not an engine manifest; try the avatar's record below.
  }
  try {
    AvatarManifest avatar = ManifestJSON::decodeAvatar(manifest.bytes);
    if (AvatarManifest::kAcceptedFormats.contains(avatar.format)) {
      manifest.avatar = std::move(avatar);
      return manifest;
    }
  } catch (const ArtifactError&) {
    // Neither; reported below.
  }
  throw Err("unrecognized manifest format in " + artifact.filename().string());
}

std::vector<std::string> checksumProblems(const fs::path& root,
                                          const std::map<std::string, FileRef>& declared) {
  std::uint64_t total = 0;
  for (const auto& [label, ref] : declared)
    total += static_cast<std::uint64_t>(std::max<std::int64_t>(ref.bytes, 0));
  TerminalProgress meter("verifying");
  std::uint64_t before = 0;
  std::vector<std::string> problems;
  for (const auto& [label, ref] : declared) {  // std::map: ascending label order
    // A declared path that would leave the unpacked tree names nothing the container could hold.
    if (!Lumora2Container::landsInsideDestination(ref.path)) {
      problems.push_back(label + ": refusing path " + ref.path + " outside the container");
      continue;
    }
    fs::path file = root / ref.path;
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(file, ec))) {
      problems.push_back(label + ": missing " + ref.path);
      continue;
    }
    ProgressFn draw = meter.callback();
    Archive::Digest digest = Archive::digest(
        file,
        draw ? ProgressFn([&](std::uint64_t done, std::uint64_t) { draw(before + done, total); })
             : ProgressFn{});
    before += digest.bytes;
    if (digest.sha256 != ref.sha256) {
      problems.push_back(label + ": sha mismatch (" + ref.path + ") declared=" +
                         ref.sha256.substr(0, 16) + " actual=" + digest.sha256.substr(0, 16));
    }
  }
  return problems;
}

}  // namespace lumora2
