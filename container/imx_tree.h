// Directory work relative to open directory handles, for writing below a destination that may
// already hold symbolic links. Every step opens one component with O_NOFOLLOW, so no link (and no
// link swapped in between two steps) can lead a write or a removal outside the tree it started in.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "imx_io.h"

namespace lumora2::imx {

// Opens the directory `name` inside `dirfd` without following a link. Returns an empty UniqueFd and
// sets errno when it cannot; a link or a non-directory gives ENOTDIR.
UniqueFd openDirectoryAt(int dirfd, const std::string& name);

// Opens (creating where missing) the directories `pieces` below `root`, one level at a time.
// `shownRoot` names `root` in errors. A piece occupied by a file or a symbolic link fails with the
// file system's ENOTDIR error naming the path up to that piece; other failures pass on the
// system's error. With no pieces, returns a duplicate of `root`.
UniqueFd makeDirectoriesAt(int root, const std::vector<std::string>& pieces,
                           const std::filesystem::path& shownRoot);

// Removes whatever is at `name` in `dirfd`: a file or a link (never its target) is unlinked, a
// directory is removed with its contents, without following any link inside it. Nothing there is
// fine. Only one directory handle is open at a time, so neither the stack nor the descriptor
// table limits the depth of a tree it can remove. Failures throw the file system's error naming
// `shownAs` (the path of `name`) or a path below it.
void removeTreeAt(int dirfd, const std::string& name, const std::filesystem::path& shownAs);

}  // namespace lumora2::imx
