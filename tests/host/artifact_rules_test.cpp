// The provenance verdict as a table: which digests bind an avatar to its student. What each kind
// of staging directory needs is pinned by the golden cases (pack-missing).
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "host/artifact_rules.h"

namespace lumora2 {
namespace {

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

// Only 64 lower-case hexadecimal digits bind; a non-empty legacy field is legacy-bound. The
// legacy fields alone and an empty one are in the golden cases (provenance).
INSTANTIATE_TEST_SUITE_P(
    Rule, ProvenanceVerdictTest,
    ::testing::Values(VerdictCase{kSha, "abc", kSha, ProvenanceVerdict::bound},
                      VerdictCase{std::string(64, 'A'), no, no, ProvenanceVerdict::unstamped},
                      VerdictCase{std::string(63, 'a'), no, no, ProvenanceVerdict::unstamped},
                      VerdictCase{std::string(63, 'a'), no, kSha, ProvenanceVerdict::legacyBound}));

}  // namespace
}  // namespace lumora2
