// Manifest records: the key rule, the exact bytes on disk, decoding refusals, accepted tags and the
// unified header stamp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "container/command.h"
#include "container/manifest.h"

namespace lumora2 {
namespace {

using ::testing::HasSubstr;

struct SnakeCase {
  const char* field;
  const char* key;
};

class SnakeCaseTest : public ::testing::TestWithParam<SnakeCase> {};

TEST_P(SnakeCaseTest, DerivesTheJsonKey) {
  EXPECT_EQ(ManifestJSON::snakeCase(GetParam().field), GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, SnakeCaseTest,
    ::testing::Values(
        SnakeCase{"path", "path"}, SnakeCase{"sha256", "sha256"},
        SnakeCase{"inputRate", "input_rate"}, SnakeCase{"requiresEngineAbi", "requires_engine_abi"},
        SnakeCase{"trainerVersion", "trainer_version"}, SnakeCase{"studentSha", "student_sha"},
        SnakeCase{"jntSha256", "jnt_sha256"}, SnakeCase{"studentKind", "student_kind"},
        SnakeCase{"w2vKind", "w2v_kind"}, SnakeCase{"agentCode", "agent_code"},
        SnakeCase{"studentSha256", "student_sha256"},
        SnakeCase{"studentKindSource", "student_kind_source"},
        SnakeCase{"adaptSha256", "adapt_sha256"}, SnakeCase{"decv3Sha256", "decv3_sha256"},
        SnakeCase{"bundleManifestSha256", "bundle_manifest_sha256"},
        SnakeCase{"myURLValue", "my_url_value"}, SnakeCase{"", ""}));

EngineManifest sampleEngine() {
  EngineManifest m;
  m.format = std::string(EngineManifest::kWrittenFormat);
  m.abi = 3;
  m.created = "2025-03-01T09:30:00Z";
  m.files["warm"] = {"warm.wav", "0f3e", 12};
  return m;
}

TEST(ManifestEncodeTest, EngineManifestHasExactBytes) {
  EXPECT_EQ(ManifestJSON::encode(sampleEngine()), R"({
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
}

TEST(ManifestEncodeTest, RecordsRoundTrip) {
  EngineManifest engine = sampleEngine();
  EXPECT_EQ(ManifestJSON::decodeEngine(ManifestJSON::encode(engine)), engine);

  AvatarManifest avatar;
  avatar.format = "vivra-avatar/1";
  avatar.code = "ava";
  avatar.name = "Åsa \"Q\"";
  avatar.requiresEngineAbi = 3;
  avatar.provenance.w2vKind = "w2v";
  avatar.provenance.bundleManifestSha256 = "ff";
  avatar.files["canon"] = {"canon.f32", "00", 4};
  std::string text = ManifestJSON::encode(avatar);
  EXPECT_EQ(ManifestJSON::decodeAvatar(text), avatar);
  EXPECT_THAT(text, HasSubstr("\"bundle_manifest_sha256\": \"ff\""));
  EXPECT_EQ(text.find("student_sha"), std::string::npos);  // absent fields are omitted, not null
}

TEST(ManifestEncodeTest, EmptyProvenanceIsAnEmptyObjectThatAvatarsStillCarry) {
  EXPECT_EQ(ManifestJSON::encode(Provenance{}), "{}");
  EXPECT_THAT(ManifestJSON::encode(AvatarManifest{}), HasSubstr("\"provenance\": {},"));
  EXPECT_EQ(ManifestJSON::decodeProvenance("{\"agent_code\": null, \"extra\": 1}"), Provenance{});
}

struct Refusal {
  const char* json;
  const char* message;  // a part of the Err text
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.message; }

class ManifestDecodeRefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(ManifestDecodeRefusalTest, NamesWhatIsWrong) {
  try {
    ManifestJSON::decodeEngine(GetParam().json);
    FAIL() << "expected Err";
  } catch (const Err& e) {
    EXPECT_THAT(e.what(), HasSubstr(GetParam().message));
  }
}

const char* const kRuntime = R"("runtime": {"input_rate": 16000, "frame": [416, 720], "fps": 20})";

INSTANTIATE_TEST_SUITE_P(
    Cases, ManifestDecodeRefusalTest,
    ::testing::Values(
        Refusal{"", "manifest: [json.exception.parse_error.101]"},
        Refusal{"{\"format\": ", "manifest: [json.exception.parse_error"},
        Refusal{"[1]", "manifest: top level must be a JSON object"},
        Refusal{R"({"format": "vivra-engine/1"})", "manifest: missing required key \"abi\""},
        Refusal{R"({"format": 1, "abi": 3})", "manifest: key \"format\" must be a string"},
        Refusal{R"({"format": "f", "abi": 3.5})", "manifest: key \"abi\" must be an integer"},
        Refusal{R"({"format": "f", "abi": true})", "key \"abi\" must be an integer"},
        Refusal{R"({"format": "f", "abi": 3, "runtime": {"fps": 20}})",
                "manifest: missing required key \"runtime.input_rate\""},
        Refusal{R"({"format": "f", "abi": 3, "runtime": {"input_rate": 1, "frame": [1, "x"]}})",
                "manifest: key \"runtime.frame[1]\" must be an integer"},
        Refusal{R"({"format": "f", "abi": 3, "runtime": {"input_rate": 1, "frame": [], "fps": 1},
                    "created": "c", "files": {"w": {"path": "p", "bytes": 1}}})",
                "manifest: missing required key \"files.w.sha256\""},
        Refusal{
            "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["
            "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[",
            "manifest: JSON nested deeper than 128 levels"}));

TEST(ManifestDecodeTest, UnknownKeysAreIgnoredAndIntegralFloatsAreIntegers) {
  std::string text = std::string(R"({"format": "lumora2-engine/1", "abi": 3.0, "x": [null], )") +
                     kRuntime + R"(, "created": "c", "files": {}})";
  EngineManifest m = ManifestJSON::decodeEngine(text);
  EXPECT_EQ(m.abi, 3);
  EXPECT_EQ(m.runtime, EngineRuntime{});
}

struct Tag {
  const char* format;
  bool engine;
  bool avatar;
};

class AcceptedFormatTest : public ::testing::TestWithParam<Tag> {};

TEST_P(AcceptedFormatTest, AcceptsExactlyTheKnownTags) {
  EXPECT_EQ(EngineManifest::kAcceptedFormats.contains(GetParam().format), GetParam().engine);
  EXPECT_EQ(AvatarManifest::kAcceptedFormats.contains(GetParam().format), GetParam().avatar);
}

INSTANTIATE_TEST_SUITE_P(
    Tags, AcceptedFormatTest,
    ::testing::Values(Tag{"vivra-engine/1", true, false}, Tag{"lumora2-engine/1", true, false},
                      Tag{"vivra-avatar/1", false, true}, Tag{"lumora2-avatar/1", false, true},
                      Tag{"vivra-engine/2", false, false}, Tag{"Vivra-engine/1", false, false}));

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
}

TEST(UnifiedHeaderTest, RefusesWhatIsNotAnObject) {
  for (const char* text : {"[1, 2]", "\"manifest\"", "7"}) {
    try {
      UnifiedHeader::stamp(text, "lumora2", 1);
      ADD_FAILURE() << text;
    } catch (const Err& e) {
      EXPECT_STREQ(e.what(), "unified-header: manifest is not a JSON object");
    }
  }
  EXPECT_THROW(UnifiedHeader::stamp("{", "lumora2", 1), Err);
}

TEST(IsoNowTest, IsAnIso8601UtcSecond) {
  EXPECT_TRUE(std::regex_match(isoNowUTC(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
}

}  // namespace
}  // namespace lumora2
