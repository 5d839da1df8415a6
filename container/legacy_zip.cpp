#include <string>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "container/path_text.h"

namespace lumora2::Archive {
namespace {

namespace fs = std::filesystem;

const char* const kZip = "/usr/bin/zip";
const char* const kUnzip = "/usr/bin/unzip";

}  // namespace

void zip(const fs::path& contentsOf, const std::vector<StagedMember>& members, const fs::path& to) {
  // zip runs inside contentsOf, so a relative output path must be made absolute first. The members
  // are named one by one, never found by recursion, so that the zip holds exactly what the IMX
  // form would: zip's own walk follows symbolic links and would pack content the manifest never
  // declared. -nw and "--" take every name literally (brackets, stars, leading dashes); -D stores
  // no directory entries.
  const fs::path output = fs::absolute(to);
  fs::remove(output);
  std::vector<std::string> arguments{"-XqD", "-nw", output.string(), "--"};
  for (const StagedMember& m : members) arguments.push_back(m.name);
  run(kZip, arguments, contentsOf);
}

std::string readImxManifest(const fs::path& container) {
  try {
    return Lumora2Container::readManifest(container);
  } catch (const Lumora2ContainerError& e) {
    throw ArtifactError(std::string("IMX: ") + e.what());
  }
}

std::string readManifest(const fs::path& artifact) {
  if (Lumora2Container::isContainer(artifact)) return readImxManifest(artifact);
  std::string manifest = run(kUnzip, {"-p", artifact.string(), "manifest.json"});
  if (manifest.empty()) throw ArtifactError("no manifest.json in " + lastPathComponent(artifact));
  return manifest;
}

std::vector<std::string> unpackImx(const fs::path& container, const fs::path& to,
                                   const ProgressFn& progress) {
  try {
    return Lumora2Container::unpack(container, to, progress);
  } catch (const Lumora2ContainerError& e) {
    throw ArtifactError(std::string("IMX: ") + e.what());
  }
}

void unzip(const fs::path& artifact, const fs::path& to, const ProgressFn& progress) {
  if (Lumora2Container::isContainer(artifact)) {
    unpackImx(artifact, to, progress);
    return;
  }
  run(kUnzip, {"-oq", artifact.string(), "-d", to.string()});
}

}  // namespace lumora2::Archive
