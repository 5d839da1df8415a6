#include "imx_builder.h"

#include <cstdio>
#include <cstring>

#include "scratch_dir.h"

namespace lumora2::test {

std::string summary(const Lumora2ContainerError& e) {
  using Kind = Lumora2ContainerError::Kind;
  const std::string quoted = "\"" + e.name() + "\"";
  switch (e.kind()) {
    case Kind::notAContainer: {
      char hex[32];
      std::snprintf(hex, sizeof hex, "[%02x %02x %02x %02x]", e.magic()[0], e.magic()[1],
                    e.magic()[2], e.magic()[3]);
      return std::string("notAContainer ") + hex;
    }
    case Kind::wrongContainerFamily:
      return "wrongContainerFamily " + e.name();
    case Kind::legacyZipContainer:
      return "legacyZipContainer";
    case Kind::unsupportedVersion:
      return "unsupportedVersion " + std::to_string(e.version());
    case Kind::truncated:
      return "truncated " + (e.member() ? "\"" + *e.member() + "\"" : std::string("table")) + " @" +
             std::to_string(e.atOffset());
    case Kind::unsafeMemberName:
      return "unsafeMemberName " + quoted;
    case Kind::memberNotFound:
      return "memberNotFound " + quoted;
    case Kind::cannotWrite:
      return "cannotWrite " + quoted + " to " + e.destination();
  }
  return "?";
}

std::string summary(const std::filesystem::filesystem_error& e) {
  return std::string(strerrorname_np(e.code().value())) + " " + e.path1().string();
}

std::string le16(std::uint16_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

std::string le64(std::uint64_t value) {
  std::string out;
  for (int i = 0; i < 8; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
  return out;
}

ImxBuilder& ImxBuilder::add(std::string name, std::string data) {
  entries_.push_back({std::move(name), std::move(data), {}, {}});
  return *this;
}

ImxBuilder& ImxBuilder::addSpan(std::string name, std::uint64_t offset, std::uint64_t size) {
  entries_.push_back({std::move(name), {}, offset, size});
  return *this;
}

ImxBuilder& ImxBuilder::trailer(std::string bytes) {
  trailer_ = std::move(bytes);
  return *this;
}

ImxBuilder::Layout ImxBuilder::layout() const {
  Layout out;
  std::uint64_t pos = Lumora2Container::headerLength;
  for (const Entry& e : entries_) {
    out.entries.push_back({pos, pos + 2, pos + 2 + e.name.size()});
    pos += 2 + e.name.size() + 16;
  }
  out.dataAt = pos;
  return out;
}

std::string ImxBuilder::bytes() const {
  const std::uint64_t dataAt = layout().dataAt;
  std::string table = std::string("IMX\0", 4) + le16(Lumora2Container::version) +
                      le16(static_cast<std::uint16_t>(entries_.size()));
  std::string data;
  for (const Entry& e : entries_) {
    table += le16(static_cast<std::uint16_t>(e.name.size())) + e.name +
             le64(e.offset.value_or(dataAt + data.size())) + le64(e.size.value_or(e.data.size()));
    data += e.data;
  }
  return table + data + trailer_;
}

std::filesystem::path ImxBuilder::writeTo(const std::filesystem::path& file) const {
  writeBytes(file, bytes());
  return file;
}

}  // namespace lumora2::test
