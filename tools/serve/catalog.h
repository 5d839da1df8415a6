// The avatars a server offers: every *.avatar file of a directory whose manifest decodes, names an
// avatar and requires the engine's ABI (the checks validate makes before it renders). The others
// are named with the reason and skipped.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lumora2::serve {

struct Avatar {
  std::string code, name, gender, persona;
  std::filesystem::path file;
};

struct Catalog {
  std::vector<Avatar> avatars;       // by code
  std::vector<std::string> skipped;  // "<file>: <reason>", one per file refused
  const Avatar* find(const std::string& code) const;
};

// Throws std::runtime_error when the engine is not a readable engine file or the directory
// cannot be listed.
Catalog loadCatalog(const std::filesystem::path& engine, const std::filesystem::path& dir);

}  // namespace lumora2::serve
