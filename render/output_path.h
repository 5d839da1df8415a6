// The output path of a render, checked before any work starts: the finished video replaces it
// with a rename in its directory, so that directory must exist and be writable, and what the name
// holds now must be an ordinary file that is none of the inputs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lumora2::render {

struct NamedInput {
  std::string role;  // "audio", "avatar", "engine"
  std::filesystem::path path;
};

// Throws ClientError when `output` names no file (a trailing slash), names something that exists
// and is not a regular file (a directory, a device, a pipe), names the same file as one of
// `inputs` (by device and inode, however either is spelt; inputs that do not exist are skipped),
// or when its directory is missing, not a directory or not writable.
void checkOutputPath(const std::filesystem::path& output, const std::vector<NamedInput>& inputs);

}  // namespace lumora2::render
