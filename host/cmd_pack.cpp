// pack-engine and pack-avatar: a staging directory becomes one artifact file. Every regular file
// below the directory is a member; the manifest is always written by the pack itself, so a root
// manifest.json in the staging directory is not taken (it would describe some other pack).
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "artifact_manifest.h"
#include "artifact_output.h"
#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "container/manifest.h"
#include "container/progress.h"
#include "host/args.h"
#include "host/artifact_rules.h"
#include "host/command.h"
#include "host/commands.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kDefaultAbi = 1;
constexpr std::string_view kUnifiedEngine = "lumora2";

// The ABI of --abi, or the default; anything but a whole decimal number is refused.
std::int64_t abiOption(std::string_view command, const Options& options) {
  const std::string* raw = option(options, "abi");
  if (raw == nullptr) return kDefaultAbi;
  std::optional<std::int64_t> abi = parseInteger(*raw);
  if (!abi) throw Err(std::string(command) + ": --abi must be an integer, not '" + *raw + "'");
  return *abi;
}

std::string optionOr(const Options& options, const std::string& name, std::string fallback) {
  const std::string* value = option(options, name);
  return value ? *value : std::move(fallback);
}

// The staging directory's members, less a root manifest.json, after checking that the directory
// exists and holds everything `kind` needs.
std::vector<Archive::StagedMember> stageMembers(std::string_view command, const fs::path& dir,
                                                ArtifactKind kind) {
  std::string prefix(command);
  if (!fs::exists(dir)) throw Err(prefix + ": no such staging directory: " + dir.string());
  if (!fs::is_directory(dir)) throw Err(prefix + ": not a directory: " + dir.string());

  std::vector<Archive::StagedMember> members = Archive::stage(dir);
  std::erase_if(members, [](const Archive::StagedMember& m) {
    return m.name == Lumora2Container::manifestName;
  });
  std::vector<std::string> names;
  names.reserve(members.size());
  for (const Archive::StagedMember& m : members) names.push_back(m.name);

  std::vector<std::string> missing = missingRequirements(names, kind);
  if (!missing.empty()) {
    std::string list;
    for (const std::string& name : missing) list += (list.empty() ? "" : ", ") + name;
    throw Err(prefix + ": " + dir.string() + " is not " +
              (kind == ArtifactKind::engine ? "an engine" : "an avatar") +
              " staging directory — missing " + list);
  }
  return members;
}

// One FileRef per labelled path, digested from the staging directory.
std::map<std::string, FileRef> digestFiles(const fs::path& dir,
                                           const std::vector<Archive::StagedMember>& members) {
  std::vector<std::string> names;
  std::uint64_t total = 0;
  for (const Archive::StagedMember& m : members) {
    names.push_back(m.name);
    total += m.size;
  }
  TerminalProgress meter("digesting");
  ProgressFn draw = meter.callback();
  std::uint64_t before = 0;
  std::map<std::string, FileRef> files;
  for (const LabelledPath& entry : labelFiles(names)) {
    Archive::Digest digest = Archive::digest(
        dir / entry.path,
        draw ? ProgressFn([&](std::uint64_t done, std::uint64_t) { draw(before + done, total); })
             : ProgressFn{});
    before += digest.bytes;
    files[entry.label] =
        FileRef{entry.path, digest.sha256, static_cast<std::int64_t>(digest.bytes)};
  }
  return files;
}

// provenance.json of the staging directory when it is a member; an empty record otherwise.
Provenance readProvenance(const fs::path& dir, const std::vector<Archive::StagedMember>& members) {
  bool present = std::any_of(members.begin(), members.end(), [](const Archive::StagedMember& m) {
    return m.name == "provenance.json";
  });
  if (!present) return {};
  Provenance provenance;
  try {
    provenance = ManifestJSON::decodeProvenance(readWholeFile(dir / "provenance.json"));
  } catch (const ArtifactError& e) {
    throw Err("pack-avatar: bad " + (dir / "provenance.json").string() + ": " + e.what());
  }
  // A binding key that is there but malformed would silently weaken the verdict; refuse it.
  if (provenance.studentSha256 && !isSha256Hex(*provenance.studentSha256)) {
    throw Err("pack-avatar: bad " + (dir / "provenance.json").string() +
              ": student_sha256 is not 64 lower-case hexadecimal digits");
  }
  return provenance;
}

