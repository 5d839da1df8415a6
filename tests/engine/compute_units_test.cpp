// Compute-unit choice: the four names matched exactly, the per-graph knobs in their order.
#include <gtest/gtest.h>

#include "engine/lumora2_engine.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

using testing::EnvOverride;

struct NameCase {
  std::optional<std::string> value;  // of LUMORA2_W2V_CU; nothing = unset
  const char* expected;              // cuNameFromEnv(…, "cpuAndNE")
};

class CuNameFromEnv : public ::testing::TestWithParam<NameCase> {};

TEST_P(CuNameFromEnv, KeepsOnlyTheFourExactNames) {
  EnvOverride env({{"LUMORA2_W2V_CU", GetParam().value}});
  EXPECT_EQ(Lumora2Engine::cuNameFromEnv("LUMORA2_W2V_CU", "cpuAndNE"), GetParam().expected);
  auto expectedUnits = computeUnitsNamed(GetParam().expected);
  ASSERT_TRUE(expectedUnits);
  EXPECT_EQ(Lumora2Engine::cuFromEnv("LUMORA2_W2V_CU", ComputeUnits::cpuAndNeuralEngine),
            *expectedUnits);
  EXPECT_EQ(Lumora2Engine::cuForModel("w2v_frontend_cpuAndNE"), *expectedUnits);
}

INSTANTIATE_TEST_SUITE_P(
    Values, CuNameFromEnv,
    ::testing::Values(NameCase{std::nullopt, "cpuAndNE"}, NameCase{"cpuOnly", "cpuOnly"},
                      NameCase{"cpuAndGPU", "cpuAndGPU"}, NameCase{"all", "all"},
                      NameCase{"cpuAndNE", "cpuAndNE"}, NameCase{"cpuandgpu", "cpuAndNE"},
                      NameCase{"ALL", "cpuAndNE"}, NameCase{" all", "cpuAndNE"},
                      NameCase{"cpuOnly\n", "cpuAndNE"}, NameCase{"", "cpuAndNE"},
                      NameCase{"cpuAndNeuralEngine", "cpuAndNE"}));

TEST(CuNameFromEnv, KnobsOffTheAllowListAreNeverRead) {
  EnvOverride env({{"LUMORA2_SOMETHING_CU", "cpuOnly"}});
  EXPECT_EQ(Lumora2Engine::cuNameFromEnv("LUMORA2_SOMETHING_CU", "all"), "all");
}

struct ModelCase {
  const char* name;
  ComputeUnits expected;
};

class CuForModel : public ::testing::TestWithParam<ModelCase> {};

TEST_P(CuForModel, FollowsTheFirstMatchingKnob) {
  EnvOverride env({{"LUMORA2_STUDENT_CU", "cpuOnly"},
                   {"LUMORA2_W2V_CU", "cpuAndGPU"},
                   {"LUMORA2_ATOK_CU", "all"}});
  EXPECT_EQ(Lumora2Engine::cuForModel(GetParam().name), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Names, CuForModel,
    ::testing::Values(ModelCase{"student_v4_forward_frame_cpuAndNE", ComputeUnits::cpuOnly},
                      ModelCase{"w2v_student", ComputeUnits::cpuOnly},
                      ModelCase{"w2v_frontend_cpuAndNE", ComputeUnits::cpuAndGPU},
                      ModelCase{"audiotokenizer_w2v", ComputeUnits::cpuAndGPU},
                      ModelCase{"audiotokenizer_cpuAndNE", ComputeUnits::all},
                      ModelCase{"AudioTokenizer", ComputeUnits::cpuAndNeuralEngine},
                      ModelCase{"dec_p2_v3_all", ComputeUnits::cpuAndNeuralEngine}));

TEST(CuFromName, MapsTheDecoderUnitNamesAndDefaultsToNeuralEngine) {
  EXPECT_EQ(Lumora2Engine::cuFromName("cpuAndGPU"), ComputeUnits::cpuAndGPU);
  EXPECT_EQ(Lumora2Engine::cuFromName("all"), ComputeUnits::all);
  EXPECT_EQ(Lumora2Engine::cuFromName("cpuOnly"), ComputeUnits::cpuOnly);
  for (const char* other : {"cpuAndNE", "gpu", "", "cpuonly"}) {
    EXPECT_EQ(Lumora2Engine::cuFromName(other), ComputeUnits::cpuAndNeuralEngine) << other;
  }
}

}  // namespace
}  // namespace lumora2
