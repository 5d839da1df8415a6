#include "imx_builder.h"

#include <cstdio>

#include "scratch_dir.h"

namespace lumora2::test {

std::string summary(const Lumora2ContainerError& e) {
  using Kind = Lumora2ContainerError::Kind;
  const std::string quoted = "\"" + e.name() + "\"";
  switch (e.kind()) {
    case Kind::notAContainer: {
      char hex[16];
      std::snprintf(hex, sizeof hex, "%02x %02x %02x %02x", e.magic()[0], e.magic()[1],
                    e.magic()[2], e.magic()[3]);
      return std::string("notAContainer [") + hex + "]";
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

std::string le16(std::uint16_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

std::string le64(std::uint64_t value) {
  std::string out;
  for (int i = 0; i < 8; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
  return out;
}

ImxBuilder& ImxBuilder::magic(const Magic& bytes) {
  magic_ = bytes;
  return *this;
}

ImxBuilder& ImxBuilder::version(std::uint16_t value) {
  version_ = value;
  return *this;
}

ImxBuilder& ImxBuilder::count(std::uint16_t value) {
  count_ = value;
  return *this;
}

ImxBuilder& ImxBuilder::add(std::string name, std::string data) {
  return addEntry(
      Entry{std::move(name), std::move(data), std::nullopt, std::nullopt, std::nullopt});
}

ImxBuilder& ImxBuilder::addSpan(std::string name, std::uint64_t offset, std::uint64_t size) {
  return addEntry(Entry{std::move(name), {}, offset, size, std::nullopt});
}

ImxBuilder& ImxBuilder::addEntry(Entry entry) {
  entries_.push_back(std::move(entry));
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
    EntryLayout at;
    at.nameLengthAt = pos;
    at.nameAt = pos + 2;
    at.spanAt = at.nameAt + e.name.size();
    pos = at.spanAt + 16;
    out.entries.push_back(at);
  }
  out.dataAt = pos;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].offset) {
      out.entries[i].dataAt = *entries_[i].offset;
    } else {
      out.entries[i].dataAt = pos;
      pos += entries_[i].data.size();
    }
  }
  out.end = pos + trailer_.size();
  return out;
}

std::string ImxBuilder::bytes() const {
  const Layout at = layout();
  std::string out(magic_.begin(), magic_.end());
  out += le16(version_);
  out += le16(count_.value_or(static_cast<std::uint16_t>(entries_.size())));
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const Entry& e = entries_[i];
    out += le16(e.nameLength.value_or(static_cast<std::uint16_t>(e.name.size())));
    out += e.name;
    out += le64(at.entries[i].dataAt);
    out += le64(e.size.value_or(e.data.size()));
  }
  for (const Entry& e : entries_) {
    if (!e.offset) out += e.data;
  }
  out += trailer_;
  return out;
}

std::filesystem::path ImxBuilder::writeTo(const std::filesystem::path& file) const {
  writeBytes(file, bytes());
  return file;
}

}  // namespace lumora2::test