ArtifactForm packForm() {
  return Archive::unifiedContainerEnabled() ? ArtifactForm::imx : ArtifactForm::zip;
}

// Writes the artifact and prints the summary's first line.
void writeAndReport(ArtifactForm form, const std::vector<Archive::StagedMember>& members,
                    const std::string& manifest, const fs::path& dir, const fs::path& out,
                    std::string& report) {
  writeArtifact(form, members, manifest, dir, out);
  report += "packed " + out.string() + "  [" + std::string(formName(form)) + "]  " +
            std::to_string(members.size() + 1) + " members · " +
            std::to_string(fs::file_size(out)) + " bytes\n";
}

}  // namespace

int cmdPackEngine(const Positionals& positionals, const Options& options) {
  constexpr std::string_view kCommand = "pack-engine";
  if (positionals.empty()) throw Err("usage: pack-engine <dir> -o vivra.model [--abi N]");
  const std::string* out = option(options, "o");
  if (out == nullptr) throw Err("pack-engine requires -o <out>");
  std::int64_t abi = abiOption(kCommand, options);
  fs::path dir = positionals[0];
  refuseOutputPath(kCommand, *out, dir);

  std::vector<Archive::StagedMember> members = stageMembers(kCommand, dir, ArtifactKind::engine);
  EngineManifest manifest;
  manifest.format = EngineManifest::kWrittenFormat;
  manifest.abi = abi;
  manifest.runtime = EngineRuntime{16000, {416, 720}, 20};
  manifest.created = isoNowUTC();
  manifest.files = digestFiles(dir, members);
  std::string bytes = UnifiedHeader::stamp(ManifestJSON::encode(manifest), kUnifiedEngine, abi);

  std::string report;
  writeAndReport(packForm(), members, bytes, dir, *out, report);
  report += "  ENGINE format=" + manifest.format + " abi=" + std::to_string(abi) + "\n";
  std::cout << report << std::flush;
  return kExitOk;
}

int cmdPackAvatar(const Positionals& positionals, const Options& options) {
  constexpr std::string_view kCommand = "pack-avatar";
  if (positionals.empty()) {
    throw Err("usage: pack-avatar <dir> --code C --name N --gender g --persona P -o X.avatar");
  }
  const std::string* out = option(options, "o");
  if (out == nullptr) throw Err("pack-avatar requires -o <out>");
  const std::string* code = option(options, "code");
  if (code == nullptr) throw Err("pack-avatar requires --code");
  std::int64_t abi = abiOption(kCommand, options);
  fs::path dir = positionals[0];
  refuseOutputPath(kCommand, *out, dir);

  std::vector<Archive::StagedMember> members = stageMembers(kCommand, dir, ArtifactKind::avatar);
  AvatarManifest manifest;
  manifest.format = AvatarManifest::kWrittenFormat;
  manifest.code = *code;
  manifest.name = optionOr(options, "name", "");
  manifest.gender = optionOr(options, "gender", "");
  manifest.persona = optionOr(options, "persona", "");
  manifest.requiresEngineAbi = abi;
  manifest.created = isoNowUTC();
  manifest.provenance = readProvenance(dir, members);
  manifest.files = digestFiles(dir, members);
  std::string bytes = UnifiedHeader::stamp(ManifestJSON::encode(manifest), kUnifiedEngine, abi);

  std::string report;
  writeAndReport(packForm(), members, bytes, dir, *out, report);
  report += "  AVATAR code=" + manifest.code + " requires_engine_abi=" + std::to_string(abi) + "\n";
  report +=
      "  provenance: " + std::string(verdictName(provenanceVerdict(manifest.provenance))) + "\n";
  std::cout << report << std::flush;
  return kExitOk;
}

}  // namespace lumora2
