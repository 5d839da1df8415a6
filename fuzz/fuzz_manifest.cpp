// Manifest decoding and stamping on arbitrary bytes. Every input must either decode or be refused
// with ArtifactError; whatever decodes must survive encode → decode unchanged, and stamping must be
// idempotent.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "container/error.h"
#include "container/manifest.h"

namespace {

template <typename Record, typename Decode>
void roundTrip(std::string_view text, Decode decode) {
  Record first;
  try {
    first = decode(text);
  } catch (const lumora2::ArtifactError&) {
    return;  // refused: the only acceptable failure
  }
  if (!(decode(lumora2::ManifestJSON::encode(first)) == first)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<lumora2::EngineManifest>(
      text, [](std::string_view t) { return lumora2::ManifestJSON::decodeEngine(t); });
  roundTrip<lumora2::AvatarManifest>(
      text, [](std::string_view t) { return lumora2::ManifestJSON::decodeAvatar(t); });
  roundTrip<lumora2::Provenance>(
      text, [](std::string_view t) { return lumora2::ManifestJSON::decodeProvenance(t); });
  try {
    std::string once = lumora2::UnifiedHeader::stamp(text, "lumora2", 4);
    if (lumora2::UnifiedHeader::stamp(once, "lumora2", 4) != once) std::abort();
  } catch (const lumora2::ArtifactError&) {
  }
  return 0;
}
