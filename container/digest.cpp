#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <system_error>

#include "container/archive.h"
#include "container/command.h"
#include "staging.h"
#include "unique_fd.h"

namespace lumora2::Archive {
namespace {

namespace fs = std::filesystem;

// Hashing is fed in windows of this size, so progress moves and the kernel's read-ahead (asked
// for with MADV_SEQUENTIAL) stays ahead of the hash.
constexpr std::size_t kWindow = 8u << 20;

class Sha256 {
 public:
  Sha256() : ctx_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    if (!ctx_ || EVP_DigestInit_ex(ctx_.get(), EVP_sha256(), nullptr) != 1) {
      throw Err("SHA-256 is unavailable in this build of libcrypto");
    }
  }
  void update(const void* data, std::size_t size) {
    if (size > 0 && EVP_DigestUpdate(ctx_.get(), data, size) != 1) {
      throw Err("SHA-256 update failed");
    }
  }
  std::string hex() {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_.get(), md, &length) != 1) throw Err("SHA-256 final failed");
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
      out.push_back(digits[md[i] >> 4]);
      out.push_back(digits[md[i] & 0x0F]);
    }
    return out;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx_;
};

struct Mapping {
  void* base = MAP_FAILED;
  std::size_t size = 0;
  ~Mapping() {
    if (base != MAP_FAILED) ::munmap(base, size);
  }
};

// Feeds the whole file into `sha` through one read-only mapping; returns its length. An empty
// file is never mapped (a zero-length mapping is an error).
std::uint64_t hashFile(const fs::path& path, Sha256& sha, std::uint64_t& done, std::uint64_t total,
                       const ProgressFn& progress) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw fileError("open", path);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) throw fileError("stat", path);
  if (S_ISDIR(st.st_mode)) {
    throw fs::filesystem_error("read", path, std::make_error_code(std::errc::is_a_directory));
  }
  const auto size = static_cast<std::uint64_t>(st.st_size);
  if (size == 0) return 0;

  Mapping map;
  map.size = static_cast<std::size_t>(size);
  map.base = ::mmap(nullptr, map.size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (map.base == MAP_FAILED) throw fileError("mmap", path);
  ::madvise(map.base, map.size, MADV_SEQUENTIAL);
  const auto* bytes = static_cast<const unsigned char*>(map.base);
  for (std::size_t at = 0; at < map.size; at += kWindow) {
    std::size_t n = std::min(kWindow, map.size - at);
    sha.update(bytes + at, n);
    // Hashed pages leave this process's resident set (they stay in the page cache), so hashing
    // a multi-gigabyte member keeps the footprint of one window.
    ::madvise(const_cast<unsigned char*>(bytes) + at, n, MADV_DONTNEED);
    done += n;
    if (progress) progress(done, total);
  }
  return size;
}

}  // namespace

Digest digest(const fs::path& url, const ProgressFn& progress) {
  Sha256 sha;
  std::uint64_t done = 0;
  std::error_code ec;
  if (!fs::is_directory(url, ec)) {
    std::uint64_t total = progress ? fs::file_size(url, ec) : 0;
    std::uint64_t bytes = hashFile(url, sha, done, ec ? 0 : total, progress);
    return {sha.hex(), bytes};
  }

  // A model package: each file's relative name, then its bytes, in member-name order. The names
  // make the digest cover the package's shape as well as its contents.
  std::vector<StagedMember> files = regularFilesBelow(url);
  sortByMemberName(files);
  std::uint64_t total = 0;
  for (const StagedMember& f : files) total += f.size;
  std::uint64_t bytes = 0;
  for (const StagedMember& f : files) {
    sha.update(f.name.data(), f.name.size());
    bytes += hashFile(f.url, sha, done, total, progress);
  }
  return {sha.hex(), bytes};
}

}  // namespace lumora2::Archive
