// The reader's refusals and their fixed descriptions. The texts are what the commands print and
// what users and scripts match on, so they are assembled once here, byte for byte.
#include <cstdio>
#include <string>
#include <utility>

#include "container/imx.h"

namespace lumora2 {

namespace {

// "49 4d 58 00": each byte as two lower-case hex digits, joined by single spaces.
std::string hexBytes(const Magic& bytes) {
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", bytes[i]);
    if (i > 0) out += ' ';
    out += hex;
  }
  return out;
}

}  // namespace

Lumora2ContainerError Lumora2ContainerError::notAContainer(std::string path, Magic magic) {
  Lumora2ContainerError e(Kind::notAContainer, std::move(path));
  e.magic_ = magic;
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::wrongContainerFamily(std::string path,
                                                                  std::string magic) {
  Lumora2ContainerError e(Kind::wrongContainerFamily, std::move(path));
  e.name_ = std::move(magic);
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::legacyZipContainer(std::string path) {
  Lumora2ContainerError e(Kind::legacyZipContainer, std::move(path));
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::unsupportedVersion(std::string path,
                                                                std::uint16_t version) {
  Lumora2ContainerError e(Kind::unsupportedVersion, std::move(path));
  e.version_ = version;
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::truncated(std::string path,
                                                       std::optional<std::string> member,
                                                       std::uint64_t atOffset) {
  Lumora2ContainerError e(Kind::truncated, std::move(path));
  if (member) e.name_ = *member;
  e.member_ = std::move(member);
  e.atOffset_ = atOffset;
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::unsafeMemberName(std::string path, std::string name) {
  Lumora2ContainerError e(Kind::unsafeMemberName, std::move(path));
  e.name_ = std::move(name);
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::memberNotFound(std::string path, std::string name) {
  Lumora2ContainerError e(Kind::memberNotFound, std::move(path));
  e.name_ = std::move(name);
  e.describe();
  return e;
}

Lumora2ContainerError Lumora2ContainerError::cannotWrite(std::string path, std::string member,
                                                         std::string destination) {
  Lumora2ContainerError e(Kind::cannotWrite, std::move(path));
  e.name_ = member;
  e.member_ = std::move(member);
  e.destination_ = std::move(destination);
  e.describe();
  return e;
}

void Lumora2ContainerError::describe() {
  const std::string& p = path_;
  switch (kind_) {
    case Kind::notAContainer:
      description_ =
          p + ": not an IMX\\0 container — first bytes are [" + hexBytes(magic_) +
          "]. The container GET /v1/agent/{code}/model/download vends begins \"IMX\\0\".";
      break;
    case Kind::wrongContainerFamily:
      description_ = p + ": this is a " + name_ +
                     " container (sorvel-1, family A′) — byte-identical framing, a DIFFERENT "
                     "engine. lumora-2 reads IMX\\0 only. Open it with the product its unified "
                     "`engine` header names.";
      break;
    case Kind::legacyZipContainer:
      description_ = p +
                     ": legacy ZIP container (packed with UNIFIED_CONTAINER=0). This "
                     "Foundation-only reader is zip-free so it can run inside an iOS app. Unpack "
                     "it on a host with `lumora2-model unpack " +
                     p +
                     " <dir>` (or `unzip`) and pass the resulting directory as "
                     "`sharedEngineDir:`.";
      break;
    case Kind::unsupportedVersion:
      description_ = p + ": IMX container version " + std::to_string(version_) +
                     " — this reader implements version " +
                     std::to_string(Lumora2Container::version) +
                     " (models/_core/container/IMX_CONTRACT.md §1). A second version number is a "
                     "second container; do not widen this reader without changing the contract.";
      break;
    case Kind::truncated:
      description_ = p + ": truncated container — ran off the end at offset " +
                     std::to_string(atOffset_) +
                     (member_ ? " reading member \"" + *member_ + "\""
                              : std::string(" reading the table of contents")) +
                     ". The file is incomplete (a partial download writes exactly this).";
      break;
    case Kind::unsafeMemberName:
      description_ = p + ": refusing member name \"" + name_ +
                     "\" — it would write outside the destination directory. The canonical "
                     "writer (tools/imx_unified) never emits one; a container that does is "
                     "hostile or corrupt.";
      break;
    case Kind::memberNotFound:
      description_ =
          p + ": no member named \"" + name_ + "\" in the container's table of contents.";
      break;
    case Kind::cannotWrite:
      description_ = p + ": could not write member \"" + name_ + "\" to " + destination_ +
                     " — read-only volume, no space, or a name in this container collides with a "
                     "directory another of its members created.";
      break;
  }
}

}  // namespace lumora2
