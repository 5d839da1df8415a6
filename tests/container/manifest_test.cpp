// Manifest records: the exact bytes on disk and back, decoding refusals and the unified header
// stamp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "container/error.h"
#include "container/manifest.h"

namespace lumora2 {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(ManifestEncodeTest, EngineManifestHasExactBytesInKeyOrderAndRoundTrips) {
  EngineManifest m;
  m.format = std::string(EngineManifest::kWrittenFormat);
  m.abi = 3;
  m.created = "2025-03-01T09:30:00Z";
  m.files["warm"] = {"warm.wav", "0f3e", 12};
  const std::string text = ManifestJSON::encode(m);
  EXPECT_EQ(text, R"({
  "abi": 3,
  "created": "2025-03-01T09:30:00Z",
  "files": {
    "warm": {
      "bytes": 12,
      "path": "warm.wav",
      "sha256": "0f3e"
    }
  },
  "format": "vivra-engine/1",
  "runtime": {
    "fps": 20,
    "frame": [
      416,
      720
    ],
    "input_rate": 16000
  }
})");
  EXPECT_EQ(ManifestJSON::decodeEngine(text), m);
}

TEST(ManifestDecodeTest, RefusalsNameWhatIsWrong) {
  const std::pair<std::string, const char*> table[] = {
      {"{\"format\": ", "manifest: [json.exception.parse_error"},
      {"[1]", "manifest: top level must be a JSON object"},
      {R"({"format": "vivra-engine/1"})", "manifest: missing required key \"abi\""},
      {R"({"format": "f", "abi": 3.5})", "manifest: key \"abi\" must be an integer"},
      {R"({"format": "f", "abi": 3, "runtime": {"input_rate": 1, "frame": [1, "x"]}})",
       "manifest: key \"runtime.frame[1]\" must be an integer"},
      {R"({"format": "f", "abi": 3, "runtime": {"input_rate": 1, "frame": [], "fps": 1},
          "created": "c", "files": {"w": {"path": "p", "bytes": 1}}})",
       "manifest: missing required key \"files.w.sha256\""},
      {std::string(200, '['), "manifest: JSON nested deeper than 128 levels"}};
  for (const auto& row : table) {
    const std::string& json = row.first;
    const std::string& message = row.second;
    EXPECT_THAT([&] { ManifestJSON::decodeEngine(json); },
                ThrowsMessage<ArtifactError>(HasSubstr(message)));
  }
}

TEST(UnifiedHeaderTest, StampReplacesTheHeaderKeepsTheRestAndIsIdempotent) {
  std::string once = UnifiedHeader::stamp(
      R"({"engine_abi": 3, "z": {"b": 1, "a": [2.5, "/"]}, "engine": "old"})", "lumora2", 4);
  EXPECT_EQ(once, R"({
  "decoder": "decp2v3",
  "engine": "lumora2",
  "engine_abi": 4,
  "unified_format_version": 2,
  "z": {
    "a": [
      2.5,
      "/"
    ],
    "b": 1
  }
})");
  EXPECT_EQ(UnifiedHeader::stamp(once, "lumora2", 4), once);
  for (const char* text : {"[1, 2]", "7"}) {
    EXPECT_THAT([&] { UnifiedHeader::stamp(text, "lumora2", 1); },
                ThrowsMessage<ArtifactError>(
                    ::testing::StrEq("unified-header: manifest is not a JSON object")));
  }
}

}  // namespace
}  // namespace lumora2
