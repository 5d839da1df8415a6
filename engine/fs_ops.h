// File-system services of the engine's model resolution and cache, in the platform's terms.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace lumora2::fsops {

// The directory of the running executable (from /proc/self/exe).
std::optional<std::filesystem::path> executableDir();

// Moves `from` to `to`, which must not exist: a rename when both lie on one file system, else a
// recursive copy followed by removing `from`. False with a description in `error` otherwise.
bool moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
              std::string& error);

// Whether `path` names an existing object of any kind (file, directory, …), following links:
// a dangling link names nothing.
bool existsAnyKind(const std::filesystem::path& path);

}  // namespace lumora2::fsops
