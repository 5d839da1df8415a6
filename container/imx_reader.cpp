// The IMX reader: sniffing, the table of contents, single members and the member-name rules.
// Parsing touches only the header and the table, by small positioned reads, so opening a
// multi-gigabyte engine file costs a few reads whatever its size.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "container/imx.h"
#include "container/member_names.h"
#include "imx_io.h"

namespace lumora2 {

namespace {

std::uint16_t le16(const std::uint8_t* data) {
  return static_cast<std::uint16_t>(data[0] | (data[1] << 8));
}

// Positioned reads of the table through a small window, so a table of many short entries costs a
// handful of system calls instead of three per entry. Semantics are those of readAt: a short count
// means the file ended.
class TableCursor {
 public:
  TableCursor(int fd, const std::filesystem::path& path) : fd_(fd), path_(path) {}

  std::size_t fetch(std::uint64_t pos, std::size_t n, void* out) {
    if (n > kWindow) return imx::readAt(fd_, out, n, pos, path_);
    if (pos < start_ || pos - start_ + n > length_) {
      length_ = imx::readAt(fd_, window_.data(), kWindow, pos, path_);
      start_ = pos;
    }
    std::size_t have =
        pos - start_ >= length_ ? 0 : std::min<std::size_t>(n, length_ - (pos - start_));
    std::memcpy(out, window_.data() + (pos - start_), have);
    return have;
  }

 private:
  static constexpr std::size_t kWindow = 16 * 1024;
  int fd_;
  const std::filesystem::path& path_;
  std::array<std::uint8_t, kWindow> window_{};
  std::uint64_t start_ = 0;
  std::size_t length_ = 0;
};

}  // namespace

namespace imx {

std::vector<Member> readTable(int fd, const std::filesystem::path& path) {
  const std::string shown = path.string();
  TableCursor cursor(fd, path);

  // The length test comes first: a file of 1 to 7 bytes is truncated even if it starts with a
  // known magic.
  std::uint8_t header[Lumora2Container::headerLength];
  if (cursor.fetch(0, sizeof header, header) < sizeof header) {
    throw Lumora2ContainerError::truncated(shown, std::nullopt, 0);
  }
  const Magic head{header[0], header[1], header[2], header[3]};
  if (head == Lumora2Container::kimxMagic) {
    throw Lumora2ContainerError::wrongContainerFamily(shown, "KIMX");
  }
  if (head == Lumora2Container::zipMagic) throw Lumora2ContainerError::legacyZipContainer(shown);
  if (head != Lumora2Container::magic) throw Lumora2ContainerError::notAContainer(shown, head);
  const std::uint16_t version = le16(header + 4);
  if (version != Lumora2Container::version) {
    throw Lumora2ContainerError::unsupportedVersion(shown, version);
  }
  const std::uint16_t count = le16(header + 6);

  std::vector<Member> table;
  std::uint64_t pos = Lumora2Container::headerLength;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint8_t lengthField[2];
    if (cursor.fetch(pos, 2, lengthField) < 2) {
      throw Lumora2ContainerError::truncated(shown, std::nullopt, pos);
    }
    pos += 2;
    std::string name(le16(lengthField), '\0');
    if (!name.empty()) {
      if (cursor.fetch(pos, name.size(), name.data()) < name.size()) {
        throw Lumora2ContainerError::truncated(shown, std::nullopt, pos);
      }
      pos += name.size();
    }
    if (!isValidUtf8(name)) throw Lumora2ContainerError::unsafeMemberName(shown, "<non-UTF8>");
    std::uint8_t span[16];
    if (cursor.fetch(pos, sizeof span, span) < sizeof span) {
      throw Lumora2ContainerError::truncated(shown, std::move(name), pos);
    }
    pos += sizeof span;
    table.push_back(
        Member{std::move(name), Lumora2Container::le64(span, 0), Lumora2Container::le64(span, 8)});
  }
  return table;
}

}  // namespace imx

namespace Lumora2Container {

std::optional<Magic> magic4(const std::filesystem::path& url) noexcept {
  int fd;
  do {
    fd = ::open(url.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return std::nullopt;
  UniqueFd owned(fd);
  Magic bytes{};
  std::size_t got = 0;
  while (got < bytes.size()) {
    ssize_t r = ::read(fd, bytes.data() + got, bytes.size() - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    got += static_cast<std::size_t>(r);
  }
  return bytes;
}

bool isContainer(const std::filesystem::path& url) noexcept { return magic4(url) == magic; }

bool isLegacyZip(const std::filesystem::path& url) noexcept { return magic4(url) == zipMagic; }

std::uint64_t le64(const std::uint8_t* data, std::size_t index) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | data[index + static_cast<std::size_t>(i)];
  return value;
}

std::vector<Member> members(const std::filesystem::path& of) {
  UniqueFd fd = imx::openForReading(of);
  return imx::readTable(fd.get(), of);
}

std::string read(std::string_view name, const std::filesystem::path& from) {
  UniqueFd fd = imx::openForReading(from);
  const std::vector<Member> table = imx::readTable(fd.get(), from);
  // The later of two equal names wins, as in unpack, where it overwrites the earlier file.
  const std::string wanted = nfc(name);
  const Member* hit = nullptr;
  for (const Member& m : table) {
    if (m.name == name || nfc(m.name) == wanted) hit = &m;
  }
  if (hit == nullptr) throw Lumora2ContainerError::memberNotFound(from.string(), std::string(name));
  if (hit->size == 0) return {};

  // The span is checked against the file before anything is allocated, so a hostile size (past
  // the end, beyond 2^63, or wrapping with the offset) is a short read, never a huge allocation.
  const std::uint64_t available = imx::fileSize(fd.get(), from);
  constexpr auto kMaxSize = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (hit->size > kMaxSize || hit->offset > available || hit->size > available - hit->offset) {
    throw Lumora2ContainerError::truncated(from.string(), std::string(name), hit->offset);
  }
  std::string data(static_cast<std::size_t>(hit->size), '\0');
  if (imx::readAt(fd.get(), data.data(), data.size(), hit->offset, from) < data.size()) {
    throw Lumora2ContainerError::truncated(from.string(), std::string(name), hit->offset);
  }
  return data;
}

std::string readManifest(const std::filesystem::path& from) { return read(manifestName, from); }

void checkMemberName(std::string_view name, const std::string& containerPath) {
  const bool refused = name.empty() || name.starts_with('/') || name.starts_with('~') ||
                       name == ".." || name.starts_with("../") ||
                       name.find("/../") != std::string_view::npos || name.ends_with("/..");
  if (refused) throw Lumora2ContainerError::unsafeMemberName(containerPath, std::string(name));
}

bool landsInsideDestination(std::string_view name) {
  if (name.empty() || name.starts_with('/') || name.starts_with('~')) return false;
  long depth = 0;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    const std::string_view piece = name.substr(start, end - start);
    start = end + 1;
    if (piece.empty() || piece == ".") continue;
    if (piece == "..") {
      if (--depth < 0) return false;
    } else {
      ++depth;
    }
  }
  return depth > 0;
}

}  // namespace Lumora2Container
}  // namespace lumora2
