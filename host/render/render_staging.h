// Where validate and render-stream put the two containers before the engine warms up.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

namespace lumora2 {

// Unpacks the engine into `dir`/engine and the avatar into `dir`/avatar (throwing the archive's
// error; what was unpacked stays for the caller to remove), points the engine at them (the active
// identity directory and MORVANE_VIVRA_DIR) and returns the engine's warm speech looped to
// warmSamples(), or nothing when it has none: warm-up then runs without its speech pass.
std::optional<std::vector<float>> stageForRendering(const std::filesystem::path& engine,
                                                    const std::filesystem::path& avatar,
                                                    const std::filesystem::path& dir);

}  // namespace lumora2
