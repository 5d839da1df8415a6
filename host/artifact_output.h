// Writing an artifact so that a failure never costs the user an existing file: everything goes to
// a temporary name beside the output and is renamed over it only when complete.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "container/archive.h"
#include "container/platform.h"
#include "container/progress.h"

namespace lumora2 {

// A temporary file ".<name>.partial-<UUID>" in the output's directory (so the final rename stays
// on one file system). commit() renames it onto the output; until then the destructor removes it.
class AtomicOutput {
 public:
  explicit AtomicOutput(std::filesystem::path output);
  ~AtomicOutput();
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;

  const std::filesystem::path& temporary() const { return temporary_; }
  void commit();

 private:
  std::filesystem::path output_;
  std::filesystem::path temporary_;
  bool committed_ = false;
};

// Refuses (Err, prefixed with `command`) an output path that is empty, names an existing
// directory, has no directory to be written in, or lies inside `stagingDir`: a pack must never
// write into what it is reading.
void refuseOutputPath(std::string_view command, const std::filesystem::path& output,
                      const std::optional<std::filesystem::path>& stagingDir);

// Whether two paths name the same file, existing or not (symbolic links and "." / ".." resolved).
bool samePath(const std::filesystem::path& a, const std::filesystem::path& b);

// The two written forms of an artifact.
enum class ArtifactForm { imx, zip };
std::string_view formName(ArtifactForm form);  // "IMX\0" (backslash, zero) or "zip"
// The form of an existing file by its first four bytes: IMX magic → imx, anything else → zip.
ArtifactForm formOf(const std::filesystem::path& artifact);

// Writes `members` and then `manifest` as the root "manifest.json" to `to`, atomically. The IMX
// form streams the members in order. The zip form (for the legacy tool, which needs the manifest
// as a file) zips the same members from `stagingDir` and then stores the manifest from a private
// scratch directory, replacing any manifest.json taken from `stagingDir`; nothing is written
// into `stagingDir`.
void writeArtifact(ArtifactForm form, const std::vector<Archive::StagedMember>& members,
                   const std::string& manifest, const std::filesystem::path& stagingDir,
                   const std::filesystem::path& to);

// The bytes of one file (a manifest or provenance record); file-system errors pass through.
std::string readWholeFile(const std::filesystem::path& path);

}  // namespace lumora2
