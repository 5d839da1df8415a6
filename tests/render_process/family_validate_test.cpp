// validate on the packed reference family, through the real lumora2-model and the render host it
// hands the command to: its four lines on both avatars, an avatar for another ABI refused first,
// the two sharpness floors, a missing render host, and no temporary directory left behind on any
// path. A damaged member is refused by the render host's staging (family_render_robustness_test).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "family/host_pack.h"
#include "family_fixture.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

// The command's own lines: the report (indented) and the error line, without the engine's log.
std::vector<std::string> reportLines(const std::string& output) {
  std::vector<std::string> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("  ", 0) == 0 || line.rfind("error: ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

class Validate : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!generatedFamily().packed) GTEST_SKIP() << "the family is packed only with the host built";
    ::setenv("TMPDIR", tmp.c_str(), 1);
    ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "validate-cache").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("TMPDIR");
    EXPECT_TRUE(fs::is_empty(tmp)) << "validate left something in its temporary directory";
  }
  ProcessResult validate(const fs::path& avatar, std::vector<std::string> extra = {},
                         const fs::path& host = LUMORA2_MODEL_BIN) {
    std::vector<std::string> argv{host, "validate", avatar, "--engine",
                                  generatedFamily().root / "vivra.model"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runProcess(argv);
  }
  fs::path avatar(const std::string& code) { return generatedFamily().root / (code + ".avatar"); }

  fs::path tmp = scratchDir("validate-tmp");
  fs::path work = scratchDir("validate-work");
};

TEST_F(Validate, BothAvatarsLoadAndRenderUsableIdentities) {
  for (const std::string code : {"ava", "bram"}) {
    const ProcessResult r = validate(avatar(code));
    EXPECT_EQ(r.status, 0) << r.output;
    const std::string name = code == "ava" ? "Ava" : "Bram";
    EXPECT_THAT(
        reportLines(r.output),
        ElementsAre("  manifests OK · ABI 1 compatible · checksums OK",
                    "  warming up (this loads + compiles the graphs)…",
                    MatchesRegex("  rendered 60 frames · sharpness onset=[0-9]+ converged=[0-9]+ "
                                 "mean=[0-9]+"),
                    "  ✓ VALID — " + code + " (" + name +
                        ") loads + renders a usable identity on engine abi 1"))
        << r.output;
  }
}

// A floor not met ends the command with one error line and status 1, after the frames it judged
// were rendered.
struct Floor {
  const char* label;
  std::vector<std::string> extra;  // options after the engine
  const char* expected;            // the start of the error line
};

class ValidateFloor : public Validate, public ::testing::WithParamInterface<Floor> {};

TEST_P(ValidateFloor, RefusesFramesBelowTheFloor) {
  const ProcessResult r = validate(avatar("ava"), GetParam().extra);
  EXPECT_EQ(r.status, 1) << r.output;
  const std::vector<std::string> lines = reportLines(r.output);
  ASSERT_FALSE(lines.empty()) << r.output;
  EXPECT_THAT(lines.back(), StartsWith(GetParam().expected)) << r.output;
  EXPECT_EQ(lines.size(), 4u) << r.output;  // three report lines, then the error
}

INSTANTIATE_TEST_SUITE_P(
    Floors, ValidateFloor,
    ::testing::Values(
        Floor{"mean", {"--min-sharp", "1e9"}, "error: render blank/degenerate: mean "},
        Floor{"onset", {"--onset-ratio", "1.5"}, "error: onset warped/soft: onset "}),
    [](const auto& param) { return std::string(param.param.label); });

TEST_F(Validate, AnAvatarForAnotherAbiIsRefusedBeforeChecksumsOrUnpacking) {
  const fs::path other = work / "ava-abi2.avatar";
  const ProcessResult pack = runProcess(
      {LUMORA2_MODEL_BIN, "pack-avatar", generatedFamily().avatar("ava"), "--code", "ava", "--name",
       "Ava", "--gender", "f", "--persona", "p", "-o", other, "--abi", "2"});
  ASSERT_EQ(pack.status, 0) << pack.output;
  const ProcessResult r = validate(other);
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(reportLines(r.output),
              ElementsAre("error: ABI mismatch: avatar requires engine abi 2, engine is abi 1"));
}

TEST_F(Validate, WithoutTheRenderHostTheCommandSaysWhatIsMissing) {
  const fs::path lone = work / "bin" / "lumora2-model";
  fs::create_directories(lone.parent_path());
  fs::copy_file(LUMORA2_MODEL_BIN, lone);
  const ProcessResult r = validate(avatar("ava"), {}, lone);
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.output, StartsWith("error: rendering needs lumora2-model-render"));
  EXPECT_THAT(r.output, HasSubstr((work / "bin" / "lumora2-model-render").string()));
}

}  // namespace
}  // namespace lumora2::family::test
