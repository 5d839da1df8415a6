// Engines on the reference family's staged files, made the way the render commands make them:
// settings from this process's environment, with the family's engine directory where the render
// commands put the unpacked engine and a compiled-model cache of the test's own.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/lumora2_engine.h"
#include "family_fixture.h"

namespace lumora2::family::test {

inline EngineSettings familySettings(const std::string& cacheName) {
  EngineSettings settings = EngineSettings::fromEnvironment();
  settings.vivraDir = generatedFamily().engine();
  settings.cacheRoot = generatedFamily().root / cacheName;
  return settings;
}

// A warmed engine on `graphs` for the avatar in `dir`; null when the avatar or the warm-up
// fails.
inline std::shared_ptr<Lumora2Engine> engineFor(
    std::shared_ptr<const EngineGraphs> graphs, const std::filesystem::path& dir,
    const EngineSettings& settings,
    const std::optional<std::vector<float>>& speech = std::nullopt) {
  return Lumora2Engine::warmed(std::move(graphs), AvatarModel::load(dir, settings), settings,
                               speech);
}

struct PulledFrame {
  Lumora2Engine::FrameInfo info;
  std::vector<std::uint8_t> pixels;
};

// Every frame ready now, in `order`.
inline std::vector<PulledFrame> drain(Lumora2Engine& engine, PixelOrder order = PixelOrder::bgr) {
  std::vector<PulledFrame> out;
  for (;;) {
    std::vector<std::uint8_t> pixels(Lumora2Engine::kFrameBytes);
    std::optional<Lumora2Engine::FrameInfo> info = engine.pullInto(pixels, order);
    if (!info) return out;
    out.push_back({*info, std::move(pixels)});
  }
}

}  // namespace lumora2::family::test
