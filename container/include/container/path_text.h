// How the artifact commands name paths in their messages.
#pragma once

#include <filesystem>
#include <string>

namespace lumora2 {

// The last path component, as a file URL names it: "a/b.model" and "a/b.model/" both give
// "b.model".
inline std::string lastPathComponent(const std::filesystem::path& path) {
  std::filesystem::path p = path;
  while (!p.empty() && !p.has_filename() && p.has_relative_path()) p = p.parent_path();
  return p.filename().string();
}

// The absolute form of a path given on the command line, without a trailing "/": the path that a
// file URL made from it reports.
inline std::string absolutePathText(const std::filesystem::path& path) {
  std::string text = std::filesystem::absolute(path).string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

}  // namespace lumora2
