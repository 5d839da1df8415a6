// An artifact's manifest as the inspection commands see it: the raw bytes, decoded as an engine
// or an avatar manifest, and the one-line description unpack also prints.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "container/manifest.h"

namespace lumora2 {

struct ArtifactManifest {
  std::string bytes;  // manifest.json as stored
  std::optional<EngineManifest> engine;
  std::optional<AvatarManifest> avatar;

  // "ENGINE format=… abi=…" or "AVATAR code=… requires_engine_abi=…".
  std::string description() const;
  const std::map<std::string, FileRef>& files() const;
  // The ABI a re-stamp keeps by default: the unified header's "engine_abi" when the manifest
  // carries an integer one, else the engine's "abi" or the avatar's "requires_engine_abi".
  std::int64_t engineAbi() const;
};

// Reads manifest.json of an artifact in either form and decodes it: as an engine manifest with an
// accepted format tag, else as an avatar manifest with one; else Err "unrecognized manifest format
// in <file name>". Reader and tool failures are Archive's errors.
ArtifactManifest readArtifactManifest(const std::filesystem::path& artifact);

// The checksum problems of the declared files found under `root`, in ascending label order, in
// unpack's forms: "<label>: missing <path>" and "<label>: sha mismatch (<path>) declared=<16 hex>
// actual=<16 hex>". Empty when every declared file is present and matches.
std::vector<std::string> checksumProblems(const std::filesystem::path& root,
                                          const std::map<std::string, FileRef>& declared);

}  // namespace lumora2
