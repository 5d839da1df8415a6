#pragma once

#include <filesystem>
#include <string>

namespace lumora2::family {

// SHA-256 of a file's bytes as 64 lower-case hexadecimal digits. Throws std::runtime_error when
// the file cannot be read.
std::string sha256File(const std::filesystem::path& path);

}  // namespace lumora2::family
