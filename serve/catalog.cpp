#include "catalog.h"

#include <algorithm>
#include <stdexcept>

#include "client/voice.h"
#include "container/archive.h"
#include "container/manifest.h"

namespace lumora2::serve {

const Avatar* Catalog::find(const std::string& code) const {
  for (const Avatar& a : avatars)
    if (a.code == code) return &a;
  return nullptr;
}

Catalog loadCatalog(const std::filesystem::path& engine, const std::filesystem::path& dir,
                    const std::string& voice) {
  namespace fs = std::filesystem;
  EngineManifest engineManifest;
  std::error_code regular;
  if (!fs::is_regular_file(engine, regular)) {
    throw std::runtime_error("engine " + engine.string() + ": not a regular file");
  }
  try {
    const std::string json = Archive::readManifest(engine);
    if (ManifestJSON::kindOf(json) != ManifestJSON::Kind::engine) {
      throw std::runtime_error(engine.string() + " is not an engine file");
    }
    engineManifest = ManifestJSON::decodeEngine(json);
  } catch (const std::runtime_error& e) {
    const std::string what = e.what();
    throw std::runtime_error(what.find(engine.string()) == std::string::npos
                                 ? "engine " + engine.string() + ": " + what
                                 : what);
  }
  std::error_code ec;
  fs::directory_iterator entries(dir, ec);
  if (ec) throw std::runtime_error("cannot list " + dir.string() + ": " + ec.message());
  std::vector<fs::path> files;
  Catalog catalog;
  for (const fs::directory_entry& entry : entries) {
    if (entry.path().extension() != ".avatar") continue;
    // Only regular files are opened: a FIFO would hold the start-up until someone writes to it.
    if (entry.is_regular_file(ec)) {
      files.push_back(entry.path());
    } else {
      catalog.skipped.push_back(entry.path().string() + ": not a regular file");
    }
  }
  std::sort(files.begin(), files.end());
  // The voice asked for, or the default one: a server that cannot speak text says so at once.
  const render::Voice probe(voice.empty() ? "en-us" : voice);
  for (const fs::path& file : files) {
    try {
      const std::string json = Archive::readManifest(file);
      if (ManifestJSON::kindOf(json) != ManifestJSON::Kind::avatar) {
        throw std::runtime_error("not an avatar file");
      }
      const AvatarManifest m = ManifestJSON::decodeAvatar(json);
      if (m.requiresEngineAbi != engineManifest.abi) {
        throw std::runtime_error("ABI mismatch: avatar requires engine abi " +
                                 std::to_string(m.requiresEngineAbi) + ", engine is abi " +
                                 std::to_string(engineManifest.abi));
      }
      if (catalog.find(m.code) != nullptr) {
        throw std::runtime_error("another file already offers the code " + m.code);
      }
      const render::VoiceChoice spoken = render::chooseVoice(m.gender, m.persona, voice);
      if (!spoken.warning.empty()) catalog.warnings.push_back(m.code + ": " + spoken.warning);
      catalog.avatars.push_back({m.code, m.name, m.gender, m.persona, file, spoken.name});
    } catch (const std::exception& e) {
      catalog.skipped.push_back(file.string() + ": " + e.what());
    }
  }
  return catalog;
}

}  // namespace lumora2::serve
