// The records of manifest.json, the one deterministic encoder, and the unified header. Field names
// are the code's; each JSON key is derived from its field name by ManifestJSON::snakeCase
// ("requiresEngineAbi" → "requires_engine_abi", "jntSha256" → "jnt_sha256"). On disk every
// manifest is pretty-printed with its keys sorted at every level, so two packs of the same inputs
// in the same second are byte-identical. docs/MODEL_FORMAT.md lists every key.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace lumora2 {

// One member's checksum entry.
struct FileRef {
  std::string path;  // relative to the container root
  std::string sha256;
  std::int64_t bytes = 0;
  bool operator==(const FileRef&) const = default;
};

struct EngineRuntime {
  std::int64_t inputRate = 16000;
  std::vector<std::int64_t> frame{416, 720};
  std::int64_t fps = 20;
  bool operator==(const EngineRuntime&) const = default;
};

struct EngineManifest {
  static const std::set<std::string> kAcceptedFormats;
  static constexpr std::string_view kWrittenFormat = "vivra-engine/1";

  std::string format;
  std::int64_t abi = 0;
  EngineRuntime runtime;
  std::string created;
  std::map<std::string, FileRef> files;
  bool operator==(const EngineManifest&) const = default;
};

// Every field optional; an absent field is omitted from the JSON, never written as null.
struct Provenance {
  std::optional<std::string> trainerVersion;
  std::optional<std::string> studentSha;
  std::optional<std::string> jntSha256;
  std::optional<std::string> studentKind;
  std::optional<std::string> w2vKind;
  std::optional<std::string> agentCode;
  std::optional<std::string> studentSha256;
  std::optional<std::string> studentKindSource;
  std::optional<std::string> adaptSha256;
  std::optional<std::string> decv3Sha256;
  std::optional<std::string> bundleManifestSha256;
  bool operator==(const Provenance&) const = default;
};

struct AvatarManifest {
  static const std::set<std::string> kAcceptedFormats;
  static constexpr std::string_view kWrittenFormat = "vivra-avatar/1";

  std::string format;
  std::string code;
  std::string name;
  std::string gender;
  std::string persona;
  std::int64_t requiresEngineAbi = 0;
  std::string created;
  Provenance provenance;
  std::map<std::string, FileRef> files;
  bool operator==(const AvatarManifest&) const = default;
};

namespace ManifestJSON {
// The encoder's key rule: an upper-case letter starts a new, lower-cased word joined with "_";
// digits stay attached to the letters before them.
std::string snakeCase(std::string_view fieldName);

std::string encode(const EngineManifest& manifest);
std::string encode(const AvatarManifest& manifest);
std::string encode(const Provenance& provenance);

// Decoding ignores unknown keys. Bad JSON, a missing required key or a wrong type throws
// ArtifactError with the decoder's description. The format tag is not checked here: readers test
// kAcceptedFormats.
EngineManifest decodeEngine(std::string_view json);
AvatarManifest decodeAvatar(std::string_view json);
Provenance decodeProvenance(std::string_view json);

// What a manifest describes, told by whether it decodes as that record with one of its accepted
// format tags; never throws.
enum class Kind { engine, avatar, unknown };
Kind kindOf(std::string_view json);
}  // namespace ManifestJSON

namespace UnifiedHeader {
// Sets "engine", "engine_abi", "unified_format_version" = 2 and "decoder" = "decp2v3" on the
// manifest's top-level object, keeps every other key, and re-serializes it pretty-printed with
// sorted keys. Throws ArtifactError("unified-header: manifest is not a JSON object") for valid JSON
// that is not an object, and ArtifactError with the parser's description for bad JSON.
std::string stamp(std::string_view manifest, std::string_view engine, std::int64_t engineAbi);
}  // namespace UnifiedHeader

// The current time as an ISO 8601 UTC date-time, "YYYY-MM-DDTHH:MM:SSZ"; the time SOURCE_DATE_EPOCH
// names instead when it is set to a whole number of seconds.
std::string isoNowUTC();

}  // namespace lumora2
