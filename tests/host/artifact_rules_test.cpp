// The packing rules as tables: what each kind needs, the label rule, the provenance verdict.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "host/artifact_rules.h"

namespace lumora2 {
namespace {

using Names = std::vector<std::string>;

const Names kFullEngine{"audiotokenizer_cpuAndNE.mlpackage/io.json",
                        "audiotokenizer_cpuAndNE.mlpackage/model.pt",
                        "student_v4_forward_frame_cpuAndNE.mlpackage/model.pt",
                        "w2v_frontend_cpuAndNE.mlpackage/Data/weights.bin", "warm.wav"};

struct NeedsCase {
  ArtifactKind kind;
  Names members;
  Names missing;
};

class MissingRequirementsTest : public ::testing::TestWithParam<NeedsCase> {};

TEST_P(MissingRequirementsTest, NamesEverythingMissingInFixedOrder) {
  EXPECT_EQ(missingRequirements(GetParam().members, GetParam().kind), GetParam().missing);
}

// The full messages for empty and mis-shaped staging directories are pinned by the golden cases.
INSTANTIATE_TEST_SUITE_P(
    Kinds, MissingRequirementsTest,
    ::testing::Values(
        // A package given as a plain file, and warm.wav only below a directory, do not count.
        NeedsCase{ArtifactKind::engine,
                  {"audiotokenizer_cpuAndNE.mlpackage", "extras/warm.wav",
                   "student_v4_forward_frame_cpuAndNE.mlpackage/model.pt",
                   "w2v_frontend_cpuAndNE.mlpackage/model.pt"},
                  {"audiotokenizer_cpuAndNE.mlpackage/", "warm.wav"}},
        NeedsCase{ArtifactKind::avatar, {"canon.f32", "dec_p2_v3_all.mlpackage/model.pt"}, {}},
        // idle.mp4 is optional, canon.f32 is not; an engine is no avatar.
        NeedsCase{
            ArtifactKind::avatar, {"dec_p2_v3_all.mlpackage/model.pt", "idle.mp4"}, {"canon.f32"}},
        NeedsCase{ArtifactKind::avatar, kFullEngine, {"dec_p2_v3_all.mlpackage/", "canon.f32"}}));

using Sha = std::optional<std::string>;

struct VerdictCase {
  Sha studentSha256, studentSha, jntSha256;
  ProvenanceVerdict verdict;
};

class ProvenanceVerdictTest : public ::testing::TestWithParam<VerdictCase> {};

TEST_P(ProvenanceVerdictTest, JudgesTheBinding) {
  Provenance p;
  p.studentSha256 = GetParam().studentSha256;
  p.studentSha = GetParam().studentSha;
  p.jntSha256 = GetParam().jntSha256;
  EXPECT_EQ(provenanceVerdict(p), GetParam().verdict);
}

const std::string kSha(64, 'a');
constexpr std::nullopt_t no = std::nullopt;

// Only 64 lower-case hexadecimal digits bind; a non-empty legacy field is legacy-bound.
INSTANTIATE_TEST_SUITE_P(
    Rule, ProvenanceVerdictTest,
    ::testing::Values(VerdictCase{kSha, no, no, ProvenanceVerdict::bound},
                      VerdictCase{kSha, "abc", kSha, ProvenanceVerdict::bound},
                      VerdictCase{std::string(64, 'A'), no, no, ProvenanceVerdict::unstamped},
                      VerdictCase{std::string(63, 'a'), no, no, ProvenanceVerdict::unstamped},
                      VerdictCase{no, "abc123", no, ProvenanceVerdict::legacyBound},
                      VerdictCase{std::string(63, 'a'), no, kSha, ProvenanceVerdict::legacyBound},
                      VerdictCase{no, "", "", ProvenanceVerdict::unstamped},
                      VerdictCase{no, no, no, ProvenanceVerdict::unstamped}));

}  // namespace
}  // namespace lumora2
