// ImxBuilder: hand-made IMX byte images for tests, well-formed or deliberately hostile. Every
// header field and every table-of-contents field can be set by hand; member data is laid out
// after the table in entry order unless an entry names its own span. layout() tells where each
// field lies, so a test can cut an image at an exact field boundary.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "container/imx.h"

namespace lumora2::test {

// A one-line summary of a reader error's case and payload, without the container path:
// `truncated table @8`, `truncated "a.txt" @35`, `notAContainer [89 50 4e 47]`,
// `wrongContainerFamily KIMX`, `legacyZipContainer`, `unsupportedVersion 3`,
// `unsafeMemberName "../x"`, `memberNotFound "x"`, `cannotWrite "a" to /out/a`.
std::string summary(const Lumora2ContainerError& error);

// Runs `f` and returns the summary of the reader error it throws, or "returned" when it returns.
// Other exceptions pass through.
template <typename F>
std::string imxError(F&& f) {
  try {
    f();
  } catch (const Lumora2ContainerError& e) {
    return summary(e);
  }
  return "returned";
}

// The format's little-endian integers as raw bytes.
std::string le16(std::uint16_t value);
std::string le64(std::uint64_t value);

class ImxBuilder {
 public:
  struct Entry {
    std::string name;                         // raw bytes: need not be UTF-8
    std::string data;                         // laid out in the data area unless `offset` is set
    std::optional<std::uint64_t> offset;      // explicit offset field (nothing laid out)
    std::optional<std::uint64_t> size;        // explicit size field (default: data.size())
    std::optional<std::uint16_t> nameLength;  // explicit length field (default: name.size())
  };

  // Where each field of one entry starts in bytes().
  struct EntryLayout {
    std::uint64_t nameLengthAt = 0;
    std::uint64_t nameAt = 0;
    std::uint64_t spanAt = 0;  // the 16 bytes of offset and size
    std::uint64_t dataAt = 0;  // where its data was laid out (its offset field otherwise)
  };
  struct Layout {
    std::vector<EntryLayout> entries;
    std::uint64_t dataAt = 0;  // first byte after the table
    std::uint64_t end = 0;     // the image's length
  };

  ImxBuilder& magic(const Magic& bytes);
  ImxBuilder& version(std::uint16_t value);
  // Overrides the count field; by default it is the number of entries added.
  ImxBuilder& count(std::uint16_t value);
  // A member with its bytes in the data area.
  ImxBuilder& add(std::string name, std::string data);
  // A table entry pointing anywhere, with nothing laid out for it.
  ImxBuilder& addSpan(std::string name, std::uint64_t offset, std::uint64_t size);
  ImxBuilder& addEntry(Entry entry);
  // Bytes appended after the data area.
  ImxBuilder& trailer(std::string bytes);

  Layout layout() const;
  std::string bytes() const;
  // Writes bytes() to `file` and returns it.
  std::filesystem::path writeTo(const std::filesystem::path& file) const;

 private:
  Magic magic_ = Lumora2Container::magic;
  std::uint16_t version_ = Lumora2Container::version;
  std::optional<std::uint16_t> count_;
  std::vector<Entry> entries_;
  std::string trailer_;
};

}  // namespace lumora2::test
