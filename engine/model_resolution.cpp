// Where graph packages and identity resources are found: the identity, developer and engine
// directories, then the two bundles.
#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "fs_ops.h"
#include "model_resolution.h"
#include "protocol/dev_env.h"

namespace lumora2 {

namespace fs = std::filesystem;
using Path = std::filesystem::path;

namespace {

struct ProcessSettings {
  std::mutex mutex;
  std::optional<Path> activeAgentDir;
  std::optional<Path> engineDir;
};

ProcessSettings& settings() {
  static ProcessSettings s;
  return s;
}

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

std::string fileName(std::string_view name, std::string_view ext) {
  std::string s(name);
  s += '.';
  s += ext;
  return s;
}

}  // namespace

std::optional<Path> ModelResolution::activeAgentDir() {
  std::lock_guard lock(settings().mutex);
  return settings().activeAgentDir;
}

void ModelResolution::setActiveAgentDir(std::optional<Path> dir) {
  std::lock_guard lock(settings().mutex);
  settings().activeAgentDir = std::move(dir);
}

std::optional<Path> ModelResolution::engineDir() {
  std::lock_guard lock(settings().mutex);
  return settings().engineDir;
}

void ModelResolution::setEngineDir(std::optional<Path> dir) {
  std::lock_guard lock(settings().mutex);
  settings().engineDir = std::move(dir);
}

std::optional<Path> ModelResolution::devDir() {
  for (std::string_view knob : {"MORVANE_LUMORA2_DIR", "MORVANE_VIVRA_DIR"}) {
    auto value = DevEnv::knob(knob);
    if (value && !value->empty()) return Path(fsops::expandTilde(*value));
  }
  return std::nullopt;
}

std::optional<Path> ModelResolution::modelURL(std::string_view name) {
  const std::string file = fileName(name, "mlpackage");
  for (const auto& dir : {activeAgentDir(), devDir(), engineDir()}) {
    if (!dir) continue;
    Path candidate = *dir / file;
    if (fsops::existsAnyKind(candidate)) return candidate;
  }
  for (const Path& location : bundleLocations()) {
    Path candidate = location / file;
    if (fsops::existsAnyKind(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<Path> ModelResolution::resURL(std::string_view name, std::string_view ext) {
  const std::string file = fileName(name, ext);
  // A downloaded identity's files live only in its own directory: when one is active, nothing
  // else is consulted.
  if (auto agent = activeAgentDir()) {
    Path candidate = *agent / file;
    if (fsops::existsAnyKind(candidate)) return candidate;
    return std::nullopt;
  }
  if (auto dev = devDir()) {
    Path candidate = *dev / file;
    if (fsops::existsAnyKind(candidate)) return candidate;
  }
  for (const Path& location : bundleLocations()) {
    Path candidate = location / file;
    if (fsops::existsAnyKind(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace lumora2
