// Where validate and render-stream put the two containers before the engine warms up.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "container/manifest.h"
#include "engine/engine_settings.h"
#include "engine/lumora2_engine.h"

namespace lumora2 {

struct RenderManifests {
  EngineManifest engine;
  AvatarManifest avatar;
};

// Reads both manifests without unpacking anything. A container given in the other's place is
// refused by its format tag ("<path> is an avatar file, not an engine file", or the reverse, both
// in one line when both are swapped); otherwise a manifest that does not decode throws the
// decoder's error and an unknown format tag throws "engine: bad format '…'" ("avatar: …").
RenderManifests readRenderManifests(const std::filesystem::path& engine,
                                    const std::filesystem::path& avatar);

// Digests every declared member of both containers as stageForRendering unpacked them under
// `dir` (engine first) and throws Err "checksum problems: <problem>; <problem>…" in one line when
// any is missing or does not match, in the forms validate and unpack print.
void verifyStaged(const std::filesystem::path& dir, const RenderManifests& manifests);
// The same for one container unpacked at `root`: each problem appended to `problems`, "; "
// between them.
void checkMembers(const std::filesystem::path& root, const std::map<std::string, FileRef>& files,
                  std::string& problems);

// The two containers unpacked for rendering, and the engine's warm speech.
struct StagedRender {
  std::filesystem::path engineDir;  // `dir`/engine
  std::filesystem::path avatarDir;  // `dir`/avatar
  // warm.wav looped to warmSamples(); nothing when the engine has none it can read, and warm-up
  // then runs without its speech pass.
  std::optional<std::vector<float>> warmSpeech;
};

// Unpacks the engine into `dir`/engine and the avatar into `dir`/avatar, throwing the archive's
// error (what was unpacked stays for the caller to remove).
StagedRender stageForRendering(const std::filesystem::path& engine,
                               const std::filesystem::path& avatar,
                               const std::filesystem::path& dir);

// An engine on the staged containers, warmed up with their warm speech: the avatar is the
// unpacked one, and the graphs are looked for in the unpacked engine first (it takes the place
// of MORVANE_VIVRA_DIR in `settings`; a MORVANE_LUMORA2_DIR still comes before it). Nothing when
// the avatar, the graphs or the warm-up fail; the engine's log says why.
std::shared_ptr<Lumora2Engine> warmEngine(const StagedRender& staged, EngineSettings settings);

}  // namespace lumora2
