// Where the engine file's graph packages are found: the developer directory, then the engine
// directory, then the bundles beside the running executable. An avatar's own members (its
// decoder, canonical frame and idle clip) are never searched for: they live in the avatar's
// directory and nowhere else (avatar_model.h).
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "engine/engine_settings.h"

namespace lumora2 {

class ModelResolution {
 public:
  using Path = std::filesystem::path;

  // The settings' developer and engine directories.
  explicit ModelResolution(const EngineSettings& settings);

  // <name>.mlpackage in the developer directory, the engine directory, then the own bundle
  // (<exe dir>/../share/lumora2-model: "vivra", then top level) and the main bundle (<exe dir>:
  // "vivra", then top level). Any kind of file-system object counts.
  std::optional<Path> modelURL(std::string_view name) const;

 private:
  std::optional<Path> devDir_;
  std::optional<Path> engineDir_;
};

}  // namespace lumora2
