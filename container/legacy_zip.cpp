#include <string>

#include "container/archive.h"
#include "container/command.h"
#include "container/imx.h"
#include "path_text.h"

namespace lumora2::Archive {
namespace {

namespace fs = std::filesystem;

const char* const kZip = "/usr/bin/zip";
const char* const kUnzip = "/usr/bin/unzip";

bool isImx(const fs::path& artifact) {
  return Lumora2Container::magic4(artifact) == Lumora2Container::magic;
}

}  // namespace

void zip(const fs::path& contentsOf, const fs::path& to) {
  // zip runs inside contentsOf, so a relative output path must be made absolute first.
  const fs::path output = fs::absolute(to);
  fs::remove(output);
  run(kZip, {"-rXq", output.string(), "."}, contentsOf);
}

std::string readImxManifest(const fs::path& container) {
  try {
    return Lumora2Container::readManifest(container);
  } catch (const Lumora2ContainerError& e) {
    throw Err(std::string("IMX: ") + e.what());
  }
}

std::string readManifest(const fs::path& artifact) {
  if (isImx(artifact)) return readImxManifest(artifact);
  std::string manifest = run(kUnzip, {"-p", artifact.string(), "manifest.json"});
  if (manifest.empty()) throw Err("no manifest.json in " + lastPathComponent(artifact));
  return manifest;
}

std::vector<std::string> unpackImx(const fs::path& container, const fs::path& to,
                                   const ProgressFn& progress) {
  try {
    return Lumora2Container::unpack(container, to, progress);
  } catch (const Lumora2ContainerError& e) {
    throw Err(std::string("IMX: ") + e.what());
  }
}

void unzip(const fs::path& artifact, const fs::path& to, const ProgressFn& progress) {
  if (isImx(artifact)) {
    unpackImx(artifact, to, progress);
    return;
  }
  run(kUnzip, {"-oq", artifact.string(), "-d", to.string()});
}

}  // namespace lumora2::Archive
