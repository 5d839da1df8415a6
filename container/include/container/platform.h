// Small platform services the artifact code and the render commands share.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace lumora2 {

// $TMPDIR when set and non-empty, else /tmp.
std::filesystem::path systemTempDir();

// A random version-4 UUID in upper-case hexadecimal, 8-4-4-4-12.
std::string newUUID();

// Removes a directory tree, ignoring every error (for scratch directories on exit paths).
void removeTreeQuietly(const std::filesystem::path& path) noexcept;

// A private directory "<prefix><UUID>" created under the system temporary directory and removed,
// with everything in it, when this goes out of scope, however the scope ends.
class ScratchDir {
 public:
  explicit ScratchDir(std::string_view prefix);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace lumora2
