// The compiled-model cache: one compilation per distinct package content, shared by every
// process of the user through entries named by content, installed with a two-step move and
// evicted by last use.
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "cache_entry.h"
#include "container/platform.h"
#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "fs_ops.h"
#include "protocol/dev_env.h"

namespace lumora2 {

namespace fs = std::filesystem;
using Path = Lumora2Engine::Path;

namespace {

constexpr std::size_t kChunk = 1 << 20;  // files are hashed in 1 MiB reads: memory stays flat

// Drops "." and ".." components and a trailing separator.
Path standardized(const Path& p) {
  std::string s = p.lexically_normal().string();
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return Path(s);
}

std::string nfc(const std::string& s) {
  utf8proc_uint8_t* out = utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(s.c_str()));
  if (out == nullptr) return s;  // not valid UTF-8: order by the bytes as they are
  std::string result(reinterpret_cast<char*>(out));
  std::free(out);
  return result;
}

struct PackageFile {
  std::string rel;
  std::string order;  // NFC form of rel: names sort as Unicode strings
  std::uint64_t size = 0;
  Path path;
};

// Feeds one file's content in 1 MiB reads; false when it cannot be opened or read.
bool hashFile(EVP_MD_CTX* ctx, const Path& path, std::vector<unsigned char>& buffer) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  bool ok = true;
  for (;;) {
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    if (n == 0) break;
    EVP_DigestUpdate(ctx, buffer.data(), static_cast<std::size_t>(n));
  }
  ::close(fd);
  return ok;
}

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

std::optional<Lumora2Engine::PackageFingerprint> Lumora2Engine::packageFingerprint(
    const Path& url) {
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

  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
  std::vector<unsigned char> buffer(kChunk);
  PackageFingerprint fingerprint;
  for (const PackageFile& file : files) {
    EVP_DigestUpdate(ctx.get(), file.rel.data(), file.rel.size() + 1);  // the name and its NUL
    std::array<unsigned char, 8> size{};
    for (std::size_t i = 0; i < size.size(); ++i) {
      size[i] = static_cast<unsigned char>(file.size >> (8 * i));
    }
    EVP_DigestUpdate(ctx.get(), size.data(), size.size());
    if (!hashFile(ctx.get(), file.path, buffer)) return std::nullopt;
    fingerprint.bytes += file.size;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &length) != 1) return std::nullopt;
  static constexpr char kHex[] = "0123456789abcdef";
  fingerprint.hex.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    fingerprint.hex.push_back(kHex[digest[i] >> 4]);
    fingerprint.hex.push_back(kHex[digest[i] & 0xF]);
  }
  return fingerprint;
}

std::optional<Path> Lumora2Engine::cacheRoot() {
  auto configured = DevEnv::knob("LUMORA2_MLMODELC_CACHE");
  if (configured && !configured->empty()) return Path(*configured);
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  if (xdg != nullptr && xdg[0] == '/') return Path(xdg) / "morvane-lumora2";
  if (auto home = fsops::homeDir()) return *home / ".cache" / "morvane-lumora2";
  return std::nullopt;
}

std::string Lumora2Engine::cacheEntryName(std::string_view key,
                                          const PackageFingerprint& fingerprint) {
  std::string name(key);
  name += "-" + std::to_string(fingerprint.bytes) + "-sha" + fingerprint.hex.substr(0, 32);
  name += ".mlmodelc";
  return name;
}

int Lumora2Engine::cacheKeep() {
  return cacheEntry::keepFromText(DevEnv::knob("LUMORA2_MLMODELC_CACHE_KEEP"));
}

std::optional<Path> Lumora2Engine::compiledURL(const Path& packageURL, std::string_view key) {
  auto root = cacheRoot();
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

void Lumora2Engine::prune(const Path& root, std::string_view key, std::string_view keeping) {
  const int keep = cacheKeep();
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

std::shared_ptr<GraphModel> Lumora2Engine::load(std::string_view name, ComputeUnits cu) {
  auto package = modelURL(name);
  if (!package) {
    engineLog("[vivra] MISSING " + std::string(name) + ".mlpackage in bundle");
    return nullptr;
  }
  auto compiled = compiledURL(*package, name);
  if (!compiled) {
    engineLog("[vivra] compile failed " + std::string(name));
    return nullptr;
  }
  if (auto model = GraphModel::load(*compiled, cu)) return model;

  engineLog("[vivra] cached mlmodelc failed to load for " + std::string(name) +
            " — purging + recompiling once");
  removeTreeQuietly(*compiled);
  compiled = compiledURL(*package, name);
  if (!compiled) {
    engineLog("[vivra] compile failed " + std::string(name));
    return nullptr;
  }
  return GraphModel::load(*compiled, cu);
}

}  // namespace lumora2
