// The IMX container: the single-file form in which engine files (vivra.model) and avatar files
// (X.avatar) travel, and its reader. The byte layout is documented in docs/MODEL_FORMAT.md:
//
//   magic "IMX\0" | version u16 = 2 | count u16 | count × (nameLen u16, name, offset u64, size u64)
//   | member data back to back
//
// All integers little-endian, no padding. The reader never loads a container whole: it seeks and
// reads field by field, so opening a multi-gigabyte engine file costs a few small reads.
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "container/progress.h"

namespace lumora2 {

using Magic = std::array<std::uint8_t, 4>;

// One table-of-contents entry: where a member's bytes lie in the container.
struct Member {
  std::string name;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  bool operator==(const Member&) const = default;
};

// The reader's refusals. Every case carries the container's path; what() is the fixed,
// user-facing description that the commands print.
class Lumora2ContainerError : public std::exception {
 public:
  enum class Kind {
    notAContainer,
    wrongContainerFamily,
    legacyZipContainer,
    unsupportedVersion,
    truncated,
    unsafeMemberName,
    memberNotFound,
    cannotWrite,
  };

  static Lumora2ContainerError notAContainer(std::string path, Magic magic);
  static Lumora2ContainerError wrongContainerFamily(std::string path, std::string magic);
  static Lumora2ContainerError legacyZipContainer(std::string path);
  static Lumora2ContainerError unsupportedVersion(std::string path, std::uint16_t version);
  // `member` is absent while the table of contents is being read.
  static Lumora2ContainerError truncated(std::string path, std::optional<std::string> member,
                                         std::uint64_t atOffset);
  static Lumora2ContainerError unsafeMemberName(std::string path, std::string name);
  static Lumora2ContainerError memberNotFound(std::string path, std::string name);
  static Lumora2ContainerError cannotWrite(std::string path, std::string member,
                                           std::string destination);

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }
  // The member or name the error is about: the refused or missing name, the truncated or
  // unwritable member, and for wrongContainerFamily the magic as text ("KIMX"); "" where the case
  // has none.
  const std::string& name() const { return name_; }
  const std::optional<std::string>& member() const { return member_; }
  std::uint64_t atOffset() const { return atOffset_; }
  std::uint16_t version() const { return version_; }
  const Magic& magic() const { return magic_; }
  const std::string& destination() const { return destination_; }

  const char* what() const noexcept override { return description_.c_str(); }

 private:
  Lumora2ContainerError(Kind kind, std::string path) : kind_(kind), path_(std::move(path)) {}
  void describe();

  Kind kind_;
  std::string path_;
  std::string name_;
  std::optional<std::string> member_;
  std::uint64_t atOffset_ = 0;
  std::uint16_t version_ = 0;
  Magic magic_{};
  std::string destination_;
  std::string description_;
};

// Stateless reader: every operation opens and closes its own file handle, so calls are reentrant.
// Failures throw Lumora2ContainerError, or the file system's error (std::filesystem::
// filesystem_error / std::system_error) unchanged.
namespace Lumora2Container {

inline constexpr Magic magic{0x49, 0x4D, 0x58, 0x00};      // "IMX\0"
inline constexpr Magic kimxMagic{0x4B, 0x49, 0x4D, 0x58};  // "KIMX": the sibling family
inline constexpr Magic zipMagic{0x50, 0x4B, 0x03, 0x04};   // legacy zip local-file header
inline constexpr std::size_t headerLength = 8;
inline constexpr std::uint16_t version = 2;
inline constexpr std::size_t maxMembers = 65535;
inline constexpr std::string_view manifestName = "manifest.json";
// Member data is streamed in pieces of at most this size, so memory stays flat whatever a
// member's size.
inline constexpr std::size_t copyChunk = 1 << 20;

// The first four bytes of a file, or nothing if it cannot be opened or is shorter. Never throws.
std::optional<Magic> magic4(const std::filesystem::path& url) noexcept;
bool isContainer(const std::filesystem::path& url) noexcept;
bool isLegacyZip(const std::filesystem::path& url) noexcept;

// The unsigned little-endian value of data[index .. index+8); the caller guarantees the bytes.
std::uint64_t le64(const std::uint8_t* data, std::size_t index);

// The table of contents in file order. Offsets and sizes are not checked against the file here;
// a member that runs past the end is found when it is read.
std::vector<Member> members(const std::filesystem::path& of);

// The whole content of the last member whose name equals `name` (names compare by their NFC
// form). Meant for small members such as manifest.json.
std::string read(std::string_view name, const std::filesystem::path& from);
std::string readManifest(const std::filesystem::path& from);

// The first refusal rule: throws unsafeMemberName for "", "/…", "~…", "..", "../…", "…/../…",
// "…/..".
void checkMemberName(std::string_view name, const std::string& containerPath);
// The second refusal rule: whether the name, resolved lexically, lands strictly below the
// destination directory.
bool landsInsideDestination(std::string_view name);

// Writes every member below `to` (created if needed) and returns the names written, in table
// order. The table is parsed before `to` is touched; members before a refused or failing one stay
// written, a member whose data runs out stays as far as it was copied. Whatever stands at a
// member's place is removed first (a directory with its contents), so a later entry replaces an
// earlier one of the same name, also when the two are spelled differently but are canonically
// equivalent. A name that ends in a directory ("d/", "d/.") has no file to write: cannotWrite.
// Beyond the name rules, nothing is ever written outside `to` even when it already holds symbolic
// links: a member whose path passes through a symbolic link fails with ENOTDIR as if a regular
// file stood there, and a link at the target itself is replaced, never followed. Names holding a
// NUL byte are refused as unsafe. `progress` gets (bytes copied, total of all sizes) after each
// piece of at most copyChunk bytes.
std::vector<std::string> unpack(const std::filesystem::path& container,
                                const std::filesystem::path& to, const ProgressFn& progress = {});

}  // namespace Lumora2Container
}  // namespace lumora2
