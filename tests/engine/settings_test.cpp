// The runtime's graph-free services: where packages and resources are found (identity, developer
// and engine directories, then the two bundles beside the running executable), which compute units
// a graph runs on, and log lines that concurrent writers never tear.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "compute_unit_choice.h"
#include "engine/log.h"
#include "engine/lumora2_engine.h"
#include "model_resolution.h"
#include "support/harness.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using testing::Scratch;

void touch(const fs::path& p) {
  fs::create_directories(p.parent_path());
  std::ofstream(p) << "x";
}

TEST(ModelResolution, ModelsSearchEveryDirectoryButResourcesOnlyAnActiveIdentity) {
  Scratch scratch;
  fs::path agent = scratch.dir() / "agent", dev = scratch.dir() / "dev",
           engine = scratch.dir() / "engine";
  fs::create_directories(agent);
  scratch.env().set("MORVANE_VIVRA_DIR", dev.string());
  ModelResolution::setActiveAgentDir(agent);
  ModelResolution::setEngineDir(engine);
  fs::create_directories(engine / "m.mlpackage");
  EXPECT_EQ(ModelResolution::modelURL("m"), engine / "m.mlpackage");
  touch(dev / "m.mlpackage");  // any kind of object counts, a plain file too
  EXPECT_EQ(ModelResolution::modelURL("m"), dev / "m.mlpackage");
  fs::create_directories(agent / "m.mlpackage");
  EXPECT_EQ(ModelResolution::modelURL("m"), agent / "m.mlpackage");
  EXPECT_EQ(ModelResolution::modelURL("absent"), std::nullopt);

  touch(dev / "canon.f32");
  touch(engine / "idle.mp4");
  EXPECT_EQ(ModelResolution::resURL("canon", "f32"), std::nullopt);  // the identity hides dev
  touch(agent / "canon.f32");
  EXPECT_EQ(ModelResolution::resURL("canon", "f32"), agent / "canon.f32");
  ModelResolution::setActiveAgentDir(std::nullopt);
  fs::remove(agent / "canon.f32");
  EXPECT_EQ(ModelResolution::resURL("canon", "f32"), dev / "canon.f32");
  EXPECT_EQ(ModelResolution::resURL("idle", "mp4"), std::nullopt);  // never the engine directory
  ModelResolution::setEngineDir(std::nullopt);
}

TEST(ModelResolution, DevDirPrefersANonEmptyLumora2DirAndExpandsTilde) {
  using Opt = std::optional<std::string>;
  const std::tuple<Opt, Opt, Opt> cases[] = {
      {"/a", "/b", "/a"}, {"", "/b", "/b"}, {"", "", std::nullopt}, {"~/m", "/b", "/home/t/m"}};
  Scratch scratch;
  scratch.env().set("HOME", "/home/t");
  for (const auto& [lumora2, vivra, expected] : cases) {
    scratch.env().set("MORVANE_LUMORA2_DIR", lumora2);
    scratch.env().set("MORVANE_VIVRA_DIR", vivra);
    auto dir = ModelResolution::devDir();
    EXPECT_EQ(dir ? Opt(dir->string()) : std::nullopt, expected) << lumora2.value_or("<unset>");
  }
}

TEST(ComputeUnits, PerGraphKnobsApplyInOrderAndDecoderNamesDefaultToNeuralEngine) {
  testing::EnvOverride env;
  env.set("LUMORA2_STUDENT_CU", "cpuOnly");
  env.set("LUMORA2_W2V_CU", "cpuAndGPU");
  env.set("LUMORA2_ATOK_CU", "all");
  env.set("LUMORA2_SOMETHING_CU", "cpuOnly");
  EXPECT_EQ(ComputeUnitChoice::cuNameFromEnv("LUMORA2_SOMETHING_CU", "all"), "all");  // not a knob
  const std::pair<const char*, ComputeUnits> models[] = {
      {"w2v_student", ComputeUnits::cpuOnly},
      {"audiotokenizer_w2v", ComputeUnits::cpuAndGPU},
      {"audiotokenizer_cpuAndNE", ComputeUnits::all},
      {"AudioTokenizer", ComputeUnits::cpuAndNeuralEngine}};
  for (auto [name, units] : models) EXPECT_EQ(ComputeUnitChoice::cuForModel(name), units) << name;
  EXPECT_EQ(ComputeUnitChoice::cuFromName("cpuAndGPU"), ComputeUnits::cpuAndGPU);
  EXPECT_EQ(ComputeUnitChoice::cuFromName("cpuonly"), ComputeUnits::cpuAndNeuralEngine);
}

}  // namespace
}  // namespace lumora2
