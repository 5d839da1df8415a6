// Where validate and render-stream put the two containers before the engine warms up.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "container/manifest.h"

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

// Unpacks the engine into `dir`/engine and the avatar into `dir`/avatar (throwing the archive's
// error; what was unpacked stays for the caller to remove), points the engine at them (the active
// identity directory and MORVANE_VIVRA_DIR) and returns the engine's warm speech looped to
// warmSamples(), or nothing when it has none: warm-up then runs without its speech pass.
std::optional<std::vector<float>> stageForRendering(const std::filesystem::path& engine,
                                                    const std::filesystem::path& avatar,
                                                    const std::filesystem::path& dir);

}  // namespace lumora2
