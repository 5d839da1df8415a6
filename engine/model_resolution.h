// Where the engine finds graph packages and identity resources: the identity and engine
// directories the render commands set, the developer directory from the environment, and the
// bundle locations, searched in a fixed order. Process-wide; every setting is read and written
// under one mutex.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace lumora2 {

class ModelResolution {
 public:
  using Path = std::filesystem::path;

  // The unpacked identity directory; the render commands set it before building an engine.
  static std::optional<Path> activeAgentDir();
  static void setActiveAgentDir(std::optional<Path> dir);
  // The unpacked engine directory, for embedders that set it directly.
  static std::optional<Path> engineDir();
  static void setEngineDir(std::optional<Path> dir);
  // MORVANE_LUMORA2_DIR when set and non-empty, else MORVANE_VIVRA_DIR when set and non-empty,
  // with a leading "~" expanded; read on every call.
  static std::optional<Path> devDir();

  // <name>.mlpackage in activeAgentDir, devDir, engineDir, then the own bundle ("vivra", top
  // level) and the main bundle ("vivra", top level). Any kind of file-system object counts.
  static std::optional<Path> modelURL(std::string_view name);
  // <name>.<ext>: only activeAgentDir when it is set; otherwise devDir, then the four bundle
  // locations. engineDir is never searched for resources.
  static std::optional<Path> resURL(std::string_view name, std::string_view ext);
};

}  // namespace lumora2
