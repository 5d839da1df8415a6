// fold <in.model|in.avatar> -o <out.imx> [--abi N]: re-homes an artifact (usually a legacy zip)
// as an IMX container. The input is unpacked into a private scratch directory, every declared
// member is verified there against its SHA-256 (so what is checked is exactly what is written),
// and the members are written with the manifest re-stamped and last. The manifest keeps every
// key it had; only the unified header changes.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "artifact_manifest.h"
#include "artifact_output.h"
#include "container/archive.h"
#include "container/imx.h"
#include "container/manifest.h"
#include "container/progress.h"
#include "host/args.h"
#include "host/command.h"
#include "host/commands.h"

namespace lumora2 {

namespace fs = std::filesystem;

int cmdFold(const Positionals& positionals, const Options& options) {
  if (positionals.empty()) throw Err("usage: fold <in.model|in.avatar> -o <out.imx> [--abi N]");
  const std::string* out = option(options, "o");
  if (out == nullptr) throw Err("fold requires -o <out>");
  std::optional<std::int64_t> abiGiven;
  if (const std::string* raw = option(options, "abi")) {
    abiGiven = parseInteger(*raw);
    if (!abiGiven) throw Err("fold: --abi must be an integer, not '" + *raw + "'");
  }
  const fs::path in = positionals[0];
  if (!fs::exists(in)) throw Err("no such archive: " + positionals[0]);
  refuseOutputPath("fold", *out, std::nullopt);
  if (samePath(in, *out)) throw Err("fold: output " + *out + " would replace the input");

  const ArtifactForm inputForm = formOf(in);
  ArtifactManifest manifest = readArtifactManifest(in);
  const std::int64_t abi = abiGiven.value_or(manifest.engineAbi());

  ScratchDir scratch("lumora2-fold-");
  const fs::path contents = scratch.path() / "contents";
  {
    TerminalProgress meter("unpacking " + in.filename().string());
    Archive::unzip(in, contents, meter.callback());
  }
  std::vector<std::string> problems = checksumProblems(contents, manifest.files());
  if (!problems.empty()) {
    std::string message = "fold: checksum problems in " + in.filename().string() + ":";
    for (const std::string& p : problems) message += "\n  " + p;
    throw Err(message);
  }

  std::vector<Archive::StagedMember> members = Archive::stage(contents);
  std::erase_if(members, [](const Archive::StagedMember& m) {
    return m.name == Lumora2Container::manifestName;
  });
  std::string stamped = UnifiedHeader::stamp(manifest.bytes, "lumora2", abi);
  writeArtifact(ArtifactForm::imx, members, stamped, contents, *out);

  std::string report = "folded " + in.string() + "  [" + std::string(formName(inputForm)) + "] → " +
                       *out + "  [" + std::string(formName(ArtifactForm::imx)) + "]  " +
                       std::to_string(members.size() + 1) + " members · " +
                       std::to_string(fs::file_size(*out)) + " bytes\n";
  report += "  " + manifest.description() + " · engine_abi=" + std::to_string(abi) + "\n";
  report += "  checksums OK (" + std::to_string(manifest.files().size()) + " members)\n";
  std::cout << report << std::flush;
  return kExitOk;
}

}  // namespace lumora2
