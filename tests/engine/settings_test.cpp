// The settings as the environment's knobs make them: the arms (trimmed, lower-cased, unknown
// values refused with a line), the sharpening strength, which compute units a graph runs on, and
// where graph packages are found first (developer directory, then engine directory).
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "compute_unit_choice.h"
#include "engine/engine_settings.h"
#include "model_resolution.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using Knobs = std::map<std::string, std::string, std::less<>>;

EngineSettings settingsOf(const Knobs& knobs) {
  return EngineSettings::fromKnobs([&](std::string_view name) -> std::optional<std::string> {
    auto found = knobs.find(name);
    return found == knobs.end() ? std::nullopt : std::optional<std::string>(found->second);
  });
}

struct ArmCase {
  const char* label;
  Knobs knobs;
  Arm onset;
  std::string ctxSeed;
  const char* refused = nullptr;  // the LUMORA2_ONSET value the line names
};

class Arms : public ::testing::TestWithParam<ArmCase> {};

TEST_P(Arms, AreTrimmedAndLowerCasedAndAnUnknownOneIsRefusedWithALine) {
  testing::StderrCapture capture;
  const EngineSettings s = settingsOf(GetParam().knobs);
  std::vector<std::string> refusal;
  if (GetParam().refused) {
    refusal.push_back(std::string("[vivra] LUMORA2_ONSET=") + GetParam().refused +
                      " is not a recognised arm (known: gpu|gpu_noclamp|prepend|clamp_only) — "
                      "arming the DEFAULT gpu, NOT the pre-09-02 legacy arm. "
                      "LUMORA2_ARM_VALIDATION=v1");
  }
  EXPECT_EQ(testing::logTexts(capture.finish()), refusal);
  EXPECT_EQ(s.process.onset.armed, GetParam().onset.armed);
  EXPECT_EQ(s.process.onset.requested, GetParam().onset.requested);
  EXPECT_EQ(s.process.onset.recognised, GetParam().onset.recognised);
  EXPECT_EQ(s.process.ctxSeed.armed, GetParam().ctxSeed);
}

const Knobs kTrimmed{{"LUMORA2_ONSET", " Prepend\n"}, {"LUMORA2_CTX_SEED", "WARM"}};
const Knobs kUnknown{{"LUMORA2_ONSET", "Sideways"}}, kBlank{{"LUMORA2_ONSET", " "}};
INSTANTIATE_TEST_SUITE_P(
    Values, Arms,
    ::testing::Values(ArmCase{"unset", {}, {"gpu", std::nullopt, true}, "canon"},
                      ArmCase{"trimmed", kTrimmed, {"prepend", "prepend", true}, "warm"},
                      ArmCase{"unknown", kUnknown, {"gpu", "sideways", false}, "canon", "sideways"},
                      ArmCase{"empty", kBlank, {"gpu", "", false}, "canon", "<empty>"}),
    [](const auto& param) { return std::string(param.param.label); });

struct SharpenCase {
  Knobs knobs;
  float amount;
};

class Sharpen : public ::testing::TestWithParam<SharpenCase> {};

TEST_P(Sharpen, ComesFromTheFirstVariableSetAndMustBeAWholeNumber) {
  EXPECT_EQ(settingsOf(GetParam().knobs).sharpen, GetParam().amount);
}

INSTANTIATE_TEST_SUITE_P(
    Values, Sharpen,
    ::testing::Values(SharpenCase{{}, 0.8f}, SharpenCase{{{"VIVRA_SHARPEN", "0.3"}}, 0.3f},
                      SharpenCase{{{"LUMORA2_SHARPEN", "1e-1"}, {"VIVRA_SHARPEN", "0.3"}}, 0.1f},
                      SharpenCase{{{"LUMORA2_SHARPEN", "-1"}}, 0.0f},
                      // Set but not a number: 0.8, and VIVRA_SHARPEN is not asked.
                      SharpenCase{{{"LUMORA2_SHARPEN", "abc"}, {"VIVRA_SHARPEN", "0.3"}}, 0.8f}));

TEST(ComputeUnits, KnobsNameUnitsExactlyAndTheStudentsKnobComesFirst) {
  const EngineSettings s = settingsOf({{"LUMORA2_W2V_CU", "cpuandgpu"},
                                       {"LUMORA2_ATOK_CU", "cpuOnly"},
                                       {"LUMORA2_STUDENT_CU", "all"},
                                       {"LUMORA2_DECP2_V3_CU", "cpuAndGPU"}});
  EXPECT_EQ(ComputeUnitChoice::cuForModel(s, "w2v_frontend"), ComputeUnits::cpuAndNeuralEngine);
  EXPECT_EQ(ComputeUnitChoice::cuForModel(s, "audiotokenizer_x"), ComputeUnits::cpuOnly);
  EXPECT_EQ(ComputeUnitChoice::cuForModel(s, "student_w2v"), ComputeUnits::all);
  EXPECT_EQ(ComputeUnitChoice::cuForModel(s, "other"), ComputeUnits::cpuAndNeuralEngine);
  EXPECT_EQ(ComputeUnitChoice::cuNameFromEnv(s, "LUMORA2_DECP2_V3_CU", "all"), "cpuAndGPU");
  EXPECT_EQ(ComputeUnitChoice::cuNameFromEnv(s, "LUMORA2_W2V_CU", "all"), "all");
}

TEST(ModelResolution, DeveloperDirectoryThenEngineDirectory) {
  testing::Scratch scratch;
  const fs::path lumora2 = scratch.dir() / "lumora2", vivra = scratch.dir() / "vivra";
  auto modelURL = [](EngineSettings settings, const char* name) {
    settings.engineDir = fs::path("/nonexistent-engine-dir");
    return ModelResolution(settings).modelURL(name);
  };
  for (const fs::path& dir : {lumora2, vivra}) fs::create_directories(dir / "m.mlpackage");
  std::ofstream(vivra / "v.mlpackage") << "x";  // any kind of object counts
  // An empty MORVANE_LUMORA2_DIR counts as unset.
  const EngineSettings both = settingsOf(
      {{"MORVANE_LUMORA2_DIR", lumora2.string()}, {"MORVANE_VIVRA_DIR", vivra.string()}});
  const EngineSettings vivraOnly =
      settingsOf({{"MORVANE_LUMORA2_DIR", ""}, {"MORVANE_VIVRA_DIR", vivra.string()}});
  EXPECT_EQ(modelURL(both, "m"), lumora2 / "m.mlpackage");
  EXPECT_EQ(modelURL(both, "v"), std::nullopt);  // only one developer directory is searched
  EXPECT_EQ(modelURL(vivraOnly, "v"), vivra / "v.mlpackage");

  EngineSettings engineOnly = settingsOf({});
  engineOnly.engineDir = vivra;
  EXPECT_EQ(ModelResolution(engineOnly).modelURL("m"), vivra / "m.mlpackage");
  EXPECT_EQ(ModelResolution(engineOnly).modelURL("absent"), std::nullopt);
}

}  // namespace
}  // namespace lumora2
