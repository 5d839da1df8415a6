// Small platform services the artifact code and the render commands share.
#pragma once

#include <filesystem>
#include <string>

namespace lumora2 {

// $TMPDIR when set and non-empty, else /tmp.
std::filesystem::path systemTempDir();

// A random version-4 UUID in upper-case hexadecimal, 8-4-4-4-12.
std::string newUUID();

// Removes a directory tree, ignoring every error (for scratch directories on exit paths).
void removeTreeQuietly(const std::filesystem::path& path) noexcept;

}  // namespace lumora2
