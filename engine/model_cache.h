// The on-disk cache of compiled graphs: package fingerprints, entry names, compile-or-hit,
// pruning, and the one load step with a single purge-and-recompile retry that both the front-end
// graphs and the decoder use. Load code never throws: a failure is "nothing" plus, where the
// engine's log names one, a line on standard error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/compute_units.h"
#include "engine/engine_settings.h"
#include "engine/graph_model.h"
#include "model_resolution.h"

namespace lumora2 {

// One process's view of the cache: its root and retention from the settings, and where
// packages are found (model_resolution.h). Several threads may use one ModelCache, and several
// processes one root.
class ModelCache {
 public:
  using Path = std::filesystem::path;

  struct PackageFingerprint {
    std::string hex;          // SHA-256 of the package content, 64 lowercase hex digits
    std::uint64_t bytes = 0;  // total size of the package's regular files
  };

  explicit ModelCache(const EngineSettings& settings);

  // The package's content digest over its regular files sorted by relative name; nothing when
  // the directory cannot be listed, holds no regular file or has a file that cannot be read.
  static std::optional<PackageFingerprint> packageFingerprint(const Path& url);
  // "<key>-<bytes>-sha<first 32 hex digits>.mlmodelc".
  static std::string cacheEntryName(std::string_view key, const PackageFingerprint& fingerprint);
  // The compiled form of `packageURL`: a cache entry (hit, or compiled and installed now), or a
  // session-temporary compile when there is no cache root, no fingerprint or the install failed.
  std::optional<Path> compiledURL(const Path& packageURL, std::string_view key) const;
  // Evicts entries of `key` in `root`: every legacy entry, then current entries beyond the newest
  // `cacheKeep` of the settings. `keeping` is never removed.
  void prune(const Path& root, std::string_view key, std::string_view keeping) const;
  // Finds, compiles and loads the graph `name`; one purge-and-recompile retry when the compiled
  // form does not load.
  std::shared_ptr<GraphModel> load(std::string_view name, ComputeUnits cu) const;
  // The compile-and-load step that load and the decoder share: the compiled form of `package`
  // under cache key `key`, loaded on `cu`; when it does not load, logs `purgeLine`, removes it,
  // compiles again and loads once more. There is no third attempt.
  struct CompiledLoad {
    std::shared_ptr<GraphModel> model;
    bool compileFailed = false;  // compiledURL gave nothing (on either attempt)
  };
  CompiledLoad loadCompiled(const Path& package, std::string_view key, ComputeUnits cu,
                            std::string_view purgeLine) const;

 private:
  std::optional<Path> root_;
  int keep_;
  ModelResolution resolution_;
};

}  // namespace lumora2
