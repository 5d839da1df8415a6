// The compiled-model cache: one compilation per distinct package content, shared by every
// process of the user through entries named by content, installed with a two-step move and
// evicted by last use.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "cache_entry.h"
#include "container/member_names.h"
#include "container/platform.h"
#include "container/sha256.h"
#include "engine/log.h"
#include "fs_ops.h"
#include "model_cache.h"

namespace lumora2 {

namespace fs = std::filesystem;
using Path = std::filesystem::path;

namespace {

// Drops "." and ".." components and a trailing separator.
Path standardized(const Path& p) {
  std::string s = p.lexically_normal().string();
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return Path(s);
}

struct PackageFile {
  std::string rel;
  std::string order;  // NFC form of rel: names sort as Unicode strings
  std::uint64_t size = 0;
  Path path;
};

// Compiled directories this process made outside the cache; removed when the process exits
// (the loaded graphs no longer need their files).
struct SessionTemps {
  std::mutex mutex;
  std::vector<Path> paths;
};

SessionTemps& sessionTemps() {
  static SessionTemps* temps = [] {
    auto* t = new SessionTemps;  // lives until exit; the exit handler below uses it
    std::atexit([] {
      std::lock_guard lock(sessionTemps().mutex);
      for (const Path& p : sessionTemps().paths) removeTreeQuietly(p);
    });
    return t;
  }();
  return *temps;
}

std::optional<Path> sessionCompile(const Path& package) {
  auto compiled = compileModelPackage(package);
  if (compiled) {
    std::lock_guard lock(sessionTemps().mutex);
    sessionTemps().paths.push_back(*compiled);
  }
  return compiled;
}

}  // namespace

std::optional<ModelCache::PackageFingerprint> ModelCache::packageFingerprint(const Path& url) {
  const Path root = standardized(url);
  const std::string prefix = root.string() + "/";
  std::error_code ec;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  if (ec) return std::nullopt;
  std::vector<PackageFile> files;
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) return std::nullopt;
    std::error_code typeError;
    if (it->symlink_status(typeError).type() != fs::file_type::regular) continue;
    PackageFile file;
    file.path = standardized(it->path());
    const std::string full = file.path.string();
    file.rel = full.compare(0, prefix.size(), prefix) == 0 ? full.substr(prefix.size()) : full;
    file.order = nfc(file.rel);
    std::error_code sizeError;
    std::uintmax_t size = it->file_size(sizeError);
    file.size = sizeError ? 0 : static_cast<std::uint64_t>(size);
    files.push_back(std::move(file));
  }
  if (ec || files.empty()) return std::nullopt;
  std::stable_sort(files.begin(), files.end(),
                   [](const PackageFile& a, const PackageFile& b) { return a.order < b.order; });

  PackageFingerprint fingerprint;
  try {
    Sha256 sha;
    for (const PackageFile& file : files) {
      sha.update(file.rel.data(), file.rel.size() + 1);  // the name and its NUL
      std::array<unsigned char, 8> size{};
      for (std::size_t i = 0; i < size.size(); ++i) {
        size[i] = static_cast<unsigned char>(file.size >> (8 * i));
      }
      sha.update(size.data(), size.size());
      sha.updateFromFile(file.path);
      fingerprint.bytes += file.size;
    }
    fingerprint.hex = sha.hex();
  } catch (const std::exception&) {
    return std::nullopt;  // a file that cannot be read (or changes under us) has no fingerprint
  }
  return fingerprint;
}

std::string ModelCache::cacheEntryName(std::string_view key,
                                       const PackageFingerprint& fingerprint) {
  // Appended piece by piece: GCC 12 reports a false -Wrestrict inside a chain of std::string
  // operator+ at -O2 (GCC bug 105329).
  std::string name(key);
  name.append("-").append(std::to_string(fingerprint.bytes));
  name.append("-sha").append(fingerprint.hex, 0, 32);
  name.append(".mlmodelc");
  return name;
}

ModelCache::ModelCache(const EngineSettings& settings)
    : root_(settings.cacheRoot), keep_(settings.cacheKeep), resolution_(settings) {}

