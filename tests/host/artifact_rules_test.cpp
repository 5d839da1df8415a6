// The packing rules as tables: what each kind needs, the label rule, the provenance verdict.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/artifact_rules.h"

namespace lumora2 {
namespace {

using Names = std::vector<std::string>;

const Names kFullEngine{
    "audiotokenizer_cpuAndNE.mlpackage/io.json",
    "audiotokenizer_cpuAndNE.mlpackage/model.pt",
    "student_v4_forward_frame_cpuAndNE.mlpackage/model.pt",
    "w2v_frontend_cpuAndNE.mlpackage/Data/weights.bin",
    "warm.wav",
};

struct NeedsCase {
  std::string name;
  ArtifactKind kind;
  Names members;
  Names missing;
};

class MissingRequirementsTest : public ::testing::TestWithParam<NeedsCase> {};

TEST_P(MissingRequirementsTest, NamesEverythingMissingInFixedOrder) {
  const NeedsCase& c = GetParam();
  EXPECT_EQ(missingRequirements(c.members, c.kind), c.missing);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, MissingRequirementsTest,
    ::testing::Values(
        NeedsCase{"EngineComplete", ArtifactKind::engine, kFullEngine, {}},
        NeedsCase{"EngineEmpty",
                  ArtifactKind::engine,
                  {},
                  {"w2v_frontend_cpuAndNE.mlpackage/", "audiotokenizer_cpuAndNE.mlpackage/",
                   "student_v4_forward_frame_cpuAndNE.mlpackage/", "warm.wav"}},
        // A package given as a plain file, and warm.wav only below a directory, do not count.
        NeedsCase{"EngineWrongShapes",
                  ArtifactKind::engine,
                  {"audiotokenizer_cpuAndNE.mlpackage", "extras/warm.wav",
                   "student_v4_forward_frame_cpuAndNE.mlpackage/model.pt",
                   "w2v_frontend_cpuAndNE.mlpackage/model.pt"},
                  {"audiotokenizer_cpuAndNE.mlpackage/", "warm.wav"}},
        NeedsCase{"AvatarComplete",
                  ArtifactKind::avatar,
                  {"canon.f32", "dec_p2_v3_all.mlpackage/model.pt"},
                  {}},
        NeedsCase{"AvatarIdleIsOptionalButCanonIsNot",
                  ArtifactKind::avatar,
                  {"dec_p2_v3_all.mlpackage/model.pt", "idle.mp4"},
                  {"canon.f32"}},
        NeedsCase{"AvatarIsNotAnEngine",
                  ArtifactKind::avatar,
                  kFullEngine,
                  {"dec_p2_v3_all.mlpackage/", "canon.f32"}}),
    [](const ::testing::TestParamInfo<NeedsCase>& p) { return p.param.name; });

struct LabelCase {
  std::string name;
  Names members;
  std::vector<LabelledPath> labels;
};

class LabelFilesTest : public ::testing::TestWithParam<LabelCase> {};

TEST_P(LabelFilesTest, GivesStableUniqueLabels) {
  const LabelCase& c = GetParam();
  EXPECT_EQ(labelFiles(c.members), c.labels);
}

INSTANTIATE_TEST_SUITE_P(
    Rule, LabelFilesTest,
    ::testing::Values(LabelCase{"KnownEngineMembers",
                                kFullEngine,
                                {{"atok", "audiotokenizer_cpuAndNE.mlpackage"},
                                 {"student", "student_v4_forward_frame_cpuAndNE.mlpackage"},
                                 {"w2v", "w2v_frontend_cpuAndNE.mlpackage"},
                                 {"warm", "warm.wav"}}},
                      LabelCase{"KnownAvatarMembers",
                                {"canon.f32", "dec_p2_v3_all.mlpackage/a",
                                 "dec_p2_v3_all.mlpackage/b/c", "idle.mp4", "provenance.json"},
                                {{"canon", "canon.f32"},
                                 {"decp2", "dec_p2_v3_all.mlpackage"},
                                 {"idle", "idle.mp4"},
                                 {"provenance", "provenance.json"}}},
                      LabelCase{"OtherFilesAndPackagesDropLastExtension",
                                {"a.tar.gz", "extra.mlpackage/model.pt", "README", ".env", "x."},
                                {{"a.tar", "a.tar.gz"},
                                 {"extra", "extra.mlpackage"},
                                 {"README", "README"},
                                 {".env", ".env"},
                                 {"x", "x."}}},
                      // Fixed labels are claimed first even when the clashing name sorts earlier.
                      LabelCase{"FixedLabelsWinCollisions",
                                {"canon.bin", "canon.f32", "warm.txt", "warm.wav"},
                                {{"canon-2", "canon.bin"},
                                 {"canon", "canon.f32"},
                                 {"warm-2", "warm.txt"},
                                 {"warm", "warm.wav"}}},
                      LabelCase{"CollisionsNumberedInNameOrder",
                                {"notes-2.txt", "notes.md", "notes.mlpackage/x", "notes.txt"},
                                {{"notes-2", "notes-2.txt"},
                                 {"notes", "notes.md"},
                                 {"notes-3", "notes.mlpackage"},
                                 {"notes-4", "notes.txt"}}},
                      LabelCase{"NestedFilesOutsidePackagesAreLabelledByPath",
                                {"extras/a.bin", "extras/deep/b", "warm.wav"},
                                {{"extras/a.bin", "extras/a.bin"},
                                 {"extras/deep/b", "extras/deep/b"},
                                 {"warm", "warm.wav"}}},
                      LabelCase{"PackageSuffixAloneIsNotAPackage",
                                {".mlpackage/x"},
                                {{".mlpackage/x", ".mlpackage/x"}}}),
    [](const ::testing::TestParamInfo<LabelCase>& p) { return p.param.name; });

const std::string kSha(64, 'a');

struct VerdictCase {
  std::string name;
  Provenance provenance;
  ProvenanceVerdict verdict;
  std::string text;
};

class ProvenanceVerdictTest : public ::testing::TestWithParam<VerdictCase> {};

TEST_P(ProvenanceVerdictTest, JudgesTheBinding) {
  const VerdictCase& c = GetParam();
  EXPECT_EQ(provenanceVerdict(c.provenance), c.verdict);
  EXPECT_EQ(verdictName(c.verdict), c.text);
}

Provenance withStudentSha256(std::string value) {
  Provenance p;
  p.studentSha256 = std::move(value);
  return p;
}

Provenance legacy(std::optional<std::string> studentSha, std::optional<std::string> jnt) {
  Provenance p;
  p.studentSha = std::move(studentSha);
  p.jntSha256 = std::move(jnt);
  return p;
}

INSTANTIATE_TEST_SUITE_P(
    Rule, ProvenanceVerdictTest,
    ::testing::Values(VerdictCase{"StudentSha256Binds", withStudentSha256(kSha),
                                  ProvenanceVerdict::bound, "bound"},
                      VerdictCase{"UpperCaseDoesNotBind", withStudentSha256(std::string(64, 'A')),
                                  ProvenanceVerdict::unstamped, "unstamped"},
                      VerdictCase{"ShortDoesNotBind", withStudentSha256(std::string(63, 'a')),
                                  ProvenanceVerdict::unstamped, "unstamped"},
                      VerdictCase{"StudentShaIsLegacy", legacy("abc123", std::nullopt),
                                  ProvenanceVerdict::legacyBound, "legacy-bound"},
                      VerdictCase{"JointShaIsLegacy", legacy(std::nullopt, kSha),
                                  ProvenanceVerdict::legacyBound, "legacy-bound"},
                      VerdictCase{"EmptyLegacyFieldsDoNotCount", legacy("", ""),
                                  ProvenanceVerdict::unstamped, "unstamped"},
                      VerdictCase{"NothingIsUnstamped", Provenance{}, ProvenanceVerdict::unstamped,
                                  "unstamped"}),
    [](const ::testing::TestParamInfo<VerdictCase>& p) { return p.param.name; });

TEST(ProvenanceVerdictTest, BindingKeyOutranksLegacyFields) {
  Provenance p = legacy("abc", kSha);
  p.studentSha256 = kSha;
  EXPECT_EQ(provenanceVerdict(p), ProvenanceVerdict::bound);
}

}  // namespace
}  // namespace lumora2
