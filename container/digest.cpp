#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "container/archive.h"
#include "container/error.h"
#include "container/sha256.h"
#include "staging.h"
#include "unique_fd.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

// Files are hashed through one buffer of this size. It is small enough to stay in the L2 cache,
// so the hash reads what the kernel has just copied from cache, not from memory; larger pieces
// measured slower (1 MiB: the copy spills to memory), smaller ones pay more system calls. On a
// warm 1 GiB file this runs at openssl dgst's own speed (bench/artifacts.sh).
constexpr std::size_t kPiece = 128u << 10;

}  // namespace

struct Sha256::Context {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
  std::unique_ptr<unsigned char[]> buffer;
};

Sha256::Sha256() : ctx_(std::make_unique<Context>()) {
  if (!ctx_->md || EVP_DigestInit_ex(ctx_->md.get(), EVP_sha256(), nullptr) != 1) {
    throw ArtifactError("SHA-256 is unavailable in this build of libcrypto");
  }
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(const void* data, std::size_t size) {
  if (size > 0 && EVP_DigestUpdate(ctx_->md.get(), data, size) != 1) {
    throw ArtifactError("SHA-256 update failed");
  }
}

std::uint64_t Sha256::updateFromFile(const fs::path& path,
                                     const std::function<void(std::uint64_t)>& onBytes) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw fileError("open", path);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) throw fileError("stat", path);
  if (S_ISDIR(st.st_mode)) {
    throw fs::filesystem_error("read", path, std::make_error_code(std::errc::is_a_directory));
  }
  ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  if (!ctx_->buffer) ctx_->buffer = std::make_unique<unsigned char[]>(kPiece);
  unsigned char* buffer = ctx_->buffer.get();
  std::uint64_t total = 0;
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, kPiece);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw fileError("read", path);
    }
    if (n == 0) break;
    update(buffer, static_cast<std::size_t>(n));
    total += static_cast<std::uint64_t>(n);
    if (onBytes) onBytes(static_cast<std::uint64_t>(n));
  }
  // A regular file that ended early or grew was being rewritten as it was read: its digest would
  // describe no version of the file.
  if (S_ISREG(st.st_mode) && total != static_cast<std::uint64_t>(st.st_size)) {
    throw ArtifactError(path.string() + " changed while it was being hashed (" +
                        std::to_string(st.st_size) + " bytes when opened, " +
                        std::to_string(total) + " read)");
  }
  return total;
}

std::string Sha256::hex() {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx_->md.get(), md, &length) != 1) {
    throw ArtifactError("SHA-256 final failed");
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(kDigits[md[i] >> 4]);
    out.push_back(kDigits[md[i] & 0x0F]);
  }
  return out;
}

namespace Archive {

Digest digest(const fs::path& url, const ProgressFn& progress) {
  Sha256 sha;
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  auto advance = [&](std::uint64_t n) {
    done += n;
    if (progress) progress(done, total);
  };
  std::error_code ec;
  if (!fs::is_directory(url, ec)) {
    if (progress) {
      total = fs::file_size(url, ec);
      if (ec) total = 0;
    }
    std::uint64_t bytes = sha.updateFromFile(url, advance);
    return {sha.hex(), bytes};
  }

  // A model package: each file's relative name, then its bytes, in member-name order. The names
  // make the digest cover the package's shape as well as its contents.
  std::vector<StagedMember> files = regularFilesBelow(url);
  sortByMemberName(files);
  for (const StagedMember& f : files) total += f.size;
  std::uint64_t bytes = 0;
  for (const StagedMember& f : files) {
    sha.update(f.name.data(), f.name.size());
    bytes += sha.updateFromFile(f.url, advance);
  }
  return {sha.hex(), bytes};
}

}  // namespace Archive
}  // namespace lumora2