std::optional<Path> ModelCache::compiledURL(const Path& packageURL, std::string_view key) const {
  const std::optional<Path>& root = root_;
  if (!root) return sessionCompile(packageURL);
  auto fingerprint = packageFingerprint(packageURL);
  if (!fingerprint) return sessionCompile(packageURL);

  const std::string entryName = cacheEntryName(key, *fingerprint);
  const Path entry = *root / entryName;
  std::error_code ec;
  if (fsops::existsAnyKind(entry)) {
    fs::last_write_time(entry, fs::file_time_type::clock::now(), ec);  // last use; may fail
    engineLog("[vivra] mlmodelc cache HIT: " + entryName);
    return entry;
  }

  auto compiled = compileModelPackage(packageURL);
  if (!compiled) return std::nullopt;  // load reports the failure
  // The staging name carries only the process identifier, so two threads of this process must
  // not install at the same time; other processes are kept apart by the name itself.
  static std::mutex installMutex;
  std::lock_guard installLock(installMutex);
  fs::create_directories(*root, ec);
  const Path staging = *root / ("." + entryName + ".tmp-" + std::to_string(::getpid()));
  fs::remove_all(staging, ec);
  // Two moves: the entry appears whole or not at all, even when several processes install the
  // same content at once.
  std::string error;
  if (fsops::moveItem(*compiled, staging, error) && fsops::moveItem(staging, entry, error)) {
    engineLog("[vivra] mlmodelc cached: " + entryName);
    prune(*root, key, entryName);
    return entry;
  }
  fs::remove_all(staging, ec);
  if (fsops::existsAnyKind(entry)) return entry;  // another process installed it first
  engineLog("[vivra] mlmodelc cache persist FAILED for " + std::string(key) + " (" + error +
            ") — using session-temp compile");
  if (fsops::existsAnyKind(*compiled)) {
    std::lock_guard lock(sessionTemps().mutex);
    sessionTemps().paths.push_back(*compiled);
    return compiled;
  }
  return std::nullopt;
}

void ModelCache::prune(const Path& root, std::string_view key, std::string_view keeping) const {
  const int keep = keep_;
  std::error_code ec;
  fs::directory_iterator it(root, ec);
  if (ec) return;
  std::vector<std::string> names;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) return;
    names.push_back(it->path().filename().string());
  }

  // Legacy entries of the key carry no content hash: they can never be hit again.
  for (const std::string& name : names) {
    if (name != keeping && cacheEntry::isLegacyOf(name, key)) fs::remove_all(root / name, ec);
  }

  std::vector<std::pair<std::string, fs::file_time_type>> current;
  for (const std::string& name : names) {
    if (cacheEntry::belongsTo(name, key)) current.emplace_back(name, fs::file_time_type::min());
  }
  if (current.size() <= static_cast<std::size_t>(keep)) return;
  for (auto& [name, lastUse] : current) {
    std::error_code timeError;
    auto t = fs::last_write_time(root / name, timeError);
    if (!timeError) lastUse = t;  // unreadable: the distant past, evicted first
  }
  std::stable_sort(current.begin(), current.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  for (std::size_t i = static_cast<std::size_t>(keep); i < current.size(); ++i) {
    if (current[i].first != keeping) fs::remove_all(root / current[i].first, ec);
  }
}

ModelCache::CompiledLoad ModelCache::loadCompiled(const Path& package, std::string_view key,
                                                  ComputeUnits cu,
                                                  std::string_view purgeLine) const {
  auto compiled = compiledURL(package, key);
  if (!compiled) return {nullptr, true};
  if (auto model = GraphModel::load(*compiled, cu)) return {model, false};
  engineLog(purgeLine);
  removeTreeQuietly(*compiled);
  compiled = compiledURL(package, key);
  if (!compiled) return {nullptr, true};
  return {GraphModel::load(*compiled, cu), false};
}

std::shared_ptr<GraphModel> ModelCache::load(std::string_view name, ComputeUnits cu) const {
  auto package = resolution_.modelURL(name);
  if (!package) {
    engineLog("[vivra] MISSING " + std::string(name) + ".mlpackage in bundle");
    return nullptr;
  }
  CompiledLoad loaded = loadCompiled(*package, name, cu,
                                     "[vivra] cached mlmodelc failed to load for " +
                                         std::string(name) + " — purging + recompiling once");
  if (loaded.compileFailed) engineLog("[vivra] compile failed " + std::string(name));
  return loaded.model;
}

}  // namespace lumora2
