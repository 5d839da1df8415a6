// ImxBuilder: hand-made IMX byte images for tests, well-formed or deliberately hostile. Member
// data follows the table in entry order unless an entry names its own span; layout() tells where
// each table field lies, so a test can cut an image at an exact field boundary.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "container/imx.h"

namespace lumora2::test {

// A one-line summary of what `f` threw: `truncated table @8`, `truncated "a" @35`,
// `notAContainer [89 50 4e 47]`, `wrongContainerFamily KIMX`, `legacyZipContainer`,
// `unsupportedVersion 3`, `unsafeMemberName "../x"`, `memberNotFound "x"`,
// `cannotWrite "a" to /out/a`, `ENOTDIR /out/a` (a file system error); "returned" otherwise.
std::string summary(const Lumora2ContainerError& error);
std::string summary(const std::filesystem::filesystem_error& error);
template <typename F>
std::string imxError(F&& f) {
  try {
    f();
  } catch (const Lumora2ContainerError& e) {
    return summary(e);
  } catch (const std::filesystem::filesystem_error& e) {
    return summary(e);
  }
  return "returned";
}

// The format's little-endian integers as raw bytes.
std::string le16(std::uint16_t value);
std::string le64(std::uint64_t value);

class ImxBuilder {
 public:
  // Where one entry's fields start: its name length, its name, its offset and size.
  struct EntryLayout {
    std::uint64_t at = 0, nameAt = 0, spanAt = 0;
  };
  struct Layout {
    std::vector<EntryLayout> entries;
    std::uint64_t dataAt = 0;  // first byte after the table
  };

  // A member with its bytes in the data area; the name is raw bytes and need not be UTF-8.
  ImxBuilder& add(std::string name, std::string data);
  // A table entry pointing anywhere, with nothing laid out for it.
  ImxBuilder& addSpan(std::string name, std::uint64_t offset, std::uint64_t size);
  // Bytes appended after the data area.
  ImxBuilder& trailer(std::string bytes);

  Layout layout() const;
  std::string bytes() const;
  std::filesystem::path writeTo(const std::filesystem::path& file) const;  // returns `file`

 private:
  struct Entry {
    std::string name, data;
    std::optional<std::uint64_t> offset, size;  // set for a span
  };
  std::vector<Entry> entries_;
  std::string trailer_;
};

}  // namespace lumora2::test
