#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "container/archive.h"
#include "container/error.h"
#include "container/imx.h"
#include "unique_fd.h"

namespace lumora2::Archive {
namespace {

namespace fs = std::filesystem;

void putLe16(std::string& out, std::uint16_t v) {
  out.push_back(static_cast<char>(v & 0xFF));
  out.push_back(static_cast<char>(v >> 8));
}

void putLe64(std::string& out, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void writeAll(int fd, const char* data, std::size_t size, const fs::path& to) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw fileError("write", to);
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

// Copies `from` to the end of `out` in pieces of at most one copyChunk until the source reports
// its end; returns the bytes copied. The kernel's in-place copy is tried first (no user-space
// buffer, and a reflink where the file system shares extents); a file system that cannot do it
// falls back to read and write through a 1 MiB buffer.
class MemberCopier {
 public:
  std::uint64_t copy(const fs::path& from, int out, const fs::path& to,
                     const std::function<void(std::uint64_t)>& advanced) {
    UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.valid()) throw fileError("open", from);
    std::uint64_t copied = 0;
    while (kernelCopy_) {
      ssize_t n = ::copy_file_range(in.get(), nullptr, out, nullptr, kPiece, 0);
      if (n > 0) {
        copied += static_cast<std::uint64_t>(n);
        advanced(static_cast<std::uint64_t>(n));
        continue;
      }
      if (n == 0) return copied;
      if (errno == EINTR) continue;
      // Not supported between these files (another file system, an old kernel): the plain copy
      // takes over, which is safe only while both file positions are untouched.
      if (copied == 0 &&
          (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
        kernelCopy_ = false;
        break;
      }
      throw fs::filesystem_error("copy", from, to, std::error_code(errno, std::generic_category()));
    }
    if (!buffer_) buffer_ = std::make_unique<char[]>(kPiece);
    for (;;) {
      ssize_t n = ::read(in.get(), buffer_.get(), kPiece);
      if (n < 0) {
        if (errno == EINTR) continue;
        throw fileError("read", from);
      }
      if (n == 0) return copied;
      writeAll(out, buffer_.get(), static_cast<std::size_t>(n), to);
      copied += static_cast<std::uint64_t>(n);
      advanced(static_cast<std::uint64_t>(n));
    }
  }

 private:
  static constexpr std::size_t kPiece = Lumora2Container::copyChunk;
  bool kernelCopy_ = true;
  std::unique_ptr<char[]> buffer_;
};

}  // namespace

bool unifiedContainerEnabled() {
  const char* raw = std::getenv("UNIFIED_CONTAINER");
  std::string value = raw == nullptr ? "" : raw;
  const char* blank = " \t\n\r\v\f";
  value.erase(0, value.find_first_not_of(blank));
  value.erase(value.find_last_not_of(blank) + 1);
  for (char& c : value) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return !unifiedFalse.contains(value);
}

void writeImxMembers(const std::vector<StagedMember>& members,
                     const std::optional<std::string>& manifest, const fs::path& to,
                     const ProgressFn& progress) {
  const std::size_t count = members.size() + (manifest ? 1 : 0);
  if (count > Lumora2Container::maxMembers) {
    throw ArtifactError("too many members (" + std::to_string(count) + ") for IMX u16 count");
  }
  auto nameLength = [](const std::string& name) {
    if (name.size() > 0xFFFF) throw ArtifactError("member name longer than 65535 bytes: " + name);
    return static_cast<std::uint16_t>(name.size());
  };

  // Header and table in memory; the first data byte follows the table directly.
  std::uint64_t offset = Lumora2Container::headerLength;
  for (const StagedMember& m : members) offset += 2 + nameLength(m.name) + 16;
  if (manifest) offset += 2 + Lumora2Container::manifestName.size() + 16;

  std::string head(Lumora2Container::magic.begin(), Lumora2Container::magic.end());
  putLe16(head, Lumora2Container::version);
  putLe16(head, static_cast<std::uint16_t>(count));
  std::uint64_t total = 0;
  auto addEntry = [&](const std::string& name, std::uint64_t size) {
    putLe16(head, nameLength(name));
    head += name;
    putLe64(head, offset);
    putLe64(head, size);
    offset += size;
    total += size;
  };
  for (const StagedMember& m : members) addEntry(m.name, m.size);
  if (manifest) addEntry(std::string(Lumora2Container::manifestName), manifest->size());

  fs::remove(to);  // throws the file system's error when an existing output cannot go
  UniqueFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!out.valid()) throw fileError("open", to);
  writeAll(out.get(), head.data(), head.size(), to);

  std::uint64_t done = 0;
  auto advanced = [&](std::uint64_t n) {
    done += n;
    if (progress) progress(done, total);
  };
  // The copied length is deliberately not checked against the table: a file that changes while
  // it is packed is caught by the manifest digests when the container is read.
  MemberCopier copier;
  for (const StagedMember& m : members) copier.copy(m.url, out.get(), to, advanced);
  if (manifest) {
    writeAll(out.get(), manifest->data(), manifest->size(), to);
    advanced(manifest->size());
  }
}

void writeImxContainer(const fs::path& contentsOf, const fs::path& to, const ProgressFn& progress) {
  writeImxMembers(stage(contentsOf), std::nullopt, to, progress);
}

}  // namespace lumora2::Archive
