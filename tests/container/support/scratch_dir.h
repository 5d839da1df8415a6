// Scratch directories and small file helpers for tests that work on real files.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace lumora2::test {

// A fresh, private directory under the system temporary directory, removed with everything in
// it when the object dies. Removal never follows symbolic links and copes with trees deeper than
// PATH_MAX.
class ScratchDir {
 public:
  explicit ScratchDir(std::string_view prefix = "lumora2-test");
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& relative) const {
    return path_ / relative;
  }
  // Writes `bytes` to the file at `relative`, creating its parents; returns its full path.
  std::filesystem::path write(const std::filesystem::path& relative, std::string_view bytes) const;

 private:
  std::filesystem::path path_;
};

// A test fixture owning one scratch directory.
class ScratchTest : public ::testing::Test {
 protected:
  ScratchDir scratch_;
};

// Whole-file helpers; failures throw the file system's error.
std::string readBytes(const std::filesystem::path& file);
void writeBytes(const std::filesystem::path& file, std::string_view bytes);

// Every entry below `root`, as sorted relative paths: directories end in "/", symbolic links read
// "name -> target" (never followed), regular files "name (N bytes)". Comparing two listings shows
// whether anything was created, removed, resized or re-pointed.
std::vector<std::string> listTree(const std::filesystem::path& root);

}  // namespace lumora2::test
