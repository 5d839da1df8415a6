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

}  // namespace
}  // namespace lumora2
