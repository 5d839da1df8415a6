#include "render_staging.h"

#include <cstdlib>
#include <exception>

#include "container/archive.h"
#include "engine/lumora2_engine.h"
#include "host/args.h"
#include "render_support.h"

namespace lumora2 {

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
