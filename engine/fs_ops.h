// File-system services of the engine's model resolution and cache, in the platform's terms.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace lumora2::fsops {

// The directory of the running executable (from /proc/self/exe).
std::optional<std::filesystem::path> executableDir();

// $HOME when set and non-empty, else the password database's home of the real user.
std::optional<std::filesystem::path> homeDir();

// "~" and "~/…" become the home directory, "~user/…" that user's home; anything else, and a "~"
// whose home is unknown, stays as it is.
std::string expandTilde(const std::string& path);

// Moves `from` to `to`, which must not exist: a rename when both lie on one file system, else a
// recursive copy followed by removing `from`. False with a description in `error` otherwise.
bool moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
              std::string& error);

// Whether `path` names an existing object of any kind (file, directory, …), following links:
// a dangling link names nothing.
bool existsAnyKind(const std::filesystem::path& path);

}  // namespace lumora2::fsops
