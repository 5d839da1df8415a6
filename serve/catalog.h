// The avatars a server offers: every *.avatar file of a directory whose manifest decodes, names an
// avatar and requires the engine's ABI (the checks validate makes before it renders). The others
// are named with the reason and skipped. Each avatar gets the voice it speaks text with.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lumora2::serve {

struct Avatar {
  std::string code, name, gender, persona;
  std::filesystem::path file;
  std::string voice;  // the embedded voice's name (chooseVoice); empty: chosen by the session
};

struct Catalog {
  std::vector<Avatar> avatars;        // by code
  std::vector<std::string> skipped;   // "<file>: <reason>", one per file refused
  std::vector<std::string> warnings;  // a persona's voice that is not installed, one line each
  const Avatar* find(const std::string& code) const;
};

// `voice`, when not empty, is the voice every avatar speaks with (--voice). Throws
// std::runtime_error when the engine is not a readable engine file or the directory cannot be
// listed, and ClientError when that voice (or, without it, the default one) cannot be had.
Catalog loadCatalog(const std::filesystem::path& engine, const std::filesystem::path& dir,
                    const std::string& voice = "");

}  // namespace lumora2::serve
