// The recursive listing that both the container writer and the directory digest are built on, so
// that a model package is seen the same way when it is packed and when it is verified.
#pragma once

#include <filesystem>
#include <vector>

#include "container/archive.h"

namespace lumora2::Archive {

// Every regular file below `root`, hidden ones included, in no particular order. Symbolic links,
// devices, sockets and directories are skipped; symbolic links to directories are not descended.
// Each name is the path relative to `root` with "/" separators and no leading "/". Throws
// ArtifactError("cannot enumerate staging dir " + root) when the listing cannot start; a failure
// further down the tree is the file system's error.
std::vector<StagedMember> regularFilesBelow(const std::filesystem::path& root);

// Stable sort by member name (NFC, then UTF-8 bytes).
void sortByMemberName(std::vector<StagedMember>& files);

}  // namespace lumora2::Archive
