// Where graph packages are found: the developer and engine directories, then the two bundles.
#include "model_resolution.h"

#include <string>
#include <vector>

#include "fs_ops.h"

namespace lumora2 {

using Path = std::filesystem::path;

namespace {

// The four bundle locations in search order: the bundle holding the engine's own code
// (<exe dir>/../share/lumora2-model), then the main bundle (<exe dir>), each first in its
// "vivra" subdirectory, then at its top level.
std::vector<Path> bundleLocations() {
  std::vector<Path> out;
  auto exeDir = fsops::executableDir();
  if (!exeDir) return out;
  Path own = (*exeDir / ".." / "share" / "lumora2-model").lexically_normal();
  for (const Path& bundle : {own, *exeDir}) {
    out.push_back(bundle / "vivra");
    out.push_back(bundle);
  }
  return out;
}

}  // namespace

ModelResolution::ModelResolution(const EngineSettings& settings)
    : devDir_(settings.devDir()), engineDir_(settings.engineDir) {}

std::optional<Path> ModelResolution::modelURL(std::string_view name) const {
  const std::string file = std::string(name) + ".mlpackage";
  std::vector<Path> candidates;
  for (const auto& dir : {devDir_, engineDir_}) {
    if (dir) candidates.push_back(*dir / file);
  }
  for (const Path& location : bundleLocations()) candidates.push_back(location / file);
  for (const Path& candidate : candidates) {
    if (fsops::existsAnyKind(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace lumora2
