// Archive: the host-side toolbox behind packing and inspection. It digests staged files, writes a
// staged directory as an IMX container, and still reads and writes the legacy zip form through the
// system's /usr/bin/zip and /usr/bin/unzip. Failures that are not file-system errors are thrown as
// ArtifactError; reader errors pass through with the prefix "IMX: ".
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "container/progress.h"

namespace lumora2::Archive {

// Switch values of UNIFIED_CONTAINER that select the legacy zip form; anything else selects IMX.
inline const std::set<std::string> unifiedFalse{"0", "false", "no", "off"};

// Reads UNIFIED_CONTAINER (trimmed, lower-cased): false exactly when it is in unifiedFalse.
bool unifiedContainerEnabled();

// SHA-256 as 64 lower-case hex digits, and the number of content bytes hashed.
struct Digest {
  std::string sha256;
  std::uint64_t bytes = 0;
};

// A file: its bytes. A directory (a model package): for each regular file below it
// in ascending relative-name order, the UTF-8 relative name then the file's bytes, no separator;
// the byte count is the sum of the files' lengths.
Digest digest(const std::filesystem::path& url, const ProgressFn& progress = {});

// One member as the writer collects it: its name inside the container (relative, "/"
// separators), the file its bytes come from, and the size recorded in the table of contents.
struct StagedMember {
  std::string name;
  std::filesystem::path url;
  std::uint64_t size = 0;
};

// The members a staging directory yields: every regular file below `dir` (hidden ones included;
// symbolic links, devices and directories skipped), stable-sorted by NFC name, with a root
// "manifest.json" moved last. Throws ArtifactError("cannot enumerate staging dir …") when `dir`
// cannot be listed.
std::vector<StagedMember> stage(const std::filesystem::path& dir);

// Writes `members` in the given order as an IMX container at `to` (replacing it), followed, when
// `manifest` is given, by a last member "manifest.json" holding those bytes. Throws ArtifactError
// before writing anything when there would be more than 65535 members. The header and table are
// built in memory; member data is streamed in pieces of at most 1 MiB. A failed write leaves a
// partial file.
void writeImxMembers(const std::vector<StagedMember>& members,
                     const std::optional<std::string>& manifest, const std::filesystem::path& to,
                     const ProgressFn& progress = {});

// Every regular file below `contentsOf` becomes a member, sorted by NFC name, with a root
// "manifest.json" moved last. Symbolic links, devices and directories are not members.
// Equivalent to writeImxMembers(stage(contentsOf), std::nullopt, to).
void writeImxContainer(const std::filesystem::path& contentsOf, const std::filesystem::path& to,
                       const ProgressFn& progress = {});

// The legacy form: /usr/bin/zip run inside `contentsOf`, storing exactly `members` (their names
// relative to `contentsOf`, as stage() gives them) in the given order. Symbolic links are never
// followed into: a link is not a member in either form.
void zip(const std::filesystem::path& contentsOf, const std::vector<StagedMember>& members,
         const std::filesystem::path& to);

// manifest.json of an IMX container, with reader errors rethrown as ArtifactError("IMX: " +
// description).
std::string readImxManifest(const std::filesystem::path& container);
// manifest.json of an artifact in either form (IMX by the built-in reader, zip by unzip -p).
std::string readManifest(const std::filesystem::path& artifact);
// Lumora2Container::unpack with reader errors rethrown as ArtifactError("IMX: " + description).
std::vector<std::string> unpackImx(const std::filesystem::path& container,
                                   const std::filesystem::path& to,
                                   const ProgressFn& progress = {});
// Unpacks an artifact of either form into `to`; an IMX file never reaches the zip tool.
void unzip(const std::filesystem::path& artifact, const std::filesystem::path& to,
           const ProgressFn& progress = {});

// Runs a child with standard output and error on one pipe; returns that output when it exits 0,
// else throws ArtifactError("`exe args…` exited N:\n" + output).
std::string run(const std::string& executable, const std::vector<std::string>& arguments,
                const std::optional<std::filesystem::path>& cwd = std::nullopt);

}  // namespace lumora2::Archive
