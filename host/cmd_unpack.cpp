// unpack <file.model|file.avatar> <dir> [--no-verify]: extracts an artifact and checks every
// declared member's SHA-256, printing one line per member; exit status 2 when any is missing or
// does not match.
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "container/path_text.h"
#include "container/progress.h"
#include "container/verify.h"
#include "host/commands.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

void print(const std::string& line) { std::cout << line << '\n'; }

// `key` shown in a column 8 characters wide: padded with spaces, or cut to its first 8 UTF-16
// units, the width the OK lines have always used. A character cut in half shows as U+FFFD.
std::string column8(std::string_view key) {
  constexpr std::size_t kWidth = 8;
  std::string out;
  std::size_t units = 0;
  std::size_t i = 0;
  while (i < key.size() && units < kWidth) {
    auto lead = static_cast<unsigned char>(key[i]);
    std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    length = std::min(length, key.size() - i);
    std::size_t width = length == 4 ? 2 : 1;  // beyond the BMP: a surrogate pair
    if (units + width > kWidth) {
      out += "\xEF\xBF\xBD";
      units = kWidth;
      break;
    }
    out.append(key.substr(i, length));
    units += width;
    i += length;
  }
  out.append(kWidth - units, ' ');
  return out;
}

struct Described {
  std::string line;
  std::map<std::string, FileRef> files;
};

// The manifest as an accepted engine or avatar record; a manifest that is neither (bad JSON
// included) is not one this command knows how to check.
std::optional<Described> describe(const std::string& manifest) {
  try {
    EngineManifest e = ManifestJSON::decodeEngine(manifest);
    if (EngineManifest::kAcceptedFormats.contains(e.format)) {
      return Described{"ENGINE format=" + e.format + " abi=" + std::to_string(e.abi),
                       std::move(e.files)};
    }
  } catch (const ArtifactError&) {
  }
  try {
    AvatarManifest a = ManifestJSON::decodeAvatar(manifest);
    if (AvatarManifest::kAcceptedFormats.contains(a.format)) {
      return Described{
          "AVATAR code=" + a.code + " requires_engine_abi=" + std::to_string(a.requiresEngineAbi),
          std::move(a.files)};
    }
  } catch (const ArtifactError&) {
  }
  return std::nullopt;
}

}  // namespace

int cmdUnpack(const Positionals& positionals, const Options& options) {
  Positionals args = positionals;
  const std::string* noVerify = option(options, "no-verify");
  // The parser gave "--no-verify" the next word as its value; that word was the destination.
  if (noVerify != nullptr && *noVerify != "true") args.push_back(*noVerify);
  if (args.size() < 2) throw Err("usage: unpack <file.model|file.avatar> <dir> [--no-verify]");
  const fs::path artifact = fs::absolute(args[0]);
  const fs::path dest = absolutePathText(args[1]);

  std::error_code ec;
  if (!fs::exists(artifact, ec)) throw Err("no such archive: " + args[0]);
  const std::string name = lastPathComponent(args[0]);

  std::optional<Described> described = describe(Archive::readManifest(artifact));
  if (!described) throw Err("unrecognized manifest format in " + name);

  {
    TerminalProgress meter("unpacking " + name);
    Archive::unzip(artifact, dest, meter.callback());
  }
  const bool imx = Lumora2Container::isContainer(artifact);
  print("unpacked " + name + " → " + dest.string() + "   [" + (imx ? "IMX\\0" : "zip") + "]");
  print("  " + described->line);

  if (noVerify != nullptr) {
    print("  --no-verify — member checksums NOT checked");
    return kExitOk;
  }

  std::vector<std::string> problems;
  for (const auto& [key, ref] : described->files) {  // std::map: ascending key order
    TerminalProgress meter("verifying " + key);
    MemberCheck check = checkDeclaredMember(dest, key, ref, meter.callback());
    meter.finish();
    if (!check.problem.empty()) {
      problems.push_back(std::move(check.problem));
    } else {
      print("  " + column8(key) + " OK  " + firstCharacters(check.actual, 16) + "  " + ref.path);
    }
  }
  if (!problems.empty()) {
    std::string report = "  CHECKSUM PROBLEMS:";
    for (const std::string& p : problems) report += "\n    " + p;
    print(report);
    return kExitChecksumProblems;
  }
  print("  checksums OK (" + std::to_string(described->files.size()) + " members)");
  return kExitOk;
}

}  // namespace lumora2
